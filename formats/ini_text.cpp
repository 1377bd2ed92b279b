// SPDX-License-Identifier: Apache-2.0
#include "ini_text.h"

#include <ini.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <utility>

namespace ini {
namespace {

struct Reading {
  std::string_view rest;
  int line = 0;  // of the line handed out last
  Contents contents;
};

void Report(Reading& reading, int line, std::string text) {
  if (!reading.contents.fault) reading.contents.fault = Fault{line, std::move(text)};
}

// libinih calls the next two functions. It is written in C, so nothing may be thrown through it.

// Hands out the next line with its end, as fgets does: `size` - 1 characters at most. The limit in the text is that of
// a line that ends with two characters.
char* ReadLine(char* buffer, int size, void* user) noexcept {
  auto& reading = *static_cast<Reading*>(user);
  if (reading.rest.empty()) return nullptr;
  ++reading.line;
  const auto room = static_cast<size_t>(size) - 1;
  const size_t end = std::min(reading.rest.find('\n'), reading.rest.size() - 1) + 1;
  if (end > room) {
    Report(reading, reading.line, "line too long, at most " + std::to_string(size - 3) + " characters are allowed");
    return nullptr;
  }
  buffer[reading.rest.copy(buffer, end)] = '\0';
  reading.rest.remove_prefix(end);
  return buffer;
}

int AddEntry(void* user, const char* section, const char* key, const char* value) noexcept {
  auto& reading = *static_cast<Reading*>(user);
  reading.contents.entries.push_back({section, key, value == nullptr ? "" : value, reading.line});
  return 1;
}

}  // namespace

Contents Parse(std::string_view text) {
  Reading reading;
  reading.rest = text;
  const int line = ini_parse_stream(ReadLine, &reading, AddEntry, &reading);
  if (line > 0 && (!reading.contents.fault || line < reading.contents.fault->line)) {
    reading.contents.fault = Fault{line, "neither [section] nor key = value"};
  }
  return std::move(reading.contents);
}

std::optional<Fault> FindZeroByte(std::string_view text) {
  const size_t at = text.find('\0');
  if (at == std::string_view::npos) return std::nullopt;
  const auto line = std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(at), '\n') + 1;
  return Fault{static_cast<int>(line), "contains a zero byte; a text file is expected"};
}

std::optional<Fault> FindSectionFault(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  for (int line = 1; !text.empty(); ++line) {
    const std::string_view whole = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(whole.size() + 1, text.size()));
    const size_t begin = whole.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos || whole[begin] != '[') continue;
    const size_t end = whole.find(']', begin);
    if (end == std::string_view::npos) continue;
    if (end - begin - 1 > size_t{kLongestSection}) {
      return Fault{
          line, "name of a section too long, at most " + std::to_string(kLongestSection) + " characters are allowed"};
    }
    const size_t behind = whole.find_first_not_of(kBlanks, end + 1);
    if (behind != std::string_view::npos && whole[behind] != ';' && whole[behind] != '#') {
      return Fault{line, "text behind [section]; a section stands on a line of its own"};
    }
  }
  return std::nullopt;
}

std::string Beside(const std::string& iniPath, const std::string& name) {
  if (name.empty() || name.find("://") != std::string::npos) return name;
  const std::filesystem::path path(name);
  if (path.is_absolute()) return name;
  return (std::filesystem::path(iniPath).parent_path() / path).lexically_normal().string();
}

}  // namespace ini
