// SPDX-License-Identifier: Apache-2.0
// Tests of the parsing of one KLV element.
#include "klv_utils.h"

#include <gtest/gtest.h>
#include <limits.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <string>

#include "builders.h"
#include "fake_host.h"

namespace {

constexpr char kKeyOutOfRange[] = "key offset is out of range of the supplied buffer.\n";
constexpr char kTagOutOfRange[] = "local tag is out of range of the supplied buffer.\n";
constexpr char kLengthOutOfRange[] = "length offset is out of range of the supplied buffer.\n";
constexpr char kDataOutOfRange[] = "data offset is out of range of the supplied buffer.\n";

constexpr int kAllTagCodes[] = {-1, 0, 1, 2, 4, 12, 16};
constexpr int kAllLengthCodes[] = {0, 1, 2, 4};

// The result for one element. Offsets count from its start.
struct Parsed {
  UINT32 nKey;
  int nLength;
  int nValueOffset;
  UINT32 nKeySize;
  UINT32 nLengthSize;
  UINT32 nTotalSize;
  bool operator==(const Parsed&) const = default;
};
void PrintTo(const Parsed& p, std::ostream* pStream) {
  *pStream << "key " << p.nKey << " (" << p.nKeySize << " bytes), length " << p.nLength << " (" << p.nLengthSize
           << " bytes), value at " << p.nValueOffset << ", total " << p.nTotalSize;
}

class KlvInfoTest : public HostTest {
 protected:
  // Parses bytes in a block of exactly their size. A failure must leave the record unchanged.
  std::optional<Parsed> Parse(const Bytes& data, int nTagCode, int nLengthCode) {
    const std::unique_ptr<BYTE[]> pcExact(new BYTE[data.size() + 1]);
    BYTE* pcData = pcExact.get() + 1;
    std::copy(data.begin(), data.end(), pcData);
    const KLV_INFO untouched = {11, 22, pcData, 33, 44, 55};
    KLV_INFO info = untouched;
    if (!KLV_GetInfo(pcData, static_cast<int>(data.size()), nTagCode, nLengthCode, &info)) {
      EXPECT_EQ(info.nKey, untouched.nKey);
      EXPECT_EQ(info.nLength, untouched.nLength);
      EXPECT_EQ(info.pValue, untouched.pValue);
      EXPECT_EQ(info.nKeySize, untouched.nKeySize);
      EXPECT_EQ(info.nLengthSize, untouched.nLengthSize);
      EXPECT_EQ(info.nTotalSize, untouched.nTotalSize);
      return {};
    }
    return Parsed{info.nKey,     info.nLength,     static_cast<int>(info.pValue - pcData),
                  info.nKeySize, info.nLengthSize, info.nTotalSize};
  }
  std::optional<Parsed> Parse(const std::string& strHex, int nTagCode, int nLengthCode) {
    return Parse(Hex(strHex), nTagCode, nLengthCode);
  }
  void ExpectRefused(const std::string& strHex, int nTagCode, int nLengthCode, const std::string& strText,
                     Where where = Where::Caller()) {
    EXPECT_FALSE(Parse(strHex, nTagCode, nLengthCode).has_value());
    ExpectLog(4, strText, where);
  }
};

// --- Designators -----------------------------------------------------------------------------------------

struct Row {
  BYTE nDesignator;
  int nLength;
  int nTag;
};
constexpr Row kRows[] = {{0x03, 0, 1},  {0x0B, 0, -1}, {0x13, 0, 2},  {0x1B, 0, 4},  {0x23, 1, 1},  {0x2B, 1, -1},
                         {0x33, 1, 2},  {0x3B, 1, 4},  {0x43, 2, 1},  {0x4B, 2, -1}, {0x53, 2, 2},  {0x5B, 2, 4},
                         {0x63, 4, 1},  {0x6B, 4, -1}, {0x73, 4, 2},  {0x7B, 4, 4},  {0x01, 0, 16}, {0x02, 0, 12},
                         {0x22, 1, 12}, {0x42, 2, 12}, {0x62, 4, 12}, {0x05, 0, 0},  {0x04, 0, 0},  {0x24, 1, 0},
                         {0x44, 2, 0},  {0x64, 4, 0}};

TEST_F(KlvInfoTest, DesignatorTableHasItsRowsInTheirOrder) {
  ASSERT_EQ(std::size(_KnownRegistryDesignators), std::size(kRows));
  for (size_t i = 0; i < std::size(kRows); i++) {
    EXPECT_EQ(_KnownRegistryDesignators[i].RegistryDesignator, kRows[i].nDesignator) << i;
    EXPECT_EQ(_KnownRegistryDesignators[i].nLengthFieldSize, kRows[i].nLength) << i;
    EXPECT_EQ(_KnownRegistryDesignators[i].nTagFieldSize, kRows[i].nTag) << i;
  }
}

TEST_F(KlvInfoTest, EveryByteIsAKnownDesignatorOrReportedAsUnknown) {
  for (int nDesignator = 0; nDesignator < 256; nDesignator++) {
    int nTag = 77;
    int nLength = 77;
    const auto* pRow =
        std::find_if(std::begin(kRows), std::end(kRows), [=](const Row& r) { return r.nDesignator == nDesignator; });
    const bool bKnown = pRow != std::end(kRows);
    EXPECT_EQ(KLV_GetFieldInfoFromRegistryDesignator(static_cast<BYTE>(nDesignator), &nTag, &nLength), bKnown);
    EXPECT_EQ(nTag, bKnown ? pRow->nTag : 77) << nDesignator;
    EXPECT_EQ(nLength, bKnown ? pRow->nLength : 77) << nDesignator;
    char szText[64];
    snprintf(szText, sizeof(szText), "Unrecognized registry designator (0x%02X).\n",
             static_cast<unsigned>(nDesignator));
    if (bKnown)
      ExpectNoLog(szText);
    else
      ExpectLog(4, szText);
  }
}

TEST_F(KlvInfoTest, DesignatorOfTheUasSetIsBerAndSixIsUnknown) {
  int nTag = 0;
  int nLength = 77;
  EXPECT_TRUE(KLV_GetFieldInfoFromRegistryDesignator(0x0B, &nTag, &nLength));
  EXPECT_EQ(nTag, -1);
  EXPECT_EQ(nLength, 0);
  EXPECT_FALSE(KLV_GetFieldInfoFromRegistryDesignator(0x06, &nTag, &nLength));
  ExpectLog(4, "Unrecognized registry designator (0x06).\n");
}

TEST_F(KlvInfoTest, EitherSizeMayBeLeftOut) {
  int nSize = 77;
  EXPECT_TRUE(KLV_GetFieldInfoFromRegistryDesignator(0x53, &nSize, nullptr));
  EXPECT_EQ(nSize, 2);
  EXPECT_TRUE(KLV_GetFieldInfoFromRegistryDesignator(0x63, nullptr, &nSize));
  EXPECT_EQ(nSize, 4);
  EXPECT_TRUE(KLV_GetFieldInfoFromRegistryDesignator(0x0B, nullptr, nullptr));
}

TEST_F(KlvInfoTest, UnknownDesignatorIsSilentBelowLevelFour) {
  host().SetLevel("METADATALIB", 3);
  EXPECT_FALSE(KLV_GetFieldInfoFromRegistryDesignator(0xFF, nullptr, nullptr));
  EXPECT_TRUE(host().Logs().empty());
}

// --- Texts -----------------------------------------------------------------------------------------------

TEST_F(KlvInfoTest, SizeCodesHaveTheirTexts) {
  const struct {
    int nCode;
    const char* szTag;
    const char* szLength;
  } kTexts[] = {{0, "No tag", "ASN.1 BER short or long"},
                {1, "1 byte", "1 byte"},
                {2, "2 bytes", "2 bytes"},
                {4, "4 bytes", "4 bytes"},
                {-1, "ASN.1 OID BER", "(Unknown)"},
                {12, "Global Tag", "(Unknown)"},
                {16, "Universal Key", "(Unknown)"},
                {3, "(Unknown)", "(Unknown)"},
                {INT_MIN, "(Unknown)", "(Unknown)"}};
  char szBuffer[40];
  for (const auto& text : kTexts) {
    EXPECT_EQ(KLV_GetTagFieldDescription(text.nCode, szBuffer, sizeof(szBuffer)), szBuffer);
    EXPECT_STREQ(szBuffer, text.szTag) << text.nCode;
    EXPECT_EQ(KLV_GetLengthFieldDescription(text.nCode, szBuffer, sizeof(szBuffer)), szBuffer);
    EXPECT_STREQ(szBuffer, text.szLength) << text.nCode;
  }
}

TEST_F(KlvInfoTest, TextIsTruncatedToItsBuffer) {
  char acBuffer[6] = {'?', '?', '?', '?', '?', '?'};
  EXPECT_STREQ(KLV_GetTagFieldDescription(16, acBuffer, 5), "Univ");
  EXPECT_EQ(acBuffer[5], '?');
}

// --- Tags ------------------------------------------------------------------------------------------------

TEST_F(KlvInfoTest, LogsTheRequestedSizesFirst) {
  EXPECT_TRUE(Parse("05 00", -1, 0));
  ExpectLog(7,
            "Inspecting KLV with K=\"ASN.1 OID BER\" L=\"ASN.1 BER short or long\" with 2 bytes of readable memory.\n");
}

TEST_F(KlvInfoTest, FewerThanTwoBytesAreRefused) {
  for (const int nTagCode : kAllTagCodes) {
    for (const int nLengthCode : kAllLengthCodes) {
      ExpectRefused("", nTagCode, nLengthCode, kKeyOutOfRange);
      ExpectRefused("05", nTagCode, nLengthCode, kKeyOutOfRange);
    }
  }
  KLV_INFO info;
  EXPECT_FALSE(KLV_GetInfo("", -5, 1, 1, &info));
  ExpectLog(4, kKeyOutOfRange);
}

TEST_F(KlvInfoTest, BerTagOfOneByteIsRead) {
  EXPECT_EQ(Parse("41 01 AA", -1, 0), (Parsed{0x41, 1, 2, 1, 1, 3}));
  ExpectLog(7, "BER encoded tag is 1 bytes long.\n");
  ExpectLog(7, "one byte tag=0x41.\n");
}

TEST_F(KlvInfoTest, BerTagOfTwoBytesIsRead) {
  EXPECT_EQ(Parse("81 01 01 AA", -1, 0), (Parsed{0x81, 1, 3, 2, 1, 4}));
  ExpectLog(7, "BER encoded tag is 2 bytes long.\n");
  ExpectLog(7, "two bytes tag=0x0081.\n");
}

TEST_F(KlvInfoTest, BerTagOfThreeBytesIsRead) {
  EXPECT_EQ(Parse("81 82 03 01 AA", -1, 0), (Parsed{0x4103, 1, 4, 3, 1, 5}));
  ExpectLog(7, "three bytes tag=0x004103.\n");
}

TEST_F(KlvInfoTest, BerTagOfFourBytesIsRead) {
  EXPECT_EQ(Parse("FF FF FF 7F 00", -1, 0), (Parsed{0x0FFFFFFF, 0, 5, 4, 1, 5}));
  ExpectLog(7, "four bytes tag=0x0FFFFFFF.\n");
}

TEST_F(KlvInfoTest, LongerBerTagHasTheValueZeroAndNoText) {
  EXPECT_EQ(Parse("81 82 83 84 05 01 AA", -1, 0), (Parsed{0, 1, 6, 5, 1, 7}));
  ExpectLog(7, "BER encoded tag is 5 bytes long.\n");
  for (const LogLine& line : host().Logs()) EXPECT_EQ(line.text.find("tag=0x"), std::string::npos) << line.text;
  const Bytes longer = Bytes(200, 0x80) + Hex("00 00");
  EXPECT_EQ(Parse(longer, -1, 0), (Parsed{0, 0, 202, 201, 1, 202}));
}

TEST_F(KlvInfoTest, BerTagWithoutAnEndIsOutOfRange) {
  ExpectRefused("81 82", -1, 0, kTagOutOfRange);
  ExpectRefused("FF FF FF FF FF FF", -1, 0, kTagOutOfRange);
}

TEST_F(KlvInfoTest, TagsOfFixedSizeAreRead) {
  EXPECT_EQ(Parse("FE 01 AA", 1, 0), (Parsed{0xFE, 1, 2, 1, 1, 3}));
  ExpectLog(7, "Using specified 1 byte tag.\n");
  EXPECT_EQ(Parse("FE DC 01 AA", 2, 0), (Parsed{0xFEDC, 1, 3, 2, 1, 4}));
  ExpectLog(7, "Using specified 2 bytes tag.\n");
  EXPECT_EQ(Parse("FE DC BA 98 01 AA", 4, 0), (Parsed{0xFEDCBA98, 1, 5, 4, 1, 6}));
  ExpectLog(7, "Using specified 4 bytes tag.\n");
  EXPECT_EQ(Parse(Bytes(16, 0x77) + Hex("01 AA"), 16, 0), (Parsed{0, 1, 17, 16, 1, 18}));
  ExpectLog(7, "Using specified 16 bytes tag.\n");
}

TEST_F(KlvInfoTest, TruncatedTagsAreRefused) {
  ExpectRefused("FE DC BA", 4, 0, "Not enough buffer space to read 4 bytes key.\n");
  EXPECT_FALSE(Parse(Bytes(15, 1), 16, 0));
  ExpectLog(4, "Not enough buffer space to read 16 bytes key.\n");
}

TEST_F(KlvInfoTest, TagThatFillsTheBufferLeavesNoLength) {
  ExpectRefused("FE DC", 2, 0, kLengthOutOfRange);
  ExpectRefused("FE DC BA 98", 4, 1, kLengthOutOfRange);
  ExpectRefused("81 01", -1, 2, kLengthOutOfRange);
  ExpectRefused("41 00", 12, 4, kLengthOutOfRange);
  EXPECT_FALSE(Parse(Bytes(16, 1), 16, 0));
  ExpectLog(4, kLengthOutOfRange);
}

TEST_F(KlvInfoTest, PackItemHasNoTag) {
  EXPECT_EQ(Parse("02 AA BB", 0, 0), (Parsed{0, 2, 1, 0, 1, 3}));
  ExpectLog(7, "No tag present (var/def length pack).\n");
}

TEST_F(KlvInfoTest, GlobalTagEndsWithItsZeroByteOrAfterTwelve) {
  EXPECT_EQ(Parse("01 02 03 00 01 AA", 12, 0), (Parsed{0, 1, 5, 4, 1, 6}));
  ExpectLog(7, "global tag is 4 bytes long.\n");
  EXPECT_EQ(Parse("01 02 03 04 05 06 07 08 09 0A 0B 0C 01 AA", 12, 0), (Parsed{0, 1, 13, 12, 1, 14}));
  ExpectLog(7, "global tag is 12 bytes long.\n");
  EXPECT_EQ(Parse("01 02 03 04 05 06 07 08 09 0A 0B 00 01 AA", 12, 0), (Parsed{0, 1, 13, 12, 1, 14}));
}

TEST_F(KlvInfoTest, TruncatedGlobalTagIsRefused) {
  ExpectRefused("01 02 03", 12, 0, "Not enough buffer space to read global tag.\n");
  ExpectRefused("01 02 03 04 05 06 07 08 09 0A 0B", 12, 0, "Not enough buffer space to read global tag.\n");
}

TEST_F(KlvInfoTest, GlobalTagOfOneByteIsRefusedWithTwoTextsRunTogether) {
  ExpectRefused("00 01 AA", 12, 0,
                "Global tag is not even 2 bytes long Not enough buffer space to read 16 bytes key.\n");
  ExpectLog(7, "global tag is 1 bytes long.\n");
}

TEST_F(KlvInfoTest, UnknownTagCodeAssertsAndReadsNoTag) {
  EXPECT_EQ(Parse("02 AA BB", 7, 0), (Parsed{0, 2, 1, 0, 1, 3}));
  ExpectAssertion("0");
}

// --- Lengths ---------------------------------------------------------------------------------------------

TEST_F(KlvInfoTest, BerShortFormIsRead) {
  EXPECT_EQ(Parse(Hex("05 7F") + Bytes(127, 0), 1, 0), (Parsed{5, 127, 2, 1, 1, 129}));
  ExpectLog(7, "BER short form length of 1 byte detected.\n");
}

TEST_F(KlvInfoTest, BerLongFormOfOneByteRecordsOneAndCountsTwo) {
  EXPECT_EQ(Parse("05 81 C8 AA", 1, 0), (Parsed{5, 200, 3, 1, 1, 203}));
  ExpectLog(7, "BER long form length of 1 bytes detected.\n");
}

TEST_F(KlvInfoTest, BerLongFormOfTwoBytesRecordsTwoAndCountsThree) {
  EXPECT_EQ(Parse("05 82 01 00 AA", 1, 0), (Parsed{5, 256, 4, 1, 2, 260}));
  ExpectLog(7, "BER long form length of 2 bytes detected.\n");
}

TEST_F(KlvInfoTest, OtherLongFormsAreUnsupported) {
  ExpectRefused("05 80 01 02 03 04", 1, 0, "Unsupported long form tag length of 0 bytes.\n");
  ExpectRefused("05 83 00 00 01 AA", 1, 0, "Unsupported long form tag length of 3 bytes.\n");
  ExpectRefused("05 84 00 00 00 01 AA", 1, 0, "Unsupported long form tag length of 4 bytes.\n");
  EXPECT_FALSE(Parse(Hex("05 FF") + Bytes(200, 0), 1, 0));
  ExpectLog(4, "Unsupported long form tag length of 127 bytes.\n");
}

TEST_F(KlvInfoTest, TruncatedLongFormIsOutOfRange) {
  ExpectRefused("05 81", 1, 0, kLengthOutOfRange);
  ExpectRefused("05 82 01", 1, 0, kLengthOutOfRange);
  ExpectRefused("05 83 00 00", 1, 0, kLengthOutOfRange);  // the end is checked before the form
  ExpectRefused("05 FF 00 00", 1, 0, kLengthOutOfRange);
}

TEST_F(KlvInfoTest, LengthsOfFixedSizeAreRead) {
  EXPECT_EQ(Parse("05 FF AA", 1, 1), (Parsed{5, 255, 2, 1, 1, 257}));
  EXPECT_EQ(Parse("05 01 02 AA", 1, 2), (Parsed{5, 0x102, 3, 1, 2, 0x105}));
  EXPECT_EQ(Parse("05 00 01 00 02 AA", 1, 4), (Parsed{5, 0x10002, 5, 1, 4, 0x10007}));
}

TEST_F(KlvInfoTest, TruncatedFixedLengthsAreRefused) {
  ExpectRefused("05 01", 1, 2, kLengthOutOfRange);
  ExpectRefused("05 00 00 01", 1, 4, kLengthOutOfRange);
  EXPECT_EQ(Parse("05 00", 1, 1), (Parsed{5, 0, 2, 1, 1, 2}));
  EXPECT_EQ(Parse("05 00 00", 1, 2), (Parsed{5, 0, 3, 1, 2, 3}));
  EXPECT_EQ(Parse("05 00 00 00 00", 1, 4), (Parsed{5, 0, 5, 1, 4, 5}));
}

TEST_F(KlvInfoTest, LengthNearFourGigabytesIsNegativeAndTotalWraps) {
  EXPECT_EQ(Parse("05 FF FF FF FF", 1, 4), (Parsed{5, -1, 5, 1, 4, 4}));
  EXPECT_EQ(Parse("05 FF FF FF FB", 1, 4), (Parsed{5, -5, 5, 1, 4, 0}));
  EXPECT_EQ(Parse("05 80 00 00 00", 1, 4), (Parsed{5, INT_MIN, 5, 1, 4, 0x80000005}));
  EXPECT_EQ(Parse("05 7F FF FF FF 00", 1, 4), (Parsed{5, INT_MAX, 5, 1, 4, 0x80000004}));
}

TEST_F(KlvInfoTest, UnknownLengthCodeAssertsAndReadsNoValue) {
  EXPECT_EQ(Parse("05 07 AA", 1, 3), (Parsed{5, 0, 0, 1, 0, 0}));
  ExpectAssertion("0");
}

// --- Values ----------------------------------------------------------------------------------------------

TEST_F(KlvInfoTest, EmptyItemMayEndTheBuffer) {
  EXPECT_EQ(Parse("05 00", 1, 0), (Parsed{5, 0, 2, 1, 1, 2}));
}

TEST_F(KlvInfoTest, OnlyTheFirstValueByteMustBeThere) {
  ExpectRefused("05 05", 1, 0, kDataOutOfRange);
  EXPECT_EQ(Parse("05 05 AA", 1, 0), (Parsed{5, 5, 2, 1, 1, 7}));
}

// --- Anything --------------------------------------------------------------------------------------------

TEST_F(KlvInfoTest, RandomBytesAreNeverReadBeyondTheirEnd) {
  host().SetLevel("METADATALIB", 0);
  std::mt19937 random(7);
  for (int nRound = 0; nRound < 20000; nRound++) {
    Bytes data(random() % 24);
    for (BYTE& nByte : data) nByte = static_cast<BYTE>(random() % 3 == 0 ? 0x80 + random() % 6 : random());
    const int nTagCode = kAllTagCodes[random() % std::size(kAllTagCodes)];
    const int nLengthCode = kAllLengthCodes[random() % std::size(kAllLengthCodes)];
    const auto result = Parse(data, nTagCode, nLengthCode);
    if (!result) continue;
    ASSERT_LE(result->nValueOffset, static_cast<int>(data.size()));
    ASSERT_EQ(result->nTotalSize, static_cast<UINT32>(result->nValueOffset) + static_cast<UINT32>(result->nLength));
  }
}

}  // namespace
