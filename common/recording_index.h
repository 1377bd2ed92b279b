// SPDX-License-Identifier: Apache-2.0
// The index beside a recording (docs/formats/recording_index.md), read in the order of the file.
#ifndef COMMON_RECORDING_INDEX_H
#define COMMON_RECORDING_INDEX_H

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>

#include "klv_file.h"

namespace common {

class RecordingIndex {
 public:
  // An index that is not there, or is none, has no header and no lines.
  explicit RecordingIndex(const std::string& path) : m_file(path) {
    std::string line;
    if (!ReadLine(&line)) return;
    m_header = klv_file::ParseIndexHeader(line);
  }

  const std::optional<klv_file::IndexHeader>& Header() const { return m_header; }

  // Returns the line of the message at an offset, which must not decrease from call to call.
  std::optional<klv_file::IndexLine> Find(uint64_t offset) {
    std::string line;
    while (m_header && (!m_line || m_line->offset < offset) && ReadLine(&line)) {
      const auto parsed = klv_file::ParseIndexLine(line);
      if (parsed) m_line = parsed;
    }
    return m_line && m_line->offset == offset ? m_line : std::nullopt;
  }

 private:
  // A line that is too long comes out empty.
  bool ReadLine(std::string* line) {
    line->clear();
    char character = 0;
    bool isAny = false;
    while (m_file.get(character)) {
      isAny = true;
      if (character == '\n') break;
      if (line->size() <= klv_file::kLongestIndexLine) line->push_back(character);
    }
    if (line->size() > klv_file::kLongestIndexLine) line->clear();
    return isAny;
  }

  std::ifstream m_file;
  std::optional<klv_file::IndexHeader> m_header;
  std::optional<klv_file::IndexLine> m_line;
};

}  // namespace common

#endif  // COMMON_RECORDING_INDEX_H
