// SPDX-License-Identifier: Apache-2.0
#include "anc_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace mdfeed {
namespace {

// Reads an RTP packet word by word.
class Reader {
 public:
  Reader(const Bytes& bytes, size_t bit) : m_bytes(bytes), m_bit(bit) {}
  unsigned Take(unsigned bits) {
    unsigned value = 0;
    for (unsigned i = 0; i < bits; i++, m_bit++) {
      value = value << 1 | ((static_cast<unsigned>(m_bytes.at(m_bit / 8)) >> (7 - m_bit % 8)) & 1u);
    }
    return value;
  }
  void Align() { m_bit = (m_bit + 31) / 32 * 32; }
  size_t Byte() const { return m_bit / 8; }

 private:
  const Bytes& m_bytes;
  size_t m_bit;
};

struct Anc {
  unsigned messageNumber;
  unsigned packetCount;
  Bytes klv;
  bool checksumRight;
};

struct Rtp {
  bool marker;
  unsigned payloadType;
  uint32_t sequence;
  uint32_t timestamp;
  std::vector<Anc> anc;
};

bool ParityRight(unsigned word) {
  const unsigned parity = static_cast<unsigned>(__builtin_popcount(word & 0xFF)) & 1u;
  return (word >> 8 & 1u) == parity && (word >> 9 & 1u) == (parity ^ 1u);
}

Anc ReadAnc(Reader& reader) {
  Anc anc{};
  EXPECT_EQ(reader.Take(1), 0u);
  EXPECT_EQ(reader.Take(11), 9u);
  reader.Take(12 + 8);
  std::vector<unsigned> words;
  for (int i = 0; i < 3; ++i) words.push_back(reader.Take(10));
  const unsigned count = words[2] & 0xFF;
  for (unsigned i = 0; i < count; ++i) words.push_back(reader.Take(10));
  unsigned sum = 0;
  for (const unsigned word : words) {
    EXPECT_TRUE(ParityRight(word));
    sum += word & 0x1FF;
  }
  const unsigned checksum = reader.Take(10);
  EXPECT_EQ(checksum >> 9 & 1, (checksum >> 8 & 1) ^ 1);
  anc.checksumRight = (checksum & 0x1FF) == (sum & 0x1FF);
  reader.Align();
  EXPECT_EQ(words[0] & 0xFF, 0x44u);
  EXPECT_EQ(words[1] & 0xFF, 0x04u);
  anc.messageNumber = words.at(3) & 0xFF;
  anc.packetCount = (words.at(4) & 0xFF) << 8 | (words.at(5) & 0xFF);
  for (size_t i = 6; i < words.size(); ++i) anc.klv.push_back(static_cast<uint8_t>(words[i]));
  return anc;
}

Rtp ReadRtp(const Bytes& packet) {
  Rtp rtp{};
  Reader reader(packet, 0);
  EXPECT_EQ(reader.Take(8), 0x80u);
  rtp.marker = reader.Take(1) != 0;
  rtp.payloadType = reader.Take(7);
  rtp.sequence = reader.Take(16);
  rtp.timestamp = reader.Take(32);
  reader.Take(32);
  rtp.sequence |= reader.Take(16) << 16;
  EXPECT_EQ(reader.Take(16), packet.size() - 20);
  const unsigned count = reader.Take(8);
  EXPECT_EQ(reader.Take(24), 0u);
  for (unsigned i = 0; i < count; ++i) rtp.anc.push_back(ReadAnc(reader));
  EXPECT_EQ(reader.Byte(), packet.size());
  return rtp;
}

Bytes Numbers(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 13);
  return bytes;
}

std::vector<Bytes> SendAll(std::vector<Bytes> messages, const AncOptions& options) {
  const auto stream = MakeAncStream(MakeRecorded(std::move(messages), 1), options);
  std::vector<Bytes> packets;
  while (const auto batch = stream->Next()) packets.insert(packets.end(), batch->begin(), batch->end());
  return packets;
}

TEST(AncStream, ShortMessageIsOneAncillaryPacket) {
  AncOptions options;
  options.startUs = 1'000'000;
  options.rate = 25;
  const auto packets = SendAll({Numbers(252), Numbers(1)}, options);
  ASSERT_EQ(packets.size(), 2u);
  const Rtp first = ReadRtp(packets[0]);
  EXPECT_TRUE(first.marker);
  EXPECT_EQ(first.payloadType, 112u);
  EXPECT_EQ(first.sequence, 0u);
  EXPECT_EQ(first.timestamp, 90'000u);
  ASSERT_EQ(first.anc.size(), 1u);
  EXPECT_EQ(first.anc[0].klv, Numbers(252));
  EXPECT_EQ(first.anc[0].messageNumber, 1u);
  EXPECT_EQ(first.anc[0].packetCount, 1u);
  EXPECT_TRUE(first.anc[0].checksumRight);
  const Rtp second = ReadRtp(packets[1]);
  EXPECT_EQ(second.sequence, 1u);
  EXPECT_EQ(second.timestamp, 93'600u);
  EXPECT_EQ(second.anc.at(0).messageNumber, 2u);
}

TEST(AncStream, LongMessageIsCutAndCounted) {
  const auto packets = SendAll({Numbers(3'000)}, {});
  ASSERT_GT(packets.size(), 1u);
  Bytes joined;
  unsigned count = 0;
  for (size_t i = 0; i < packets.size(); ++i) {
    EXPECT_LE(packets[i].size(), kLargestRtpPacket);
    const Rtp rtp = ReadRtp(packets[i]);
    EXPECT_EQ(rtp.marker, i + 1 == packets.size());
    EXPECT_EQ(rtp.timestamp, ReadRtp(packets[0]).timestamp);
    for (const Anc& anc : rtp.anc) {
      EXPECT_EQ(anc.messageNumber, 1u);
      EXPECT_EQ(anc.packetCount, ++count);
      joined.insert(joined.end(), anc.klv.begin(), anc.klv.end());
    }
  }
  EXPECT_EQ(joined, Numbers(3'000));
}

TEST(AncStream, MessageNumbersRunFrom1To255) {
  const auto packets = SendAll(std::vector<Bytes>(256, Numbers(5)), {});
  EXPECT_EQ(ReadRtp(packets[254]).anc.at(0).messageNumber, 255u);
  EXPECT_EQ(ReadRtp(packets[255]).anc.at(0).messageNumber, 1u);
}

TEST(AncStream, LosesReordersAndDamagesTheAskedShare) {
  AncOptions options;
  options.loss = 20;
  const auto withLosses = SendAll(std::vector<Bytes>(1'000, Numbers(5)), options);
  EXPECT_NEAR(static_cast<double>(withLosses.size()), 800, 60);

  options = {};
  options.reorder = 30;
  const auto reordered = SendAll(std::vector<Bytes>(1'000, Numbers(5)), options);
  std::map<uint32_t, int> seen;
  int behind = 0;
  uint32_t last = 0;
  for (const Bytes& packet : reordered) {
    const uint32_t sequence = ReadRtp(packet).sequence;
    seen[sequence]++;
    behind += sequence < last;
    last = sequence;
  }
  EXPECT_EQ(seen.size(), 1'000u);
  EXPECT_NEAR(behind, 230, 80);

  options = {};
  options.badChecksum = 50;
  int bad = 0;
  for (const Bytes& packet : SendAll(std::vector<Bytes>(1'000, Numbers(5)), options)) {
    bad += !ReadRtp(packet).anc.at(0).checksumRight;
  }
  EXPECT_NEAR(bad, 500, 80);
}

}  // namespace
}  // namespace mdfeed
