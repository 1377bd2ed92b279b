// SPDX-License-Identifier: Apache-2.0
// Compares the parsing core with simple models, which use pointers instead of positions and work byte by byte or bit by
// bit.
#include "md_core.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kTagCodes[] = {-1, 0, 1, 2, 4, 12, 16};
constexpr int kLengthCodes[] = {0, 1, 2, 4};

// Bytes in a block of exactly their size, so that a sanitizer detects a read outside.
class Exact {
 public:
  explicit Exact(const Bytes& bytes) : m_bytes(new uint8_t[bytes.size() + 1]), m_size(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), Data());
  }
  uint8_t* Data() const { return m_bytes.get() + 1; }
  size_t Size() const { return m_size; }

 private:
  std::unique_ptr<uint8_t[]> m_bytes;
  size_t m_size;
};

// A value that a function must overwrite on every path.
MdItem Garbage() {
  return {{0xDEADBEEF, 999}, {true, 998, 997, 0xDEADBEEF}, 996, 995};
}

// --- Models ----------------------------------------------------------------------------------------------

struct ModelItem {
  MdRead result = kMdReadOk;
  uint32_t key = 0;
  size_t keySize = 0;
  bool longForm = false;
  uint32_t count = 0;
  size_t lengthSize = 0;
  uint32_t length = 0;
  size_t valuePosition = 0;
  uint64_t end = 0;
  bool operator==(const ModelItem&) const = default;
};
void PrintTo(const ModelItem& item, std::ostream* stream) {
  *stream << "result " << item.result << ", key " << item.key << " (" << item.keySize << " bytes), length "
          << item.length << " (" << item.count << " in " << item.lengthSize << " bytes, long form " << item.longForm
          << "), value at " << item.valuePosition << ", end " << item.end;
}

uint32_t ModelBigEndian(const uint8_t* data, size_t count) {
  uint32_t value = 0;
  while (count-- > 0) value = value * 256 + *data++;
  return value;
}

// Returns the size of the tag at the start of the remaining bytes, or nothing if it is truncated.
std::optional<size_t> ModelTagSize(const uint8_t* data, size_t left, int code) {
  if (code == -1) {
    const uint8_t* last = std::find_if(data, data + left, [](uint8_t byte) { return byte < 0x80; });
    if (last == data + left) return {};
    return static_cast<size_t>(last - data) + 1;
  }
  if (code == 12) {
    const uint8_t* stop = data + std::min<size_t>(left, 12);
    const uint8_t* zero = std::find(data, stop, 0);
    if (zero != stop) return static_cast<size_t>(zero - data) + 1;
    if (left < 12) return {};
    return size_t{12};
  }
  if (static_cast<size_t>(code) > left) return {};
  return static_cast<size_t>(code);
}

uint32_t ModelKey(const uint8_t* tag, size_t size, int code) {
  if (code == 12 || code == 16 || size > 4) return 0;
  uint32_t key = 0;
  for (size_t i = 0; i < size; ++i) key = code == -1 ? key * 128 + tag[i] % 128 : key * 256 + tag[i];
  return key;
}

MdRead ModelLength(const uint8_t* data, size_t left, int code, ModelItem& item) {
  if (left == 0) return kMdReadLengthCut;
  const uint8_t* value = data;
  if (code == 0 && data[0] >= 0x80) {
    item.longForm = true;
    item.count = data[0] - 0x80u;
    item.lengthSize = 1 + item.count;
    ++value;
  } else {
    item.count = code == 0 ? 1 : static_cast<uint32_t>(code);
    item.lengthSize = item.count;
  }
  if (item.lengthSize > left) return kMdReadLengthCut;
  if (item.count == 0 || item.count > 4) return kMdReadUnsupported;
  item.length = ModelBigEndian(value, item.count);
  return kMdReadOk;
}

