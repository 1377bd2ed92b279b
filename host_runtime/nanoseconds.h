// SPDX-License-Identifier: Apache-2.0
// Times of the monotonic clock are counted in nanoseconds.
#ifndef HOST_NANOSECONDS_H
#define HOST_NANOSECONDS_H

#include <cstdint>

namespace host_runtime {

constexpr int64_t kMillisecond = 1'000'000;
constexpr int64_t kSecond = 1'000 * kMillisecond;

}  // namespace host_runtime

#endif  // HOST_NANOSECONDS_H
