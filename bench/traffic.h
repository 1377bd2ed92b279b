// SPDX-License-Identifier: Apache-2.0
// What the workloads work on. Everything comes from fixed seeds; the recorded flight stands for the generated one where it
// is present.
#ifndef BENCH_TRAFFIC_H
#define BENCH_TRAFFIC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "floors/floors.h"
#include "metadata_lib.h"

namespace bench {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kKeySize = 16;

// Takes the generated flight even where the recorded one is present: instruction counts must not depend on that. Before
// the first message is asked for.
void UseGeneratedFlight();
// "recorded" or "generated".
const char* FlightKind();
// Messages of a flight, about 260 bytes each.
const std::vector<Bytes>& FlightMessages();
// Messages of 200 items, about 950 bytes each.
const std::vector<Bytes>& LongMessages();
// A message of a number of items, cut to what a datagram holds.
Bytes MakeMessage(int items, unsigned seed);
Bytes Join(const std::vector<Bytes>& parts);

struct EventPair {
  std::string aircraft;
  std::string sensorPoint;
};
// Pairs of events, one every 200 ms; each event is filled up to about so many bytes with further details.
const std::vector<EventPair>& EventPairs(std::size_t eventSize);
// The aircraft events of a flight as frames of the serial link.
const std::vector<Bytes>& CotFrames();
// Both events of each pair as frames, the sensor point first.
const std::vector<Bytes>& CotPairFrames();

// The rewriting that a source may ask for, whole: filter, mission identifier, security set.
enum class Filter {
  All,        // keeps every item
  EveryOther  // keeps every other one, so that no two that stand side by side are kept
};
MDATA_SRC_CFG RewritingConfig(Filter filter);
// The same for a floor.
const FloorRules& RewritingRules(Filter filter);

// Bytes of which one in so many is 0x06, the first byte of the sync pattern; 0 for none.
Bytes Noise(std::size_t size, unsigned oneIn);

}  // namespace bench

#endif  // BENCH_TRAFFIC_H
