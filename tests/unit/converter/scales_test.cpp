// SPDX-License-Identifier: Apache-2.0
// Tests of the values that a receiver reads from numbers that are not scaled as in MISB ST 0601.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "converter_fixture.h"

namespace {

class Scales : public ConverterTest {
 protected:
  void ConvertPoint(const std::string& rest) {
    AllowLogs(3, "");
    ASSERT_TRUE(ConvertSpi("<point lat=\"1\" lon=\"1\" hae=\"1\"" + rest));
  }
  // In the standard the whole range of a number of the given bits represents 0 to the largest value.
  double ReadByTheStandard(int tag, double largest, int bits) const {
    return static_cast<double>(Number(tag)) * largest / (std::ldexp(1.0, bits) - 1);
  }
};

TEST_F(Scales, ErrorEstimatesReadBelowTheirValue) {
  ConvertPoint(" le=\"2400\" ce=\"1900\"/>");
  for (const auto& [tag, metres] : {std::pair{46, 2400 * 1.6448538}, std::pair{45, 1900 * 2.145966025}}) {
    EXPECT_NEAR(static_cast<double>(Number(tag)) / 16, metres, 0.5 / 16) << "16 steps a metre";
    EXPECT_NEAR(ReadByTheStandard(tag, 4095, 16), metres * (1 - 0.000229), 0.04);
  }
  ConvertPoint(" le=\"2489.58\" ce=\"1\"/>");
  EXPECT_NEAR(4095 - ReadByTheStandard(46, 4095, 16), 0.94, 0.04);
}

TEST_F(Scales, RangeReadsSlightlyAboveItsValue) {
  ConvertPoint("/><sensor range=\"4999999\"/>");
  EXPECT_NEAR(ReadByTheStandard(21, 5000000, 32) - 4999999, 0.21, 0.005);
  ConvertPoint("/><sensor range=\"1000\"/>");
  EXPECT_NEAR(ReadByTheStandard(21, 5000000, 32), 1000, 0.001);
}

TEST_F(Scales, PacketHasNoEditionItem) {
  AllowLogs(3, "");
  ASSERT_TRUE(ConvertPair(Aircraft(), Spi()));
  EXPECT_FALSE(Has(65));
}

TEST(PacketChecksum, StoredUnchangedIsBigEndian) {
  Bytes data;
  for (int i = 0; i < 1200; ++i) {
    const uint16_t checksum = get_checksum_u16(data.data(), static_cast<int>(data.size()));
    BYTE stored[2];
    memcpy(stored, &checksum, sizeof(stored));
    const WORD expected = OwnChecksum(data, data.size());
    ASSERT_EQ(stored[0] << 8 | stored[1], expected) << i << " bytes";
    data.push_back(static_cast<BYTE>(255 - i * 7));
  }
}

TEST(PacketChecksum, OfNoBytesIsZero) {
  const BYTE byte = 0xFF;
  for (const int length : {0, -1, INT_MIN}) EXPECT_EQ(get_checksum_u16(&byte, length), 0) << length;
}

TEST(ByteOrder, IsSwappedWhole) {
  EXPECT_EQ(SWAP16(0x0102), 0x0201);
  EXPECT_EQ(SWAP32(0x01020304), 0x04030201u);
  EXPECT_EQ(SWAP64(0x0102030405060708), 0x0807060504030201u);
}

}  // namespace
