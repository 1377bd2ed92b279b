// SPDX-License-Identifier: Apache-2.0
// Packs and unpacks KLV in ancillary data.
#include "anc_klv.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "anc_frame.h"

namespace {

using namespace anc_klv;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Returns a message with this many bytes of value.
Bytes Klv(size_t valueSize, uint8_t fill = 0) {
  Bytes klv = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x01, 0x01, 0, 0, 0};
  if (valueSize < 0x80) {
    klv.push_back(static_cast<uint8_t>(valueSize));
  } else {
    klv.insert(klv.end(), {0x82, static_cast<uint8_t>(valueSize >> 8), static_cast<uint8_t>(valueSize)});
  }
  for (size_t i = 0; i < valueSize; ++i) klv.push_back(static_cast<uint8_t>(i + fill));
  return klv;
}

void FlipBit(Bytes& bytes, size_t bit) {
  bytes[bit / 8] ^= static_cast<uint8_t>(0x80u >> (bit % 8));
}

// --- one message -------------------------------------------------------------------------------------

TEST(KlvSize, IsReadFromShortAndLongForms) {
  EXPECT_EQ(SizeOfKlv(Klv(5)).size, 22u);
  EXPECT_EQ(SizeOfKlv(Klv(127)).size, 144u);
  EXPECT_EQ(SizeOfKlv(Klv(128)).size, 147u);
  EXPECT_EQ(SizeOfKlv(Klv(65'535)).size, kLargestKlv);
  Bytes padded = Klv(0);
  padded.resize(16);
  padded.insert(padded.end(), {0x84, 0, 0, 0, 9});
  EXPECT_EQ(SizeOfKlv(padded).size, 30u);
}

TEST(KlvSize, NeedsTheWholeLengthFieldAndRefusesOtherData) {
  using State = KlvSize::State;
  const Bytes klv = Klv(300);
  for (size_t size = 0; size < 19; ++size) {
    EXPECT_EQ(SizeOfKlv(ByteView(klv).first(size)).state, State::NeedMore) << size;
  }
  EXPECT_EQ(SizeOfKlv(ByteView(klv).first(19)).state, State::Known);
  EXPECT_EQ(SizeOfKlv(ByteView(klv).subspan(1)).state, State::Bad);
  Bytes wrong = Klv(0);
  for (const int length : {0x80, 0x89, 0xFF}) {
    wrong[16] = static_cast<uint8_t>(length);
    EXPECT_EQ(SizeOfKlv(wrong).state, State::Bad);
  }
  Bytes huge = Klv(0);
  huge.resize(16);
  huge.insert(huge.end(), {0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(SizeOfKlv(huge).state, State::Bad);
  huge.resize(16);
  huge.insert(huge.end(), {0x83, 0x01, 0x00, 0x00});
  EXPECT_EQ(SizeOfKlv(huge).state, State::Bad);
}

// --- ancillary packets -------------------------------------------------------------------------------

TEST(Anc, TheBitsAreThoseOfTheStandards) {
  AncPacket packet;
  packet.line = 9;
  packet.userData = {0x01};
  // C 0, line 9, offset 0, S 0, stream 0; then the words 244 104 101 101 and the checksum: 044 + 104 + 101 + 101 is
  // 34A, its low nine bits 14A, bit 9 not bit 8.
  EXPECT_THAT(PackAnc(packet),
              ElementsAre(0x00, 0x90, 0x00, 0x00,  //
                          0b10010001, 0b00010000, 0b01000100, 0b00000101, 0b00000001, 0b01010010, 0b10000000, 0x00));
}

TEST(Anc, UnpackingReversesPacking) {
  for (const size_t size : {0u, 1u, 2u, 3u, 4u, 100u, 254u, 255u}) {
    AncPacket packet;
    packet.line = 1234;
    for (size_t i = 0; i < size; ++i) packet.userData.push_back(static_cast<uint8_t>(i));
    const Bytes bytes = PackAnc(packet);
    EXPECT_EQ(bytes.size() % 4, 0u);
    const UnpackedAnc back = UnpackAnc(bytes);
    EXPECT_EQ(back.state, AncState::Good);
    EXPECT_EQ(back.size, bytes.size());
    EXPECT_EQ(back.packet.did, 0x44);
    EXPECT_EQ(back.packet.sdid, 0x04);
    EXPECT_EQ(back.packet.line, 1234);
    EXPECT_EQ(back.packet.userData, packet.userData);
  }
}

TEST(Anc, EveryFlippedBitOfAWordIsNoticed) {
  AncPacket packet;
  packet.userData = {1, 2, 3, 0x06, 0x0E};
  const Bytes good = PackAnc(packet);
  for (size_t bit = 32; bit < 32 + 10 * 9; ++bit) {
    Bytes bad = good;
    FlipBit(bad, bit);
    EXPECT_NE(UnpackAnc(bad).state, AncState::Good) << bit;
  }
}

TEST(Anc, AWrongParityBit9HasARightChecksumAndIsDistinguished) {
  AncPacket packet;
  packet.userData = {1, 2, 3};
  Bytes bad = PackAnc(packet);
  FlipBit(bad, 32 + 3 * 10);  // bit 9 of the first user word, not in the sum
  EXPECT_EQ(UnpackAnc(bad).state, AncState::BadParity);
  bad = PackAnc(packet);
  FlipBit(bad, 32 + 6 * 10 + 5);
  EXPECT_EQ(UnpackAnc(bad).state, AncState::BadChecksum);
}

TEST(Anc, APacketTruncatedAnywhereIsCutOff) {
  AncPacket packet;
  packet.userData = Bytes(20, 0x55);
  const Bytes bytes = PackAnc(packet);
  const size_t used = (32 + 10 * 24 + 7) / 8;
  for (size_t size = 0; size < bytes.size(); ++size) {
    const UnpackedAnc cut = UnpackAnc(ByteView(bytes).first(size));
    EXPECT_EQ(cut.state, size < used ? AncState::CutOff : AncState::Good) << size;
    EXPECT_LE(cut.size, size);
  }
}

// --- RTP packets -------------------------------------------------------------------------------------

TEST(Rtp, UnpackingReversesPacking) {
  const RtpHeader header = {true, 100, 0x12345678, 0x89ABCDEF, 0x01020304, 3};
  const Bytes anc = PackAnc({});
  const Bytes packed = PackRtp(header, anc, 1);
  EXPECT_THAT(ByteView(packed).first(20), ElementsAre(0x80, 0xE4, 0x56, 0x78, 0x89, 0xAB, 0xCD, 0xEF, 1, 2, 3, 4,  //
                                                      0x12, 0x34, 0, anc.size(), 1, 0xC0, 0, 0));
  const auto back = UnpackRtp(packed);
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->header.marker);
  EXPECT_EQ(back->header.payloadType, 100);
  EXPECT_EQ(back->header.sequence, 0x12345678u);
  EXPECT_EQ(back->header.timestamp, 0x89ABCDEFu);
  EXPECT_EQ(back->header.source, 0x01020304u);
  EXPECT_EQ(back->header.field, 3);
  EXPECT_EQ(back->count, 1);
  EXPECT_EQ(back->payload, anc);
}

TEST(Rtp, PaddingExtensionAndContributingSourcesAreSkipped) {
  const Bytes anc = PackAnc({});
  Bytes packet = PackRtp({}, anc, 1);
  packet.insert(packet.begin() + 12, {9, 9, 9, 9, 8, 8, 8, 8, 0xBE, 0xDE, 0, 1, 7, 7, 7, 7});
  packet[0] = 0x80 | 0x20 | 0x10 | 2;
  packet.insert(packet.end(), {0, 0, 3});
  const auto back = UnpackRtp(packet);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->payload, anc);
}

TEST(Rtp, OtherAndCutDatagramsAreRefused) {
  const Bytes packet = PackRtp({}, PackAnc({}), 1);
  for (size_t size = 0; size < packet.size(); ++size) EXPECT_FALSE(UnpackRtp(ByteView(packet).first(size)));
  Bytes bad = packet;
  bad[0] = 0x40;  // version
  EXPECT_FALSE(UnpackRtp(bad));
  bad = packet;
  bad[17] = 0x40;  // F 0b01 is not defined
  EXPECT_FALSE(UnpackRtp(bad));
  for (const int padding : {0, 255}) {
    bad = packet;
    bad[0] |= 0x20;
    bad.back() = static_cast<uint8_t>(padding);
    EXPECT_FALSE(UnpackRtp(bad));
  }
  bad = packet;
  bad[0] |= 0x10;
  EXPECT_FALSE(UnpackRtp(bad));
}

// --- the whole way -----------------------------------------------------------------------------------

class StreamTest : public testing::Test {
 protected:
  std::vector<Bytes> Frame(const std::vector<Bytes>& messages, uint32_t timestamp) {
    m_header.timestamp = timestamp;
    return PackFrame(messages, m_header, &m_sequence, &m_number);
  }
  void Push(const std::vector<Bytes>& packets) {
    for (const Bytes& packet : packets) m_receiver.Push(packet, m_now);
  }
  const Counts& Seen() { return m_receiver.Seen(); }

  RtpHeader m_header;
  uint32_t m_sequence = 0xFFF0;
  uint8_t m_number = 250;
  int64_t m_now = 1;
  std::vector<StampedKlv> m_got;
  Receiver m_receiver{[this](const StampedKlv& message) { m_got.push_back(message); }};
};

TEST_F(StreamTest, MessagesOfEverySizeArriveWithTheirTime) {
  const size_t sizes[] = {0, 1, 100, 230, 235, 236, 237, 488, 489, 1000, 4096, 65'535};
  uint32_t timestamp = 1000;
  for (const size_t size : sizes) Push(Frame({Klv(size)}, timestamp += 3600));
  ASSERT_THAT(m_got, SizeIs(std::size(sizes)));
  timestamp = 1000;
  for (size_t i = 0; i < std::size(sizes); ++i) {
    EXPECT_EQ(m_got[i].klv, Klv(sizes[i]));
    EXPECT_EQ(m_got[i].timestamp, timestamp += 3600);
  }
  EXPECT_EQ(Seen().lost + Seen().incomplete + Seen().damaged + Seen().restarts, 0u);
}

TEST_F(StreamTest, MessagesOfOneFrameShareItsTimeAndTheLastPacketHasTheMarker) {
  const auto packets = Frame({Klv(500, 1), Klv(700, 2), Klv(10, 3), Klv(900, 4)}, 77);
  ASSERT_GT(packets.size(), 1u);
  for (size_t i = 0; i < packets.size(); ++i) {
    EXPECT_LE(packets[i].size(), 1400u);
    EXPECT_EQ(UnpackRtp(packets[i])->header.marker, i + 1 == packets.size());
  }
  Push(packets);
  ASSERT_THAT(m_got, SizeIs(4));
  for (const StampedKlv& message : m_got) EXPECT_EQ(message.timestamp, 77u);
  EXPECT_EQ(m_got[3].klv, Klv(900, 4));
}

TEST_F(StreamTest, AFrameWithoutMessagesIsOneEmptyPacket) {
  const auto packets = Frame({}, 5);
  ASSERT_THAT(packets, SizeIs(1));
  EXPECT_EQ(packets[0].size(), kRtpHeaderSize);
  Push(packets);
  EXPECT_EQ(Seen().damaged, 0u);
}

TEST_F(StreamTest, TimeGoesOnWhenThe32BitsWrap) {
  Push(Frame({Klv(1)}, 0xFFFFF000u));
  Push(Frame({Klv(1)}, 0x00000100u));
  Push(Frame({Klv(1)}, 0xFFFFFF00u));
  EXPECT_EQ(m_got[0].timestamp, 0xFFFFF000u);
  EXPECT_EQ(m_got[1].timestamp, 0x1'0000'0100u);
  EXPECT_EQ(m_got[2].timestamp, 0xFFFFFF00u);
}

TEST_F(StreamTest, ATimeBeforeTheBeginningStaysIn32Bits) {
  Push(Frame({Klv(1)}, 16));
  Push(Frame({Klv(1)}, 0xFFFFFFF0u));
  EXPECT_EQ(m_got[1].timestamp, 0xFFFFFFF0u);
}

TEST_F(StreamTest, ABadChecksumDropsItsMessageAndReceptionGoesOn) {
  auto packets = Frame({Klv(1000)}, 1);
  packets[0][kRtpHeaderSize + 40] ^= 0x10;
  Push(packets);
  Push(Frame({Klv(20)}, 2));
  ASSERT_THAT(m_got, SizeIs(1));
  EXPECT_EQ(m_got[0].klv, Klv(20));
  EXPECT_EQ(Seen().badChecksums, 1u);
  EXPECT_EQ(Seen().incomplete, 1u);
}

TEST_F(StreamTest, ALostPacketCostsItsMessagesOnly) {
  std::vector<Bytes> packets;
  for (uint32_t i = 0; i < 100; ++i) {
    for (Bytes& packet : Frame({Klv(50 + i)}, i)) packets.push_back(std::move(packet));
  }
  ASSERT_THAT(packets, SizeIs(100));
  packets.erase(packets.begin() + 40, packets.begin() + 42);
  Push(packets);
  EXPECT_THAT(m_got, SizeIs(98));
  EXPECT_EQ(Seen().lost, 2u);
  EXPECT_EQ(Seen().incomplete, 0u);
}

TEST_F(StreamTest, AMessageWithAnyOnePartMissingIsCountedOnce) {
  Push(Frame({Klv(3)}, 0));
  m_got.clear();
  for (size_t missing = 0; missing < 4; ++missing) {
    auto packets = Frame({Klv(4000)}, 1);
    ASSERT_THAT(packets, SizeIs(4));
    packets.erase(packets.begin() + static_cast<ptrdiff_t>(missing));
    Push(packets);
    m_now += RtpOrder::kPatience;
    m_receiver.Expire(m_now);
    Push(Frame({Klv(3)}, 2));
    m_now += RtpOrder::kPatience;
    m_receiver.Expire(m_now);
    EXPECT_EQ(Seen().incomplete, missing + 1);
    EXPECT_EQ(Seen().lost, missing + 1);
    ASSERT_THAT(m_got, SizeIs(missing + 1));
    EXPECT_EQ(m_got.back().klv, Klv(3));
  }
}

TEST_F(StreamTest, PacketsOutOfOrderArePutBack) {
  std::mt19937 random(1);
  std::vector<Bytes> packets;
  for (uint32_t i = 0; i < 200; ++i) {
    for (Bytes& packet : Frame({Klv(2000 + i)}, i)) packets.push_back(std::move(packet));
  }
  for (size_t i = 1; i + 8 < packets.size(); i += 8) {
    std::shuffle(packets.begin() + static_cast<ptrdiff_t>(i), packets.begin() + static_cast<ptrdiff_t>(i) + 8, random);
  }
  Push(packets);
  ASSERT_THAT(m_got, SizeIs(200));
  for (size_t i = 0; i < 200; ++i) {
    EXPECT_EQ(m_got[i].klv, Klv(2000 + i));
    EXPECT_EQ(m_got[i].timestamp, i);
  }
  EXPECT_GT(Seen().reordered, 20u);
  EXPECT_EQ(Seen().lost + Seen().late + Seen().incomplete, 0u);
}

TEST_F(StreamTest, AMissingPacketIsWaitedForAndThenGivenUp) {
  Push(Frame({Klv(1)}, 1));
  const auto missing = Frame({Klv(2)}, 2);
  Push(Frame({Klv(3)}, 3));
  EXPECT_TRUE(m_receiver.IsWaiting());
  EXPECT_THAT(m_got, SizeIs(1));
  m_receiver.Expire(m_now + RtpOrder::kPatience - 1);
  EXPECT_THAT(m_got, SizeIs(1));
  m_receiver.Expire(m_now + RtpOrder::kPatience);
  EXPECT_THAT(m_got, SizeIs(2));
  EXPECT_FALSE(m_receiver.IsWaiting());
  Push(missing);
  EXPECT_THAT(m_got, SizeIs(2));
  EXPECT_EQ(Seen().late, 1u);
}

TEST_F(StreamTest, RepeatedPacketsAreDropped) {
  const auto packets = Frame({Klv(3000)}, 1);
  for (const Bytes& packet : packets) Push({packet, packet});
  EXPECT_THAT(m_got, SizeIs(1));
  EXPECT_EQ(Seen().late, packets.size());
  Frame({Klv(1)}, 2);
  const auto waiting = Frame({Klv(1)}, 3);
  Push(waiting);
  Push(waiting);
  EXPECT_EQ(Seen().late, packets.size() + 1);
}

TEST_F(StreamTest, ASenderThatStartsAnewIsFollowedAtOnce) {
  auto packets = Frame({Klv(3000)}, 1);
  packets.pop_back();
  Push(packets);
  m_header.source = 99;
  m_sequence = 5;
  Push(Frame({Klv(7)}, 2));
  m_sequence = 500'000;
  Push(Frame({Klv(8)}, 3));
  ASSERT_THAT(m_got, SizeIs(2));
  EXPECT_EQ(Seen().restarts, 2u);
  EXPECT_EQ(Seen().incomplete, 1u);
  EXPECT_EQ(Seen().lost, 0u);
}

TEST_F(StreamTest, TheSequenceNumberWrapsAfter32Bits) {
  m_sequence = 0xFFFFFFFE;
  for (uint32_t i = 0; i < 5; ++i) Push(Frame({Klv(i)}, i));
  EXPECT_THAT(m_got, SizeIs(5));
  EXPECT_EQ(Seen().lost + Seen().restarts + Seen().late, 0u);
}

TEST_F(StreamTest, OtherAncillaryPacketsArePassedOver) {
  AncPacket captions;
  captions.did = 0x61;
  captions.sdid = 0x01;
  captions.userData = {1, 2, 3};
  Bytes payload = PackAnc(captions);
  for (const AncPacket& packet : SplitKlv(Klv(9), 1)) {
    const Bytes anc = PackAnc(packet);
    payload.insert(payload.end(), anc.begin(), anc.end());
  }
  m_receiver.Push(PackRtp(m_header, payload, 2), m_now);
  EXPECT_THAT(m_got, SizeIs(1));
}

TEST_F(StreamTest, BytesBehindTheMessageAreNoPartOfIt) {
  Bytes klv = Klv(9);
  klv.insert(klv.end(), {0, 0, 0, 0});
  Push(Frame({klv}, 1));
  ASSERT_THAT(m_got, SizeIs(1));
  EXPECT_EQ(m_got[0].klv, Klv(9));
}

TEST_F(StreamTest, WhatIsNoKlvIsDamaged) {
  Push(Frame({Bytes(600, 0x11), Klv(9)}, 1));
  AncPacket tiny;
  tiny.userData = {1, 0};
  m_receiver.Push(PackRtp({false, 112, m_sequence++, 1, 0, 0}, PackAnc(tiny), 1), m_now);
  m_receiver.Push(PackRtp({false, 112, m_sequence++, 1, 0, 0}, PackAnc(tiny), 2), m_now);
  EXPECT_THAT(m_got, SizeIs(1));
  EXPECT_EQ(Seen().damaged, 4u);  // the message, two tiny packets, one missing packet
  EXPECT_EQ(Seen().incomplete, 0u);
}

TEST_F(StreamTest, RandomAndDamagedDatagramsDoNoHarm) {
  std::mt19937 random(7);
  for (int i = 0; i < 3000; ++i) {
    auto packets = Frame({Klv(random() % 3000), Klv(random() % 300)}, static_cast<uint32_t>(random()));
    for (Bytes& packet : packets) {
      for (auto flips = random() % 3; flips > 0; --flips) FlipBit(packet, random() % (packet.size() * 8));
      if (random() % 10 == 0) packet.resize(random() % packet.size());
      if (random() % 10 != 0) m_receiver.Push(packet, m_now);
      m_now += 1'000'000;
    }
    Bytes noise(random() % 200);
    for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random());
    if (!noise.empty()) noise[0] = static_cast<uint8_t>(0x80 | noise[0] % 64);
    m_receiver.Push(noise, m_now);
  }
  for (const StampedKlv& message : m_got) EXPECT_EQ(SizeOfKlv(message.klv).size, message.klv.size());
  EXPECT_GT(m_got.size(), 500u);
}

}  // namespace
