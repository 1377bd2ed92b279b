// SPDX-License-Identifier: Apache-2.0
#include "st0601_items.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace st0601 {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

Value DecodeTag(uint32_t tag, const Bytes& bytes) {
  return Decode(*FindItem(tag), bytes);
}

Bytes Pattern(size_t size, uint8_t first, uint8_t rest) {
  Bytes bytes(size, rest);
  bytes[0] = first;
  return bytes;
}

// --- the tables --------------------------------------------------------------------------------------

TEST(Table, KnowsEveryItemUpTo143AndNothingElse) {
  for (uint32_t tag = 1; tag <= 143; ++tag) {
    ASSERT_NE(FindItem(tag), nullptr) << tag;
    EXPECT_EQ(FindItem(tag)->tag, tag);
  }
  EXPECT_EQ(FindItem(0U), nullptr);
  EXPECT_EQ(FindItem(144U), nullptr);
  EXPECT_EQ(FindSecurityElement(19), nullptr);
  EXPECT_STREQ(FindItem("sensor_lat")->name, "Sensor Latitude");
  EXPECT_EQ(FindItem("no such key"), nullptr);
}

TEST(Table, KeysAreUnique) {
  for (const auto items : {Items(), SecurityElements()}) {
    std::set<std::string> keys;
    for (const Item& item : items) EXPECT_TRUE(keys.insert(item.key).second) << item.key;
  }
}

// --- boundaries of every item ------------------------------------------------------------------------

class EachItem : public testing::TestWithParam<Item> {};

TEST_P(EachItem, EndsOfItsRangeDecodeAndEncode) {
  const Item& item = GetParam();
  if (item.kind == Kind::Unsigned) {
    EXPECT_DOUBLE_EQ(Decode(item, Bytes(item.size, 0)).number, item.min);
    EXPECT_DOUBLE_EQ(Decode(item, Bytes(item.size, 0xFF)).number, item.max);
    EXPECT_EQ(Encode(item, item.min), Bytes(item.size, 0));
    EXPECT_EQ(Encode(item, item.max), Bytes(item.size, 0xFF));
    EXPECT_FALSE(Encode(item, item.max * 1.01 + 1));
    EXPECT_FALSE(Encode(item, item.min - 1));
    EXPECT_FALSE(Encode(item, std::nan("")));
  } else if (item.kind == Kind::Signed) {
    const Bytes highest = Pattern(item.size, 0x7F, 0xFF);
    Bytes lowest = Pattern(item.size, 0x80, 0x00);
    const Bytes sentinel = lowest;
    lowest.back() = 1;
    EXPECT_DOUBLE_EQ(Decode(item, highest).number, item.max);
    EXPECT_DOUBLE_EQ(Decode(item, lowest).number, item.min);
    EXPECT_EQ(Decode(item, Bytes(item.size, 0)).number, 0);
    EXPECT_EQ(Decode(item, sentinel).state, ValueState::OutOfRange);
    EXPECT_EQ(Decode(item, sentinel).text, "out of range");
    EXPECT_FALSE(Decode(item, sentinel).isNumber);
    EXPECT_EQ(Encode(item, item.max), highest);
    EXPECT_EQ(Encode(item, item.min), lowest);
    EXPECT_EQ(Encode(item, 0), Bytes(item.size, 0));
    EXPECT_EQ(Encode(item, item.max + 1), sentinel);
    EXPECT_EQ(Encode(item, item.min - 1), sentinel);
    EXPECT_EQ(Encode(item, std::numeric_limits<double>::infinity()), sentinel);
    EXPECT_EQ(Encode(item, std::nan("")), sentinel);
  } else if (item.kind == Kind::Imap) {
    for (const size_t size : {2U, 3U, 4U}) {
      EXPECT_NEAR(Decode(item, Bytes(size, 0)).number, item.min, std::ldexp(item.max - item.min, 4 - 8 * int(size)));
      const auto top = Encode(item, item.max, size);
      ASSERT_TRUE(top);
      EXPECT_EQ(top->size(), size);
      EXPECT_NEAR(Decode(item, *top).number, item.max, std::ldexp(item.max - item.min, 4 - 8 * int(size)));
      EXPECT_EQ(Decode(item, Bytes(size, 0xFF)).state, ValueState::OutOfRange);
    }
    EXPECT_FALSE(Encode(item, item.max + 1));
  } else if (item.size != 0) {
    EXPECT_EQ(Decode(item, Bytes(item.size, 0)).whole, 0);
    EXPECT_EQ(EncodeWhole(item, 0), Bytes(item.size, 0));
    if (item.size < 8) {
      EXPECT_FALSE(EncodeWhole(item, int64_t{1} << (8U * item.size)));
    }
  }
}

