// SPDX-License-Identifier: Apache-2.0
// Computes the rate of a running total from its last samples.
#ifndef HOST_RATE_TABLE_H
#define HOST_RATE_TABLE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

namespace host_runtime {

// Times are nanoseconds of the monotonic clock. There is no lock.
//
// Two samples make an interval; the rate is the bytes of the last intervals divided by their time. A total that
// decreases begins a new interval. An interval far faster than the ones before it may stem from a total that was set:
// it counts only if the next interval is about as fast.
class RateTable {
 public:
  explicit RateTable(int intervals);

  void Add(uint64_t total, int64_t now);
  // Returns kbit/s, rounded to nearest. The rate decreases if nothing is added for two usual intervals, and is 0 after
  // five.
  uint32_t Rate(int64_t now) const;
  void Reset();

 private:
  struct Sample {
    uint64_t total;
    int64_t time;
  };
  struct Interval {
    uint64_t bytes;
    int64_t time;
    double Speed() const { return static_cast<double>(bytes) / static_cast<double>(time); }
  };

  void Keep(const Interval& interval);
  bool IsPlausible(const Interval& interval) const;
  int64_t Span() const;

  size_t m_limit;
  std::optional<Sample> m_last;
  std::optional<Interval> m_suspect;
  std::deque<Interval> m_intervals;
};

}  // namespace host_runtime

#endif  // HOST_RATE_TABLE_H
