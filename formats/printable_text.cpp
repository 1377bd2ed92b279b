// SPDX-License-Identifier: Apache-2.0
#include "printable_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace {

// One character, or a byte that does not begin one: size is then 1 and isCharacter false.
struct Decoded {
  bool isCharacter = false;
  size_t size = 1;
  uint32_t code = 0;
};

Decoded DecodeFirst(std::string_view bytes) {
  const auto at = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
  const uint8_t first = at(0);
  if (first < 0x80) return {true, 1, first};
  // The lowest code of each size; a code below it is over-long.
  static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const size_t size = (first & 0xE0) == 0xC0 ? 2 : (first & 0xF0) == 0xE0 ? 3 : (first & 0xF8) == 0xF0 ? 4 : 0;
  if (size == 0 || bytes.size() < size) return {};
  uint32_t code = first & (0x7FU >> size);
  for (size_t i = 1; i < size; ++i) {
    if ((at(i) & 0xC0) != 0x80) return {};
    code = code << 6 | (at(i) & 0x3FU);
  }
  const bool isSurrogate = code >= 0xD800 && code < 0xE000;
  if (code < kLeast[size] || code > 0x10FFFF || isSurrogate) return {};
  return {true, size, code};
}

struct Range {
  uint32_t first;
  uint32_t last;
};
constexpr Range kNotPrintable[] = {
    {0x00, 0x1F},        // C0
    {0x5C, 0x5C},        // the backslash
    {0x7F, 0x9F},        // DEL, C1
    {0xAD, 0xAD},        // soft hyphen
    {0x61C, 0x61C},      // Arabic letter mark
    {0x180E, 0x180E},    // Mongolian vowel separator
    {0x200B, 0x200F},    // zero-width characters, left-to-right and right-to-left mark
    {0x2028, 0x202E},    // line and paragraph separator, bidirectional embeddings and overrides
    {0x2060, 0x206F},    // word joiner, invisible operators, bidirectional isolates, deprecated controls
    {0xFDD0, 0xFDEF},    // noncharacters; so are the last two of each plane
    {0xFEFF, 0xFEFF},    // byte order mark
    {0xFFF9, 0xFFFB},    // interlinear annotation
    {0x1BCA0, 0x1BCA3},  // shorthand controls
    {0x1D173, 0x1D17A},  // musical controls
    {0xE0000, 0xE007F},  // tags
};

bool IsPrintable(uint32_t code) {
  if ((code & 0xFFFE) == 0xFFFE) return false;
  return std::none_of(std::begin(kNotPrintable), std::end(kNotPrintable),
                      [code](const Range& range) { return code >= range.first && code <= range.last; });
}

void AppendEscape(std::string& text, uint8_t byte) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  switch (byte) {
    case '\n':
      text += "\\n";
      break;
    case '\r':
      text += "\\r";
      break;
    case '\t':
      text += "\\t";
      break;
    case '\\':
      text += "\\\\";
      break;
    default:
      text += "\\x";
      text += kDigits[byte >> 4];
      text += kDigits[byte & 15];
  }
}

}  // namespace

std::string PrintableText(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const Decoded decoded = DecodeFirst(bytes);
    if (decoded.isCharacter && IsPrintable(decoded.code)) {
      text += bytes.substr(0, decoded.size);
    } else {
      for (const char byte : bytes.substr(0, decoded.size)) AppendEscape(text, static_cast<uint8_t>(byte));
    }
    bytes.remove_prefix(decoded.size);
  }
  return text;
}
