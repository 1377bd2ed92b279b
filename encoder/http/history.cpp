// SPDX-License-Identifier: Apache-2.0
#include "http/history.h"

#include <algorithm>
#include <cmath>

namespace mdencoder::http {
namespace {

// Drops what is too old, or from a time before the clock was set back.
template <typename Entry>
void Forget(std::deque<Entry>& entries, uint64_t nowUs) {
  const auto isOver = [nowUs](const Entry& entry) {
    return entry.timeUs > nowUs || nowUs - entry.timeUs > History::kSeconds * 1000000;
  };
  while (!entries.empty() && (isOver(entries.front()) || entries.size() > History::kPoints)) entries.pop_front();
}

template <typename Entry>
std::vector<Entry> Thinned(const std::deque<Entry>& entries, uint64_t fromUs, size_t most) {
  const auto begin = std::partition_point(entries.begin(), entries.end(),
                                          [fromUs](const Entry& entry) { return entry.timeUs < fromUs; });
  const auto count = static_cast<size_t>(entries.end() - begin);
  std::vector<Entry> chosen;
  const size_t wanted = std::min(count, most);
  for (size_t i = 0; i < wanted; ++i) {
    const size_t at = (i + 1) * count / wanted - 1;  // the newest one is among them
    chosen.push_back(begin[static_cast<std::ptrdiff_t>(at)]);
  }
  return chosen;
}

}  // namespace

void History::Add(uint64_t timeUs, const st0601::Message& message) {
  if (m_interval == timeUs / kInterval) return;
  m_interval = timeUs / kInterval;
  for (const st0601::Element& element : message.elements) {
    if (element.item == nullptr || element.item->kind == st0601::Kind::Checksum) continue;
    const st0601::Value value = st0601::Decode(*element.item, element.value);
    if (value.state != st0601::ValueState::Ok || !value.isNumber || !std::isfinite(value.number)) continue;
    const auto series = m_items.find(element.tag);
    if (series != m_items.end()) {
      series->second.push_back({timeUs, value.number});
    } else if (m_items.size() < kItems) {
      m_items[element.tag].push_back({timeUs, value.number});
    }
  }
  const st0601::Observation seen = st0601::Observe(message);
  if (seen.platform) {
    const st0601::Position& at = *seen.platform;
    const auto altitude = at.altitude ? at.altitude : at.ellipsoidHeight;
    m_track.push_back({timeUs, at.latitude, at.longitude, altitude, seen.heading});
  }
  Forget(m_track, timeUs);
  m_longest = 0;
  for (auto& [tag, series] : m_items) {
    Forget(series, timeUs);
    m_longest = std::max(m_longest, series.size());
  }
}

std::vector<History::Point> History::Series(uint32_t tag, uint64_t fromUs, size_t most) const {
  const auto series = m_items.find(tag);
  return series == m_items.end() ? std::vector<Point>() : Thinned(series->second, fromUs, most);
}

std::vector<History::Place> History::Track(uint64_t fromUs, size_t most) const {
  return Thinned(m_track, fromUs, most);
}

}  // namespace mdencoder::http
