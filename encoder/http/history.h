// SPDX-License-Identifier: Apache-2.0
// What the items of a source were during the last minutes, in bounded memory. One thread at a time.
#ifndef MDENCODER_HTTP_HISTORY_H
#define MDENCODER_HTTP_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "observation.h"
#include "st0601_items.h"

namespace mdencoder::http {

class History {
 public:
  static constexpr uint64_t kSeconds = 600;
  static constexpr size_t kPoints = 3000;  // of an item
  static constexpr size_t kItems = 64;     // the first ones that a source has
  static constexpr uint64_t kInterval = kSeconds * 1000000 / kPoints;

  struct Point {
    uint64_t timeUs;
    double value;
  };
  struct Place {
    uint64_t timeUs;
    double latitude;
    double longitude;
    std::optional<double> altitude;
    std::optional<double> heading;
  };

  // Adds a message that arrived at that time, if it is the first one in its interval of time.
  void Add(uint64_t timeUs, const st0601::Message& message);

  // Return the points from that time on, the oldest first: at most `most` of them, evenly thinned, with the newest.
  std::vector<Point> Series(uint32_t tag, uint64_t fromUs, size_t most) const;
  std::vector<Place> Track(uint64_t fromUs, size_t most) const;
  size_t Points() const { return m_track.size() > m_longest ? m_track.size() : m_longest; }

 private:
  std::map<uint32_t, std::deque<Point>> m_items;
  std::deque<Place> m_track;
  std::optional<uint64_t> m_interval;  // of the last message
  size_t m_longest = 0;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_HISTORY_H
