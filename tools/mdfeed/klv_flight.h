// SPDX-License-Identifier: Apache-2.0
// The simulated flight as MISB ST 0601 messages.
#ifndef MDFEED_KLV_FLIGHT_H
#define MDFEED_KLV_FLIGHT_H

#include <cstdint>
#include <vector>

#include "flight.h"

namespace mdfeed {

// Returns a UAS Datalink Local Set: key, BER length, and the items with the time stamp first and the checksum last.
std::vector<uint8_t> MakeKlvMessage(const FlightState& state);

}  // namespace mdfeed

#endif  // MDFEED_KLV_FLIGHT_H
