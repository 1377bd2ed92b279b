// SPDX-License-Identifier: Apache-2.0
#include "log_limiter.h"

#include <algorithm>
#include <utility>

#include "nanoseconds.h"

namespace host_runtime {
namespace {

constexpr int64_t kSilence = 2 * kSecond;

}  // namespace

void LogLimiter::SetLimit(unsigned burst, unsigned perSecond) {
  m_burst = std::max(burst, 1u);
  m_perSecond = perSecond;
  for (auto& [site, bucket] : m_buckets) bucket.tokens = m_burst;
}

bool LogLimiter::Allow(std::string_view module, std::string_view file, int line, std::string_view function, int level,
                       int64_t now, uint64_t* left) {
  *left = 0;
  if (m_perSecond == 0) return true;
  auto found = m_buckets.find(Less::View{module, file, line});
  if (found == m_buckets.end()) {
    found = m_buckets.emplace(Site{std::string(module), std::string(file), line}, Bucket{}).first;
    found->second.tokens = m_burst;
    found->second.filled = now;
  }
  Bucket& bucket = found->second;
  const double gained = static_cast<double>(now - bucket.filled) / static_cast<double>(kSecond) * m_perSecond;
  bucket.tokens = std::min(static_cast<double>(m_burst), bucket.tokens + std::max(gained, 0.0));
  bucket.filled = now;
  bucket.seen = now;
  if (bucket.tokens < 1.0) {
    if (bucket.suppressed++ == 0) {
      bucket.function = function;
      bucket.level = level;
    }
    return false;
  }
  bucket.tokens -= 1.0;
  *left = std::exchange(bucket.suppressed, 0);
  return true;
}

template <typename Wanted>
std::vector<LogLimiter::Suppressed> LogLimiter::Pop(Wanted wanted) {
  std::vector<Suppressed> taken;
  for (auto& [site, bucket] : m_buckets) {
    if (bucket.suppressed == 0 || !wanted(site, bucket)) continue;
    taken.push_back({site, bucket.function, bucket.level, std::exchange(bucket.suppressed, 0)});
  }
  return taken;
}

std::vector<LogLimiter::Suppressed> LogLimiter::PopSilent(int64_t now) {
  if (now - m_lastRound < kSecond) return {};
  m_lastRound = now;
  return Pop([now](const Site&, const Bucket& bucket) { return now - bucket.seen >= kSilence; });
}

std::vector<LogLimiter::Suppressed> LogLimiter::PopModule(std::string_view module) {
  return Pop([module](const Site& site, const Bucket&) { return site.module == module; });
}

}  // namespace host_runtime
