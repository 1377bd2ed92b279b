// SPDX-License-Identifier: Apache-2.0
// Sends KLV as SMPTE RP 214 ancillary packets in an RTP stream of RFC 8331 (SMPTE ST 2110-40).
#ifndef MDFEED_ANC_STREAM_H
#define MDFEED_ANC_STREAM_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "traffic.h"

namespace mdfeed {

struct AncOptions {
  double rate = 10;     // ticks per second, for the timestamps
  int64_t startUs = 0;  // UTC of the first tick
  int payloadType = 112;
  double loss = 0;         // percent of RTP packets not sent
  double reorder = 0;      // percent of RTP packets sent after their successor
  double badChecksum = 0;  // percent of ancillary packets with a wrong checksum
  uint32_t seed = 1;
};

inline constexpr size_t kLargestRtpPacket = 1'400;

// Sends every message of another traffic in ancillary packets; those of one tick share a 90 kHz timestamp, and the last
// RTP packet of a tick has the marker.
std::unique_ptr<Traffic> MakeAncStream(std::unique_ptr<Traffic> inner, const AncOptions& options);

}  // namespace mdfeed

#endif  // MDFEED_ANC_STREAM_H
