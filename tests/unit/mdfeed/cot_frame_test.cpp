// SPDX-License-Identifier: Apache-2.0
#include "cot_frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>

namespace mdfeed {
namespace {

constexpr size_t kHeaderSize = 17;

unsigned Word(const Bytes& data, size_t offset) {
  return data.at(offset) + 256u * data.at(offset + 1);
}

bool Bit(const Bytes& data, size_t bit) {
  return ((data.at(bit / 8) >> (7 - bit % 8)) & 1) != 0;
}

Codeword WordAt(const Bytes& packed, size_t index) {
  Codeword word{};
  for (size_t bit = 0; bit < 155; ++bit) {
    if (Bit(packed, index * 155 + bit)) word[bit / 5] |= static_cast<uint8_t>(0x10 >> (bit % 5));
  }
  return word;
}

Bytes DataBits(const Bytes& packed) {
  const size_t codewords = packed.size() * 8 / 155;
  Bytes data((codewords * 105 + 7) / 8);
  for (size_t bit = 0; bit < codewords * 105; ++bit) {
    if (Bit(packed, bit / 105 * 155 + bit % 105)) data[bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
  }
  return data;
}

Bytes Payload(const Bytes& frame) {
  return {frame.begin() + kHeaderSize, frame.end()};
}

TEST(ReedSolomon, EveryWordMadeIsACodeword) {
  std::minstd_rand random(3);
  for (int round = 0; round < 200; ++round) {
    std::array<uint8_t, kDataSymbols> data{};
    for (auto& symbol : data) symbol = random() % 32;
    const Codeword word = EncodeReedSolomon(data);
    EXPECT_TRUE(IsCodeword(word));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), word.begin()));
  }
}

TEST(ReedSolomon, AnyChangedSymbolIsNoticed) {
  std::array<uint8_t, kDataSymbols> data{};
  data[4] = 17;
  Codeword word = EncodeReedSolomon(data);
  for (auto& symbol : word) {
    for (uint8_t change = 1; change < 32; ++change) {
      symbol ^= change;
      EXPECT_FALSE(IsCodeword(word));
      symbol ^= change;
    }
  }
}

// With ten check symbols two different words differ in at least eleven places.
TEST(ReedSolomon, WordsAreElevenSymbolsApart) {
  std::minstd_rand random(4);
  for (int round = 0; round < 2000; ++round) {
    std::array<uint8_t, kDataSymbols> data{};
    data[random() % kDataSymbols] = static_cast<uint8_t>(1 + random() % 31);
    data[random() % kDataSymbols] = static_cast<uint8_t>(1 + random() % 31);
    const Codeword word = EncodeReedSolomon(data);
    EXPECT_GE(std::count_if(word.begin(), word.end(), [](auto symbol) { return symbol != 0; }), 11);
  }
}

TEST(CotFrame, CheckWordIsMinusTwiceTheLength) {
  EXPECT_EQ(LengthCheck(100), 0xFF38);
  EXPECT_EQ(LengthCheck(0), 0);
  EXPECT_EQ(LengthCheck(0x8001), 0xFFFE);
}

TEST(CotFrame, CrcHasTheKnownCheckValue) {
  const std::string digits = "123456789";
  EXPECT_EQ(Crc16Arc(Bytes(digits.begin(), digits.end())), 0xBB3D);
  EXPECT_EQ(Crc16Arc({}), 0);
}

TEST(CotFrame, HeaderHoldsTheLengthThreeTimes) {
  const Bytes frame = BuildCotFrame("<event/>");
  const std::string sync(frame.begin(), frame.begin() + 5);
  EXPECT_EQ(sync, "oHeY!");
  for (size_t copy = 0; copy < 3; ++copy) {
    EXPECT_EQ(Word(frame, 5 + 4 * copy), frame.size() - kHeaderSize);
    EXPECT_EQ(Word(frame, 7 + 4 * copy), LengthCheck(static_cast<uint16_t>(frame.size() - kHeaderSize)));
  }
}

