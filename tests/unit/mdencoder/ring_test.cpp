// SPDX-License-Identifier: Apache-2.0
#include "ring.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>

namespace mdencoder::ring_test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

TEST(Ring, HoldsExactlySoManyInTheirOrder) {
  Ring<int> ring(3);
  for (int round = 0; round < 5; ++round) {
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(ring.Push(10 * round + i));
    EXPECT_FALSE(ring.Push(99));
    int next = 10 * round;
    while (!ring.Front(2).empty()) {
      const auto some = ring.Front(2);
      EXPECT_LE(some.size(), 2u);
      for (const int entry : some) EXPECT_EQ(entry, next++);
      ring.Discard(some.size());
    }
    EXPECT_EQ(next, 10 * round + 3);
  }
}

TEST(Ring, TheReserveTakesWhatWasUnderWayAndIsNoRoom) {
  Ring<int> ring(2, 2);
  EXPECT_EQ(ring.Room(), 2U);
  EXPECT_TRUE(ring.Push(0));
  EXPECT_TRUE(ring.Push(1));
  EXPECT_FALSE(ring.Push(99));
  EXPECT_TRUE(ring.PushIntoReserve(2));
  EXPECT_TRUE(ring.PushIntoReserve(3));
  EXPECT_FALSE(ring.PushIntoReserve(99));
  EXPECT_EQ(ring.Room(), 0U);
  EXPECT_FALSE(ring.Push(99)) << "the reserve is full, too";
  for (int i = 0; i < 4; ++i) {
    EXPECT_FALSE(ring.Push(99)) << "two may wait";
    ASSERT_FALSE(ring.Front(1).empty());
    EXPECT_EQ(ring.Front(1).front(), i);
    ring.Discard(1);
    EXPECT_EQ(ring.Room(), i < 2 ? 0U : static_cast<size_t>(i) - 1);
    if (ring.Room() > 0) break;
  }
  EXPECT_TRUE(ring.Push(4));
}

TEST(Ring, NothingIsLostOrTurnedRoundBetweenTwoThreads) {
  constexpr int kCount = 300000;
  Ring<int> ring(64);
  std::thread writer([&] {
    for (int i = 0; i < kCount; ++i) {
      while (!ring.Push(i)) ring.WaitForRoom(milliseconds(1));
    }
    ring.Stop();
  });
  int next = 0;
  for (;;) {
    const bool stopped = ring.IsStopped();
    const auto some = ring.Front(16);
    for (const int entry : some) ASSERT_EQ(entry, next++);
    ring.Discard(some.size());
    if (some.empty() && stopped) break;
    if (some.empty()) ring.Wait(milliseconds(1000));
  }
  writer.join();
  EXPECT_EQ(next, kCount);
}

TEST(Ring, AReaderThatSleepsIsWokenByAnEntryAndByTheEnd) {
  Ring<int> ring(4);
  const auto begin = Clock::now();
  std::thread writer([&] {
    std::this_thread::sleep_for(milliseconds(20));
    ring.Push(1);
  });
  while (ring.Front(1).empty()) ring.Wait(milliseconds(60000));
  writer.join();
  ring.Discard(1);
  std::thread other([&] {
    std::this_thread::sleep_for(milliseconds(20));
    ring.Stop();
  });
  while (!ring.IsStopped()) ring.Wait(milliseconds(60000));
  other.join();
  EXPECT_LT(Clock::now() - begin, milliseconds(30000));
}

TEST(Ring, AReaderWithoutWorkReturnsAfterItsTime) {
  Ring<int> ring(4);
  const auto begin = Clock::now();
  ring.Wait(milliseconds(20));
  EXPECT_GE(Clock::now() - begin, milliseconds(15));
}

TEST(Ring, AWriterWaitsForAReaderAtWorkUntilHalfIsFree) {
  Ring<int> ring(4);
  for (int i = 0; i < 4; ++i) ring.Push(i);
  std::atomic<int> discarded{0};
  std::thread reader([&] {
    for (int i = 0; i < 2; ++i) {
      std::this_thread::sleep_for(milliseconds(10));
      ++discarded;
      ring.Discard(1);
    }
  });
  EXPECT_TRUE(ring.WaitForRoom(milliseconds(60000)));
  EXPECT_EQ(discarded.load(), 2);
  reader.join();
}

TEST(Ring, AReaderThatDoesNotMoveIsWaitedForOnce) {
  Ring<int> ring(2);
  ring.Push(1);
  ring.Push(2);
  EXPECT_FALSE(ring.WaitForRoom(milliseconds(1)));
  auto begin = Clock::now();
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(ring.WaitForRoom(milliseconds(1000)));
  EXPECT_LT(Clock::now() - begin, milliseconds(1000));
  ring.Discard(1);
  EXPECT_TRUE(ring.WaitForRoom(milliseconds(1000))) << "it has moved";
  ring.Push(3);
  begin = Clock::now();
  EXPECT_FALSE(ring.WaitForRoom(milliseconds(20)));
  EXPECT_GE(Clock::now() - begin, milliseconds(15)) << "it may move again";
}

}  // namespace
}  // namespace mdencoder::ring_test
