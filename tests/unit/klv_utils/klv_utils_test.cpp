// One KLV element's key, length and value.
#include "klv_utils.h"

#include <cstring>
#include <memory>

#include "builders.h"
#include "fake_host.h"

namespace {

class ElementTest : public HostTest {
 protected:
  // Parses from a block of exactly these bytes, so that a sanitizer sees any byte read beyond them.
  BOOL Parse(const Bytes& bytes, int nTag, int nLength) {
    m_block = std::make_unique<BYTE[]>(bytes.size() + (bytes.empty() ? 1 : 0));
    std::copy(bytes.begin(), bytes.end(), m_block.get());
    memset(&m_info, 0x5A, sizeof m_info);
    return KLV_GetInfo(m_block.get(), static_cast<int>(bytes.size()), nTag, nLength, &m_info);
  }
  long ValueOffset() const { return m_info.pValue - m_block.get(); }
  bool Untouched() const {
    KLV_INFO marked;
    memset(&marked, 0x5A, sizeof marked);
    return memcmp(&marked, &m_info, sizeof marked) == 0;
  }
  void Fails(const Bytes& bytes, int nTag, int nLength, const std::string& text) {
    EXPECT_FALSE(Parse(bytes, nTag, nLength));
    EXPECT_TRUE(Untouched());
    ExpectLog(4, text);
  }
  std::unique_ptr<BYTE[]> m_block;
  KLV_INFO m_info = {};
};

TEST_F(ElementTest, BerLongFormOfTwoBytesRecordsTwoAndCountsThree) {
  EXPECT_TRUE(Parse(Hex("05 82 01 00") + Bytes(256), 1, 0));
  EXPECT_EQ(m_info.nLength, 256);
  EXPECT_EQ(m_info.nLengthSize, 2u);
  EXPECT_EQ(ValueOffset(), 4);
  EXPECT_EQ(m_info.nTotalSize, 260u);
  ExpectLog(7, "BER long form length of 2 bytes detected.\n");
}

TEST_F(ElementTest, BerLongFormOfOneByteRecordsOneAndCountsTwo) {
  EXPECT_TRUE(Parse(Hex("05 81 C8") + Bytes(200), 1, 0));
  EXPECT_EQ(m_info.nLength, 200);
  EXPECT_EQ(m_info.nLengthSize, 1u);
  EXPECT_EQ(m_info.nTotalSize, 203u);
  ExpectLog(7, "BER long form length of 1 bytes detected.\n");
}

TEST_F(ElementTest, BerLongFormsOtherThanOneAndTwoAreUnsupported) {
  Fails(Hex("05 83 00 00 01 FF"), 1, 0, "Unsupported long form tag length of 3 bytes.\n");
  Fails(Hex("05 80 00"), 1, 0, "Unsupported long form tag length of 0 bytes.\n");
  Fails(Hex("05 84 00 00 00 01 FF"), 1, 0, "Unsupported long form tag length of 4 bytes.\n");
}

TEST_F(ElementTest, EmptyItemWhoseValueWouldStartAtTheEndSucceeds) {
  EXPECT_TRUE(Parse(Hex("05 00"), 1, 0));
  EXPECT_EQ(m_info.nLength, 0);
  EXPECT_EQ(ValueOffset(), 2);
  EXPECT_EQ(m_info.nTotalSize, 2u);
}

TEST_F(ElementTest, OnlyTheFirstValueByteMustLieInside) {
  Fails(Hex("05 05"), 1, 0, "data offset is out of range of the supplied buffer.\n");
  EXPECT_TRUE(Parse(Hex("05 05 AA"), 1, 0));
  EXPECT_EQ(m_info.nTotalSize, 7u);
}

TEST_F(ElementTest, BerTagOf81_01HasTheValue81) {
  EXPECT_TRUE(Parse(Hex("81 01 01 FF"), -1, 0));
  EXPECT_EQ(m_info.nKey, 0x81u);
  EXPECT_EQ(m_info.nKeySize, 2u);
  ExpectLog(7, "BER encoded tag is 2 bytes long.\n");
  ExpectLog(7, "two bytes tag=0x0081.\n");
}

TEST_F(ElementTest, BerTagsOfAllSizes) {
  EXPECT_TRUE(Parse(Hex("7F 00"), -1, 0));
  EXPECT_EQ(m_info.nKey, 0x7Fu);
  ExpectLog(7, "one byte tag=0x7F.\n");
  EXPECT_TRUE(Parse(Hex("81 80 01 00"), -1, 0));
  EXPECT_EQ(m_info.nKey, 0x4001u);
  ExpectLog(7, "three bytes tag=0x004001.\n");
  EXPECT_TRUE(Parse(Hex("81 80 80 01 00"), -1, 0));
  EXPECT_EQ(m_info.nKey, 0x200001u);
  ExpectLog(7, "four bytes tag=0x00200001.\n");
}

TEST_F(ElementTest, BerTagLongerThanFourBytesHasTheValueZeroWithoutAMessage) {
  EXPECT_TRUE(Parse(Hex("81 80 80 80 01 00"), -1, 0));
  EXPECT_EQ(m_info.nKey, 0u);
  EXPECT_EQ(m_info.nKeySize, 5u);
}

TEST_F(ElementTest, BerTagWithoutAnEndFails) {
  Fails(Hex("81 80 80"), -1, 0, "local tag is out of range of the supplied buffer.\n");
}

TEST_F(ElementTest, FixedTags) {
  EXPECT_TRUE(Parse(Hex("12 01 FF"), 1, 1));
  EXPECT_EQ(m_info.nKey, 0x12u);
  ExpectLog(7, "Using specified 1 byte tag.\n");
  EXPECT_TRUE(Parse(Hex("12 34 01 FF"), 2, 1));
  EXPECT_EQ(m_info.nKey, 0x1234u);
  ExpectLog(7, "Using specified 2 bytes tag.\n");
  EXPECT_TRUE(Parse(Hex("12 34 56 78 01 FF"), 4, 1));
  EXPECT_EQ(m_info.nKey, 0x12345678u);
  ExpectLog(7, "Using specified 4 bytes tag.\n");
  Fails(Hex("12 34 56"), 4, 1, "Not enough buffer space to read 4 bytes key.\n");
}

TEST_F(ElementTest, UniversalKeyHasTheValueZero) {
  EXPECT_TRUE(Parse(UasKey() + Hex("01 FF"), 16, 0));
  EXPECT_EQ(m_info.nKey, 0u);
  EXPECT_EQ(m_info.nKeySize, 16u);
  ExpectLog(7, "Using specified 16 bytes tag.\n");
  Fails(Bytes(15), 16, 0, "Not enough buffer space to read 16 bytes key.\n");
}

TEST_F(ElementTest, GlobalTagEndsWithAZeroByteOrAfterTwelve) {
  EXPECT_TRUE(Parse(Hex("01 02 00 01 FF"), 12, 1));
  EXPECT_EQ(m_info.nKeySize, 3u);
  ExpectLog(7, "global tag is 3 bytes long.\n");
  EXPECT_TRUE(Parse(Bytes(12, 7) + Hex("01 FF"), 12, 1));
  EXPECT_EQ(m_info.nKeySize, 12u);
  Fails(Bytes(5, 7), 12, 1, "Not enough buffer space to read global tag.\n");
}

TEST_F(ElementTest, GlobalTagOfOneByteFailsWithTheRunOnText) {
  Fails(Hex("00 01 FF"), 12, 1, "Global tag is not even 2 bytes long Not enough buffer space to read 16 bytes key.\n");
}

TEST_F(ElementTest, PackHasNoTag) {
  EXPECT_TRUE(Parse(Hex("01 FF"), 0, 1));
  EXPECT_EQ(m_info.nKeySize, 0u);
  EXPECT_EQ(m_info.nTotalSize, 2u);
  ExpectLog(7, "No tag present (var/def length pack).\n");
}

TEST_F(ElementTest, FixedLengths) {
  EXPECT_TRUE(Parse(Hex("05 00 01 FF"), 1, 2));
  EXPECT_EQ(m_info.nLength, 1);
  EXPECT_EQ(m_info.nLengthSize, 2u);
  EXPECT_TRUE(Parse(Hex("05 00 00 00 01 FF"), 1, 4));
  EXPECT_EQ(m_info.nTotalSize, 6u);
  Fails(Hex("05 00"), 1, 2, "length offset is out of range of the supplied buffer.\n");
  Fails(Hex("05 00 00 00"), 1, 4, "length offset is out of range of the supplied buffer.\n");
}

TEST_F(ElementTest, TagThatFillsTheBufferLeavesNoLength) {
  Fails(Hex("12 34"), 2, 1, "length offset is out of range of the supplied buffer.\n");
  Fails(Hex("05 82 01"), 1, 0, "length offset is out of range of the supplied buffer.\n");
}

TEST_F(ElementTest, FewerThanTwoBytesFail) {
  Fails(Hex("05"), 1, 0, "key offset is out of range of the supplied buffer.\n");
  Fails({}, 1, 0, "key offset is out of range of the supplied buffer.\n");
}

TEST_F(ElementTest, UnknownSizeCodesAssertAndGoOn) {
  EXPECT_TRUE(Parse(Hex("01 FF"), 99, 1));
  ExpectAssertion("0");
  EXPECT_EQ(m_info.nKeySize, 0u);
  EXPECT_TRUE(Parse(Hex("05 01 FF"), 1, 99));
  ExpectAssertion("0");
  EXPECT_EQ(m_info.nTotalSize, 0u);
}

TEST_F(ElementTest, FirstLineTellsTheFieldsAndTheRoom) {
  EXPECT_TRUE(Parse(Hex("05 01 FF"), -1, 0));
  ExpectLog(7,
            "Inspecting KLV with K=\"ASN.1 OID BER\" L=\"ASN.1 BER short or long\" with 3 bytes of readable memory.\n");
  ExpectLog(7, "BER short form length of 1 byte detected.\n");
}

TEST_F(ElementTest, EveryBufferOfUpToThreeBytesWithEveryCodeReadsInsideOnly) {
  AllowLogs(4, "");
  for (const int nTag : {-1, 0, 1, 2, 4, 12, 16})
    for (const int nLength : {0, 1, 2, 4})
      for (unsigned n = 0; n < 0x1000; ++n) {
        const unsigned mixed = n * 2654435761u;
        Bytes bytes = {static_cast<BYTE>(mixed >> 24), static_cast<BYTE>(mixed >> 16), static_cast<BYTE>(mixed >> 8)};
        bytes.resize(n % 4);
        Parse(bytes, nTag, nLength);
      }
  host().ClearLogs();
}

TEST_F(ElementTest, Designator0BIsBerTagAndBerLength) {
  int nTag = 99;
  int nLength = 99;
  EXPECT_TRUE(KLV_GetFieldInfoFromRegistryDesignator(0x0B, &nTag, &nLength));
  EXPECT_EQ(nTag, -1);
  EXPECT_EQ(nLength, 0);
  EXPECT_TRUE(KLV_GetFieldInfoFromRegistryDesignator(0x0B, nullptr, nullptr));
}

TEST_F(ElementTest, Designator06IsUnrecognised) {
  int nTag = 99;
  EXPECT_FALSE(KLV_GetFieldInfoFromRegistryDesignator(0x06, &nTag, nullptr));
  EXPECT_EQ(nTag, 99);
  ExpectLog(4, "Unrecognized registry designator (0x06).\n");
}

TEST_F(ElementTest, TableHasTwentySixRowsInItsOrder) {
  const int aRows[26][3] = {{0x03, 0, 1},  {0x0B, 0, -1}, {0x13, 0, 2},  {0x1B, 0, 4},  {0x23, 1, 1},  {0x2B, 1, -1},
                            {0x33, 1, 2},  {0x3B, 1, 4},  {0x43, 2, 1},  {0x4B, 2, -1}, {0x53, 2, 2},  {0x5B, 2, 4},
                            {0x63, 4, 1},  {0x6B, 4, -1}, {0x73, 4, 2},  {0x7B, 4, 4},  {0x01, 0, 16}, {0x02, 0, 12},
                            {0x22, 1, 12}, {0x42, 2, 12}, {0x62, 4, 12}, {0x05, 0, 0},  {0x04, 0, 0},  {0x24, 1, 0},
                            {0x44, 2, 0},  {0x64, 4, 0}};
  for (int i = 0; i < 26; ++i) {
    EXPECT_EQ(_KnownRegistryDesignators[i].RegistryDesignator, aRows[i][0]) << i;
    EXPECT_EQ(_KnownRegistryDesignators[i].nLengthFieldSize, aRows[i][1]) << i;
    EXPECT_EQ(_KnownRegistryDesignators[i].nTagFieldSize, aRows[i][2]) << i;
  }
}

TEST_F(ElementTest, OfAll256DesignatorsTwentySixAreKnown) {
  AllowLogs(4, "Unrecognized registry designator");
  int nKnown = 0;
  for (int i = 0; i < 256; ++i)
    nKnown += KLV_GetFieldInfoFromRegistryDesignator(static_cast<BYTE>(i), nullptr, nullptr) ? 1 : 0;
  EXPECT_EQ(nKnown, 26);
}

TEST_F(ElementTest, TextsOfTheSizeCodes) {
  char szText[40];
  const std::pair<int, std::pair<const char*, const char*>> aTexts[] = {{0, {"No tag", "ASN.1 BER short or long"}},
                                                                        {1, {"1 byte", "1 byte"}},
                                                                        {2, {"2 bytes", "2 bytes"}},
                                                                        {4, {"4 bytes", "4 bytes"}},
                                                                        {-1, {"ASN.1 OID BER", "(Unknown)"}},
                                                                        {12, {"Global Tag", "(Unknown)"}},
                                                                        {16, {"Universal Key", "(Unknown)"}},
                                                                        {3, {"(Unknown)", "(Unknown)"}}};
  for (const auto& [nCode, texts] : aTexts) {
    EXPECT_STREQ(KLV_GetTagFieldDescription(nCode, szText, sizeof szText), texts.first);
    EXPECT_STREQ(KLV_GetLengthFieldDescription(nCode, szText, sizeof szText), texts.second);
  }
  EXPECT_STREQ(KLV_GetTagFieldDescription(16, szText, 5), "Univ");
}

}  // namespace
