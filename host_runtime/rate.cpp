// Rate counters: the bit rate over the last additions, on the monotonic clock.
#include <chrono>
#include <deque>
#include <mutex>

#include "runtime.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kStaleSeconds = 3;             // without an addition for so long, the rate is 0
constexpr UINT64 kLargestStep = 1'000'000'000;  // bytes between two additions; more is a jump, not traffic

struct Sample {
  Clock::time_point when;
  UINT64 total;
};

}  // namespace

struct tagHOST_COUNTER_RATE {
  std::string name;
  size_t samples;
  std::mutex lock;
  std::deque<Sample> table;  // at most samples + 1, oldest first
};

extern "C" {

BOOL __AllocCounterRateTable(int nSamples, const char* szName, HCOUNTERRATE* phRate) {
  if (nSamples < 1) return FALSE;
  *phRate = new tagHOST_COUNTER_RATE{szName, static_cast<size_t>(nSamples), {}, {}};
  return TRUE;
}

void AddCounterValue(HCOUNTERRATE hRate, UINT64 nRunningTotal) {
  std::lock_guard guard(hRate->lock);
  // A total that fell back or jumped was reset or loaded: the measurement starts over from it.
  if (!hRate->table.empty()) {
    const UINT64 last = hRate->table.back().total;
    if (nRunningTotal < last || nRunningTotal - last > kLargestStep) hRate->table.clear();
  }
  hRate->table.push_back({Clock::now(), nRunningTotal});
  if (hRate->table.size() > hRate->samples + 1) hRate->table.pop_front();
}

BOOL GetCounterRate(HCOUNTERRATE hRate, int, UINT32* pnRate) {
  std::lock_guard guard(hRate->lock);
  *pnRate = 0;
  if (hRate->table.size() < 2) return TRUE;
  const Sample& first = hRate->table.front();
  const Sample& last = hRate->table.back();
  if (std::chrono::duration<double>(Clock::now() - last.when).count() > kStaleSeconds) return TRUE;
  const double seconds = std::chrono::duration<double>(last.when - first.when).count();
  if (seconds <= 0) return TRUE;
  *pnRate = static_cast<UINT32>(static_cast<double>(last.total - first.total) * 8 / 1000 / seconds + 0.5);
  return TRUE;
}

void ResetCounterRateTable(HCOUNTERRATE hRate) {
  std::lock_guard guard(hRate->lock);
  hRate->table.clear();
}

void DeleteCounterRateTable(HCOUNTERRATE hRate) {
  delete hRate;
}

}  // extern "C"
