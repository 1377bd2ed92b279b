// SPDX-License-Identifier: Apache-2.0
// Messages are found in any pieces, behind any bytes, and where others are damaged.
#include "klv_walk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <utility>
#include <vector>

#include "st0601_items.h"

namespace {

using st0601::Builder;
using st0601::Bytes;
using testing::ElementsAre;
using testing::IsEmpty;

Bytes Message(int number) {
  return Builder().AddWhole(2, number).Finish();
}

Bytes Joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

struct Result {
  std::vector<std::pair<uint64_t, size_t>> messages;  // offset and size
  std::vector<std::optional<uint8_t>> sequences;
  uint64_t skipped = 0;
  uint64_t runs = 0;
  uint64_t cut = 0;
  bool operator==(const Result&) const = default;
};

Result WalkOver(const Bytes& bytes, size_t piece) {
  Result result;
  klv_walk::Walk walk([&result](const klv_walk::Found& found) {
    result.messages.emplace_back(found.offset, found.message.size());
    result.sequences.push_back(found.sequence);
    return st0601::Parse(found.message).isComplete;
  });
  for (size_t at = 0; at < bytes.size(); at += piece) {
    walk.Push(klv_walk::ByteView(bytes).subspan(at, std::min(piece, bytes.size() - at)));
  }
  walk.Finish();
  result.skipped = walk.Skipped();
  result.runs = walk.Runs();
  result.cut = walk.Cut();
  EXPECT_EQ(walk.Bytes(), bytes.size());
  return result;
}

// The result must not depend on the pieces.
Result WalkInAllPieces(const Bytes& bytes) {
  const Result whole = WalkOver(bytes, bytes.size() + 1);
  for (const size_t piece : std::vector<size_t>{1, 2, 3, 7, 16, 17, 40})
    EXPECT_EQ(WalkOver(bytes, piece), whole) << piece;
  return whole;
}

TEST(KlvWalk, FindsMessagesThatFollowEachOther) {
  const size_t size = Message(1).size();
  const Result result = WalkInAllPieces(Joined({Message(1), Message(2), Message(3)}));
  EXPECT_THAT(result.messages, ElementsAre(std::pair(0u, size), std::pair(size, size), std::pair(2 * size, size)));
  EXPECT_EQ(result.skipped + result.runs + result.cut, 0u);
}

TEST(KlvWalk, CountsWhatBelongsToNoMessage) {
  const Result result = WalkInAllPieces(Joined({{1, 2, 3}, Message(1), {0x06, 0x0E, 0x2B}, Message(2), {9, 9}}));
  EXPECT_EQ(result.messages.size(), 2u);
  EXPECT_EQ(result.skipped, 8u);
  EXPECT_EQ(result.runs, 3u);
}

TEST(KlvWalk, KnowsTheHeadersInFrontOfMessages) {
  const auto size = static_cast<uint8_t>(Message(1).size());
  const Bytes recorded = {0, 7, 0xDF, 1, 2};  // the length of a datagram, which may differ
  const Bytes unit = {0xFC, 8, 0xCF, 0, size};
  const Result result = WalkInAllPieces(Joined({recorded, Message(1), unit, Message(2), {5, 5, 5, 5, 5}, Message(3)}));
  EXPECT_THAT(result.sequences, ElementsAre(std::optional<uint8_t>(7), std::optional<uint8_t>(8), std::nullopt));
  EXPECT_EQ(result.skipped, 5u);
}

TEST(KlvWalk, AWrongLengthCostsOneMessage) {
  Bytes damaged = Message(1);
  damaged[16] = 100;  // reaches into the third message
  const Result result = WalkInAllPieces(Joined({damaged, Message(2), Message(3), Message(4), Message(5)}));
  const size_t size = Message(1).size();
  ASSERT_EQ(result.messages.size(), 5u);
  EXPECT_EQ(result.messages[0].second, 117u);
  for (size_t i = 1; i < 5; ++i) EXPECT_EQ(result.messages[i], std::pair(i * size, size));
}

TEST(KlvWalk, LengthsThatAreNoneAreSkipped) {
  for (const Bytes& length : {Bytes{0x80}, Bytes{0x85, 0, 0, 0, 0, 1}, Bytes{0x84, 0xFF, 0xFF, 0xFF, 0xFF}}) {
    Bytes damaged = Message(1);
    damaged.resize(16);
    damaged.insert(damaged.end(), length.begin(), length.end());
    const Result result = WalkInAllPieces(Joined({damaged, Message(2)}));
    EXPECT_THAT(result.messages, ElementsAre(std::pair(damaged.size(), Message(2).size())));
    EXPECT_EQ(result.skipped, damaged.size());
  }
}

TEST(KlvWalk, TheEndCutsAMessageAndFindsThoseInIt) {
  Bytes cut = Message(1);
  cut.pop_back();
  EXPECT_EQ(WalkInAllPieces(cut).cut, 1u);
  EXPECT_THAT(WalkInAllPieces(cut).messages, IsEmpty());
  Bytes tooLong = Message(1);
  tooLong[16] = 127;
  const Result result = WalkInAllPieces(Joined({tooLong, Message(2)}));
  EXPECT_EQ(result.cut, 1u);
  EXPECT_THAT(result.messages, ElementsAre(std::pair(tooLong.size(), Message(2).size())));
}

TEST(KlvWalk, NothingIsInNothing) {
  EXPECT_EQ(WalkInAllPieces({}), Result{});
  EXPECT_EQ(WalkInAllPieces(Bytes(1000, 0x06)).skipped, 1000u);
}

TEST(KlvWalk, HostileLengthsHoldNoMoreThanTheLimit) {
  Bytes many;
  for (int i = 0; i < 10000; ++i) {
    const Bytes claim = {0x06, 0x0E, 0x2B, 0x34, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x83, 0x0F, 0xFF, 0x00};
    many.insert(many.end(), claim.begin(), claim.end());
  }
  const Result result = WalkOver(many, 65536);
  EXPECT_THAT(result.messages, IsEmpty());
  EXPECT_EQ(result.cut, 10000u);
}

}  // namespace
