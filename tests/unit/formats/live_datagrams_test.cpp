// SPDX-License-Identifier: Apache-2.0
#include "live_datagrams.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace live_datagrams {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Bytes Transport(size_t packets) {
  Bytes bytes(packets * kTransportPacket, 0xAA);
  for (size_t i = 0; i < packets; ++i) bytes[i * kTransportPacket] = 0x47;
  return bytes;
}

Bytes Klv(size_t size, uint8_t fill = 1) {
  Bytes bytes = {0x06, 0x0E, 0x2B, 0x34, 2, 0x0B, 1, 1, 0x0E, 1, 3, 1, 1, 0, 0, 0, 0x82};
  bytes.push_back(static_cast<uint8_t>(size >> 8));
  bytes.push_back(static_cast<uint8_t>(size));
  bytes.insert(bytes.end(), size, fill);
  return bytes;
}

struct Header {
  uint16_t sequence;
  uint32_t timestamp = 90'000;
  bool marker = true;
  uint32_t source = 7;
  uint8_t type = 96;
};

Bytes Rtp(const Header& header, ByteView payload) {
  Bytes bytes = {0x80, static_cast<uint8_t>((header.marker ? 0x80 : 0) | header.type)};
  for (const int shift : {8, 0}) bytes.push_back(static_cast<uint8_t>(header.sequence >> shift));
  for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<uint8_t>(header.timestamp >> shift));
  for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<uint8_t>(header.source >> shift));
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

class LiveDatagrams : public testing::Test {
 protected:
  bool Push(const Bytes& datagram) { return m_receiver.Push(datagram, m_now); }
  ByteView Part(const Bytes& bytes, size_t from, size_t to) { return ByteView(bytes).subspan(from, to - from); }

  Bytes m_transport;
  std::vector<Bytes> m_klv;
  std::vector<std::optional<uint64_t>> m_times;
  int64_t m_now = 0;
  Receiver m_receiver{{[this](ByteView bytes) { m_transport.insert(m_transport.end(), bytes.begin(), bytes.end()); },
                       [this](ByteView klv, std::optional<uint64_t> time) {
                         m_klv.emplace_back(klv.begin(), klv.end());
                         m_times.push_back(time);
                       }}};
};

TEST_F(LiveDatagrams, AreRecognisedByTheirBytes) {
  EXPECT_EQ(Recognise(Transport(7)), Content::TransportStream);
  EXPECT_EQ(Recognise(Klv(3)), Content::Klv);
  Bytes broken = Transport(2);
  broken[kTransportPacket] = 0;
  EXPECT_EQ(Recognise(broken), Content::Other);
  EXPECT_EQ(Recognise({}), Content::Other);
  EXPECT_EQ(Recognise(Part(Transport(1), 0, 187)), Content::Other);
}

TEST_F(LiveDatagrams, PlainOnesGoOnAsTheyAre) {
  EXPECT_TRUE(Push(Transport(2)));
  EXPECT_TRUE(Push(Klv(5)));
  EXPECT_FALSE(Push({1, 2, 3}));
  EXPECT_EQ(m_transport, Transport(2));
  EXPECT_THAT(m_klv, ElementsAre(Klv(5)));
  EXPECT_EQ(m_times[0], std::nullopt);
  EXPECT_EQ(m_receiver.Seen().damaged, 1u);
}

TEST_F(LiveDatagrams, AHeaderMayHaveSourcesExtensionAndPadding) {
  Bytes datagram = Rtp({1}, {});
  datagram[0] = 0x80 | 0x20 | 0x10 | 2;
  datagram.insert(datagram.end(), 8, 9);                            // two contributing sources
  datagram.insert(datagram.end(), {0xBE, 0xDE, 0, 1, 5, 5, 5, 5});  // an extension of one word
  const Bytes klv = Klv(4);
  datagram.insert(datagram.end(), klv.begin(), klv.end());
  datagram.insert(datagram.end(), {0, 0, 3});
  EXPECT_TRUE(Push(datagram));
  EXPECT_THAT(m_klv, ElementsAre(klv));
  for (size_t size = 0; size < datagram.size() - klv.size() - 3; ++size) {
    EXPECT_FALSE(UnpackRtp(Part(datagram, 0, size))) << size;
  }
  datagram.back() = 200;
  EXPECT_FALSE(UnpackRtp(datagram));
}

