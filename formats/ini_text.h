// SPDX-License-Identifier: Apache-2.0
// INI text: sections, keys and values, and the lines on which they stand. No I/O.
#ifndef INI_TEXT_H
#define INI_TEXT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ini {

struct Entry {
  std::string section;  // empty in front of the first [section]
  std::string key;
  std::string value;  // without the blanks around it and without a comment
  int line = 0;       // counted from 1
};

struct Fault {
  int line = 0;
  std::string text;
};

struct Contents {
  std::vector<Entry> entries;  // in the order of the text
  std::optional<Fault> fault;  // the first one
};

// Reads "[section]", "key = value" and comments: lines that begin with ";" or "#", and the rest of a line behind " ;".
// An indented line continues the value above it, and gives another entry with the same key. Reading goes on after a
// line that is none of these, and ends at a line that is too long. A zero byte hides the rest of its line.
Contents Parse(std::string_view text);

// Returns the fault of a text that holds a zero byte. Parse does not report it, because a file that somebody else
// maintains is read as far as possible; a program's own configuration should be refused.
std::optional<Fault> FindZeroByte(std::string_view text);

// The reader cuts a longer name of a section, so that two sections may become one.
constexpr int kLongestSection = 49;
// Returns the fault of a text that holds a longer one, or text behind "[section]", which the reader does not look at. Parse
// does not report them, for the same reason.
std::optional<Fault> FindSectionFault(std::string_view text);

// Returns the path of a file that the INI file `iniPath` names: relative names are relative to the folder of the INI
// file. URLs and empty names stay as they are.
std::string Beside(const std::string& iniPath, const std::string& name);

}  // namespace ini

#endif  // INI_TEXT_H
