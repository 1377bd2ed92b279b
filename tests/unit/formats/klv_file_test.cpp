// SPDX-License-Identifier: Apache-2.0
#include "klv_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "st0601_items.h"

namespace klv_file {
namespace {

using testing::ElementsAre;

Bytes Klv(size_t size, uint8_t fill) {
  Bytes bytes = {0x06, 0x0E, 0x2B, 0x34, 2, 0x0B, 1, 1, 0x0E, 1, 3, 1, 1, 0, 0, 0, static_cast<uint8_t>(size)};
  bytes.insert(bytes.end(), size, fill);
  return bytes;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const Bytes kHeader = {0, 7, 0xDF, 0, 20};

struct Walk {
  std::vector<uint64_t> offsets;
  std::vector<Bytes> messages;
  uint64_t skipped;
};
// Feeds the file in pieces of a size.
Walk WalkOf(const Bytes& file, size_t piece, bool hasHeaders = false) {
  Walker walker(hasHeaders);
  Walk walk{};
  for (size_t at = 0; at <= file.size(); at += piece) {
    walker.Push(ByteView(file).subspan(at, std::min(piece, file.size() - at)));
    if (at + piece > file.size()) walker.Finish();
    while (const auto found = walker.Pop()) {
      walk.offsets.push_back(found->offset);
      walk.messages.emplace_back(found->klv.begin(), found->klv.end());
    }
  }
  walk.skipped = walker.Skipped();
  return walk;
}

TEST(KlvFile, MessagesAreFoundInPiecesOfAnySize) {
  const Bytes file = Klv(3, 1) + Klv(100, 2) + Klv(0, 3);
  for (const size_t piece : std::vector<size_t>{1, 2, 5, 17, 1000}) {
    const Walk walk = WalkOf(file, piece);
    EXPECT_THAT(walk.offsets, ElementsAre(0, 20, 137)) << piece;
    EXPECT_THAT(walk.messages, ElementsAre(Klv(3, 1), Klv(100, 2), Klv(0, 3))) << piece;
    EXPECT_EQ(walk.skipped, 0u) << piece;
  }
}

TEST(KlvFile, WhatIsNoMessageIsSkippedAndCounted) {
  Bytes truncated = Klv(100, 2);
  truncated.resize(60);
  for (const size_t piece : std::vector<size_t>{1, 7, 1000}) {
    const Walk walk = WalkOf(Bytes(9, 6) + Klv(3, 1) + Bytes(40, 0x0E) + Klv(4, 2) + truncated, piece);
    EXPECT_THAT(walk.messages, ElementsAre(Klv(3, 1), Klv(4, 2))) << piece;
    EXPECT_THAT(walk.offsets, ElementsAre(9, 69)) << piece;
    EXPECT_EQ(walk.skipped, 9u + 40 + 60) << piece;
  }
}

TEST(KlvFile, ALengthThatReachesBeyondTheEndHidesNoMessage) {
  Bytes liar = Klv(0, 0);
  liar.back() = 0x7F;
  EXPECT_THAT(WalkOf(liar + Klv(3, 1), 1000).messages, ElementsAre(Klv(3, 1)));
}

TEST(KlvFile, StreamHeadersStandInFront) {
  const Bytes file = kHeader + Klv(3, 1) + Bytes(2, 9) + kHeader + Klv(4, 2) + Klv(5, 3);
  for (const size_t piece : std::vector<size_t>{1, 6, 1000}) {
    const Walk walk = WalkOf(file, piece, true);
    EXPECT_THAT(walk.offsets, ElementsAre(0, 27, 53)) << piece;
    EXPECT_THAT(walk.messages, ElementsAre(Klv(3, 1), Klv(4, 2), Klv(5, 3))) << piece;
    EXPECT_EQ(walk.skipped, 2u) << piece;
  }
  bool hasHeaders = false;
  EXPECT_TRUE(BeginsWithKlv(file, &hasHeaders));
  EXPECT_TRUE(hasHeaders);
  EXPECT_TRUE(BeginsWithKlv(Klv(1, 1), &hasHeaders));
  EXPECT_FALSE(hasHeaders);
  EXPECT_FALSE(BeginsWithKlv(Bytes(50, 0x47), &hasHeaders));
  EXPECT_FALSE(BeginsWithKlv({}, &hasHeaders));
}

TEST(KlvFile, TheTimeIsThatOfItem2) {
  st0601::Builder builder;
  builder.AddWhole(2, 1'224'807'209'913'000);
  EXPECT_EQ(TimeOf(builder.Finish()), 1'224'807'209'913'000);
  EXPECT_EQ(TimeOf(Klv(3, 1)), std::nullopt);
  EXPECT_EQ(TimeOf({}), std::nullopt);
}

TEST(KlvFile, AnIndexIsReadLineByLine) {
  EXPECT_TRUE(ParseIndexHeader(R"({"type":"recording index","version":1,"recording":"a.klv","stream_header":true})")
                  ->hasStreamHeaders);
  EXPECT_FALSE(ParseIndexHeader(R"({"type":"recording index","version":1})")->hasStreamHeaders);
  EXPECT_FALSE(ParseIndexHeader(R"({"type":"recording index","version":2})"));
  EXPECT_FALSE(ParseIndexHeader("{}"));
  const auto line = ParseIndexLine(R"({"offset":213,"length":20,"time":1714558830223461,"timestamp":90000})");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->offset, 213u);
  EXPECT_EQ(line->timeUs, 1'714'558'830'223'461);
  EXPECT_EQ(line->timestamp, 90'000u);
  EXPECT_EQ(ParseIndexLine(R"({"offset":0,"length":1,"time":2})")->timestamp, std::nullopt);
  for (const char* bad : {"", "[]", R"({"offset":0,"length":1})", R"({"offset":-1,"length":1,"time":2})",
                          R"({"offset":0,"length":1,"time":18446744073709551615})", R"({"offset":0,"leng)"}) {
    EXPECT_FALSE(ParseIndexLine(bad)) << bad;
  }
  EXPECT_FALSE(ParseIndexLine("{\"offset\":0,\"length\":1,\"time\":2" + std::string(kLongestIndexLine, ' ') + "}"));
}

}  // namespace
}  // namespace klv_file
