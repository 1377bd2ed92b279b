// SPDX-License-Identifier: Apache-2.0
// Notices that a KLV source over UDP receives a stream that the library cannot read, though this program can.
#ifndef MDENCODER_STREAM_HINT_H
#define MDENCODER_STREAM_HINT_H

#include <cstdint>
#include <string>

#include "st0601_items.h"

namespace mdencoder {

// One for each source. It is asked only about messages that are not ST 0601.
class StreamHint {
 public:
  // Returns what the datagrams are, for one line of the log, or "" if that is unknown or was told.
  std::string Look(st0601::ByteView datagram);

 private:
  // A header of RTP says little about what it is in front of; several that follow each other do.
  static constexpr int kRun = 5;
  bool m_isTold = false;
  int m_run = 0;
  uint16_t m_sequence = 0;
  uint32_t m_source = 0;
};

}  // namespace mdencoder

#endif  // MDENCODER_STREAM_HINT_H