TEST_P(EachItem, EveryCodingReturnsWhatItWrote) {
  const Item& item = GetParam();
  if (item.kind != Kind::Unsigned && item.kind != Kind::Signed) return;
  for (const double part : {0.0, 0.001, 0.25, 1.0 / 3, 0.5, 0.9, 0.999, 1.0}) {
    const double value = item.min + part * (item.max - item.min);
    const auto bytes = Encode(item, value);
    ASSERT_TRUE(bytes);
    EXPECT_NEAR(Decode(item, *bytes).number, value, Resolution(item) * 0.5001) << value;
  }
}

TEST_P(EachItem, AWrongLengthIsShownAsDigits) {
  const Item& item = GetParam();
  const bool anyLength = item.kind == Kind::Text || item.kind == Kind::Raw || item.kind == Kind::SecuritySet;
  if (anyLength) {
    EXPECT_EQ(Decode(item, {}).state, ValueState::Ok);
    return;
  }
  if (item.kind == Kind::Text16) {
    EXPECT_EQ(Decode(item, Bytes{0x41}).state, ValueState::BadLength);
    return;
  }
  EXPECT_EQ(Decode(item, {}).state, ValueState::BadLength);
  const Value longer = Decode(item, Bytes(9, 0xAB));
  EXPECT_EQ(longer.state, ValueState::BadLength);
  EXPECT_EQ(longer.text, "ABABABABABABABABAB");
  EXPECT_FALSE(longer.isNumber);
}

std::string ItemName(const testing::TestParamInfo<Item>& info) {
  return std::to_string(info.param.tag) + "_" + info.param.key;
}
INSTANTIATE_TEST_SUITE_P(St0601, EachItem, testing::ValuesIn(Items().begin(), Items().end()), ItemName);
INSTANTIATE_TEST_SUITE_P(St0102, EachItem, testing::ValuesIn(SecurityElements().begin(), SecurityElements().end()),
                         ItemName);

// ---------------------------------------------------------------- the standard's printed values

TEST(PrintedSample, AnglesAndPositions) {
  EXPECT_NEAR(DecodeTag(5, {0x71, 0xC2}).number, 159.974, 5e-4);
  EXPECT_NEAR(DecodeTag(6, {0xFD, 0x3D}).number, -0.431531724, 1e-8);
  EXPECT_NEAR(DecodeTag(7, {0x08, 0xB8}).number, 3.4058, 1e-4);
  EXPECT_NEAR(DecodeTag(13, {0x55, 0x95, 0xB6, 0x6D}).number, 60.1768229669783, 1e-12);
  EXPECT_NEAR(DecodeTag(14, {0x5B, 0x53, 0x60, 0xC4}).number, 128.42675904204452, 1e-12);
  EXPECT_NEAR(DecodeTag(15, {0xC2, 0x21}).number, 14190.72, 5e-3);
  EXPECT_NEAR(DecodeTag(16, {0xCD, 0x9C}).number, 144.571298, 1e-6);
  EXPECT_NEAR(DecodeTag(17, {0xD9, 0x17}).number, 152.643626, 1e-6);
  EXPECT_NEAR(DecodeTag(18, {0x72, 0x4A, 0x0A, 0x20}).number, 160.719211, 1e-6);
  EXPECT_NEAR(DecodeTag(19, {0x87, 0xF8, 0x4B, 0x86}).number, -168.792324833941, 1e-12);
  EXPECT_NEAR(DecodeTag(20, {0x7D, 0xC5, 0x5E, 0xCE}).number, 176.8654376, 1e-6);
  EXPECT_NEAR(DecodeTag(21, {0x03, 0x83, 0x09, 0x26}).number, 68590.983298744770, 1e-7);
  EXPECT_NEAR(DecodeTag(22, {0x12, 0x81}).number, 722.819867, 1e-6);
  EXPECT_NEAR(DecodeTag(23, {0xF1, 0x01, 0xA2, 0x29}).number, -10.542388633146, 1e-11);
  EXPECT_NEAR(DecodeTag(24, {0x14, 0xBC, 0x08, 0x2B}).number, 29.157890122923, 1e-11);
  EXPECT_NEAR(DecodeTag(25, {0x34, 0xF3}).number, 3216.037, 1e-3);
  EXPECT_NEAR(DecodeTag(26, {0xC0, 0x6E}).number, -0.037249, 1e-6);
  EXPECT_NEAR(DecodeTag(79, {0x09, 0xFB}).number, 25.4977569, 1e-6);
  EXPECT_NEAR(DecodeTag(93, {0xDE, 0x17, 0x93, 0x23}).number, -47.683, 5e-4);
  EXPECT_EQ(DecodeTag(39, {0x54}).whole, 84);
  EXPECT_EQ(DecodeTag(39, {0x80}).whole, -128);
  EXPECT_EQ(DecodeTag(43, {0x03}).number, 6);
}

