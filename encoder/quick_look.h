// SPDX-License-Identifier: Apache-2.0
// The commands `mdencoder inspect` and `mdencoder decode`, which need neither a configuration nor the library.
#ifndef MDENCODER_QUICK_LOOK_H
#define MDENCODER_QUICK_LOOK_H

#include <optional>

namespace mdencoder {

// Runs the command that the command line names, and returns the exit code: 0 if there were messages and no faults, 1 if
// not, 2 for a mistake in the command line. Returns nothing if it names none.
std::optional<int> RunQuickLook(int argc, const char* const* argv);

}  // namespace mdencoder

#endif  // MDENCODER_QUICK_LOOK_H
