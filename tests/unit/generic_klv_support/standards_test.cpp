// SPDX-License-Identifier: Apache-2.0
// Tests of the local set standards, the walk through a message's items, and the checksum.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <memory>
#include <string>

#include "decoder_fixture.h"

namespace {

using ::testing::IsEmpty;

constexpr char kTwice[] = "Intergrity item found more than once.\n";
constexpr char kRejected[] = "Validator rejected message.\n";

int HeaderSizeOf(const Bytes& message) {
  return message[16] < 0x80 ? 17 : 17 + (message[16] & 0x7F);
}

// Returns a message with the checksum item at any place: the sum covers the whole message, with the two value bytes as
// zero.
Bytes WithChecksumInTheMiddle() {
  Bytes message = UasMessage().Item(2, Bytes(8, 7)).Raw(Hex("01 02 00 00")).Item(5, {1, 2}).Item(15, {3, 4}).Build();
  const WORD nSum = OwnChecksum(message, message.size());
  const size_t nValue = 17 + 10 + 2;
  message[nValue] = static_cast<BYTE>(nSum >> 8);
  message[nValue + 1] = static_cast<BYTE>(nSum);
  return message;
}

std::string SumText(int nSum, int nLength) {
  return "Sum of item lengths " + std::to_string(nSum) + " does not match message data length of " +
         std::to_string(nLength) + ".\n";
}

class ValidationTest : public HostTest {
 protected:
  // Checks a message in a block of exactly its size. Its key determines the coding of its items.
  BOOL Validate(const Bytes& message) {
    EXPECT_TRUE(KLV_GetFieldInfoFromRegistryDesignator(message[5], &m_context.nKlvTagFieldSize,
                                                       &m_context.nKlvLengthFieldSize));
    return ValidateAsCoded(message);
  }
  BOOL ValidateAsCoded(const Bytes& message) {
    const std::unique_ptr<BYTE[]> pcExact(new BYTE[message.size()]);
    std::copy(message.begin(), message.end(), pcExact.get());
    const UINT64 nBefore = m_context.Stats.nRxOkMessages;
    const BOOL bGood =
        _ValidateKLVMessage(&m_context, pcExact.get(), static_cast<int>(message.size()), HeaderSizeOf(message));
    EXPECT_EQ(m_context.Stats.nRxOkMessages - nBefore, bGood ? 1u : 0u);
    EXPECT_EQ(m_context.Stats.nRxCorruptedMessages + m_context.Stats.nTotalRxBytes, 0u);
    return bGood;
  }
  // Returns a message of an unknown standard. The designator determines the coding of its items.
  static Bytes Coded(BYTE nDesignator, const Bytes& body) {
    Bytes key = UasKey();
    key[5] = nDesignator;
    return UasMessage().Key(key).Raw(body).Build();
  }