ModelItem ModelReadItem(const Bytes& bytes, size_t position, int tagCode, int lengthCode) {
  ModelItem item;
  const uint8_t* data = bytes.data() + position;
  const size_t left = bytes.size() - position;
  const auto tagSize = ModelTagSize(data, left, tagCode);
  if (!tagSize) {
    item.result = kMdReadTagCut;
    item.valuePosition = bytes.size();
    item.end = bytes.size();
    return item;
  }
  item.keySize = *tagSize;
  item.key = ModelKey(data, *tagSize, tagCode);
  item.result = ModelLength(data + *tagSize, left - *tagSize, lengthCode, item);
  item.valuePosition = position + *tagSize + (item.result == kMdReadOk ? item.lengthSize : 0);
  item.end = item.valuePosition + item.length;
  return item;
}

ModelItem Read(const Bytes& bytes, size_t position, int tagCode, int lengthCode) {
  const Exact exact(bytes);
  MdItem item = Garbage();
  const MdRead result = _MdReadItem(exact.Data(), exact.Size(), position, tagCode, lengthCode, &item);
  return {result,
          item.tag.key,
          item.tag.size,
          item.length.longForm,
          item.length.count,
          item.length.size,
          item.length.value,
          item.valuePosition,
          item.end};
}

// Computes the sum byte by byte, in 16 bits. No bytes are skipped if skip is 0.
uint16_t ModelSum(const Bytes& bytes, size_t skip = 0) {
  uint16_t sum = 0;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (skip != 0 && (i == skip || i == skip + 1)) continue;
    sum = static_cast<uint16_t>(sum + (i % 2 == 0 ? bytes[i] * 256 : bytes[i]));
  }
  return sum;
}

uint8_t Reversed(uint8_t byte) {
  uint8_t reversed = 0;
  for (int bit = 0; bit < 8; ++bit) reversed = static_cast<uint8_t>(reversed * 2 + (byte >> bit) % 2);
  return reversed;
}

// Computes CRC-16/ARC by its definition: the unreflected polynomial 0x8005 over reflected bytes, and a reflected
// result.
uint16_t ModelCrc(const Bytes& bytes) {
  unsigned crc = 0;
  for (const uint8_t byte : bytes) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool out = ((crc >> 15) ^ (Reversed(byte) >> bit)) % 2 != 0;
      crc = (crc << 1 & 0xFFFF) ^ (out ? 0x8005 : 0);
    }
  }
  return static_cast<uint16_t>(Reversed(static_cast<uint8_t>(crc)) << 8 | Reversed(static_cast<uint8_t>(crc >> 8)));
}

