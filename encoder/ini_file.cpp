// SPDX-License-Identifier: Apache-2.0
#include "ini_file.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <istream>
#include <iterator>
#include <utility>

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

}  // namespace

std::vector<IniSection> ParseIni(const std::string& text) {
  if (const auto fault = ini::FindZeroByte(text)) throw ConfigError(fault->text);
  ini::Contents contents = ini::Parse(text);
  if (contents.fault) {
    throw ConfigError("line " + std::to_string(contents.fault->line) + ": " + contents.fault->text);
  }
  std::vector<IniSection> sections;
  for (ini::Entry& entry : contents.entries) AddEntry(sections, std::move(entry));
  return sections;
}

std::vector<IniSection> ReadIni(const std::string& path) {
  std::ifstream file;
  if (path != "-") {
    file.open(path, std::ios::binary);
    if (!file) throw ConfigError(path + ": cannot be read");
  }
  std::istream& in = path == "-" ? std::cin : file;
  const std::string text{std::istreambuf_iterator<char>(in), {}};
  if (in.bad() || (path != "-" && file.bad())) throw ConfigError(path + ": cannot be read");
  try {
    return ParseIni(text);
  } catch (const ConfigError& error) {
    throw ConfigError(path + ": " + error.what());
  }
}

}  // namespace mdencoder