TEST_F(LiveDatagrams, ATransportStreamInRtpIsPutInOrder) {
  Bytes first = Transport(1);
  Bytes second = Transport(1);
  Bytes third = Transport(1);
  first[5] = 1;
  second[5] = 2;
  third[5] = 3;
  EXPECT_TRUE(Push(Rtp({65535, 1, false, 7, 33}, first)));
  EXPECT_TRUE(Push(Rtp({1, 3, false, 7, 33}, third)));
  EXPECT_TRUE(Push(Rtp({0, 2, false, 7, 33}, second)));
  ASSERT_EQ(m_transport.size(), 3 * kTransportPacket);
  EXPECT_EQ(m_transport[kTransportPacket + 5], 2);
  EXPECT_EQ(m_transport[2 * kTransportPacket + 5], 3);
  EXPECT_EQ(m_receiver.Seen().reordered, 1u);
}

TEST_F(LiveDatagrams, AUnitIsJoinedFromItsPackets) {
  const Bytes klv = Klv(1000);
  Push(Rtp({1, 90'000, false}, Part(klv, 0, 400)));
  Push(Rtp({2, 90'000, false}, Part(klv, 400, 700)));
  EXPECT_THAT(m_klv, IsEmpty());
  Push(Rtp({3, 90'000, true}, Part(klv, 700, klv.size())));
  EXPECT_THAT(m_klv, ElementsAre(klv));
  EXPECT_EQ(m_times[0], 90'000u);
  Push(Rtp({4, 93'000, true}, Klv(3)));
  EXPECT_EQ(m_klv.size(), 2u);
  EXPECT_EQ(m_receiver.Seen().incomplete, 0u);
}

TEST_F(LiveDatagrams, AUnitThatLacksAPartIsLeftOutAndCountedOnce) {
  const Bytes klv = Klv(1000);
  Push(Rtp({1, 90'000, true}, Klv(1)));
  Push(Rtp({2, 93'000, false}, Part(klv, 0, 400)));
  Push(Rtp({4, 93'000, true}, Part(klv, 700, klv.size())));
  Push(Rtp({5, 96'000, true}, Klv(2)));
  EXPECT_THAT(m_klv, ElementsAre(Klv(1))) << "the order waits for the missing one";
  m_now += anc_klv::RtpOrder::kPatience;
  m_receiver.Expire(m_now);
  EXPECT_THAT(m_klv, ElementsAre(Klv(1), Klv(2)));
  EXPECT_EQ(m_receiver.Seen().incomplete, 1u);
  EXPECT_EQ(m_receiver.Seen().lost, 1u);
}

TEST_F(LiveDatagrams, AUnitWithoutItsLastPacketEndsWithTheNextTime) {
  const Bytes klv = Klv(1000);
  Push(Rtp({1, 90'000, false}, Part(klv, 0, 400)));
  Push(Rtp({2, 93'000, true}, Klv(2)));
  EXPECT_THAT(m_klv, ElementsAre(Klv(2)));
  EXPECT_EQ(m_receiver.Seen().incomplete, 1u);
}

TEST_F(LiveDatagrams, AStreamMayBeginInTheMiddleOfAUnit) {
  Push(Rtp({1, 90'000, false}, Part(Klv(500), 300, 400)));
  Push(Rtp({2, 90'000, true}, Part(Klv(500), 400, 519)));
  Push(Rtp({3, 93'000, true}, Klv(2)));
  EXPECT_THAT(m_klv, ElementsAre(Klv(2)));
  EXPECT_EQ(m_receiver.Seen().damaged, 0u);
}

TEST_F(LiveDatagrams, WhatIsNeitherInRtpIsCounted) {
  for (uint16_t i = 0; i < 3; ++i) Push(Rtp({i, i * 3000u}, Bytes(50, 0x65)));
  EXPECT_THAT(m_klv, IsEmpty());
  EXPECT_EQ(m_receiver.Seen().damaged, 2u) << "the first may be the end of a unit";
}

TEST_F(LiveDatagrams, AUnitWithoutAnEndIsNotKept) {
  Bytes first = Klv(60'000);
  Push(Rtp({0, 90'000, false}, first));
  for (uint16_t i = 1; i < 200; ++i) Push(Rtp({i, 90'000, false}, Bytes(60'000)));
  EXPECT_EQ(m_receiver.Seen().incomplete, 1u);
  Push(Rtp({200, 93'000, true}, Klv(2)));
  EXPECT_THAT(m_klv, ElementsAre(Klv(2)));
}

}  // namespace
}  // namespace live_datagrams
