// SPDX-License-Identifier: Apache-2.0
#include "ini_file.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <utility>

#include "stable_file.h"

namespace mdencoder {
namespace {

void AddEntry(std::vector<IniSection>& sections, ini::Entry entry) {
  if (entry.section.empty()) throw ConfigError("key \"" + entry.key + "\" stands before the first [section]");
  auto section =
      std::find_if(sections.begin(), sections.end(), [&](const IniSection& s) { return s.name == entry.section; });
  if (section == sections.end()) section = sections.insert(section, IniSection{entry.section, {}});
  const auto isSameKey = [&](const ini::Entry& known) { return known.key == entry.key; };
  if (std::any_of(section->entries.begin(), section->entries.end(), isSameKey)) {
    throw ConfigError("[" + entry.section + "] " + entry.key + " = " + entry.value +
                      ": given twice, or continued on an indented line; one line per key is allowed");
  }
  section->entries.push_back(std::move(entry));
}

std::string ReadInput() {
  std::string text{std::istreambuf_iterator<char>(std::cin), {}};
  if (std::cin.bad()) throw std::runtime_error("cannot be read");
  return text;
}

}  // namespace

std::vector<IniSection> ParseIni(const std::string& text) {
  if (const auto fault = ini::FindZeroByte(text)) throw ConfigError(fault->text);
  if (const auto fault = ini::FindSectionFault(text)) {
    throw ConfigError("line " + std::to_string(fault->line) + ": " + fault->text);
  }
  ini::Contents contents = ini::Parse(text);
  if (contents.fault) {
    throw ConfigError("line " + std::to_string(contents.fault->line) + ": " + contents.fault->text);
  }
  std::vector<IniSection> sections;
  for (ini::Entry& entry : contents.entries) AddEntry(sections, std::move(entry));
  return sections;
}

std::vector<IniSection> ReadIni(const std::string& path, std::chrono::milliseconds quiet) {
  std::string text;
  try {
    text = path == "-" ? ReadInput() : ReadStable(path, quiet);
  } catch (const std::runtime_error& error) {
    throw ConfigError(path + ": " + error.what());
  }
  try {
    return ParseIni(text);
  } catch (const ConfigError& error) {
    throw ConfigError(path + ": " + error.what());
  }
}

}  // namespace mdencoder
