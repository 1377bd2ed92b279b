// SPDX-License-Identifier: Apache-2.0
// Tests of the UAS Local Set tools: element sizes, the elements that a source inserts, the validation and the names.
#include "misb0601_tools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>

#include "builders.h"
#include "fake_host.h"

namespace {

using ::testing::ElementsAre;

Bytes BytesOf(const void* pvData, size_t nSize) {
  const auto* pcData = static_cast<const BYTE*>(pvData);
  return {pcData, pcData + nSize};
}

// --- Element sizes -------------------------------------------------------------------------------------

class ElementSizeTest : public HostTest {
 protected:
  BOOL SizeOf(Bytes element) {
    element.resize(6);
    m_nSize = 4711;
    return GetKLVElementSize(reinterpret_cast<const KLV_ELEMENT*>(element.data()), &m_nSize);
  }
  tagKLV_SIZE_RESULT BoundedSizeOf(const Bytes& element) {
    m_nSize = 4711;
    const std::unique_ptr<BYTE[]> pcExact(new BYTE[element.size()]);  // a sanitizer detects a read past it
    std::copy(element.begin(), element.end(), pcExact.get());
    const auto enResult = _ReadKLVElement({pcExact.get(), element.size()}, true, &m_info);
    if (enResult == KLV_SIZE_OK) m_nSize = m_info.nSize;
    return enResult;
  }
  KLV_ELEMENT_INFO m_info = {};
  size_t m_nSize = 0;
};

TEST_F(ElementSizeTest, ShortFormIsLengthPlusTwo) {
  EXPECT_TRUE(SizeOf({2, 0}));
  EXPECT_EQ(m_nSize, 2u);
  EXPECT_TRUE(SizeOf({2, 0x7F}));
  EXPECT_EQ(m_nSize, 129u);
}

TEST_F(ElementSizeTest, TwoLengthBytesGive260) {
  EXPECT_TRUE(SizeOf({2, 0x82, 0x01, 0x00}));
  EXPECT_EQ(m_nSize, 260u);
}

TEST_F(ElementSizeTest, OneThreeAndFourLengthBytesAreRead) {
  EXPECT_TRUE(SizeOf({2, 0x81, 0xFF}));
  EXPECT_EQ(m_nSize, 3u + 255u);
  EXPECT_TRUE(SizeOf({2, 0x83, 0x01, 0x02, 0x03}));
  EXPECT_EQ(m_nSize, 5u + 0x010203u);
  EXPECT_TRUE(SizeOf({2, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(m_nSize, 6 + size_t{0xFFFFFFFF});
}

TEST_F(ElementSizeTest, UnsupportedFormsAreLoggedAndLeaveTheSizeAlone) {
  EXPECT_FALSE(SizeOf({2, 0x80}));
  EXPECT_EQ(m_nSize, 4711u);
  ExpectLog(3, "Unsupported number of bytes (0) for size in BER encoded length.\n");
  EXPECT_FALSE(SizeOf({2, 0x85}));
  EXPECT_EQ(m_nSize, 4711u);
  ExpectLog(3, "Unsupported number of bytes (5) for size in BER encoded length.\n");
  EXPECT_FALSE(SizeOf({2, 0xFF}));
  ExpectLog(3, "Unsupported number of bytes (127) for size in BER encoded length.\n");
}

TEST_F(ElementSizeTest, BoundedFormReadsNothingAfterTheRemainingBytes) {
  EXPECT_EQ(BoundedSizeOf({}), KLV_SIZE_CUT);
  EXPECT_EQ(BoundedSizeOf({2}), KLV_SIZE_CUT);
  EXPECT_EQ(BoundedSizeOf({2, 0x81}), KLV_SIZE_CUT);
  EXPECT_EQ(BoundedSizeOf({2, 0x84, 1, 2, 3}), KLV_SIZE_CUT);
  EXPECT_EQ(m_nSize, 4711u);
  EXPECT_EQ(BoundedSizeOf({2, 0x84, 0, 0, 0, 3}), KLV_SIZE_OK);
  EXPECT_EQ(m_nSize, 9u);
  EXPECT_EQ(BoundedSizeOf({2, 0x80}), KLV_SIZE_UNSUPPORTED);
  ExpectLog(3, "Unsupported number of bytes (0) for size in BER encoded length.\n");
}

TEST_F(ElementSizeTest, BoundedFormCanBeSilent) {
  const BYTE element[] = {2, 0x80};
  KLV_ELEMENT_INFO info = {};
  EXPECT_EQ(_ReadKLVElement(element, false, &info), KLV_SIZE_UNSUPPORTED);
}

// A simple model that reads an element byte by byte. The first error found is the result.
struct PlainElement {
  tagKLV_SIZE_RESULT result = KLV_SIZE_CUT;
  UINT32 tag = 0;
  int firstLength = 0;
  size_t tagSize = 0;
  size_t headerSize = 0;
  size_t size = 0;
  int unsupportedCount = -1;  // the count in the log line, or -1 without a line
};

tagKLV_SIZE_RESULT ReadPlainTag(const Bytes& bytes, bool extended, PlainElement& element) {
  if (bytes.empty()) return KLV_SIZE_CUT;
  element.tag = bytes[0];
  element.tagSize = 1;
  if (!extended || bytes[0] < 0x80) return KLV_SIZE_OK;
  if (bytes[0] == 0x80) return KLV_SIZE_UNSUPPORTED;
  UINT32 tag = 0;
  for (size_t i = 0; i < 4; ++i) {
    if (i == bytes.size()) return KLV_SIZE_CUT;
    tag = tag * 128 + bytes[i] % 128;
    if (bytes[i] >= 0x80) continue;
    element.tag = tag;
    element.tagSize = i + 1;
    return KLV_SIZE_OK;
  }
  return KLV_SIZE_UNSUPPORTED;
}

tagKLV_SIZE_RESULT ReadPlainLength(const Bytes& bytes, PlainElement& element) {
  size_t at = element.tagSize;
  if (at == bytes.size()) return KLV_SIZE_CUT;
  const BYTE first = bytes[at++];
  element.firstLength = first;
  size_t length = first;
  if (first >= 0x80) {
    const int count = first - 0x80;
    if (count < 1 || count > 4) {
      element.unsupportedCount = count;
      return KLV_SIZE_UNSUPPORTED;
    }
    length = 0;
    for (int i = 0; i < count; ++i) {
      if (at == bytes.size()) return KLV_SIZE_CUT;
      length = length * 256 + bytes[at++];
    }
  }
  element.headerSize = at;
  element.size = at + length;
  return KLV_SIZE_OK;
}

PlainElement ReadPlain(const Bytes& bytes, bool extended) {
  PlainElement element;
  element.result = ReadPlainTag(bytes, extended, element);
  if (element.result == KLV_SIZE_OK) element.result = ReadPlainLength(bytes, element);
  return element;
}

// Returns random bytes in which long tags, long lengths and their ends are frequent.
Bytes RandomElement(std::mt19937& random) {
  Bytes bytes(random() % 9);
  for (BYTE& byte : bytes) {
    const int kind = static_cast<int>(random() % 3);
    byte = static_cast<BYTE>(kind == 0 ? random() : kind == 1 ? 0x80 + random() % 7 : random() % 3);
  }
  return bytes;
}

TEST_F(ElementSizeTest, RandomElementsReadLikeTheModelWithAndWithoutExtendedTags) {
  std::mt19937 random(48);
  int counts[3] = {};
  for (int round = 0; round < 40000; ++round) {
    const Bytes bytes = RandomElement(random);
    const PlainElement expected = ReadPlain(bytes, round % 2 == 0);
    _g_bExtendedTags = round % 2 == 0;
    ASSERT_EQ(BoundedSizeOf(bytes), expected.result) << ::testing::PrintToString(bytes);
    _g_bExtendedTags = FALSE;
    ++counts[expected.result];
    EXPECT_EQ(m_info.nTag, expected.tag) << ::testing::PrintToString(bytes);
    EXPECT_EQ(m_info.FirstLength, expected.firstLength) << ::testing::PrintToString(bytes);
    if (expected.unsupportedCount >= 0) {
      ExpectLog(3, "Unsupported number of bytes (" + std::to_string(expected.unsupportedCount) +
                       ") for size in BER encoded length.\n");
    } else {
      EXPECT_TRUE(host().Logs().empty()) << ::testing::PrintToString(bytes);
    }
    host().ClearLogs();
    if (expected.result != KLV_SIZE_OK) continue;
    EXPECT_EQ(m_info.nTagSize, expected.tagSize);
    EXPECT_EQ(m_info.nHeaderSize, expected.headerSize);
    EXPECT_EQ(m_info.nSize, expected.size);
  }
  for (const int count : counts) EXPECT_GT(count, 1000);
}

// --- Extended tags -------------------------------------------------------------------------------------

class ExtendedTagsTest : public ElementSizeTest {
 protected:
  void SetUp() override {
    ElementSizeTest::SetUp();
    _g_bExtendedTags = TRUE;
  }
  void TearDown() override {
    _g_bExtendedTags = FALSE;
    ElementSizeTest::TearDown();
  }
  void Use(const char* szValue) {
    host().SetConfig("/etc/hostos.ini", "UASLocalSet", "ExtendedTags", szValue);
    _ReadExtendedTagsOption();
  }
};

TEST_F(ExtendedTagsTest, OptionIsOffUnlessConfiguredOtherwise) {
  _ReadExtendedTagsOption();
  EXPECT_FALSE(_g_bExtendedTags);
  ExpectNoLog("Support of extended UAS tags enabled.\n");
  for (const char* szYes : {"Yes", "yES", "yes"}) {
    _g_bExtendedTags = FALSE;
    Use(szYes);
    EXPECT_TRUE(_g_bExtendedTags) << szYes;
  }
  ExpectLog(6, "Support of extended UAS tags enabled.\n");
  for (const char* szNo : {"No", "", "1", "true", "Yes ", "Yess"}) {
    _g_bExtendedTags = TRUE;
    Use(szNo);
    EXPECT_FALSE(_g_bExtendedTags) << szNo;
  }
}

TEST_F(ExtendedTagsTest, TagsOfOneToFourBytesAreRead) {
  const struct {
    Bytes element;
    UINT32 nTag;
    size_t nSize;
  } aCases[] = {{{127, 1, 9}, 127, 3},
                {{0x81, 0x00, 1, 9}, 128, 4},
                {{0x81, 0x0F, 0}, 143, 3},
                {{0xFF, 0x7F, 0x81, 2}, 16383, 6},
                {{0x81, 0x80, 0x00, 0x82, 1, 0}, 16384, 262},
                {{0xFF, 0xFF, 0xFF, 0x7F, 5}, 0xFFFFFFF, 10}};
  for (const auto& row : aCases) {
    EXPECT_EQ(BoundedSizeOf(row.element), KLV_SIZE_OK) << row.nTag;
    EXPECT_EQ(m_info.nTag, row.nTag);
    EXPECT_EQ(m_nSize, row.nSize) << row.nTag;
  }
}

TEST_F(ExtendedTagsTest, LongerTagsAndEmptyLeadingDigitsAreMalformed) {
  for (const Bytes& element : {Bytes{0x80, 3, 1, 9}, Bytes{0x80}, Bytes{0x80, 0x80, 1, 1, 1},
                               Bytes{0x81, 0x80, 0x80, 0x80, 0, 1, 9}, Bytes{0xFF, 0xFF, 0xFF, 0xFF}})
    EXPECT_EQ(BoundedSizeOf(element), KLV_SIZE_UNSUPPORTED);
}

TEST_F(ExtendedTagsTest, TagOrLengthAfterTheRemainingBytesIsTruncated) {
  for (const Bytes& element : {Bytes{0x81}, Bytes{0xFF, 0xFF, 0xFF}, Bytes{0x81, 0}, Bytes{0x81, 0, 0x82, 1}})
    EXPECT_EQ(BoundedSizeOf(element), KLV_SIZE_CUT);
}

TEST_F(ExtendedTagsTest, ExportedSizeHasAOneByteTagWhateverTheOption) {
  EXPECT_TRUE(SizeOf({0x81, 3, 1, 2, 3}));
  EXPECT_EQ(m_nSize, 5u);
}

TEST_F(ExtendedTagsTest, TagsAboveAByteHaveNoName) {
  EXPECT_STREQ(_GetUAVTagName(255), GetUAVTagName(255));
  EXPECT_STREQ(_GetUAVTagName(256), "Unknown");
  EXPECT_STREQ(_GetSecurityTagName(22), GetSecurityTagName(22));
  EXPECT_STREQ(_GetSecurityTagName(0x116), "Unknown");
}

// --- Mission identifier --------------------------------------------------------------------------------

class MissionIDTest : public HostTest {
 protected:
  using Element = std::unique_ptr<MISSION_ID_KLV, decltype(&free)>;
  static Element Alloc(const std::string& strText) { return {AllocMissionID(strText.c_str()), &free}; }
};

TEST_F(MissionIDTest, HoldsTagLengthAndCharactersWithoutTerminator) {
  const Element pElement = Alloc("MISSION01");
  ASSERT_NE(pElement, nullptr);
  EXPECT_THAT(BytesOf(pElement.get(), 11), ElementsAre(3, 9, 'M', 'I', 'S', 'S', 'I', 'O', 'N', '0', '1'));
}

TEST_F(MissionIDTest, EmptyTextGivesTwoBytes) {
  EXPECT_THAT(BytesOf(Alloc("").get(), 2), ElementsAre(3, 0));
}

TEST_F(MissionIDTest, HighCharactersAreCopiedAsTheyAre) {
  EXPECT_THAT(BytesOf(Alloc("\xC3\xA4").get(), 4), ElementsAre(3, 2, 0xC3, 0xA4));
}

TEST_F(MissionIDTest, IdentifierOf127CharactersTakes129Bytes) {
  const Element pElement = Alloc(std::string(127, 'x'));
  EXPECT_EQ(pElement->cLength, 127);
  size_t nSize = 0;
  EXPECT_TRUE(GetKLVElementSize(reinterpret_cast<const KLV_ELEMENT*>(pElement.get()), &nSize));
  EXPECT_EQ(nSize, 129u);
  EXPECT_EQ(BytesOf(pElement.get(), 129).back(), 'x');
}

TEST_F(MissionIDTest, IdentifierAbove127CharactersAssertsAndKeepsTheLowByte) {
  EXPECT_EQ(Alloc(std::string(128, 'x'))->cLength, 128);
  ExpectAssertion("nLength <= 127");
  const Element pElement = Alloc(std::string(300, 'x'));
  EXPECT_EQ(pElement->cLength, 44);
  EXPECT_EQ(BytesOf(pElement.get(), 302).back(), 'x');
  ExpectAssertion("nLength <= 127");
}

TEST_F(MissionIDTest, NoElementIsMadeIfOutOfMemory) {
  host().FailNext("malloc");
  EXPECT_EQ(Alloc("MISSION01"), nullptr);
}

// --- Security set --------------------------------------------------------------------------------------

class SecurityMetadataTest : public HostTest {
 protected:
  using Element = std::unique_ptr<KLV_ELEMENT, decltype(&free)>;
  static Element Alloc(int enClassification, const char* szCountry, const std::string& strObject) {
    return {AllocSecurityMetadata(enClassification, szCountry, strObject.c_str()), &free};
  }
};

TEST_F(SecurityMetadataTest, ObjectCountryOfThreeLettersGives30Bytes) {
  const Element pElement = Alloc(4, "USA", "USA");
  ASSERT_NE(pElement, nullptr);
  EXPECT_EQ(BytesOf(pElement.get(), 30),
            Hex("30 1C 01 01 04 02 01 02 03 05 2F 2F 55 53 41 0C 01 02 0D 06 00 55 00 53 00 41 16 02 00 0B"));
}

TEST_F(SecurityMetadataTest, IsDumpedAtLevel6) {
  const Element pElement = Alloc(4, "USA", "USA");
  ExpectDump(6, "Created Security Dataset", BytesOf(pElement.get(), 30));
}

TEST_F(SecurityMetadataTest, EmptyObjectCountryGives24Bytes) {
  const Element pElement = Alloc(1, "FRA", "");
  EXPECT_EQ(BytesOf(pElement.get(), 24),
            Hex("30 16 01 01 01 02 01 02 03 05 2F 2F 46 52 41 0C 01 02 0D 00 16 02 00 0B"));
}

TEST_F(SecurityMetadataTest, CharactersAbove127BecomeOneUnit) {
  const Element pElement = Alloc(1, "FRA", "\xE9");
  EXPECT_THAT(BytesOf(reinterpret_cast<const BYTE*>(pElement.get()) + 18, 4), ElementsAre(13, 2, 0x00, 0xE9));
}

TEST_F(SecurityMetadataTest, CountryOfTwoLettersGivesNoSet) {
  EXPECT_EQ(Alloc(1, "US", "USA"), nullptr);
  ExpectLog(3, "Unsupported country length=2.\n");
  EXPECT_EQ(Alloc(1, "USAF", "USA"), nullptr);
  ExpectLog(3, "Unsupported country length=4.\n");
  EXPECT_EQ(Alloc(1, "", "USA"), nullptr);
  ExpectLog(3, "Unsupported country length=0.\n");
}

TEST_F(SecurityMetadataTest, ClassificationIsNotRangeChecked) {
  EXPECT_EQ(BytesOf(Alloc(0, "USA", "").get(), 5).back(), 0);
  EXPECT_EQ(BytesOf(Alloc(77, "USA", "").get(), 5).back(), 77);
  EXPECT_EQ(BytesOf(Alloc(0x1FE, "USA", "").get(), 5).back(), 0xFE);
  EXPECT_EQ(BytesOf(Alloc(-1, "USA", "").get(), 5).back(), 0xFF);
}

TEST_F(SecurityMetadataTest, ObjectCountryLengthIsTakenModulo128) {
  // Of the 130 characters the length of the item covers 2, and the version follows these.
  const Bytes set = BytesOf(Alloc(1, "USA", std::string(130, 'Z')).get(), 24 + 260);
  EXPECT_EQ(set[1], (22 + 260) & 0xFF);
  EXPECT_THAT(Bytes(set.begin() + 18, set.begin() + 28), ElementsAre(13, 4, 0, 'Z', 0, 'Z', 22, 2, 0x00, 0x0B));
}

TEST_F(SecurityMetadataTest, FailedAllocationIsLogged) {
  host().FailNext("calloc");
  EXPECT_EQ(Alloc(1, "USA", "USA"), nullptr);
  ExpectLog(3, "No memory for security data set of 30 bytes.\n");
}

// --- Validation ----------------------------------------------------------------------------------------

class ValidateTest : public HostTest {
 protected:
  // The message is in a block of exactly its size, so that a sanitizer detects a read past its end.
  static BOOL Validate(const Bytes& message, int nHeaderSize = 17) {
    const std::unique_ptr<BYTE[]> pcExact(new BYTE[message.size()]);
    std::copy(message.begin(), message.end(), pcExact.get());
    return ValidateUASLocalDataSet(pcExact.get(), static_cast<int>(message.size()), nHeaderSize);
  }
  static Bytes Wrap(const Bytes& body) { return UasMessage().Raw(body).Build(); }
  // Stores the sum over the whole message with the value bytes as zero, and returns it.
  static unsigned SumInto(Bytes& message, size_t nOffset) {
    message[nOffset] = message[nOffset + 1] = 0;
    const unsigned nSum = OwnChecksum(message, message.size());
    message[nOffset] = static_cast<BYTE>(nSum >> 8);
    message[nOffset + 1] = static_cast<BYTE>(nSum);
    return nSum;
  }
  static std::string Line(const char* szFormat, unsigned nFirst, unsigned nSecond) {
    char szText[128];
    snprintf(szText, sizeof(szText), szFormat, nFirst, nSecond);
    return szText;
  }
};

constexpr char kValid[] = "KLV checksum IS OK (calc=0x%04X, act=0x%04X).\n";
constexpr char kInvalid[] = "KLV checksum IS INVALID (calc=0x%04X, act=0x%04X).\n";

TEST_F(ValidateTest, RightChecksumAtTheEndPassesAndEveryElementIsLogged) {
  Bytes message = Wrap({2, 3, 7, 8, 9, 3, 2, 'A', 'B', 48, 1, 5, 1, 2, 0, 0});
  const unsigned nSum = SumInto(message, message.size() - 2);
  EXPECT_TRUE(Validate(message));
  const auto name = [](BYTE tag) { return std::string(GetUAVTagName(tag)); };
  ExpectLog(6, "KLV Element#1: tag#2 (" + name(2) + "), data length=3, space left=11.\n");
  ExpectLog(6, "KLV Element#2: tag#3 (" + name(3) + "), data length=2, space left=7.\n");
  ExpectLog(6, "Mission ID \"AB\" is present.\n");
  ExpectLog(6, "KLV Element#3: tag#48 (" + name(48) + "), data length=1, space left=4.\n");
  ExpectLog(6, "Security Metadata is present.\n");
  ExpectLog(6, "KLV Element#4: tag#1 (" + name(1) + "), data length=2, space left=0.\n");
  ExpectLog(6, Line(kValid, nSum, nSum));
}

TEST_F(ValidateTest, WrongChecksumFails) {
  Bytes message = Wrap({2, 3, 7, 8, 9, 1, 2, 0, 0});
  const unsigned nSum = SumInto(message, message.size() - 2);
  message.back() ^= 1;
  EXPECT_FALSE(Validate(message));
  ExpectLog(3, Line(kInvalid, nSum, nSum ^ 1));
}

TEST_F(ValidateTest, ChecksumInTheMiddleIsTestedAtItsOwnPosition) {
  Bytes message = Wrap({2, 1, 7, 1, 2, 0, 0, 5, 2, 3, 4});
  const unsigned nSum = SumInto(message, 17 + 5);
  EXPECT_TRUE(Validate(message));
  ExpectLog(6, Line(kValid, nSum, nSum));
}

TEST_F(ValidateTest, LaterChecksumReplacesAnEarlierOne) {
  Bytes message = Wrap({1, 2, 0xAA, 0xBB, 2, 1, 7, 1, 2, 0, 0});
  const unsigned nSum = SumInto(message, message.size() - 2);
  EXPECT_TRUE(Validate(message));
  ExpectLog(6, Line(kValid, nSum, nSum));
}

TEST_F(ValidateTest, MessageWithoutChecksumPasses) {
  EXPECT_TRUE(Validate(Wrap({2, 1, 7})));
  ExpectLog(4, "No checksum found.\n");
}

TEST_F(ValidateTest, TwoBytesLeftAreNotAnElement) {
  EXPECT_TRUE(Validate(Wrap({2, 1, 7, 1, 0x80})));
  ExpectLog(4, "No checksum found.\n");
}

TEST_F(ValidateTest, EmptyAndTooShortMessagesHaveNoChecksum) {
  EXPECT_TRUE(Validate(Wrap({})));
  ExpectLog(4, "No checksum found.\n");
  EXPECT_TRUE(Validate(Bytes(UASDataLinkKey, UASDataLinkKey + 16), 19));
  ExpectLog(4, "No checksum found.\n");
}

TEST_F(ValidateTest, UnreadableSizeEndsTheWalkWithFalse) {
  EXPECT_FALSE(Validate(Wrap({2, 1, 7, 5, 0x80, 0, 0})));
  ExpectLog(3, "Unsupported number of bytes (0) for size in BER encoded length.\n");
  ExpectAssertion("GetKLVElementSize(pKLV, &nElementSize)");
}

TEST_F(ValidateTest, LengthFieldThatPassesTheEndIsUnreadable) {
  EXPECT_FALSE(Validate(Wrap({5, 0x84, 0})));
  ExpectAssertion("GetKLVElementSize(pKLV, &nElementSize)");
}

TEST_F(ValidateTest, ElementThatPassesTheEndEndsTheWalk) {
  EXPECT_TRUE(Validate(Wrap({5, 9, 1, 2})));
  ExpectLog(6, "KLV Element#1: tag#5 (" + std::string(GetUAVTagName(5)) + "), data length=9, space left=-7.\n");
  ExpectLog(4, "No checksum found.\n");
}

TEST_F(ValidateTest, ChecksumCutOffByTheEndFails) {
  Bytes message = Wrap({1, 2, 0});
  const unsigned nCalculated = OwnChecksum(message, 19);
  EXPECT_FALSE(Validate(message));
  ExpectLog(3, Line(kInvalid, nCalculated, 0));
}

TEST_F(ValidateTest, MissionIdentifierIsPrintedWithinItsLength) {
  EXPECT_TRUE(Validate(Wrap({3, 2, 'A', 'B', 6, 1, 'C'})));
  ExpectLog(6, "Mission ID \"AB\" is present.\n");
  ExpectLog(4, "No checksum found.\n");
  EXPECT_TRUE(Validate(Wrap({3, 9, 'A', 'B', 'C'})));
  ExpectLog(6, "Mission ID \"ABC\" is present.\n");
  ExpectLog(4, "No checksum found.\n");
  EXPECT_TRUE(Validate(Wrap({3, 0x81, 2, 'A', 'B', 6})));
  ExpectLog(6, "Mission ID \"AB\" is present.\n");
  ExpectLog(4, "No checksum found.\n");
}

// Items 128 and 129 precede the identifier, the security set and the checksum.
Bytes WithExtendedTags() {
  return {0x81, 0, 3, 1, 2, 48, 0x81, 1, 2, 7, 8, 3, 2, 'A', 'B', 48, 1, 5, 1, 2, 0, 0};
}

TEST_F(ValidateTest, ExtendedTagsAreWalkedWithTheOption) {
  Bytes message = Wrap(WithExtendedTags());
  const unsigned nSum = SumInto(message, message.size() - 2);
  _g_bExtendedTags = TRUE;
  EXPECT_TRUE(Validate(message));
  message.back() ^= 1;
  EXPECT_FALSE(Validate(message));
  EXPECT_FALSE(Validate(Wrap({0x80, 3, 1, 9, 1, 2, 0, 0})));
  _g_bExtendedTags = FALSE;
  ExpectLog(6, "KLV Element#1: tag#128 (UAV tag 128), data length=3, space left=16.\n");
  ExpectLog(6, "KLV Element#2: tag#129 (UAV tag 129), data length=2, space left=11.\n");
  ExpectLog(6, "Mission ID \"AB\" is present.\n");
  ExpectLog(6, "Security Metadata is present.\n");
  ExpectLog(6, "KLV Element#5: tag#1 (UAV tag 1), data length=2, space left=0.\n");
  ExpectLog(6, Line(kValid, nSum, nSum));
  ExpectLog(3, Line(kInvalid, nSum, nSum ^ 1));
  ExpectAssertion("GetKLVElementSize(pKLV, &nElementSize)");
}

TEST_F(ValidateTest, ExtendedTagsAreOneByteTagsWithoutTheOption) {
  Bytes message = Wrap(WithExtendedTags());
  SumInto(message, message.size() - 2);
  // 81 00 is read as an element without value, 03 01 02 as an identifier of one byte, 30 81 01 02 as a security set,
  // and so on: the walk is out of step and misses the real identifier, set and checksum.
  EXPECT_TRUE(Validate(message));
  ExpectLog(6, "KLV Element#1: tag#129 (UAV tag 129), data length=0, space left=20.\n");
  ExpectLog(6, "KLV Element#2: tag#3 (UAV tag 3), data length=1, space left=17.\n");
  ExpectLog(6, "KLV Element#3: tag#48 (UAV tag 48), data length=2, space left=13.\n");
  ExpectLog(4, "No checksum found.\n");
}

TEST_F(ValidateTest, LongMissionIdentifierIsPrintedWhole) {
  for (const size_t nLength : {126u, 127u, 128u, 300u, 60000u}) {
    std::string strText(nLength, 'M');
    strText.front() = '<';
    strText.back() = '>';
    const Bytes header = {3, 0x82, static_cast<BYTE>(nLength >> 8), static_cast<BYTE>(nLength)};
    const Bytes body = header + Bytes(strText.begin(), strText.end()) + Bytes{5, 1, 7};
    EXPECT_TRUE(Validate(Wrap(body), body.size() > 255 ? 19 : 18));
    ExpectLog(6, "Mission ID \"" + strText + "\" is present.\n");
    ExpectLog(4, "No checksum found.\n");
  }
  // The end of the message ends the text.
  EXPECT_TRUE(Validate(Wrap(Bytes{3, 0x82, 1, 0} + Bytes(200, 'x')), 18));
  ExpectLog(6, "Mission ID \"" + std::string(200, 'x') + "\" is present.\n");
  ExpectLog(4, "No checksum found.\n");
}

// --- Names ---------------------------------------------------------------------------------------------

TEST(NamesTest, SecurityClassificationsHaveTheirNames) {
  const char* const aszNames[] = {"Unknown", "UNCLASSIFIED", "RESTRICTED", "CONFIDENTIAL", "SECRET", "TOP SECRET"};
  for (unsigned i = 0; i < 256; i++)
    EXPECT_STREQ(GetSecurityClassificationString(static_cast<BYTE>(i)), i < 6 ? aszNames[i] : "Unknown") << i;
}

TEST(NamesTest, CountryCodingMethodsHaveTheirNames) {
  const char* const aszNames[] = {"Unknown",
                                  "ISO-3166 Two Letter",
                                  "ISO-3166 Three Letter",
                                  "FIPS 10-4 Two Letter",
                                  "FIPS 10-4 Four Letter",
                                  "ISO-3166 Numeric",
                                  "1059 Two Letter",
                                  "1059 Three Letter",
                                  "Ommitted",
                                  "Ommitted",
                                  "FIPS 10-4 Mixed",
                                  "ISO 3166 Mixed",
                                  "STANAG 1059 Mixed",
                                  "GENC Two Letter",
                                  "GENC Three Letter",
                                  "GENC Numeric",
                                  "GENC Mixed"};
  for (unsigned i = 0; i < 256; i++)
    EXPECT_STREQ(GetCountryCodingMethodString(static_cast<BYTE>(i)), i < 17 ? aszNames[i] : "Unknown") << i;
  EXPECT_STREQ(GetCountryCodingMethodString(200), "Unknown");
}

}  // namespace
