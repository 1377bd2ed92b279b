// SPDX-License-Identifier: Apache-2.0
// Escapes text from outside. nlohmann's parser, which accepts only valid UTF-8, decides whether the result is UTF-8.
#include "printable_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

using testing::IsEmpty;

std::string Utf8(uint32_t code) {
  std::string text;
  const auto add = [&](uint32_t byte) { text += static_cast<char>(byte); };
  if (code < 0x80) {
    add(code);
  } else if (code < 0x800) {
    add(0xC0 | code >> 6);
  } else if (code < 0x10000) {
    add(0xE0 | code >> 12);
  } else {
    add(0xF0 | code >> 18);
    add(0x80 | (code >> 12 & 0x3F));
  }
  if (code >= 0x800) add(0x80 | (code >> 6 & 0x3F));
  if (code >= 0x80) add(0x80 | (code & 0x3F));
  return text;
}

std::string Escapes(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    char escape[8];
    snprintf(escape, sizeof(escape), "\\x%02X", static_cast<unsigned>(static_cast<uint8_t>(byte)));
    text += escape;
  }
  return text;
}

bool IsUtf8(const std::string& bytes) {
  return nlohmann::json::accept('"' + bytes + '"');
}

TEST(PrintableText, PrintableUtf8StandsForItself) {
  std::string ascii;
  for (char c = ' '; c < 0x7F; ++c) ascii += c == '\\' ? '/' : c;
  for (const std::string& text : {std::string(), ascii, std::string("Gr\u00FC\u00DFe \u00A0 \u65E5\u672C \U0001F681"),
                                  Utf8(0x10FFFD), Utf8(0xD7FF), Utf8(0xE000), Utf8(0xFFFD)}) {
    EXPECT_EQ(PrintableText(text), text);
  }
}

TEST(PrintableText, ControlsAreEscaped) {
  EXPECT_EQ(PrintableText("a\nb\rc\td"), "a\\nb\\rc\\td");
  for (uint32_t code = 0; code < 0x20; ++code) {
    if (code == '\n' || code == '\r' || code == '\t') continue;
    EXPECT_EQ(PrintableText(Utf8(code)), Escapes(Utf8(code))) << code;
  }
  for (uint32_t code = 0x7F; code < 0xA0; ++code) EXPECT_EQ(PrintableText(Utf8(code)), Escapes(Utf8(code))) << code;
  EXPECT_EQ(PrintableText("\u009B2J"), "\\xC2\\x9B2J");
  EXPECT_EQ(PrintableText("\x9B"
                          "2J"),
            "\\x9B2J");
}

TEST(PrintableText, TheBackslashIsEscapedSoThatNoTextLooksLikeAnEscape) {
  EXPECT_EQ(PrintableText("\\"), "\\\\");
  EXPECT_EQ(PrintableText("\\n \\x1B"), "\\\\n \\\\x1B");
  EXPECT_NE(PrintableText("\\n"), PrintableText("\n"));
}

TEST(PrintableText, WhatTurnsHidesOrBreaksALineIsEscaped) {
  for (const uint32_t code :
       {0x061CU, 0x200EU, 0x200FU, 0x2028U, 0x2029U, 0x202AU, 0x202BU, 0x202CU, 0x202DU, 0x202EU,  0x2066U, 0x2067U,
        0x2068U, 0x2069U, 0x00ADU, 0x200BU, 0x200DU, 0x2060U, 0xFEFFU, 0xFFFBU, 0xFFFEU, 0x1FFFFU, 0xFDD0U, 0xE0041U}) {
    EXPECT_EQ(PrintableText("a" + Utf8(code) + "b"), "a" + Escapes(Utf8(code)) + "b") << std::hex << code;
  }
}

TEST(PrintableText, WhatIsNoUtf8IsEscapedByteByByte) {
  const std::vector<std::string> bad = {
      "\x80",  // continuation without a start
      "\xC0\xAF",
      "\xE0\x80\xAF",  // over-long
      "\xF0\x80\x80\xAF",
      "\xC1\xBF",  // over-long
      "\xED\xA0\x80",
      "\xED\xBF\xBF",  // surrogates
      "\xF4\x90\x80\x80",
      "\xF5\x80",  // above U+10FFFF
      "\xF8\x88\x80\x80",
      "\xFE",
      "\xFF"  // no start at all
  };
  for (const std::string& bytes : bad) EXPECT_EQ(PrintableText("<" + bytes + ">"), "<" + Escapes(bytes) + ">");
}

TEST(PrintableText, ACutCharacterIsEscapedAndTheNextOneStands) {
  EXPECT_EQ(PrintableText("\xC3"), "\\xC3");
  EXPECT_EQ(PrintableText("\xE2\x82"), "\\xE2\\x82");
  EXPECT_EQ(PrintableText("\xF0\x9F\x9A"), "\\xF0\\x9F\\x9A");
  EXPECT_EQ(PrintableText("\xE2\x82\u00E9"), "\\xE2\\x82\u00E9");
  EXPECT_EQ(PrintableText("\xF0\n"), "\\xF0\\n");
}

TEST(PrintableText, TheBytesThatStandAreThoseThatAnotherReaderTakes) {
  std::vector<std::string> wrong;
  const auto compare = [&](const std::string& bytes) {
    std::string text = PrintableText(bytes);
    const bool isRight = IsUtf8(bytes) ? text == bytes || text == Escapes(bytes) : text != bytes;
    std::erase(text, '\\');
    if (!isRight || !IsUtf8(text)) wrong.push_back(Escapes(bytes));
  };
  const int edges[] = {0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0};
  const auto character = [](int byte) { return static_cast<char>(byte); };
  for (int first = 0x80; first < 0x100; ++first) {
    for (const int second : edges) {
      const std::string two = {character(first), character(second)};
      compare(two);
      for (const int third : edges) {
        compare(two + character(third));
        if (first < 0xE0) continue;
        for (const int fourth : edges) compare(two + character(third) + character(fourth));
      }
    }
  }
  EXPECT_THAT(wrong, IsEmpty());
}

}  // namespace
