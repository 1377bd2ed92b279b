// SPDX-License-Identifier: Apache-2.0
#include "video_units.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace video {
namespace {

// A delimiter, both parameter sets, and a slice behind a short start code.
const Bytes kFrame264 = {0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1,    0x67, 0x42, 0x11,
                         0, 0, 0, 1, 0x68, 0xCE, 0, 0, 1, 0x65, 0x88, 0x99};
const Bytes kFrame265 = {0, 0, 0, 1, 0x40, 1, 0xA, 0, 0, 0, 1,    0x42, 1,  0xB,
                         0, 0, 0, 1, 0x44, 1, 0xC, 0, 0, 1, 0x26, 1,    0xD};

std::vector<int> Types(Codec codec, ByteView frame) {
  std::vector<int> types;
  for (auto unit = NextUnit(codec, frame, 0); unit; unit = NextUnit(codec, frame, unit->end))
    types.push_back(unit->type);
  return types;
}

TEST(VideoUnits, AreFoundBehindShortAndLongStartCodes) {
  EXPECT_EQ(Types(Codec::H264, kFrame264), (std::vector<int>{9, 7, 8, 5}));
  EXPECT_EQ(Types(Codec::H265, kFrame265), (std::vector<int>{32, 33, 34, 19}));
  const auto sets = NextUnit(Codec::H264, kFrame264, 1);
  ASSERT_TRUE(sets);
  EXPECT_EQ(NextUnit(Codec::H264, kFrame264, 5)->begin, 6u);
  EXPECT_EQ(NextUnit(Codec::H264, kFrame264, 5)->end, 13u);
}

TEST(VideoUnits, OtherBytesHaveNone) {
  for (const Bytes& bytes : {Bytes{}, Bytes{0}, Bytes{0, 0, 1}, Bytes{1, 2, 3, 4, 5}, Bytes(100, 0)}) {
    EXPECT_FALSE(NextUnit(Codec::H264, bytes, 0));
    EXPECT_FALSE(HasDelimiter(Codec::H264, bytes));
    EXPECT_TRUE(ParameterSets(Codec::H264, bytes).empty());
    EXPECT_FALSE(TimeStamp(Codec::H264, bytes));
  }
}

TEST(VideoUnits, ADelimiterIsTheFirstUnit) {
  EXPECT_TRUE(HasDelimiter(Codec::H264, kFrame264));
  EXPECT_FALSE(HasDelimiter(Codec::H265, kFrame265));
  EXPECT_TRUE(HasDelimiter(Codec::H265, Bytes{0, 0, 1, 0x46, 1, 0x50}));
}

TEST(VideoUnits, ParameterSetsAreAllOrNothing) {
  EXPECT_EQ(ParameterSets(Codec::H264, kFrame264), (Bytes{0, 0, 0, 1, 0x67, 0x42, 0x11, 0, 0, 0, 1, 0x68, 0xCE}));
  EXPECT_EQ(ParameterSets(Codec::H265, kFrame265),
            (Bytes{0, 0, 0, 1, 0x40, 1, 0xA, 0, 0, 0, 1, 0x42, 1, 0xB, 0, 0, 0, 1, 0x44, 1, 0xC}));
  EXPECT_TRUE(ParameterSets(Codec::H264, Bytes{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x65, 1}).empty());
}

TEST(VideoUnits, TheTimeStampIsByteByByteThatOfTheStandard) {
  const Bytes stamped = WithTimeStamp(Codec::H264, kFrame264, 0x0102030405060708, true);
  const Bytes message = {0,    0,    0,    1,    0x06, 0x05, 0x1C, 0x4D, 0x49, 0x53, 0x50, 0x6D,
                         0x69, 0x63, 0x72, 0x6F, 0x73, 0x65, 0x63, 0x74, 0x69, 0x6D, 0x65, 0x1F,
                         0x01, 0x02, 0xFF, 0x03, 0x04, 0xFF, 0x05, 0x06, 0xFF, 0x07, 0x08, 0x80};
  Bytes expected(kFrame264.begin(), kFrame264.begin() + 19);
  expected.insert(expected.end(), message.begin(), message.end());
  expected.insert(expected.end(), kFrame264.begin() + 19, kFrame264.end());
  EXPECT_EQ(stamped, expected);
  EXPECT_EQ(WithTimeStamp(Codec::H264, kFrame264, 0, false)[19 + 23], 0x9F);
}

TEST(VideoUnits, TheTimeStampComesBack) {
  for (const uint64_t time : {uint64_t{0}, uint64_t{1}, uint64_t{0x0102030405060700}, UINT64_MAX}) {
    EXPECT_EQ(TimeStamp(Codec::H264, WithTimeStamp(Codec::H264, kFrame264, time, true)), time);
    const Bytes stamped = WithTimeStamp(Codec::H265, kFrame265, time, false);
    EXPECT_EQ(TimeStamp(Codec::H265, stamped), time);
    EXPECT_EQ(Types(Codec::H265, stamped), (std::vector<int>{32, 33, 34, 39, 19}));
  }
  EXPECT_FALSE(TimeStamp(Codec::H264, kFrame264));
}

}  // namespace
}  // namespace video