TEST(PrintedSample, TextsSayWhatTheResolutionHolds) {
  EXPECT_EQ(DecodeTag(13, {0x55, 0x95, 0xB6, 0x6D}).text, "60.17682297");
  EXPECT_EQ(DecodeTag(5, {0x71, 0xC2}).text, "159.974");
  EXPECT_EQ(DecodeTag(8, {0x93}).text, "147");
  EXPECT_EQ(Display(*FindItem(13U), DecodeTag(13, {0x55, 0x95, 0xB6, 0x6D})), "60.17682297 deg");
  EXPECT_EQ(Display(*FindItem(65U), DecodeTag(65, {0x0D})), "13");
}

TEST(PrintedSample, TimeStamp) {
  const Value value = DecodeTag(2, {0x00, 0x04, 0x59, 0xF4, 0xA6, 0xAA, 0x4A, 0xA8});
  EXPECT_EQ(value.whole, 1224807209913000);
  EXPECT_EQ(value.text, "2008-10-24T00:13:29.913000Z");
  EXPECT_EQ(EncodeWhole(*FindItem(2U), 1224807209913000), (Bytes{0x00, 0x04, 0x59, 0xF4, 0xA6, 0xAA, 0x4A, 0xA8}));
  EXPECT_THAT(DecodeTag(2, Bytes(8, 0xFF)).text, HasSubstr(" us"));
}

// ---------------------------------------------------------------- texts, codes, nested sets

TEST(Text, WhatIsNotPrintableIsEscaped) {
  EXPECT_EQ(DecodeTag(3, {'A', 0x1B, '[', '2', 'J', 0x00, 0x7F, '\\', '\n'}).text, "A\\x1B[2J\\x00\\x7F\\\\\\n");
  EXPECT_EQ(DecodeTag(3, {0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x9A, 0x81}).text, "\u00E9\u20AC\U0001F681");
  EXPECT_EQ(DecodeTag(3, {0xC2, 0x9B, 'm', 0xC3, 0xED, 0xA0, 0x80, 0xC0, 0xAF, 0xFF}).text,
            "\\xC2\\x9Bm\\xC3\\xED\\xA0\\x80\\xC0\\xAF\\xFF");
  EXPECT_EQ(DecodeTag(3, {0xE2, 0x80, 0xAE, 'c', 'o', 'd'}).text, "\\xE2\\x80\\xAEcod");
}

TEST(Text, Utf16FollowsTheSameRule) {
  const auto text = [](const Bytes& value) { return Decode(*FindSecurityElement(13), value).text; };
  EXPECT_EQ(text({0, 'U', 0, 0xE9, 0x20, 0xAC}), "U\u00E9\u20AC");
  EXPECT_EQ(text({0xD8, 0x3D, 0xDE, 0x81}), "\U0001F681");
  EXPECT_EQ(text({0, 0x1B, 0, 0x9B, 0, '\\', 0x20, 0x2E, 0x20, 0x28}),
            "\\x1B\\xC2\\x9B\\\\\\xE2\\x80\\xAE\\xE2\\x80\\xA8");
  // Half a surrogate pair is not a character, whatever follows it.
  EXPECT_EQ(text({0xD8, 0x3D, 0, 'A'}), "\\xED\\xA0\\xBDA");
  EXPECT_EQ(text({0xDE, 0x81, 0xD8, 0x3D}), "\\xED\\xBA\\x81\\xED\\xA0\\xBD");
}

