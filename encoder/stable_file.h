// SPDX-License-Identifier: Apache-2.0
// Reading a file that another program may be replacing.
#ifndef MDENCODER_STABLE_FILE_H
#define MDENCODER_STABLE_FILE_H

#include <chrono>
#include <string>

namespace mdencoder {

// Reads a file whole, from one descriptor. A file that was replaced by a rename meanwhile gives the old or the new text.
// One that was written in place meanwhile is read again. If `quiet` is not zero, the file must also not have been
// written for that time, so that a pause of its writer is not taken for its end. Something else than a regular file, as
// a pipe, is read to its end.
//
// Throws std::runtime_error with the reason, without the path: the file cannot be read, or keeps changing for two seconds.
std::string ReadStable(const std::string& path, std::chrono::milliseconds quiet = {});

// Tells whether there is a regular file, which can be read a second time.
bool IsRegularFile(const std::string& path);

}  // namespace mdencoder

#endif  // MDENCODER_STABLE_FILE_H
