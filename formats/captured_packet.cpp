// SPDX-License-Identifier: Apache-2.0
#include "captured_packet.h"

#include <algorithm>
#include <cstddef>
#include <optional>

namespace captured_packet {
namespace {

// Kinds of link.
constexpr int kNull = 0;
constexpr int kEthernet = 1;
constexpr int kRaw = 12;
constexpr int kRawFile = 101;
constexpr int kLoop = 108;
constexpr int kCooked = 113;
constexpr int kIpv4 = 228;
constexpr int kIpv6 = 229;
constexpr int kCooked2 = 276;

constexpr uint8_t kUdp = 17;
constexpr size_t kUdpHeader = 8;
constexpr size_t kIpv4Header = 20;
constexpr size_t kIpv6Header = 40;
constexpr int kMostTags = 4;
constexpr int kMostExtensions = 8;

uint16_t Word(ByteView bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

// Returns what is behind the header of the link, or nothing if that is no IP.
std::optional<ByteView> BehindTag(ByteView bytes, size_t type, size_t header) {
  if (bytes.size() < header) return std::nullopt;
  uint16_t kind = Word(bytes, type);
  bytes = bytes.subspan(header);
  const auto isTag = [](uint16_t each) { return each == 0x8100 || each == 0x88A8 || each == 0x9100; };
  for (int i = 0; i < kMostTags && isTag(kind); ++i) {
    if (bytes.size() < 4) return std::nullopt;
    kind = Word(bytes, 2);
    bytes = bytes.subspan(4);
  }
  return kind == 0x0800 || kind == 0x86DD ? std::optional(bytes) : std::nullopt;
}

std::optional<ByteView> BehindLink(int link, ByteView packet) {
  switch (link) {
    case kEthernet:
      return BehindTag(packet, 12, 14);
    case kCooked:
      return BehindTag(packet, 14, 16);
    case kCooked2:
      return BehindTag(packet, 0, 20);
    case kNull:
    case kLoop:
      return packet.size() < 4 ? std::nullopt : std::optional(packet.subspan(4));
    case kRaw:
    case kRawFile:
    case kIpv4:
    case kIpv6:
      return packet;
    default:
      return std::nullopt;
  }
}

// `whole` is the length that the IP header tells for `bytes`.
Datagram UnpackUdp(ByteView bytes, size_t whole, Datagram datagram) {
  if (whole < kUdpHeader) return datagram;
  datagram.kind = Kind::Cut;
  if (bytes.size() < kUdpHeader) return datagram;
  const size_t length = Word(bytes, 4);
  if (length < kUdpHeader || length > whole) {
    datagram.kind = Kind::Other;
  } else if (length <= bytes.size()) {
    datagram.kind = Kind::Udp;
    datagram.payload = bytes.subspan(kUdpHeader, length - kUdpHeader);
  }
  return datagram;
}

Datagram UnpackIpv4(ByteView bytes) {
  if (bytes.size() < kIpv4Header) return {};
  const size_t header = size_t{4} * (bytes[0] & 0x0F);
  const size_t whole = Word(bytes, 2);
  if (header < kIpv4Header || whole < header || bytes.size() < header || bytes[9] != kUdp) return {};
  Datagram datagram;
  datagram.tos = bytes[1];
  datagram.ttl = bytes[8];
  if ((Word(bytes, 6) & 0x3FFF) != 0) {  // more fragments, or an offset
    datagram.kind = Kind::Fragment;
    return datagram;
  }
  return UnpackUdp(bytes.subspan(header, std::min(whole, bytes.size()) - header), whole - header, datagram);
}

Datagram UnpackIpv6(ByteView bytes) {
  if (bytes.size() < kIpv6Header) return {};
  Datagram datagram;
  datagram.tos = static_cast<uint8_t>(Word(bytes, 0) >> 4);
  datagram.ttl = bytes[7];
  size_t whole = Word(bytes, 4);
  uint8_t next = bytes[6];
  bytes = bytes.subspan(kIpv6Header, std::min(whole, bytes.size() - kIpv6Header));
  for (int i = 0; i < kMostExtensions; ++i) {
    if (next == kUdp) return UnpackUdp(bytes, whole, datagram);
    constexpr uint8_t kHopByHop = 0;
    constexpr uint8_t kRouting = 43;
    constexpr uint8_t kFragment = 44;
    constexpr uint8_t kOptions = 60;
    if (next == kFragment) {
      datagram.kind = Kind::Fragment;
      return datagram;
    }
    if ((next != kHopByHop && next != kRouting && next != kOptions) || bytes.size() < 8) return datagram;
    const size_t size = size_t{8} * (size_t{1} + bytes[1]);
    if (size > bytes.size()) return datagram;
    next = bytes[0];
    bytes = bytes.subspan(size);
    whole -= size;
  }
  return datagram;
}

}  // namespace

bool KnowsLink(int link) {
  constexpr int kLinks[] = {kNull, kEthernet, kRaw, kRawFile, kLoop, kCooked, kIpv4, kIpv6, kCooked2};
  return std::find(std::begin(kLinks), std::end(kLinks), link) != std::end(kLinks);
}

Datagram Unpack(int link, ByteView packet) {
  const auto ip = BehindLink(link, packet);
  if (!ip || ip->empty()) return {};
  const int version = ip->front() >> 4;
  return version == 4 ? UnpackIpv4(*ip) : version == 6 ? UnpackIpv6(*ip) : Datagram{};
}

}  // namespace captured_packet
