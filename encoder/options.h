// SPDX-License-Identifier: Apache-2.0
// The command line.
#ifndef MDENCODER_OPTIONS_H
#define MDENCODER_OPTIONS_H

#include <string>
#include <utility>
#include <vector>

namespace mdencoder {

enum class Check { None, Text, All };

struct Options {
  std::string config;         // path of the INI file, "-" for the standard input
  Check check = Check::None;  // if any: check and exit
  // Keys of the [encoder] section, with their values.
  std::vector<std::pair<std::string, std::string>> overrides;
};

// Fills `options` and returns -1. For help or a mistake it prints a text and returns the exit code, 0 or 2.
int ParseOptions(int argc, const char* const* argv, Options& options);

}  // namespace mdencoder

#endif
