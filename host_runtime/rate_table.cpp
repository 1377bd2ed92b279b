// SPDX-License-Identifier: Apache-2.0
// The rate table, and the service that adds a lock to it.
#define HOST_MODULE "rate_table"

#include "rate_table.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>

#include "annotated_mutex.h"
#include "nanoseconds.h"
#include "runtime_state.h"

namespace host_runtime {
namespace {

constexpr int64_t kShortest = 100 * kMillisecond;  // a sample that follows sooner is left to the next one
constexpr int64_t kUsual = 1'000 * kMillisecond;
constexpr double kJump = 8;              // an interval so many times faster than the fastest known one is suspect
constexpr double kFastestFirst = 0.125;  // bytes per nanosecond (1 Gbit/s); a faster first interval is suspect

}  // namespace

RateTable::RateTable(int intervals) : m_limit(static_cast<size_t>(std::clamp(intervals, 1, 10'000))) {}

void RateTable::Reset() {
  m_last.reset();
  m_suspect.reset();
  m_intervals.clear();
}

void RateTable::Add(uint64_t total, int64_t now) {
  if (!m_last || total < m_last->total) {
    m_last = Sample{total, now};
    m_suspect.reset();
    return;
  }
  const Interval interval{total - m_last->total, now - m_last->time};
  if (interval.time < kShortest) return;
  m_last = Sample{total, now};
  if (IsPlausible(interval)) {
    m_suspect.reset();
    Keep(interval);
  } else if (m_suspect && interval.Speed() * kJump >= m_suspect->Speed() && interval.Speed() < kFastestFirst) {
    if (m_suspect->Speed() < kFastestFirst) Keep(*m_suspect);
    m_suspect.reset();
    Keep(interval);
  } else {
    m_suspect = interval;
  }
}

void RateTable::Keep(const Interval& interval) {
  m_intervals.push_back(interval);
  if (m_intervals.size() > m_limit) m_intervals.pop_front();
}

bool RateTable::IsPlausible(const Interval& interval) const {
  double fastest = 0;
  for (const Interval& known : m_intervals) fastest = std::max(fastest, known.Speed());
  return interval.Speed() < (fastest == 0 ? kFastestFirst : fastest * kJump);
}

int64_t RateTable::Span() const {
  return std::accumulate(m_intervals.begin(), m_intervals.end(), int64_t{0},
                         [](int64_t sum, const Interval& interval) { return sum + interval.time; });
}

uint32_t RateTable::Rate(int64_t now) const {
  if (m_intervals.empty()) return 0;
  const int64_t span = Span();
  const int64_t usual = std::max(kUsual, span / static_cast<int64_t>(m_intervals.size()));
  const int64_t idle = now - m_last->time;
  if (idle >= 5 * usual) return 0;
  double bytes = 0;
  for (const Interval& interval : m_intervals) bytes += static_cast<double>(interval.bytes);
  const int64_t time = idle > 2 * usual ? span + idle : span;
  const double rate = bytes * 8e6 / static_cast<double>(time);
  return static_cast<uint32_t>(std::min(std::round(rate), static_cast<double>(std::numeric_limits<uint32_t>::max())));
}

}  // namespace host_runtime

using namespace host_runtime;
using common::Lock;
using common::Mutex;

struct tagHOST_COUNTER_RATE {
  Mutex lock;  // leaf
  RateTable table GUARDED_BY(lock);
};

extern "C" {

BOOL __AllocCounterRateTable(int nSamples, const char* szName, HCOUNTERRATE* phRate) {
  if (phRate == nullptr) return FALSE;
  *phRate = nullptr;
  if (nSamples <= 0) {
    HOST_LOG(3, "Rate counter \"%s\" needs at least one sample, not %d.\n", szName == nullptr ? "" : szName, nSamples);
    return FALSE;
  }
  *phRate = NoThrow<HCOUNTERRATE>(nullptr, [&] { return new tagHOST_COUNTER_RATE{{}, RateTable(nSamples)}; });
  return *phRate != nullptr ? TRUE : FALSE;
}

void AddCounterValue(HCOUNTERRATE hRate, UINT64 nRunningTotal) {
  if (hRate == nullptr) return;
  NoThrow([&] {
    const Lock guard(hRate->lock);
    hRate->table.Add(nRunningTotal, MonotonicNs());
  });
}

BOOL GetCounterRate(HCOUNTERRATE hRate, int, UINT32* pnRate) {
  if (hRate == nullptr || pnRate == nullptr) return FALSE;
  const Lock guard(hRate->lock);
  *pnRate = hRate->table.Rate(MonotonicNs());
  return TRUE;
}

void ResetCounterRateTable(HCOUNTERRATE hRate) {
  if (hRate == nullptr) return;
  const Lock guard(hRate->lock);
  hRate->table.Reset();
}

void DeleteCounterRateTable(HCOUNTERRATE hRate) {
  delete hRate;
}

}  // extern "C"
