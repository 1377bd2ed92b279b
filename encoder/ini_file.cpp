#include "ini_file.h"

#include <ini.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace mdencoder {
namespace {

constexpr size_t kLongestLine = 198;  // what the INI library's line buffer holds

struct Collector {
  std::vector<IniSection> sections;
  std::string error;
};

int Collect(void* user, const char* section, const char* name, const char* value) {
  auto& collector = *static_cast<Collector*>(user);
  if (!collector.error.empty()) return 1;
  if (section[0] == '\0') {
    collector.error = std::string("key \"") + name + "\" stands before the first [section]";
    return 1;
  }
  auto& sections = collector.sections;
  auto it = std::find_if(sections.begin(), sections.end(), [&](const IniSection& s) { return s.name == section; });
  if (it == sections.end()) it = sections.insert(it, IniSection{section, {}});
  for (const auto& [known, known_value] : it->values) {
    if (known == name) {
      collector.error = std::string("[") + section + "] " + name + " = " + value +
                        ": given twice, or continued on an "
                        "indented line; one line per key is allowed";
      return 1;
    }
  }
  it->values.emplace_back(name, value);
  return 1;
}

void CheckLineLengths(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (line.size() > kLongestLine) {
      throw ConfigError("line " + std::to_string(number) + ": " + std::to_string(line.size()) +
                        " characters: allowed are up to " + std::to_string(kLongestLine));
    }
  }
}

}  // namespace

std::vector<IniSection> ParseIni(const std::string& text) {
  CheckLineLengths(text);
  if (text.find('\0') != std::string::npos) throw ConfigError("a zero byte: allowed is text");
  Collector collector;
  const int line = ini_parse_string(text.c_str(), Collect, &collector);
  if (!collector.error.empty()) throw ConfigError(collector.error);
  if (line != 0) {
    throw ConfigError("line " + std::to_string(line) + ": allowed are \"[section]\", \"key = value\" and comments");
  }
  return std::move(collector.sections);
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
