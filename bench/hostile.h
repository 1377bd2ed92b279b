// SPDX-License-Identifier: Apache-2.0
// Streams that a hostile sender would choose: one period of each, to be repeated without end.
#ifndef BENCH_HOSTILE_H
#define BENCH_HOSTILE_H

#include "traffic.h"

namespace bench {

// Largest KLV messages, one in the other, with the shortest items between their keys.
Bytes NestedItems();
// The header of a Cursor-on-Target frame that announces the largest payload.
Bytes NestedCotHeaders();

}  // namespace bench

#endif  // BENCH_HOSTILE_H