TEST(Security, ReadsTheSetOfTheStandard) {
  const Bytes set = {1, 1, 4,  2, 1, 2,   3, 5,   '/', '/', 'U', 'S', 'A', 12,
                     1, 2, 13, 6, 0, 'U', 0, 'S', 0,   'A', 22,  2,   0,   11};
  const auto elements = ParseSecuritySet(set);
  std::vector<std::string> texts;
  for (const Element& element : elements) texts.push_back(Decode(*element.item, element.value).text);
  EXPECT_THAT(texts, ElementsAre("SECRET", "ISO-3166 Three Letter", "//USA", "ISO-3166 Three Letter", "USA", "11"));
  EXPECT_EQ(EncodeText(*FindSecurityElement(13), "USA"), (Bytes{0, 'U', 0, 'S', 0, 'A'}));
}

TEST(Security, EachCodingMethodHasItsOwnTable) {
  const Item& classifying = *FindSecurityElement(2);
  const Item& object = *FindSecurityElement(12);
  const auto texts = [](const Item& item) {
    std::vector<std::string_view> all;
    for (int code = 0; code <= 0x41; ++code) all.push_back(CodeText(item, code));
    return all;
  };
  std::vector<std::string_view> ofClassifying = {"",
                                                 "ISO-3166 Two Letter",
                                                 "ISO-3166 Three Letter",
                                                 "FIPS 10-4 Two Letter",
                                                 "FIPS 10-4 Four Letter",
                                                 "ISO-3166 Numeric",
                                                 "1059 Two Letter",
                                                 "1059 Three Letter",
                                                 "",
                                                 "",
                                                 "FIPS 10-4 Mixed",
                                                 "ISO 3166 Mixed",
                                                 "STANAG 1059 Mixed",
                                                 "GENC Two Letter",
                                                 "GENC Three Letter",
                                                 "GENC Numeric",
                                                 "GENC Mixed"};
  ofClassifying.resize(0x42);
  EXPECT_THAT(texts(classifying), ElementsAreArray(ofClassifying));
  std::vector<std::string_view> ofObject(0x42);
  ofObject[1] = "ISO-3166 Two Letter";
  ofObject[2] = "ISO-3166 Three Letter";
  ofObject[3] = "ISO-3166 Numeric";
  ofObject[4] = "FIPS 10-4 Two Letter";
  ofObject[5] = "FIPS 10-4 Four Letter";
  ofObject[6] = "1059 Two Letter";
  ofObject[7] = "1059 Three Letter";
  ofObject[0x0D] = "GENC Two Letter";
  ofObject[0x0E] = "GENC Three Letter";
  ofObject[0x0F] = "GENC Numeric";
  ofObject[0x40] = "GENC AdminSub";
  EXPECT_THAT(texts(object), ElementsAreArray(ofObject));
}

TEST(Security, CodesWithoutMeaningStayNumbers) {
  EXPECT_EQ(Decode(*FindSecurityElement(1), Bytes{9}).text, "9");
  EXPECT_EQ(Decode(*FindSecurityElement(2), Bytes{8}).text, "8");
  EXPECT_EQ(Decode(*FindSecurityElement(12), Bytes{16}).text, "16");
  EXPECT_EQ(DecodeTag(34, {2}).text, "icing detected");
  EXPECT_EQ(CodeText(*FindItem(34U), -1), "");
}

TEST(Imap, HoldsZeroExactly) {
  const Item& rate = *FindItem(117U);
  for (const size_t size : {2U, 3U, 4U}) EXPECT_EQ(Decode(rate, *Encode(rate, 0, size)).number, 0);
}

