// SPDX-License-Identifier: Apache-2.0
#include "captured_packet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace captured_packet {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::ElementsAre;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes Udp(const Bytes& payload) {
  return Bytes{0x13, 0x88, 0x13, 0x89, 0, static_cast<uint8_t>(8 + payload.size()), 0, 0} + payload;
}

Bytes Ipv4(const Bytes& content, uint16_t fragment = 0) {
  return Bytes{0x45,
               0xB8,
               0,
               static_cast<uint8_t>(20 + content.size()),
               0,
               1,
               static_cast<uint8_t>(fragment >> 8),
               static_cast<uint8_t>(fragment),
               33,
               17,
               0,
               0,
               10,
               0,
               0,
               1,
               10,
               0,
               0,
               2} +
         content;
}

Bytes Ipv6(uint8_t next, const Bytes& content) {
  return Bytes{0x6B, 0x80, 0, 0, 0, static_cast<uint8_t>(content.size()), next, 44} + Bytes(32, 1) + content;
}

const Bytes kMacs(12, 2);
const Bytes kPayload = {1, 2, 3};

void ExpectFound(int link, const Bytes& packet, uint8_t ttl = 33) {
  const Datagram datagram = Unpack(link, packet);
  EXPECT_EQ(datagram.kind, Kind::Udp);
  EXPECT_THAT(datagram.payload, ElementsAre(1, 2, 3));
  EXPECT_EQ(datagram.ttl, ttl);
  EXPECT_EQ(datagram.tos, 0xB8);
  EXPECT_TRUE(KnowsLink(link));
}

TEST(CapturedPacket, EveryKindOfLinkIsRead) {
  const Bytes ip = Ipv4(Udp(kPayload));
  ExpectFound(1, kMacs + Bytes{8, 0} + ip);
  ExpectFound(1, kMacs + Bytes{8, 0} + ip + Bytes(6));  // padded
  ExpectFound(1, kMacs + Bytes{0x88, 0xA8, 0, 1, 0x81, 0, 0, 7, 8, 0} + ip);
  ExpectFound(113, Bytes(14) + Bytes{8, 0} + ip);
  ExpectFound(276, Bytes{8, 0} + Bytes(18) + ip);
  ExpectFound(0, Bytes{2, 0, 0, 0} + ip);
  ExpectFound(12, ip);
  ExpectFound(228, ip);
  EXPECT_EQ(Unpack(105, ip).kind, Kind::Other);
  EXPECT_FALSE(KnowsLink(105));
}

TEST(CapturedPacket, Ipv6MayHaveExtensions) {
  ExpectFound(1, kMacs + Bytes{0x86, 0xDD} + Ipv6(17, Udp(kPayload)), 44);
  ExpectFound(12, Ipv6(0, Bytes{60, 0, 0, 0, 0, 0, 0, 0} + Bytes{17, 1} + Bytes(14) + Udp(kPayload)), 44);
  EXPECT_EQ(Unpack(12, Ipv6(44, Bytes{17, 0, 0, 1, 0, 0, 0, 0} + Udp(kPayload))).kind, Kind::Fragment);
  EXPECT_EQ(Unpack(12, Ipv6(58, Udp(kPayload))).kind, Kind::Other);
}

TEST(CapturedPacket, FragmentsAndCutOnesAreTold) {
  EXPECT_EQ(Unpack(12, Ipv4(Udp(kPayload), 0x2000)).kind, Kind::Fragment) << "the first one";
  EXPECT_EQ(Unpack(12, Ipv4(Udp(kPayload), 0x0010)).kind, Kind::Fragment) << "a later one";
  EXPECT_EQ(Unpack(12, Ipv4(Udp(kPayload), 0x4000)).kind, Kind::Udp) << "not to be fragmented";
  Bytes cut = Ipv4(Udp(kPayload));
  cut.pop_back();
  EXPECT_EQ(Unpack(12, cut).kind, Kind::Cut);
}

TEST(CapturedPacket, WhatIsDamagedIsNoDatagram) {
  const Bytes whole = kMacs + Bytes{8, 0} + Ipv4(Udp(kPayload));
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_NE(Unpack(1, {whole.data(), size}).kind, Kind::Udp) << size;
  }
  Bytes tooLong = Ipv4(Udp(kPayload));
  tooLong[25] = 200;
  EXPECT_EQ(Unpack(12, tooLong).kind, Kind::Other) << "longer than its IP datagram";
  Bytes tcp = Ipv4(Udp(kPayload));
  tcp[9] = 6;
  EXPECT_EQ(Unpack(12, tcp).kind, Kind::Other);
  EXPECT_EQ(Unpack(1, kMacs + Bytes{8, 6} + Bytes(28)).kind, Kind::Other) << "ARP";
}

}  // namespace
}  // namespace captured_packet