  KLV_DECODE_CONTEXT m_context = {};
};

// --- Standards -------------------------------------------------------------------------------------------

TEST_F(ValidationTest, TheUasKeyIsRecognised) {
  const LOCAL_KLV_STANDARD* pStandard = _GetKLVStandardInfo(UasKey().data());
  EXPECT_STREQ(pStandard->szName, "UAS DataLink Local Metadata Set");
  EXPECT_EQ(Bytes(*pStandard->pUniversalKey, *pStandard->pUniversalKey + 16), UasKey());
  EXPECT_EQ(pStandard->bHasIntegrityItem, TRUE);
  EXPECT_EQ(pStandard->IntegrityItemTag, 1u);
  EXPECT_EQ(pStandard->pfnValidator, &_UASDataLinkValidator);
  ExpectLog(6, "Recognized KLV local data standard #0 \"UAS DataLink Local Metadata Set\".\n");
  EXPECT_EQ(Bytes(UASDataLinkKey, UASDataLinkKey + 16), UasKey());
}

TEST_F(ValidationTest, OneOtherByteMakesAKeyGeneric) {
  for (size_t i = 0; i < 16; i++) {
    Bytes key = UasKey();
    key[i] = static_cast<BYTE>(key[i] + 1);
    const LOCAL_KLV_STANDARD* pStandard = _GetKLVStandardInfo(key.data());
    EXPECT_STREQ(pStandard->szName, "Generic (Unknown)") << i;
    EXPECT_EQ(pStandard->pUniversalKey, nullptr);
    EXPECT_EQ(pStandard->bHasIntegrityItem, FALSE);
    EXPECT_EQ(pStandard->IntegrityItemTag, 0u);
    EXPECT_EQ(pStandard->pfnValidator, nullptr);
    ExpectLog(6, "Unknown KLV local data standard.\n");
  }
}

TEST_F(ValidationTest, KeyThatDiffersInItsLastByteIsWalkedWithoutAChecksumTest) {
  Bytes message = WellFormedMessage();
  message[15] = 1;
  message.back() = static_cast<BYTE>(message.back() ^ 0xFF);
  EXPECT_TRUE(Validate(message));
  ExpectLog(6, "Unknown KLV local data standard.\n");
  ExpectLog(7, "Message is OK.\n");
  ExpectNoLog("Integrity item located.\n");
}

// --- The walk --------------------------------------------------------------------------------------------

TEST_F(ValidationTest, ItemsThatEndWithTheMessageAreGood) {
  const Bytes message = Coded(0x03, Hex("05 00 06 02 AA BB"));
  EXPECT_TRUE(Validate(message));
  ExpectLog(7, "Called with nHeaderSize=17, nMsgSize=23\n");
  ExpectLog(7, "KLV at offset 17 has key=5 (1 bytes) len=0 (1 bytes) total=2.\n");
  ExpectLog(7, "KLV at offset 19 has key=6 (1 bytes) len=2 (1 bytes) total=4.\n");
  ExpectLog(7, "Message is OK.\n");
}

TEST_F(ValidationTest, ValueThatRunsPastTheEndDoesNotAddUp) {
  EXPECT_FALSE(Validate(Coded(0x03, Hex("05 00 06 09 AA BB"))));
  ExpectLog(4, SumText(13, 6));
}

TEST_F(ValidationTest, LeftOverByteIsNoItem) {
  EXPECT_FALSE(Validate(Coded(0x03, Hex("05 00 06"))));
  ExpectLog(4, "key offset is out of range of the supplied buffer.\n");
  ExpectLog(4, "KLV_GetInfo returned an error.\n");
}

TEST_F(ValidationTest, LengthNearFourGigabytesRunsPastTheEnd) {
  // The 4 bytes after each item would be reached by a step backwards or no step at all.
  const struct {
    const char* szItem;
    int nSum;
  } kItems[] = {{"05 FF FF FF FF", 4},           {"05 FF FF FF FB", 0},           {"05 FF FF FF F0", -11},
                {"05 80 00 00 00", INT_MIN + 5}, {"05 7F FF FF FF", INT_MIN + 4}, {"05 FF FF FF FE", 3}};
  for (const auto& item : kItems) {
    EXPECT_FALSE(Validate(Coded(0x63, Hex(item.szItem) + Hex("05 00 00 00")))) << item.szItem;
    ExpectLog(4, SumText(item.nSum, 9));
  }
}

TEST_F(ValidationTest, WrappedLengthThatWouldReachTheEndRunsPastIt) {
  // In 32 bits the second length would lead from offset 5 back to the start, and from there to the end.
  EXPECT_FALSE(Validate(Coded(0x63, Hex("05 00 00 00 00 05 FF FF FF F6"))));
  ExpectLog(4, SumText(0, 10));
  EXPECT_FALSE(Validate(Coded(0x63, Hex("05 00 00 00 00 05 FF FF FF FF"))));
  ExpectLog(4, SumText(9, 10));
}

TEST_F(ValidationTest, ItemWithoutAnySizeEndsTheWalk) {
  m_context.nKlvTagFieldSize = KLV_FIELD_1_BYTE;
  m_context.nKlvLengthFieldSize = 3;  // no size code
  EXPECT_FALSE(ValidateAsCoded(Coded(0x03, Hex("05 01 AA"))));
  ExpectAssertion("0");
  ExpectLog(4, SumText(0, 3));
}

// --- The integrity item ----------------------------------------------------------------------------------

TEST_F(ValidationTest, RightChecksumAtTheEndPasses) {
  EXPECT_TRUE(Validate(WellFormedMessage()));
  ExpectLog(7, "Integrity item located.\n");
  ExpectLog(7, "Calculated checksum matches KLV value.\n");
  ExpectLog(7, "Validator accepted message.\n");
}

TEST_F(ValidationTest, OneChangedValueByteFailsTheChecksum) {
  Bytes message = UasMessage().Item(15, {3, 4}).Checksum().Build();
  const WORD nStored = OwnChecksum(message, message.size() - 2);
  message[20] = static_cast<BYTE>(message[20] + 1);
  const WORD nComputed = OwnChecksum(message, message.size() - 2);
  EXPECT_FALSE(Validate(message));
  char szText[100];
  snprintf(szText, sizeof(szText), "Calculated checksum (0x%04X) doesn't match KLV value (0x%04X).\n", nComputed,
           nStored);
  ExpectLog(4, szText);
  ExpectLog(4, kRejected);
}

TEST_F(ValidationTest, ChecksumInTheMiddleIsSummedOverTheWholeMessage) {
  EXPECT_TRUE(Validate(WithChecksumInTheMiddle()));
  ExpectLog(6, "Calculating two-pass checksum since KLV is NOT at the end.\n");
  Bytes behind = WithChecksumInTheMiddle();
  behind.back() = static_cast<BYTE>(behind.back() + 1);  // the byte is after the checksum, but still summed
  EXPECT_FALSE(Validate(behind));
  ExpectLogContaining(4, "doesn't match KLV value");
  ExpectLog(4, kRejected);
}

TEST_F(ValidationTest, MessageWithoutAChecksumPasses) {
  EXPECT_TRUE(Validate(UasMessage().Item(15, {3, 4}).Build()));
  ExpectNoLog("Integrity item located.\n");
}

TEST_F(ValidationTest, TwoChecksumItemsFailAlthoughBothAreCorrect) {
  // With two items of the values a and b, the two-pass sum of the first covers all but a, and the second all bytes
  // before b.
  Bytes message = UasMessage().Raw(Hex("01 02 00 00 01 02 00 00")).Build();
  for (unsigned b = 0; b < 0x10000; b++) {
    message[23] = static_cast<BYTE>(b >> 8);
    message[24] = static_cast<BYTE>(b);
    message[19] = message[20] = 0;
    const WORD a = OwnChecksum(message, message.size());
    message[19] = static_cast<BYTE>(a >> 8);
    message[20] = static_cast<BYTE>(a);
    if (OwnChecksum(message, message.size() - 2) == b) break;
  }
  EXPECT_FALSE(Validate(message));
  ExpectLog(7, "Validator accepted message.\n");
  ExpectLog(4, kTwice);
}

TEST_F(ValidationTest, ChecksumItemOfOneByteIsRejectedWithoutALineAboutTheChecksum) {
  EXPECT_FALSE(Validate(UasMessage().Item(15, {3, 4}).Raw(Hex("01 01 AA")).Build()));
  ExpectLog(4, kRejected);
  for (const LogLine& line : host().Logs()) EXPECT_EQ(line.text.find("hecksum"), std::string::npos) << line.text;
}

TEST_F(ValidationTest, ChecksumItemWhoseValueLiesPastTheMessageIsRejectedSilently) {
  EXPECT_FALSE(Validate(UasMessage().Item(15, {3, 4}).Raw(Hex("01 02 AA")).Build()));
  ExpectLog(4, kRejected);
  for (const LogLine& line : host().Logs()) EXPECT_EQ(line.text.find("hecksum"), std::string::npos) << line.text;
}

TEST_F(ValidationTest, ValidatorTakesOneFormOnly) {
  Bytes message = UasMessage().Item(15, {3, 4}).Checksum().Build();
  const UINT nSize = static_cast<UINT>(message.size());
  const KLV_INFO right = {1, 2, message.data() + message.size() - 2, 1, 1, 4};
  const auto accepts = [&](KLV_INFO item) {
    return _UASDataLinkValidator(message.data(), nSize, 17, &item, nSize - 4);
  };
  EXPECT_TRUE(accepts(right));
  host().ClearLogs();
  KLV_INFO wrong = right;
  wrong.nKeySize = 2;
  EXPECT_FALSE(accepts(wrong));
  wrong = right;
  wrong.nLengthSize = 2;
  EXPECT_FALSE(accepts(wrong));
  wrong = right;
  wrong.nLength = 3;
  EXPECT_FALSE(accepts(wrong));
  EXPECT_THAT(host().Logs(), IsEmpty());
}

TEST_F(ValidationTest, HeaderSizeDoesNotMatterToTheValidator) {
  Bytes message = UasMessage().Item(15, {3, 4}).Checksum().Build();
  const UINT nSize = static_cast<UINT>(message.size());
  KLV_INFO item = {1, 2, message.data() + message.size() - 2, 1, 1, 4};
  for (const UINT nDataOffset : {0u, 17u, 0xFFFFFFFFu})
    EXPECT_TRUE(_UASDataLinkValidator(message.data(), nSize, nDataOffset, &item, nSize - 4));
}

TEST_F(ValidationTest, ChecksumOfAMessageBeyond65535BytesCoversAllOfIt) {
  // The items exceed one length: 65531 bytes of value, and the checksum at the end of 65554 bytes.
  Bytes message = UasMessage().Item(3, Bytes(65535 - 8, 'x')).Checksum().Build();
  ASSERT_EQ(message.size(), 65554u);
  EXPECT_TRUE(Validate(message));
  message[40000] = 'y';
  EXPECT_FALSE(Validate(message));
  ExpectLogContaining(4, "doesn't match KLV value");
  ExpectLog(4, kRejected);
}

// --- The checksum ----------------------------------------------------------------------------------------

TEST(ChecksumTest, BytesAtEvenPositionsAreHighBytes) {
  const BYTE acData[] = {0x01, 0x02, 0x03};
  EXPECT_EQ(CalcKlvChecksum16(acData, 3), 0x0402);
  EXPECT_EQ(CalcKlvChecksum16(acData, 2), 0x0102);
  EXPECT_EQ(CalcKlvChecksum16(acData, 0), 0);
}

TEST(ChecksumTest, SumWrapsAtSixteenBits) {
  const Bytes data(1000, 0xFF);
  EXPECT_EQ(CalcKlvChecksum16(data.data(), 1000), static_cast<WORD>(500u * 0xFFFFu));
}

TEST(ChecksumTest, TwoBytesAtTheOffsetCountAsZero) {
  const BYTE acData[] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(CalcKlvChecksum16Ex(acData, 6, 2), 0x0102 + 0x0506);
  EXPECT_EQ(CalcKlvChecksum16Ex(acData, 6, 1), 0x0100 + 0x0004 + 0x0506);
  EXPECT_EQ(CalcKlvChecksum16Ex(acData, 6, 5), 0x0102 + 0x0304 + 0x0500);
  EXPECT_EQ(CalcKlvChecksum16Ex(acData, 6, 6), 0x0102 + 0x0304 + 0x0506);
  EXPECT_EQ(CalcKlvChecksum16Ex(acData, 6, 0xFFFF), 0x0102 + 0x0304 + 0x0506);
}

TEST(ChecksumTest, OffsetZeroSkipsNothing) {
  const BYTE acData[] = {1, 2, 3, 4};
  EXPECT_EQ(CalcKlvChecksum16Ex(acData, 4, 0), 0x0102 + 0x0304);
}

TEST(ChecksumTest, AgreesWithTheStandardsPrintedSum) {
  // Words of four letters, summed by hand: 'ab' + 'cd'.
  EXPECT_EQ(CalcKlvChecksum16(reinterpret_cast<const BYTE*>("abcd"), 4), 0x6162 + 0x6364);
}

}  // namespace
