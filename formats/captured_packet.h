// SPDX-License-Identifier: Apache-2.0
// Finds the UDP datagram in a packet of a capture file: Ethernet with VLAN tags, Linux cooked captures, loopback and raw
// IP; IPv4 and IPv6. No I/O.
#ifndef CAPTURED_PACKET_H
#define CAPTURED_PACKET_H

#include <cstdint>
#include <span>

namespace captured_packet {

using ByteView = std::span<const uint8_t>;

enum class Kind {
  Udp,
  Other,     // something else, or a packet that is damaged
  Fragment,  // a part of an IP datagram
  Cut        // a UDP datagram of which the capture has only the beginning
};

struct Datagram {
  Kind kind = Kind::Other;
  ByteView payload;  // of Udp; points into the packet
  uint8_t ttl = 0;   // or hop limit
  uint8_t tos = 0;   // or traffic class
};

// `link` is the kind of link that libpcap tells (DLT_...).
Datagram Unpack(int link, ByteView packet);
bool KnowsLink(int link);

}  // namespace captured_packet

#endif  // CAPTURED_PACKET_H
