// SPDX-License-Identifier: Apache-2.0
// The time of day.
#ifndef COMMON_WALL_CLOCK_H
#define COMMON_WALL_CLOCK_H

#include <chrono>
#include <cstdint>

namespace common {

// Returns the microseconds since 1970. They may jump, because the clock can be set.
inline uint64_t WallClockUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace common

#endif  // COMMON_WALL_CLOCK_H
