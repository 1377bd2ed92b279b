// SPDX-License-Identifier: Apache-2.0
// The datagrams of udp://ADDRESS:PORT, with the payload of RTP taken out of them.
#ifndef MDENCODER_DATAGRAM_INPUT_H
#define MDENCODER_DATAGRAM_INPUT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "live_datagrams.h"
#include "owned_fd.h"
#include "st0601_items.h"

namespace mdencoder {

class DatagramInput {
 public:
  using Clock = std::chrono::steady_clock;

  // Binds the port and joins the group, if the address is one. Throws std::runtime_error.
  DatagramInput(const std::string& url, std::optional<Clock::time_point> end);

  // Waits for the next payload, which is valid until the next call. Returns nothing at the end of the time.
  std::optional<st0601::ByteView> Next();
  // Gives the last payload out again.
  void Repeat() { m_isRepeated = true; }
  // What the last payload begins with.
  live_datagrams::Content Looks() const { return live_datagrams::Recognise(m_payload); }
  // Returns how many packets of RTP were missing since the last call.
  uint64_t TakeMissing() { return std::exchange(m_missing, 0); }

 private:
  st0601::ByteView Unwrap(st0601::ByteView datagram);

  common::OwnedFD m_socket;
  const std::optional<Clock::time_point> m_end;
  std::vector<uint8_t> m_buffer;
  st0601::ByteView m_payload;
  bool m_isRepeated = false;
  int m_sequence = -1;  // of RTP
  uint64_t m_missing = 0;
};

}  // namespace mdencoder

#endif  // MDENCODER_DATAGRAM_INPUT_H
