// SPDX-License-Identifier: Apache-2.0
// Looks for a UDP datagram in an arbitrary packet of every kind of link. A payload must lie inside the packet, and more
// bytes behind the packet must not change it.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <vector>

#include "captured_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace captured_packet;
  // A block of exactly its size, so that a read past its end is detected.
  const std::vector<uint8_t> packet(data, data + size);
  std::vector<uint8_t> longer = packet;
  longer.push_back(0);
  for (const int link : {0, 1, 12, 101, 108, 113, 228, 229, 276, 999}) {
    const Datagram datagram = Unpack(link, packet);
    if (datagram.kind != Kind::Udp) continue;
    const auto* const begin = datagram.payload.data();
    if (begin < packet.data() || begin + datagram.payload.size() > packet.data() + packet.size()) abort();
    const Datagram again = Unpack(link, longer);
    if (again.kind != Kind::Udp || !std::ranges::equal(again.payload, datagram.payload)) abort();
  }
  return 0;
}
