// SPDX-License-Identifier: Apache-2.0
// Builds ancillary streams for the tests.
#ifndef ANC_FRAME_H
#define ANC_FRAME_H

#include <cstdint>
#include <span>
#include <vector>

#include "anc_klv.h"

namespace anc_klv {

// Packs all messages of one timestamp into RTP packets of at most `largest` bytes; the last one has the marker.
// *sequence and *messageNumber continue from call to call. Without messages it makes the empty packet that keeps a
// stream alive.
inline std::vector<Bytes> PackFrame(std::span<const Bytes> messages, RtpHeader header, std::uint32_t* sequence,
                                    std::uint8_t* messageNumber, std::size_t largest = 1'400) {
  std::vector<Bytes> packets;
  Bytes payload;
  std::uint8_t count = 0;
  const auto finish = [&](bool last) {
    header.marker = last;
    header.sequence = (*sequence)++;
    packets.push_back(PackRtp(header, payload, count));
    payload.clear();
    count = 0;
  };
  for (const Bytes& message : messages) {
    *messageNumber = *messageNumber == 255 ? std::uint8_t{1} : static_cast<std::uint8_t>(*messageNumber + 1);
    for (const AncPacket& packet : SplitKlv(message, *messageNumber)) {
      const Bytes anc = PackAnc(packet);
      if (count == 255 || (count != 0 && kRtpHeaderSize + payload.size() + anc.size() > largest)) finish(false);
      payload.insert(payload.end(), anc.begin(), anc.end());
      ++count;
    }
  }
  finish(true);
  return packets;
}

}  // namespace anc_klv

#endif  // ANC_FRAME_H