TEST(WholeNumbers, TakeTheLeastBytesWhereTheLengthVaries) {
  EXPECT_EQ(EncodeWhole(*FindItem(110U), 0x0123), (Bytes{0x01, 0x23}));
  EXPECT_EQ(EncodeWhole(*FindItem(136U), -2), (Bytes{0xFE}));
  EXPECT_EQ(EncodeWhole(*FindItem(136U), 128), (Bytes{0x00, 0x80}));
  EXPECT_FALSE(EncodeWhole(*FindItem(110U), -1));
  EXPECT_FALSE(EncodeWhole(*FindItem(39U), 128));
  EXPECT_FALSE(EncodeWhole(*FindItem(3U), 1));
  EXPECT_EQ(DecodeTag(137, Bytes(8, 0xFF)).whole, -1);
}

// --- messages ----------------------------------------------------------------------------------------

Bytes Sample() {
  return Builder()
      .AddWhole(2, 1224807209913000)
      .AddText(3, "Mission 12")
      .Add(13, 60.1768229669783)
      .Add(130, ByteView(Bytes{1, 2}))
      .AddWhole(65, 13)
      .Finish();
}

TEST(Parse, ReadsWhatTheBuilderWrote) {
  const Bytes bytes = Sample();
  const Message message = Parse(bytes);
  EXPECT_TRUE(message.isUas);
  EXPECT_TRUE(message.isComplete) << message.error;
  EXPECT_EQ(message.totalSize, bytes.size());
  EXPECT_EQ(message.checksum, ChecksumState::Ok);
  ASSERT_EQ(message.elements.size(), 6U);
  EXPECT_EQ(message.elements[3].tag, 130U);
  EXPECT_EQ(Decode(*message.Find(3)->item, message.Find(3)->value).text, "Mission 12");
  EXPECT_EQ(message.Find(66), nullptr);
}

TEST(Parse, TellsTheChecksumsState) {
  Bytes bytes = Sample();
  bytes.back() ^= 1;
  EXPECT_EQ(Parse(bytes).checksum, ChecksumState::Bad);
  EXPECT_STREQ(ChecksumStateName(Parse(bytes).checksum), "bad");
  EXPECT_EQ(Parse(Builder().AddWhole(65, 13).Finish(false)).checksum, ChecksumState::Missing);
  EXPECT_EQ(Parse(Builder().AddWhole(1, 7).AddWhole(65, 13).Finish(false)).checksum, ChecksumState::Misplaced);
  EXPECT_EQ(Parse(Builder().Add(1, ByteView(Bytes{7})).Finish(false)).checksum, ChecksumState::Misplaced);
}

TEST(Parse, BytesBehindTheMessageAreNotPartOfIt) {
  Bytes bytes = Sample();
  const size_t size = bytes.size();
  bytes.push_back(0x55);
  const Message message = Parse(bytes);
  EXPECT_EQ(message.totalSize, size);
  EXPECT_EQ(message.checksum, ChecksumState::Ok);
}

TEST(Parse, KeepsWhatStandsBeforeAFault) {
  const Bytes bytes = Builder().AddWhole(65, 13).Add(3, ByteView(Bytes(4, 'x'))).Finish(false);
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    const Message message = Parse(ByteView(bytes).first(cut));
    EXPECT_FALSE(message.isComplete) << cut;
    EXPECT_NE(message.error, "") << cut;
    EXPECT_EQ(message.Find(65) != nullptr, cut >= 20) << cut;
  }
  Bytes other = bytes;
  other[15] = 1;
  EXPECT_EQ(Parse(other).error, "not a UAS Datalink Local Set");
}

