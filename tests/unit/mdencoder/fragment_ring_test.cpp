// SPDX-License-Identifier: Apache-2.0
#include "fragment_ring.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace mdencoder::fragment_ring_test {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kNow(0);
constexpr milliseconds kLong(20000);

Fragment Piece(uint8_t number, bool isKey, size_t size = 1) {
  Fragment piece;
  piece.bytes.assign(size, number);
  piece.firstPtsUs = number * 1000;
  piece.isKey = isKey;
  return piece;
}

// Returns the numbers of the pieces that come now.
std::vector<int> Numbers(FragmentRing& ring, FragmentRing::Cursor& cursor) {
  std::vector<int> numbers;
  while (const auto piece = ring.Wait(cursor, kNow)) numbers.push_back(piece->bytes.front());
  return numbers;
}

TEST(FragmentRing, AReaderBeginsWithTheNewestKeyFrame) {
  FragmentRing ring;
  ring.SetInit({9});
  for (uint8_t number = 0; number < 5; ++number) ring.Push(Piece(number, number % 2 == 0 && number < 4));
  FragmentRing::Cursor cursor;
  const auto init = ring.Begin(cursor, kNow);
  ASSERT_NE(init, nullptr);
  EXPECT_EQ(*init, (FragmentRing::Bytes{9}));
  EXPECT_EQ(Numbers(ring, cursor), (std::vector<int>{2, 3, 4}));
  EXPECT_EQ(cursor.skipped, 0u);
  EXPECT_FALSE(ring.IsOver(cursor));
}

TEST(FragmentRing, AReaderThatFindsNoKeyFrameWaitsForOne) {
  FragmentRing ring;
  ring.SetInit({9});
  ring.Push(Piece(1, false));
  FragmentRing::Cursor cursor;
  ASSERT_NE(ring.Begin(cursor, kNow), nullptr);
  ring.Push(Piece(2, false));
  EXPECT_EQ(ring.Wait(cursor, kNow), nullptr);
  ring.Push(Piece(3, true));
  ring.Push(Piece(4, false));
  EXPECT_EQ(Numbers(ring, cursor), (std::vector<int>{3, 4}));
}

TEST(FragmentRing, ASlowReaderIsMovedToTheNewestKeyFrame) {
  FragmentRing ring(4);
  ring.SetInit({9});
  ring.Push(Piece(0, true));
  FragmentRing::Cursor cursor;
  ASSERT_NE(ring.Begin(cursor, kNow), nullptr);
  for (uint8_t number = 1; number < 10; ++number) ring.Push(Piece(number, number == 7 || number == 8));
  EXPECT_EQ(Numbers(ring, cursor), (std::vector<int>{8, 9}));
  EXPECT_EQ(cursor.skipped, 8u);
}

TEST(FragmentRing, ASlowReaderWithoutAKeyFrameWaitsForOne) {
  FragmentRing ring(2);
  ring.SetInit({9});
  ring.Push(Piece(0, true));
  FragmentRing::Cursor cursor;
  ASSERT_NE(ring.Begin(cursor, kNow), nullptr);
  for (uint8_t number = 1; number < 5; ++number) ring.Push(Piece(number, false));
  EXPECT_EQ(Numbers(ring, cursor), (std::vector<int>{}));
  ring.Push(Piece(5, true));
  EXPECT_EQ(Numbers(ring, cursor), (std::vector<int>{5}));
  EXPECT_EQ(cursor.skipped, 5u);
}

TEST(FragmentRing, BytesAreLimitedButTheNewestPieceIsAlwaysHeld) {
  FragmentRing ring(100, 10);
  ring.SetInit({9});
  FragmentRing::Cursor cursor;
  ASSERT_NE(ring.Begin(cursor, kNow), nullptr);
  ring.Push(Piece(1, true, 6));
  ring.Push(Piece(2, true, 5));
  EXPECT_EQ(Numbers(ring, cursor), (std::vector<int>{2}));
  ring.Push(Piece(3, true, 5));
  ring.Push(Piece(4, true, 50));
  EXPECT_EQ(Numbers(ring, cursor), (std::vector<int>{4}));
}

TEST(FragmentRing, AnotherBeginningEndsTheReadersOfTheFormer) {
  FragmentRing ring;
  ring.SetInit({1});
  ring.Push(Piece(1, true));
  FragmentRing::Cursor cursor;
  ASSERT_NE(ring.Begin(cursor, kNow), nullptr);
  ring.SetInit({2});
  EXPECT_EQ(ring.Wait(cursor, kNow), nullptr);
  EXPECT_TRUE(ring.IsOver(cursor));
  const auto init = ring.Begin(cursor, kNow);
  ASSERT_NE(init, nullptr);
  EXPECT_EQ(*init, (FragmentRing::Bytes{2}));
  ring.Push(Piece(2, true));
  EXPECT_EQ(Numbers(ring, cursor), (std::vector<int>{2}));
}

TEST(FragmentRing, AClosedRingGivesWhatItHoldsAndEnds) {
  FragmentRing ring;
  ring.SetInit({1});
  FragmentRing::Cursor cursor;
  ASSERT_NE(ring.Begin(cursor, kNow), nullptr);
  ring.Push(Piece(1, true));
  ring.Close();
  EXPECT_TRUE(ring.IsClosed());
  EXPECT_FALSE(ring.IsOver(cursor));
  EXPECT_EQ(ring.Wait(cursor, kLong)->bytes.front(), 1);
  EXPECT_EQ(ring.Wait(cursor, kLong), nullptr);
  EXPECT_TRUE(ring.IsOver(cursor));
}

TEST(FragmentRing, AClosedRingWithoutABeginningHasNone) {
  FragmentRing ring;
  FragmentRing::Cursor cursor;
  EXPECT_EQ(ring.Begin(cursor, kNow), nullptr);
  ring.Close();
  EXPECT_EQ(ring.Begin(cursor, kLong), nullptr);
}

TEST(FragmentRing, ReadersOnOtherThreadsAreWoken) {
  FragmentRing ring;
  std::vector<int> numbers;
  std::thread reader([&] {
    FragmentRing::Cursor cursor;
    if (ring.Begin(cursor, kLong) == nullptr) return;
    while (const auto piece = ring.Wait(cursor, kLong)) numbers.push_back(piece->bytes.front());
  });
  ring.SetInit({1});
  for (uint8_t number = 0; number < 100; ++number) ring.Push(Piece(number, number == 0));
  ring.Close();
  reader.join();
  ASSERT_EQ(numbers.size(), 100u);
  for (int number = 0; number < 100; ++number) EXPECT_EQ(numbers[static_cast<size_t>(number)], number);
}

}  // namespace
}  // namespace mdencoder::fragment_ring_test
