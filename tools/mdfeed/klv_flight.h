// The simulated flight as MISB ST 0601 messages.
#ifndef MDFEED_KLV_FLIGHT_H
#define MDFEED_KLV_FLIGHT_H

#include <cstdint>
#include <vector>

#include "flight.h"

namespace mdfeed {

// One UAS Datalink Local Set: key, length in BER, time stamp first, checksum last.
std::vector<uint8_t> MakeKlvMessage(const FlightState& state);

}  // namespace mdfeed

#endif  // MDFEED_KLV_FLIGHT_H