Bytes RandomBytes(std::mt19937& random, size_t most) {
  Bytes bytes(random() % (most + 1));
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

// Returns random bytes in which long tags, long lengths and their ends are frequent.
Bytes RandomItems(std::mt19937& random) {
  Bytes bytes = RandomBytes(random, 24);
  for (uint8_t& byte : bytes)
    if (random() % 3 == 0) byte = static_cast<uint8_t>(random() % 2 == 0 ? 0x80 + random() % 7 : random() % 3);
  return bytes;
}

// --- Items -----------------------------------------------------------------------------------------------

TEST(MdCoreItem, RandomItemsReadLikeTheModelAtEveryPosition) {
  std::mt19937 random(1);
  int counts[5] = {};
  for (int round = 0; round < 20000; ++round) {
    const Bytes bytes = RandomItems(random);
    const size_t position = random() % (bytes.size() + 1);
    for (const int tagCode : kTagCodes) {
      for (const int lengthCode : kLengthCodes) {
        const ModelItem expected = ModelReadItem(bytes, position, tagCode, lengthCode);
        ASSERT_EQ(Read(bytes, position, tagCode, lengthCode), expected)
            << testing::PrintToString(bytes) << " at " << position << ", tag " << tagCode << ", length " << lengthCode;
        ++counts[expected.result];
      }
    }
  }
  for (const MdRead result : {kMdReadOk, kMdReadTagCut, kMdReadLengthCut, kMdReadUnsupported})
    EXPECT_GT(counts[result], 1000) << result;
}

TEST(MdCoreItem, EveryFirstByteOfALengthReadsLikeTheModel) {
  for (int first = 0; first < 256; ++first) {
    for (size_t behind = 0; behind < 130; ++behind) {
      Bytes bytes = {5, static_cast<uint8_t>(first)};
      bytes.resize(2 + behind, 0x11);
      ASSERT_EQ(Read(bytes, 0, 1, 0), ModelReadItem(bytes, 0, 1, 0)) << first << ", " << behind;
    }
  }
}

TEST(MdCoreItem, ObjectIdentifiersOfUpToFourBytesHaveAValue) {
  EXPECT_EQ(Read({0x7F, 0}, 0, -1, 0).key, 0x7Fu);
  EXPECT_EQ(Read({0x81, 0x01, 0}, 0, -1, 0).key, 0x81u);
  EXPECT_EQ(Read({0x81, 0x82, 0x03, 0}, 0, -1, 0).key, 0x4103u);
  EXPECT_EQ(Read({0xFF, 0xFF, 0xFF, 0x7F, 0}, 0, -1, 0).key, 0x0FFFFFFFu);
  const ModelItem longer = Read({0x81, 0x82, 0x83, 0x84, 0x05, 0}, 0, -1, 0);
  EXPECT_EQ(longer.result, kMdReadOk);
  EXPECT_EQ(longer.key, 0u);
  EXPECT_EQ(longer.keySize, 5u);
}

TEST(MdCoreItem, UnknownTagCodeReadsNoTag) {
  for (const int code : {-2, 3, 5, 11, 13, 17, 1000})
    EXPECT_EQ(Read({2, 0xAA, 0xBB}, 0, code, 0), Read({2, 0xAA, 0xBB}, 0, 0, 0)) << code;
}

TEST(MdCoreItem, UnknownLengthCodeIsReportedAndReadsNothing) {
  for (const int code : {-1, 3, 5, 12, 16, 1000}) {
    const ModelItem item = Read({5, 7, 0xAA}, 0, 1, code);
    EXPECT_EQ(item, (ModelItem{kMdReadUnknownCode, 5, 1, false, 0, 0, 0, 1, 1})) << code;
  }
}

TEST(MdCoreItem, NothingIsReadAtOrAfterTheEnd) {
  for (const size_t position : {size_t{2}, size_t{3}, SIZE_MAX}) {
    for (const int tagCode : {-1, 1, 2, 4, 12, 16}) EXPECT_EQ(Read({1, 1}, position, tagCode, 0).result, kMdReadTagCut);
    EXPECT_EQ(Read({1, 1}, position, 0, 0).result, kMdReadLengthCut);
  }
}

TEST(MdCoreItem, LengthNearFourGigabytesEndsAfterTheDataAndNeverBeforeIt) {
  EXPECT_EQ(Read({5, 0xFF, 0xFF, 0xFF, 0xFB}, 0, 1, 4).end, 5 + uint64_t{0xFFFFFFFB});
  EXPECT_EQ(Read({5, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}, 0, 1, 0).end, 6 + uint64_t{0xFFFFFFFF});
}

// Walks a set as callers do: item by item, each at the position where the previous one ended.
TEST(MdCoreItem, WalkVisitsEveryItemAndEndsWhereTheModelDoes) {
  std::mt19937 random(2);
  for (int round = 0; round < 5000; ++round) {
    Bytes bytes;
    std::vector<uint32_t> keys;
    for (size_t items = random() % 8; items > 0; --items) {
      const auto key = static_cast<uint32_t>(random() % 3 == 0 ? 128 + random() % 1000 : random() % 128);
      const auto size = static_cast<uint32_t>(random() % 3 == 0 ? 128 + random() % 300 : random() % 128);
      keys.push_back(key);
      if (key >= 128) bytes.push_back(static_cast<uint8_t>(0x80 | key >> 7));
      bytes.push_back(key % 128);
      if (size >= 256) bytes.insert(bytes.end(), {0x82, static_cast<uint8_t>(size >> 8)});
      if (size >= 128 && size < 256) bytes.push_back(0x81);
      bytes.push_back(static_cast<uint8_t>(size));
      bytes.resize(bytes.size() + size, 0xEE);
    }
    const Exact exact(bytes);
    std::vector<uint32_t> seen;
    uint64_t position = 0;
    while (position < bytes.size()) {
      MdItem item = Garbage();
      ASSERT_EQ(_MdReadItem(exact.Data(), exact.Size(), position, kMdFieldOidTag, kMdFieldNoneOrBer, &item), kMdReadOk);
      seen.push_back(item.tag.key);
      position = item.end;
    }
    ASSERT_EQ(position, bytes.size());
    ASSERT_EQ(seen, keys);
  }
}

// --- Element sizes, on which the callers' limits depend
// ----------------------------------------------------------------

// Returns the size of an element of a local set with one-byte tags and up to four length bytes. Returns -1 for an
// unsupported length form, which takes precedence, and 0 if the element is truncated.
int64_t ModelElementSize(const Bytes& bytes) {
  if (bytes.size() < 2) return 0;
  if (bytes[1] < 0x80) return 2 + bytes[1];
  const size_t count = bytes[1] & 0x7F;
  if (count < 1 || count > 4) return -1;
  if (bytes.size() < 2 + count) return 0;
  return 2 + static_cast<int64_t>(count) + ModelBigEndian(bytes.data() + 2, count);
}

TEST(MdCoreItem, TruncatedFormsReportTheirCountSoThatCallersMayRefuseItFirst) {
  std::mt19937 random(3);
  for (int round = 0; round < 50000; ++round) {
    Bytes bytes = RandomItems(random);
    bytes.resize(std::min<size_t>(bytes.size(), 8));
    const ModelItem item = Read(bytes, 0, kMdField1Byte, kMdFieldNoneOrBer);
    int64_t size = static_cast<int64_t>(item.end);
    if (item.longForm && (item.count < 1 || item.count > 4)) {
      size = -1;
    } else if (item.result != kMdReadOk) {
      size = 0;
    }
    ASSERT_EQ(size, ModelElementSize(bytes)) << testing::PrintToString(bytes);
  }
}

// --- Fields alone ----------------------------------------------------------------------------------------

TEST(MdCoreField, TagAndLengthAloneReadAsInAnItem) {
  std::mt19937 random(4);
  for (int round = 0; round < 20000; ++round) {
    const Bytes bytes = RandomItems(random);
    const Exact exact(bytes);
    const size_t position = random() % (bytes.size() + 1);
    const int tagCode = kTagCodes[random() % std::size(kTagCodes)];
    const int lengthCode = kLengthCodes[random() % std::size(kLengthCodes)];
    MdItem item = Garbage();
    const MdRead result = _MdReadItem(exact.Data(), exact.Size(), position, tagCode, lengthCode, &item);
    MdItem alone = Garbage();
    const bool tagRead = _MdReadTag(exact.Data(), exact.Size(), position, tagCode, &alone.tag);
    ASSERT_EQ(tagRead, result != kMdReadTagCut);
    ASSERT_EQ(alone.tag.key, item.tag.key);
    ASSERT_EQ(alone.tag.size, item.tag.size);
    if (!tagRead) continue;
    ASSERT_EQ(_MdReadLength(exact.Data(), exact.Size(), position + alone.tag.size, lengthCode, &alone.length), result);
    ASSERT_EQ(alone.length.value, item.length.value);
    ASSERT_EQ(alone.length.size, item.length.size);
  }
}

// --- Running sum -----------------------------------------------------------------------------------------

TEST(MdCoreSum, ThreeBytesCountFromTheHighByteOn) {
  const uint8_t bytes[] = {1, 2, 3};
  EXPECT_EQ(_MdRunningSum(bytes, 3), 0x0402);
  EXPECT_EQ(_MdRunningSum(bytes, 0), 0);
}

TEST(MdCoreSum, RandomDataSumsLikeTheModelWithAndWithoutTwoBytes) {
  std::mt19937 random(5);
  for (int round = 0; round < 5000; ++round) {
    const Bytes bytes = RandomBytes(random, 300);
    const Exact exact(bytes);
    ASSERT_EQ(_MdRunningSum(exact.Data(), exact.Size()), ModelSum(bytes));
    const size_t skip = 1 + random() % (bytes.size() + 4);
    ASSERT_EQ(_MdRunningSumWithout(exact.Data(), exact.Size(), skip), ModelSum(bytes, skip)) << bytes.size() << skip;
  }
}

TEST(MdCoreSum, PositionsAtTheVeryStartAndEndMayBeSkipped) {
  const uint8_t bytes[] = {0xFF, 0xFF, 1, 2, 0xFF};
  EXPECT_EQ(_MdRunningSumWithout(bytes, 5, 0), static_cast<uint16_t>(0x0102 + 0xFF00));
  EXPECT_EQ(_MdRunningSumWithout(bytes, 5, 4), static_cast<uint16_t>(0xFFFF + 0x0102));
  EXPECT_EQ(_MdRunningSumWithout(bytes, 5, 5), _MdRunningSum(bytes, 5));
  EXPECT_EQ(_MdRunningSumWithout(bytes, 5, SIZE_MAX), _MdRunningSum(bytes, 5));
}

TEST(MdCoreSum, MessageLongerThan65535BytesWrapsLikeTheModel) {
  for (const size_t size : {size_t{65535}, size_t{65536}, size_t{65554}, size_t{200001}}) {
    const Bytes bytes(size, 0xFF);
    EXPECT_EQ(_MdRunningSum(bytes.data(), size), ModelSum(bytes)) << size;
  }
}

// --- CRC -------------------------------------------------------------------------------------------------

TEST(MdCoreCrc, NineDigitsGiveTheCheckValue) {
  const std::string digits = "123456789";
  EXPECT_EQ(_MdCrc16(reinterpret_cast<const uint8_t*>(digits.data()), digits.size()), 0xBB3D);
  EXPECT_EQ(_MdCrc16(nullptr, 0), 0);
}

TEST(MdCoreCrc, RandomDataMatchesTheUnreflectedDefinition) {
  std::mt19937 random(6);
  for (int round = 0; round < 3000; ++round) {
    const Bytes bytes = RandomBytes(random, 100);
    const Exact exact(bytes);
    ASSERT_EQ(_MdCrc16(exact.Data(), exact.Size()), ModelCrc(bytes));
  }
}

// --- Bits ------------------------------------------------------------------------------------------------

bool BitOf(const Bytes& bytes, size_t bit) {
  return ((bytes[bit / 8] >> (7 - bit % 8)) & 1) != 0;
}

TEST(MdCoreBits, RandomFieldsAreCopiedBitByBitAndNothingElseChanges) {
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    Bytes input(20);
    for (uint8_t& byte : input) byte = static_cast<uint8_t>(random());
    const size_t count = random() % 120;
    const size_t from = random() % (input.size() * 8 - count + 1);
    const size_t to = random() % 40;
    Bytes output((to + count + 7) / 8);
    for (uint8_t& byte : output) byte = static_cast<uint8_t>(random() % 4 == 0 ? random() : 0);
    Bytes expected = output;
    for (size_t i = 0; i < count; ++i)
      if (BitOf(input, from + i)) expected[(to + i) / 8] |= static_cast<uint8_t>(0x80 >> (to + i) % 8);
    const Exact exactInput(input);
    const Exact exactOutput(output);
    _MdCopyBits(exactInput.Data(), from, exactOutput.Data(), to, count);
    ASSERT_EQ(Bytes(exactOutput.Data(), exactOutput.Data() + output.size()), expected)
        << from << " " << to << " " << count;
  }
}

TEST(MdCoreBits, ResultSumsTheRemainingBitsOfEachStepsInputByte) {
  std::mt19937 random(8);
  const Bytes input(20);
  for (int round = 0; round < 5000; ++round) {
    const int count = static_cast<int>(random() % 100);
    const int from = static_cast<int>(random() % 40);
    const int to = static_cast<int>(random() % 40);
    int expected = 0;
    for (int done = 0; done < count;) {
      const int rest = 8 - (from + done) % 8;
      expected += rest;
      done += std::min({rest, 8 - (to + done) % 8, count - done});
    }
    Bytes output(20);
    ASSERT_EQ(_MdCopyBits(input.data(), static_cast<size_t>(from), output.data(), static_cast<size_t>(to),
                          static_cast<size_t>(count)),
              expected);
  }
}

}  // namespace