TEST(CotFrame, CodewordsCarryTheBlockAndTrueCheckBits) {
  const std::string xml(1000, 'x');
  const Bytes payload = Payload(BuildCotFrame(xml));
  const size_t codewords = payload.size() * 8 / 155;
  for (size_t i = 0; i < codewords; ++i) EXPECT_TRUE(IsCodeword(WordAt(payload, i)));
  const Bytes block = DataBits(payload);
  EXPECT_EQ(Word(block, 0), xml.size() + 3 + 2);
  EXPECT_EQ(std::string(block.begin() + 2, block.begin() + 5), "U#1");
  EXPECT_EQ(std::string(block.begin() + 5, block.begin() + 1005), xml);
  const Bytes arq(block.begin() + 2, block.begin() + 1005);
  EXPECT_EQ(256u * block[1005] + block[1006], Crc16Arc(arq));
}

TEST(CotFrame, LengthWordCanBeReadBeforeDecoding) {
  const Bytes payload = Payload(BuildCotFrame("<event/>"));
  EXPECT_EQ(Word(payload, 0), 13u);
}

TEST(CotFrame, RefusesWhatDoesNotFit) {
  EXPECT_NO_THROW(BuildCotFrame(std::string(44'000, 'x')));
  EXPECT_THROW(BuildCotFrame(std::string(44'500, 'x')), std::length_error);
  EXPECT_THROW(BuildCotFrame(std::string(70'000, 'x')), std::length_error);
}

class DamagedFrame : public testing::TestWithParam<FrameField> {};

TEST_P(DamagedFrame, DiffersOnlyWhereItIsDamaged) {
  const std::string xml = "<event version=\"2.0\"></event>";
  const Bytes whole = BuildCotFrame(xml);
  const FrameField field = GetParam();
  const std::string name(FrameFieldName(field));
  EXPECT_EQ(ParseFrameField(name), field);
  for (uint32_t seed = 0; seed < 50; ++seed) {
    const Bytes frame = BuildCotFrame(xml, {'1', {field}, seed});
    ASSERT_EQ(frame.size(), whole.size());
    ASSERT_NE(frame, whole);
    const auto first = std::mismatch(frame.begin(), frame.end(), whole.begin()).first - frame.begin();
    const Bytes block = DataBits(Payload(frame));
    const size_t end = 5 + xml.size();
    const Bytes arq(block.begin() + 2, block.begin() + static_cast<ptrdiff_t>(end));
    const bool crcRight = 256u * block[end] + block[end + 1] == Crc16Arc(arq);
    if (field == FrameField::Sync) {
      EXPECT_LT(first, 5);
    } else if (name.starts_with("length") || name.starts_with("check") || field == FrameField::CheckBits) {
      const ptrdiff_t place = name.starts_with("length") ? 5 : 7;
      if (field != FrameField::CheckBits) {
        EXPECT_EQ((first - place) / 2 * 2, 4 * (name.back() - '1')) << name;
      } else {
        EXPECT_FALSE(IsCodeword(WordAt(Payload(frame), 0)));
      }
      EXPECT_TRUE(crcRight);
    } else if (field == FrameField::ArqU || field == FrameField::ArqHash || field == FrameField::Channel) {
      EXPECT_TRUE(crcRight);
      EXPECT_NE(std::string(arq.begin(), arq.begin() + 3), "U#1");
    } else if (field == FrameField::BlockLength) {
      EXPECT_GT(Word(Payload(frame), 0), block.size());
    } else {
      EXPECT_FALSE(crcRight) << name;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllFields, DamagedFrame,
                         testing::Values(FrameField::Sync, FrameField::Length1, FrameField::Length2,
                                         FrameField::Length3, FrameField::Check1, FrameField::Check2,
                                         FrameField::Check3, FrameField::Codeword, FrameField::CheckBits,
                                         FrameField::BlockLength, FrameField::Crc, FrameField::ArqU,
                                         FrameField::ArqHash, FrameField::Channel));

}  // namespace
}  // namespace mdfeed
