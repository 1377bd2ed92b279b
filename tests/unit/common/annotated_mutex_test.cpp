// SPDX-License-Identifier: Apache-2.0
#include "annotated_mutex.h"

#include <gtest/gtest.h>

#include <thread>

namespace common {
namespace {

struct Counter {
  Mutex mutex;
  Condition changed;
  int count GUARDED_BY(mutex) = 0;
};

TEST(Lock, LetsOneThreadInAtATime) {
  constexpr int kRounds = 10'000;
  Counter counter;
  const auto add = [&counter] {
    for (int i = 0; i < kRounds; ++i) {
      const Lock lock(counter.mutex);
      const int before = counter.count;
      counter.count = before + 1;
    }
  };
  std::thread other(add);
  add();
  other.join();
  const Lock lock(counter.mutex);
  EXPECT_EQ(counter.count, 2 * kRounds);
}

TEST(Lock, LeavesTheMutexToOthersBetweenPauseAndResume) {
  Counter counter;
  Lock lock(counter.mutex);
  lock.Pause();
  std::thread([&counter] {
    const Lock inner(counter.mutex);
    counter.count = 7;
  }).join();
  lock.Resume();
  EXPECT_EQ(counter.count, 7);
}

TEST(Condition, WaitReturnsWithTheMutexHeld) {
  Counter counter;
  std::thread other([&counter] {
    {
      const Lock lock(counter.mutex);
      counter.count = 1;
    }
    counter.changed.NotifyOne();
    const Lock lock(counter.mutex);
    counter.count = 2;
  });
  {
    const Lock lock(counter.mutex);
    while (counter.count == 0) counter.changed.Wait(counter.mutex);
    const int seen = counter.count;
    std::this_thread::yield();
    EXPECT_EQ(counter.count, seen) << "nobody else may write while the mutex is held";
  }
  other.join();
}

}  // namespace
}  // namespace common