TEST(Parse, RefusesLengthsThatNoMessageHolds) {
  Bytes bytes(kUasKey, kUasKey + 16);
  for (const Bytes& length : {Bytes{0x80}, Bytes{0x85, 0, 0, 0, 0, 1}, Bytes{0x82, 1}, Bytes{}}) {
    Bytes message = bytes;
    message.insert(message.end(), length.begin(), length.end());
    EXPECT_EQ(Parse(message).error, "unreadable length");
  }
  bytes.insert(bytes.end(), {0x84, 0xFF, 0xFF, 0xFF, 0xFF, 3, 0x84, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(Parse(bytes).error, "item 3 runs past the end");
  bytes.resize(20);
  bytes[16] = 3;
  bytes[17] = bytes[18] = bytes[19] = 0xFF;
  EXPECT_EQ(Parse(bytes).error, "unreadable tag at byte 0 of the body");
}

// Decodes everything readable, as a program that shows the message does.
size_t DecodeAll(ByteView bytes) {
  const Message message = Parse(bytes);
  size_t characters = message.error.size();
  for (const Element& element : message.elements) {
    EXPECT_LE(element.value.data() + element.value.size(), bytes.data() + bytes.size());
    if (element.item == nullptr) continue;
    characters += Display(*element.item, Decode(*element.item, element.value)).size();
    if (element.item->kind != Kind::SecuritySet) continue;
    for (const Element& inner : ParseSecuritySet(element.value)) {
      if (inner.item != nullptr) characters += Decode(*inner.item, inner.value).text.size();
    }
  }
  return characters;
}

TEST(Parse, NoDamageLeadsOutsideTheMessage) {
  Bytes body = Sample();
  const Bytes security = {1, 1, 4, 13, 6, 0, 'U', 0, 'S', 0, 'A'};
  body = Builder().AddWhole(2, 1).Add(48, ByteView(security)).Add(130, ByteView(body)).Add(96, 7.0).Finish();
  for (size_t position = 0; position < body.size(); ++position) {
    const Bytes cut(body.begin(), body.begin() + static_cast<ptrdiff_t>(position));
    DecodeAll(cut);
    for (const unsigned change : {0x01U, 0x80U, 0x7FU, 0xFFU}) {
      Bytes damaged = body;
      damaged[position] = static_cast<uint8_t>(damaged[position] ^ change);
      EXPECT_GT(DecodeAll(damaged), 0U);
    }
  }
}

TEST(Parse, LongLengthsAreWrittenInTheShortestForm) {
  const Bytes longText(300, 'x');
  const Bytes bytes = Builder().Add(3, ByteView(longText)).Finish();
  EXPECT_EQ(bytes[16], 0x82);
  EXPECT_TRUE(Parse(bytes).isComplete);
  const Bytes middle = Builder().Add(3, ByteView(longText).first(150)).Finish();
  EXPECT_EQ(middle[16], 0x81);
  EXPECT_EQ(Parse(middle).checksum, ChecksumState::Ok);
}

// --- recordings --------------------------------------------------------------------------------------

// Reads a recording. Prints a line and returns nothing if it is missing.
std::optional<Bytes> Recording(const std::string& name) {
  std::ifstream file(METADATA_SHARED_DATA_DIR "/" + name, std::ios::binary);
  if (!file) {
    std::cout << name << " is absent from " METADATA_SHARED_DATA_DIR ": nothing is tested with it\n";
    return std::nullopt;
  }
  return Bytes{std::istreambuf_iterator<char>(file), {}};
}

TEST(Recording, EveryMessageOfTheFlightIsWholeAndItsChecksumRight) {
  const auto bytes = Recording("recorded_flight.klv");
  if (!bytes) return;
  size_t count = 0;
  for (ByteView rest(*bytes); !rest.empty(); ++count) {
    const Message message = Parse(rest);
    ASSERT_TRUE(message.isUas) << message.error;
    ASSERT_LE(message.totalSize, rest.size());
    const Message whole = Parse(rest.first(message.totalSize));
    ASSERT_TRUE(whole.isComplete) << whole.error;
    EXPECT_EQ(whole.checksum, ChecksumState::Ok) << count;
    for (const Element& element : whole.elements) {
      ASSERT_NE(element.item, nullptr) << element.tag;
      EXPECT_NE(Decode(*element.item, element.value).state, ValueState::BadLength) << element.tag;
    }
    rest = rest.subspan(message.totalSize);
  }
  EXPECT_EQ(count, 407U);
}

TEST(Recording, TheStandardsSampleLacksItemsAndItsChecksumTells) {
  const auto bytes = Recording("st0601_sample.klv");
  if (!bytes) return;
  const Message message = Parse(*bytes);
  EXPECT_TRUE(message.isComplete) << message.error;
  EXPECT_EQ(message.checksum, ChecksumState::Bad);
  EXPECT_EQ(message.storedChecksum, 0xAA43);
  EXPECT_NEAR(Decode(*FindItem(13U), message.Find(13)->value).number, 60.1768229669783, 1e-12);
}

}  // namespace
}  // namespace st0601
