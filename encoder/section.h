// SPDX-License-Identifier: Apache-2.0
// One section of the configuration: typed reading of its keys, with faults that say what would have been allowed.
#ifndef MDENCODER_SECTION_H
#define MDENCODER_SECTION_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include "ini_file.h"

namespace mdencoder {

// The line of an entry that the command line gave. Its names of files are relative to the working directory.
constexpr int kCommandLine = 0;

class Section {
 public:
  // Throws ConfigError for a key that is not among `known`. Names of files are relative to the folder of `iniPath`.
  Section(const IniSection& section, std::span<const std::string_view> known, std::string iniPath);

  const std::string& Name() const { return m_section.name; }
  // Returns the value, if the key is given, and marks the key as used.
  const std::string* Find(std::string_view key);

  // Each reads one key: without it they return "" or `otherwise`, and they throw ConfigError for a value that is not
  // allowed.
  std::string Text(std::string_view key, size_t longest);
  std::string Path(std::string_view key);
  int64_t Number(std::string_view key, int64_t lowest, int64_t highest, int64_t otherwise);
  double Real(std::string_view key, double lowest, double highest, double otherwise);
  bool Switch(std::string_view key, bool otherwise);
  // Returns the position of the value among `choices`.
  int Choice(std::string_view key, std::span<const std::string_view> choices, int otherwise);

  // Throws ConfigError: the key must be `allowed`, not `value`.
  [[noreturn]] void Fail(std::string_view key, std::string_view value, std::string_view allowed) const;
  // Returns the first key that was not read, or nullptr.
  const std::string* UnusedKey() const;

 private:
  const ini::Entry* FindEntry(std::string_view key);

  const IniSection& m_section;
  const std::string m_iniPath;
  std::set<std::string, std::less<>> m_used;
};

// "serial, udp, video"
std::string Join(std::span<const std::string_view> words);

}  // namespace mdencoder

#endif  // MDENCODER_SECTION_H
