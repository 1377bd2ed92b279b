// SPDX-License-Identifier: Apache-2.0
// Reading an INI file into sections, in the order of the file.
#ifndef MDENCODER_INI_FILE_H
#define MDENCODER_INI_FILE_H

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "ini_text.h"

namespace mdencoder {

// A fault of the configuration; what() is one line that names the place, the value and what is allowed.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct IniSection {
  std::string name;
  std::vector<ini::Entry> entries;  // each key once
};

// Throws ConfigError for a line that cannot be read, a key outside a section and a key given twice. The lines of a
// section may stand in several places of the text.
std::vector<IniSection> ParseIni(const std::string& text);
// Does the same for a file, which is read whole into memory before; "-" is the standard input. `quiet` is how long the
// file must not have been written (stable_file.h).
std::vector<IniSection> ReadIni(const std::string& path, std::chrono::milliseconds quiet = {});

}  // namespace mdencoder

#endif  // MDENCODER_INI_FILE_H
