// SPDX-License-Identifier: Apache-2.0
// Tests of the rewriting of UAS Local Sets.
#include "misb0601_processing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "builders.h"
#include "fake_host.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kMisplaced[] = "Checksum in received UAS data set was not the last element!\n";

// Returns an element with a short-form length.
Bytes Element(BYTE tag, const Bytes& value) {
  return Bytes{tag, static_cast<BYTE>(value.size())} + value;
}
Bytes Repeat(const Bytes& what, size_t nTimes) {
  Bytes result;
  for (size_t i = 0; i < nTimes; i++) result = result + what;
  return result;
}

const Bytes kChecksum = {1, 2, 0xAA, 0xBB};  // it is replaced, whatever its value
const Bytes kTimestamp = Element(2, {0, 1, 2, 3, 4, 5, 6, 7});
const Bytes kForeignMission = Element(3, {'O', 'L', 'D'});
const Bytes kForeignSecurity = Element(48, Element(1, {5}) + Element(22, {0, 11}));

// Returns a message with the body and a length in its shortest form.
Bytes Wrap(const Bytes& body) {
  return UasMessage().Raw(body).Build();
}
int HeaderSizeOf(const Bytes& message) {
  return message[16] < 0x80 ? 17 : 17 + (message[16] & 0x7F);
}

// Returns the expected result of a rewriting: the message with a correct checksum element at the end.
Bytes Finished(const Bytes& body) {
  return UasMessage().Raw(body).Checksum().Build();
}

// The record of an open source without any configured rewriting.
class RewriteTest : public HostTest {
 protected:
  RewriteTest() : m_pSource(static_cast<MDATA_SRC_HANDLE>(calloc(1, sizeof(tagMDATA_SRC_HANDLE)))) {}
  ~RewriteTest() override {
    DoReleaseIfAny();
    free(m_pSource->pMissionID);
    free(m_pSource->pSecurityMDataSet);
    free(m_pSource);
  }

  Bytes UseMissionID(const std::string& strText) {
    m_pSource->pMissionID = AllocMissionID(strText.c_str());
    m_pSource->nMissionIDElementSize = m_pSource->pMissionID->cLength + 2;
    return Element(3, Bytes(strText.begin(), strText.end()));
  }
  Bytes UseSecuritySet() {
    m_pSource->pSecurityMDataSet = AllocSecurityMetadata(4, "USA", "USA");
    m_pSource->nSecurityMDataSetSize = m_pSource->pSecurityMDataSet->Length + 2;
    const auto* pcSet = reinterpret_cast<const BYTE*>(m_pSource->pSecurityMDataSet);
    return {pcSet, pcSet + m_pSource->nSecurityMDataSetSize};
  }
  void KeepTags(const std::vector<int>& tags) {
    m_pSource->Config.bFilterUASTags = TRUE;
    for (const int nTag : tags) m_pSource->Config.UASTagFilter[nTag / 32] |= 1u << (nTag % 32);
  }
  void KeepSecurityTags(const std::vector<int>& tags) {
    m_pSource->Config.bFilterUASSecurityTags = TRUE;
    for (const int nTag : tags) m_pSource->Config.UASSecurityTagFilter[0] |= 1u << nTag;
  }

  // Rewrites a message in a block of exactly its size.
  BOOL Rewrite(const Bytes& message, int nHeaderSize) {
    DoReleaseIfAny();
    m_nNewSize = -1;
    const std::unique_ptr<BYTE[]> pcExact(new BYTE[message.size()]);
    std::copy(message.begin(), message.end(), pcExact.get());
    return ProcessUASDataLinkLocalSet(m_pSource, pcExact.get(), static_cast<int>(message.size()), nHeaderSize,
                                      &m_pBuffer, &m_nNewSize);
  }
  BOOL Rewrite(const Bytes& message) { return Rewrite(message, HeaderSizeOf(message)); }
  BOOL RewriteBody(const Bytes& body) { return Rewrite(Wrap(body)); }

  // Returns the result of the last rewriting.
  Bytes Output() const {
    if (m_pBuffer == nullptr) return {};
    EXPECT_EQ(m_nNewSize, m_pBuffer->nDataSize);
    EXPECT_EQ(m_pBuffer->nRefCount, 1);
    EXPECT_GE(m_pBuffer->pcData - static_cast<BYTE*>(m_pBuffer->pvAllocPtr),
              static_cast<ptrdiff_t>(sizeof(MDATA_BUFFER)) + MDATA_STREAM_HEADER_SIZE);
    return {m_pBuffer->pcData, m_pBuffer->pcData + m_pBuffer->nDataSize};
  }
  const MDATA_KLV_STATS& Stats() const { return m_pSource->KLVStats; }

  void DoReleaseIfAny() {
    if (m_pBuffer != nullptr) DoReleaseBuffer(&m_pBuffer);
  }

  MDATA_SRC_HANDLE m_pSource;
  MDATA_BUFFER* m_pBuffer = nullptr;
  int m_nNewSize = 0;
};

// --- Result of a rewriting ---------------------------------------------------------------------------

TEST_F(RewriteTest, NothingConfiguredOnlyRenewsTheChecksum) {
  EXPECT_TRUE(RewriteBody(kTimestamp + kForeignMission + kForeignSecurity + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + kForeignMission + kForeignSecurity));
  EXPECT_EQ(Stats().nRxUASMessages, 1u);
  EXPECT_EQ(Stats().nInvalidUASMessages + Stats().nAddedMissionIDs + Stats().nUpdatedMissionIDs, 0u);
  EXPECT_EQ(Stats().nAddedSecuritySets + Stats().nUpdatedSecuritySets, 0u);
}

TEST_F(RewriteTest, SizeIsOptional) {
  Bytes message = Finished(kTimestamp);
  EXPECT_TRUE(
      ProcessUASDataLinkLocalSet(m_pSource, message.data(), static_cast<int>(message.size()), 17, &m_pBuffer, nullptr));
  m_nNewSize = m_pBuffer->nDataSize;
  EXPECT_EQ(Output(), message);
  DoReleaseBuffer(&m_pBuffer);
  message = Wrap(kChecksum);
  EXPECT_TRUE(
      ProcessUASDataLinkLocalSet(m_pSource, message.data(), static_cast<int>(message.size()), 17, &m_pBuffer, nullptr));
  EXPECT_EQ(m_pBuffer, nullptr);
}

TEST_F(RewriteTest, NoElementLeftMakesNoMessage) {
  EXPECT_TRUE(RewriteBody(kChecksum));
  EXPECT_EQ(m_pBuffer, nullptr);
  EXPECT_EQ(m_nNewSize, 0);
  EXPECT_EQ(Stats().nRxUASMessages, 1u);
  ExpectLog(7, "ZERO elements left in output KLV message\n");
}

TEST_F(RewriteTest, OnlyAChecksumWithAMissionIdentifierGivesBoth) {
  const Bytes mission = UseMissionID("M1");
  EXPECT_TRUE(RewriteBody(kChecksum));
  EXPECT_EQ(Output(), Finished(mission));
  EXPECT_EQ(Stats().nAddedMissionIDs, 1u);
}

TEST_F(RewriteTest, OnlyAChecksumWithASecuritySetGivesBoth) {
  const Bytes set = UseSecuritySet();
  EXPECT_TRUE(RewriteBody(kChecksum));
  EXPECT_EQ(Output(), Finished(set));
  EXPECT_EQ(Stats().nAddedSecuritySets, 1u);
}

TEST_F(RewriteTest, TwoMissionIdentifiersAreReplacedInPlace) {
  const Bytes mission = UseMissionID("NEW-MISSION");
  EXPECT_TRUE(RewriteBody(kForeignMission + kTimestamp + kForeignMission + kChecksum));
  EXPECT_EQ(Output(), Finished(mission + kTimestamp + mission));
  EXPECT_EQ(Stats().nUpdatedMissionIDs, 2u);
  EXPECT_EQ(Stats().nAddedMissionIDs, 0u);
}

TEST_F(RewriteTest, TwoSecuritySetsAreReplacedInPlace) {
  const Bytes set = UseSecuritySet();
  EXPECT_TRUE(RewriteBody(kForeignSecurity + kTimestamp + kForeignSecurity + kChecksum));
  EXPECT_EQ(Output(), Finished(set + kTimestamp + set));
  EXPECT_EQ(Stats().nUpdatedSecuritySets, 2u);
  EXPECT_EQ(Stats().nAddedSecuritySets, 0u);
}

TEST_F(RewriteTest, MissionIdentifierIsAppendedBeforeTheSecuritySet) {
  const Bytes set = UseSecuritySet();
  const Bytes mission = UseMissionID("M1");
  EXPECT_TRUE(RewriteBody(kTimestamp + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + mission + set));
  EXPECT_EQ(Stats().nAddedMissionIDs, 1u);
  EXPECT_EQ(Stats().nAddedSecuritySets, 1u);
  EXPECT_TRUE(RewriteBody(kForeignSecurity + kTimestamp + kChecksum));
  EXPECT_EQ(Output(), Finished(set + kTimestamp + mission));
  EXPECT_EQ(Stats().nAddedMissionIDs, 2u);
  EXPECT_EQ(Stats().nUpdatedSecuritySets, 1u);
}

TEST_F(RewriteTest, KeyIsCopiedFromTheInput) {
  Bytes message = Wrap(kTimestamp + kChecksum);
  message[15] = 0x77;
  EXPECT_TRUE(Rewrite(message));
  EXPECT_EQ(Output()[15], 0x77);
}

TEST_F(RewriteTest, LongFormLengthBecomesTheShortestOne) {
  const Bytes body = kTimestamp + kChecksum;
  Bytes message(UASDataLinkKey, UASDataLinkKey + 16);
  message = message + Bytes{0x82, 0, static_cast<BYTE>(body.size())} + body;
  EXPECT_TRUE(Rewrite(message, 19));
  EXPECT_EQ(Output(), Finished(kTimestamp));
}

TEST_F(RewriteTest, LongFormElementIsCopiedWhole) {
  const Bytes longer = Bytes{94, 0x81, 3, 'A', 'B', 'C'};
  EXPECT_TRUE(RewriteBody(longer + kChecksum));
  EXPECT_EQ(Output(), Finished(longer));
}

// --- Length of the body ------------------------------------------------------------------------------------

TEST_F(RewriteTest, BodyOf127BytesHasAOneByteLength) {
  EXPECT_TRUE(RewriteBody(Element(5, Bytes(121)) + kChecksum));
  EXPECT_EQ(Output().size(), 144u);
  EXPECT_EQ(Output()[16], 127);
  EXPECT_EQ(Output(), Finished(Element(5, Bytes(121))));
}

TEST_F(RewriteTest, BodyOf128BytesHasATwoByteLength) {
  EXPECT_TRUE(RewriteBody(Element(5, Bytes(122)) + kChecksum));
  EXPECT_EQ(Output().size(), 146u);
  EXPECT_EQ(Output()[16], 0x81);
  EXPECT_EQ(Output()[17], 0x80);
  EXPECT_EQ(Output(), Finished(Element(5, Bytes(122))));
}

TEST_F(RewriteTest, BodiesOf255And256BytesHaveOneAndTwoLengthBytes) {
  const Bytes front = Element(5, Bytes(120));
  EXPECT_TRUE(RewriteBody(front + Element(6, Bytes(127)) + kChecksum));
  EXPECT_EQ(Output().size(), 255u + 18u);
  EXPECT_EQ(Output()[17], 0xFF);
  EXPECT_TRUE(RewriteBody(front + Bytes{6, 0x81, 127} + Bytes(127) + kChecksum));
  EXPECT_EQ(Output().size(), 256u + 19u);
  const Bytes made = Output();
  EXPECT_THAT(Bytes(made.begin() + 16, made.begin() + 19), ElementsAre(0x82, 1, 0));
}

TEST_F(RewriteTest, LargestBodyHas65535Bytes) {
  const Bytes body = Bytes{5, 0x82, 0xFF, 0xF7} + Bytes(0xFFF7, 0x5A);
  EXPECT_TRUE(RewriteBody(body + kChecksum));
  EXPECT_EQ(Output().size(), 65535u + 19u);
  EXPECT_EQ(Output(), Finished(body));
}

TEST_F(RewriteTest, BodyAbove65535BytesAssertsAndIsDropped) {
  UseMissionID("");
  const Bytes body = Bytes{5, 0x82, 0xFF, 0xF7} + Bytes(0xFFF7, 0x5A);
  EXPECT_FALSE(RewriteBody(body + kChecksum));
  ExpectAssertion("0");
  EXPECT_EQ(m_pBuffer, nullptr);
  EXPECT_EQ(Stats().nRxUASMessages, 1u);
  EXPECT_EQ(Stats().nInvalidUASMessages, 0u);
  EXPECT_EQ(Stats().nAddedMissionIDs, 1u);
}

TEST_F(RewriteTest, ManyReplacementsInOneDatagramAreCountedAndRefused) {
  UseMissionID(std::string(127, 'M'));
  EXPECT_FALSE(RewriteBody(Repeat({3, 0}, 739) + Element(5, {1})));
  ExpectLog(4, kMisplaced);
  ExpectAssertion("0");
  EXPECT_EQ(Stats().nUpdatedMissionIDs, 739u);
}

TEST_F(RewriteTest, ManyReplacementsFarBeyondTheUsualSizeAreWritten) {
  const Bytes mission = UseMissionID(std::string(127, 'M'));
  EXPECT_TRUE(RewriteBody(Repeat({3, 0}, 500) + kChecksum));
  EXPECT_EQ(Output(), Finished(Repeat(mission, 500)));
  EXPECT_EQ(Stats().nUpdatedMissionIDs, 500u);
}

TEST_F(RewriteTest, MessageWithoutChecksumElementHasRoomForTheNewOne) {
  // The usual allocation would be two to four bytes too small here.
  for (size_t nSize = 0; nSize < 200; nSize++) {
    EXPECT_TRUE(RewriteBody(Bytes{5, 0x81, static_cast<BYTE>(nSize)} + Bytes(nSize, 7)));
    EXPECT_EQ(Output(), Finished(Bytes{5, 0x81, static_cast<BYTE>(nSize)} + Bytes(nSize, 7)));
    ExpectLog(4, kMisplaced);
  }
}

// --- Repaired input ----------------------------------------------------------------------------------------

TEST_F(RewriteTest, MissingChecksumIsAcceptedAndLoggedAsMisplaced) {
  EXPECT_TRUE(RewriteBody(kTimestamp));
  EXPECT_EQ(Output(), Finished(kTimestamp));
  ExpectLog(4, kMisplaced);
}

TEST_F(RewriteTest, MisplacedChecksumIsAccepted) {
  EXPECT_TRUE(RewriteBody(kChecksum + kTimestamp + kChecksum + kForeignMission));
  EXPECT_EQ(Output(), Finished(kTimestamp + kForeignMission));
  ExpectLog(4, kMisplaced);
}

TEST_F(RewriteTest, EmptyBodyMakesNoMessage) {
  EXPECT_TRUE(RewriteBody({}));
  EXPECT_EQ(m_pBuffer, nullptr);
  EXPECT_EQ(m_nNewSize, 0);
  ExpectLog(4, kMisplaced);
}

TEST_F(RewriteTest, LeftOverBytesAreIgnored) {
  EXPECT_TRUE(RewriteBody(kTimestamp + kChecksum + Bytes{0x55}));
  EXPECT_EQ(Output(), Finished(kTimestamp));
  ExpectLog(2, "nSizeLeft=1.\n");
}

TEST_F(RewriteTest, FinalElementWithoutValueIsLost) {
  EXPECT_TRUE(RewriteBody(kTimestamp + kChecksum + Bytes{5, 0}));
  EXPECT_EQ(Output(), Finished(kTimestamp));
  ExpectLog(2, "nSizeLeft=2.\n");
  EXPECT_TRUE(RewriteBody(Bytes{5, 0} + kTimestamp + kChecksum));
  EXPECT_EQ(Output(), Finished(Bytes{5, 0} + kTimestamp));
}

// --- Invalid messages --------------------------------------------------------------------------------------

class InvalidMessageTest : public RewriteTest {
 protected:
  void ExpectInvalid(const Bytes& body, const std::string& strReason, BYTE tag) {
    EXPECT_FALSE(RewriteBody(body));
    EXPECT_EQ(m_pBuffer, nullptr);
    EXPECT_EQ(Stats().nInvalidUASMessages, Stats().nRxUASMessages);
    ExpectLog(3, "KLV Element#2: tag#" + std::to_string(tag) + " (" + GetUAVTagName(tag) + "), " + strReason);
    host().Advance(5000);
  }
};

TEST_F(InvalidMessageTest, UnreadableSizeIsRefused) {
  EXPECT_FALSE(RewriteBody(kTimestamp + Bytes{5, 0x80, 0, 0}));
  ExpectLog(3, "Unsupported number of bytes (0) for size in BER encoded length.\n");
  ExpectLog(3, "KLV Element#2: tag#5 (" + std::string(GetUAVTagName(5)) + "), Unable to extract element size.\n");
  EXPECT_EQ(Stats().nInvalidUASMessages, 1u);
}

TEST_F(InvalidMessageTest, ElementThatPassesTheEndIsRefused) {
  ExpectInvalid(kTimestamp + Bytes{5, 3, 1, 2}, "has INVALID data length=3 with only 4 bytes remaining in message.\n",
                5);
  ExpectInvalid(kTimestamp + Bytes{3, 127, 1}, "has INVALID data length=127 with only 3 bytes remaining in message.\n",
                3);
}

TEST_F(InvalidMessageTest, HugeLengthsAreComparedUnsigned) {
  ExpectInvalid(kTimestamp + Bytes{5, 0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0},
                "has INVALID data length=132 with only 7 bytes remaining in message.\n", 5);
  ExpectInvalid(kTimestamp + Bytes{5, 0x84, 0x80, 0, 0, 0},
                "has INVALID data length=132 with only 6 bytes remaining in message.\n", 5);
}

TEST_F(InvalidMessageTest, LengthFieldThatPassesTheEndIsRefused) {
  ExpectInvalid(kTimestamp + Bytes{5, 0x84, 0}, "has INVALID data length=132 with only 3 bytes remaining in message.\n",
                5);
}

TEST_F(InvalidMessageTest, ChecksumOfThreeBytesIsRefused) {
  ExpectInvalid(kTimestamp + Element(1, {1, 2, 3}), "has INVALID data length=3 instead of 2.\n", 1);
  ExpectInvalid(kTimestamp + Bytes{1, 0x81, 2, 0, 0}, "has INVALID data length=129 instead of 2.\n", 1);
}

TEST_F(RewriteTest, InvalidMessagesAreLoggedOncePerPause) {
  const std::string strLine =
      "KLV Element#1: tag#1 (" + std::string(GetUAVTagName(1)) + "), has INVALID data length=3 instead of 2.\n";
  const Bytes body = Element(1, {1, 2, 3});
  EXPECT_FALSE(RewriteBody(body));
  ExpectLog(3, strLine);
  host().Advance(4000);
  EXPECT_FALSE(RewriteBody(body));
  EXPECT_EQ(CountLogs(3, strLine), 1);
  host().Advance(1000);
  EXPECT_FALSE(RewriteBody(body));
  ExpectLog(3, strLine);
  EXPECT_EQ(Stats().nInvalidUASMessages, 3u);
  EXPECT_EQ(Stats().nRxUASMessages, 3u);
}

TEST_F(RewriteTest, InvalidMessageCountsNoInserts) {
  UseMissionID("M");
  EXPECT_FALSE(RewriteBody(kForeignMission + Element(1, {1})));
  ExpectLog(3,
            "KLV Element#2: tag#1 (" + std::string(GetUAVTagName(1)) + "), has INVALID data length=1 instead of 2.\n");
  EXPECT_EQ(Stats().nUpdatedMissionIDs + Stats().nAddedMissionIDs, 0u);
}

TEST_F(RewriteTest, SizeBelowTheHeaderIsRefused) {
  Bytes message = Wrap(kTimestamp);
  EXPECT_FALSE(ProcessUASDataLinkLocalSet(m_pSource, message.data(), 18, 19, &m_pBuffer, &m_nNewSize));
  EXPECT_FALSE(ProcessUASDataLinkLocalSet(m_pSource, message.data(), 10, 10, &m_pBuffer, &m_nNewSize));
  EXPECT_EQ(m_pBuffer, nullptr);
  EXPECT_EQ(Stats().nRxUASMessages, 0u);
}

TEST_F(RewriteTest, NothingIsCountedIfOutOfMemory) {
  host().FailNext("malloc");
  EXPECT_FALSE(RewriteBody(kTimestamp + kChecksum));
  EXPECT_EQ(Stats().nRxUASMessages, 0u);
}

// --- Tag filter --------------------------------------------------------------------------------------------

TEST_F(RewriteTest, OnlyTheTimestampPassesTheFilter) {
  KeepTags({2});
  const Bytes mission = UseMissionID("M1");
  const Bytes set = UseSecuritySet();
  EXPECT_TRUE(RewriteBody(Element(5, {1, 2}) + kForeignMission + kTimestamp + Element(65, {9}) + kChecksum));
  EXPECT_EQ(Output(), Finished(mission + kTimestamp + set));
}

TEST_F(RewriteTest, FilterDecisionsAreLogged) {
  KeepTags({2});
  EXPECT_TRUE(RewriteBody(Element(5, {1, 2}) + kTimestamp + kChecksum));
  ExpectLog(7, "Not copying KLV element#1: tag#5 (" + std::string(GetUAVTagName(5)) +
                   ") since it is not included in the UAS filter.\n");
  ExpectLog(7, "Copying KLV element#2: tag#2 (" + std::string(GetUAVTagName(2)) +
                   ") since it is included in the UAS filter.\n");
}

TEST_F(RewriteTest, FilterKeepsEachTagByItsOwnBit) {
  Bytes all;
  for (int nTag = 2; nTag < 256; nTag++) all = all + Element(static_cast<BYTE>(nTag), {static_cast<BYTE>(nTag)});
  for (const int nTag : {2, 31, 32, 63, 64, 95, 96, 127}) {
    memset(m_pSource->Config.UASTagFilter, 0, sizeof(m_pSource->Config.UASTagFilter));
    KeepTags({nTag});
    EXPECT_TRUE(RewriteBody(all + kChecksum));
    EXPECT_EQ(Output(), Finished(Element(static_cast<BYTE>(nTag), {static_cast<BYTE>(nTag)}))) << nTag;
  }
}

TEST_F(RewriteTest, TagsWithoutABitAreDroppedByTheFilter) {
  KeepTags({});
  for (UINT32& nWord : m_pSource->Config.UASTagFilter) nWord = ~0u;
  KeepSecurityTags({0, 1, 2});  // bits after the map do not belong to it
  EXPECT_TRUE(RewriteBody(Element(127, {1}) + Element(128, {1}) + Element(160, {1}) + Element(255, {1}) + kChecksum));
  EXPECT_EQ(Output(), Finished(Element(127, {1})));
}

TEST_F(RewriteTest, FilterThatKeepsNothingMakesNoMessage) {
  KeepTags({5});
  EXPECT_TRUE(RewriteBody(kTimestamp + kChecksum));
  EXPECT_EQ(m_pBuffer, nullptr);
  EXPECT_EQ(m_nNewSize, 0);
}

TEST_F(RewriteTest, ForeignSecuritySetNeedsItsOwnTagsBit) {
  KeepTags({2});
  KeepSecurityTags({1});
  EXPECT_TRUE(RewriteBody(kTimestamp + kForeignSecurity + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp));
  KeepTags({48});
  EXPECT_TRUE(RewriteBody(kTimestamp + kForeignSecurity + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + Element(48, Element(1, {5}))));
}

TEST_F(RewriteTest, OwnSecuritySetIsNeverFiltered) {
  KeepSecurityTags({});
  const Bytes set = UseSecuritySet();
  EXPECT_TRUE(RewriteBody(kTimestamp + kForeignSecurity + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + set));
}

TEST_F(RewriteTest, SecuritySetOfWhichNothingIsKeptVanishes) {
  KeepSecurityTags({7});
  EXPECT_TRUE(RewriteBody(kTimestamp + kForeignSecurity + Element(5, {1, 2}) + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + Element(5, {1, 2})));
}

TEST_F(RewriteTest, SecuritySetIsLoggedAndAssertedOnce) {
  KeepSecurityTags({1});
  const Bytes set = Element(48, Element(1, {5}) + Bytes{3, 9, 'x'});
  EXPECT_TRUE(RewriteBody(set + kChecksum));
  EXPECT_EQ(Output(), Finished(Element(48, Element(1, {5}))));
  ExpectDump(7, "Input Security Data Set", set);
  ExpectLog(7, "Copying security element#1: tag#1 (" + std::string(GetSecurityTagName(1)) + "), length=1.\n");
  EXPECT_EQ(CountLogs(7, "Copying security element#1: tag#1 (Security tag 1), length=1.\n"), 1);
  EXPECT_EQ(host().Assertions().size(), 1u);
  EXPECT_EQ(host().Dumps().size(), 1u);
  ExpectAssertion("nInputSize == 0");
}

// --- Security set ------------------------------------------------------------------------------------------

class SecuritySetTest : public RewriteTest {
 protected:
  // Filters one set and returns the remaining bytes.
  Bytes Filter(const Bytes& set) {
    const std::unique_ptr<BYTE[]> pcExact(new BYTE[set.size()]);
    std::copy(set.begin(), set.end(), pcExact.get());
    Bytes out(set.size(), 0xEE);
    const int nSize = _ProcessUASSecuritySet(m_pSource, reinterpret_cast<const KLV_ELEMENT*>(pcExact.get()),
                                             static_cast<int>(set.size()), out.data());
    out.resize(static_cast<size_t>(nSize));
    return out;
  }
};

TEST_F(SecuritySetTest, KeepsTheElementsWithABit) {
  KeepSecurityTags({1, 22});
  const Bytes set = Element(48, Element(1, {5}) + Element(2, {2}) + Element(22, {0, 11}));
  EXPECT_EQ(Filter(set), Element(48, Element(1, {5}) + Element(22, {0, 11})));
  const auto name = [](BYTE tag) { return std::string(GetSecurityTagName(tag)); };
  ExpectDump(7, "Input Security Data Set", set);
  ExpectLog(7, "Copying security element#1: tag#1 (" + name(1) + "), length=1.\n");
  ExpectLog(7, "Discarding security element#2: tag#2 (" + name(2) + "), length=1.\n");
  ExpectLog(7, "Copying security element#3: tag#22 (" + name(22) + "), length=2.\n");
}

TEST_F(SecuritySetTest, LengthInTheLogIsTheLengthByte) {
  KeepSecurityTags({3});
  EXPECT_EQ(Filter(Element(48, {3, 0x81, 2, 'A', 'B'})), Element(48, {3, 0x81, 2, 'A', 'B'}));
  ExpectLog(7, "Copying security element#1: tag#3 (" + std::string(GetSecurityTagName(3)) + "), length=129.\n");
}

TEST_F(SecuritySetTest, SetOfWhichNothingIsKeptIsDropped) {
  KeepSecurityTags({});
  EXPECT_THAT(Filter(kForeignSecurity), IsEmpty());
  EXPECT_THAT(Filter({48, 0}), IsEmpty());
}

TEST_F(SecuritySetTest, TagsWithoutABitAreDropped) {
  KeepSecurityTags({});
  m_pSource->Config.UASSecurityTagFilter[0] = ~0u;
  EXPECT_EQ(Filter(Element(48, Element(31, {1}) + Element(32, {2}) + Element(33, {3}) + Element(255, {4}))),
            Element(48, Element(31, {1})));
}

TEST_F(SecuritySetTest, UnreadableElementDropsTheWholeSet) {
  KeepSecurityTags({1});
  EXPECT_THAT(Filter(Element(48, Element(1, {5}) + Bytes{2, 0x80, 1})), IsEmpty());
  ExpectLog(3, "Unsupported number of bytes (0) for size in BER encoded length.\n");
}

TEST_F(SecuritySetTest, ElementThatPassesTheEndStopsTheWalk) {
  KeepSecurityTags({1, 2});
  EXPECT_EQ(Filter(Element(48, Element(1, {5}) + Bytes{2, 9, 1})), Element(48, Element(1, {5})));
  ExpectAssertion("nInputSize == 0");
  EXPECT_EQ(Filter(Element(48, Element(1, {5}) + Bytes{2})), Element(48, Element(1, {5})));
  ExpectAssertion("nInputSize == 0");
  EXPECT_EQ(Filter(Element(48, Element(1, {5}) + Bytes{2, 0x83, 0})), Element(48, Element(1, {5})));
  ExpectAssertion("nInputSize == 0");
}

TEST_F(SecuritySetTest, OtherTagAsserts) {
  KeepSecurityTags({1});
  EXPECT_EQ(Filter(Element(47, Element(1, {5}))), Element(48, Element(1, {5})));
  ExpectAssertion("pSecurityItem->Tag == UAS_SECURITY_LOCAL_SET_TAG");
}

TEST_F(SecuritySetTest, LongFormSetIsReadFromInsideItsLength) {
  KeepSecurityTags({1, 3});
  // After 0x81 the length byte 3 is read as a tag of length 1, and the walk continues from there.
  EXPECT_EQ(Filter({48, 0x81, 3, 1, 1, 5}), Element(48, {3, 1, 1}));
  ExpectAssertion("nInputSize == 0");
}

TEST_F(SecuritySetTest, LengthByteIsTheLowByteOfTheSize) {
  KeepSecurityTags({3});
  // A long-form set of 0x0303 bytes is read from 03 03 on, so that more than 255 bytes are copied.
  const Bytes inner = Bytes{1, 1} + Repeat({3, 4, 1, 2, 3, 4}, 128) + Bytes{1};
  const Bytes set = Bytes{48, 0x82, 3, 3} + inner;
  ASSERT_EQ(inner.size(), 0x303u);
  const Bytes out = Filter(set);
  ExpectAssertion("nInputSize == 0");
  ASSERT_GT(out.size(), 257u);
  EXPECT_EQ(out[0], 48);
  EXPECT_EQ(out[1], static_cast<BYTE>(out.size() - 2));
}

TEST_F(SecuritySetTest, VanishingSetLeavesNoTraceInTheMessage) {
  KeepSecurityTags({1});
  const Bytes broken = Element(48, Repeat(Element(1, {5}), 35) + Bytes{2, 0x80, 1});
  EXPECT_TRUE(RewriteBody(kTimestamp + broken + Element(5, {1, 2}) + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + Element(5, {1, 2})));
  ExpectLog(3, "Unsupported number of bytes (0) for size in BER encoded length.\n");
}

// --- Items from 128 on ---------------------------------------------------------------------------------------

// These have two-byte tags. Read as one-byte tags, the first is an empty element, followed by a mission identifier of 1
// byte.
const Bytes kWavelengths = {0x81, 0x00, 3, 1, 2, 3};  // item 128
const Bytes kCountry = {0x81, 0x01, 2, 'U', 'S'};     // item 129

class ExtendedTagsTest : public SecuritySetTest {
 protected:
  void SetUp() override {
    SecuritySetTest::SetUp();
    _g_bExtendedTags = TRUE;
  }
  void TearDown() override {
    _g_bExtendedTags = FALSE;
    SecuritySetTest::TearDown();
  }
};

TEST_F(ExtendedTagsTest, AreCopiedAndTheRestIsReadCorrectly) {
  const Bytes mission = UseMissionID("M1");
  const Bytes set = UseSecuritySet();
  EXPECT_TRUE(RewriteBody(kTimestamp + kWavelengths + kForeignMission + kCountry + kForeignSecurity + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + kWavelengths + mission + kCountry + set));
  EXPECT_EQ(Stats().nUpdatedMissionIDs, 1u);
  EXPECT_EQ(Stats().nUpdatedSecuritySets, 1u);
}

TEST_F(ExtendedTagsTest, InsertsAreAppendedAfterThem) {
  const Bytes mission = UseMissionID("M1");
  const Bytes set = UseSecuritySet();
  EXPECT_TRUE(RewriteBody(kTimestamp + kWavelengths + kCountry + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + kWavelengths + kCountry + mission + set));
  EXPECT_EQ(Stats().nAddedMissionIDs, 1u);
  EXPECT_EQ(Stats().nAddedSecuritySets, 1u);
  // The last element has three bytes.
  EXPECT_TRUE(RewriteBody(kTimestamp + Bytes{0x81, 0x02, 0}));
  EXPECT_EQ(Output(), Finished(kTimestamp + Bytes{0x81, 0x02, 0} + mission + set));
  ExpectLog(4, kMisplaced);
}

TEST_F(ExtendedTagsTest, HaveNoBitInTheFilters) {
  for (UINT32& nWord : m_pSource->Config.UASTagFilter) nWord = ~0u;
  KeepTags({});
  KeepSecurityTags({0, 1, 2});
  EXPECT_TRUE(
      RewriteBody(kTimestamp + kWavelengths + Element(5, {1}) + Bytes{0x82, 0x80, 0x05, 1, 9} + kCountry + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + Element(5, {1})));
  ExpectLog(7, "Not copying KLV element#2: tag#128 (UAV tag 128) since it is not included in the UAS filter.\n");
  ExpectLog(7, "Not copying KLV element#4: tag#32773 (Unknown) since it is not included in the UAS filter.\n");
  m_pSource->Config.UASSecurityTagFilter[0] = ~0u;
  EXPECT_EQ(Filter(Element(48, Element(1, {5}) + kCountry + Element(22, {0, 11}))),
            Element(48, Element(1, {5}) + Element(22, {0, 11})));
  ExpectLog(7, "Discarding security element#2: tag#129 (Security tag 129), length=2.\n");
}

TEST_F(ExtendedTagsTest, MalformedTagsMakeTheMessageInvalid) {
  // 80 03 would be a longer encoding of the mission identifier's tag.
  EXPECT_FALSE(RewriteBody(kTimestamp + Bytes{0x80, 3, 1, 'M'} + kChecksum));
  ExpectLog(3, "KLV Element#2: tag#128 (UAV tag 128), Unable to extract element size.\n");
  host().Advance(5000);
  EXPECT_FALSE(RewriteBody(kTimestamp + Bytes{0x81, 0x80, 0x80, 0x80, 0, 1, 9} + kChecksum));
  ExpectLog(3, "KLV Element#2: tag#129 (UAV tag 129), Unable to extract element size.\n");
  host().Advance(5000);
  EXPECT_FALSE(RewriteBody(kTimestamp + Bytes{0xFF, 0xFF, 0xFF}));
  ExpectLog(
      3, "KLV Element#2: tag#255 (UAV tag 255), has INVALID data length=0 with only 3 bytes remaining in message.\n");
  host().Advance(5000);
  EXPECT_FALSE(RewriteBody(kTimestamp + Bytes{0x81, 0x00, 9, 1}));
  ExpectLog(
      3, "KLV Element#2: tag#128 (UAV tag 128), has INVALID data length=9 with only 4 bytes remaining in message.\n");
  EXPECT_EQ(Stats().nInvalidUASMessages, 4u);
  KeepSecurityTags({1});
  EXPECT_THAT(Filter(Element(48, Element(1, {5}) + Bytes{0x80, 1, 1, 5})), IsEmpty());
}

TEST_F(RewriteTest, TagsHaveOneByteWithoutTheOption) {
  // The walk is out of step: it reads the wavelengths' length byte and their last byte as tags of mission identifiers.
  const Bytes mission = UseMissionID("M1");
  EXPECT_TRUE(RewriteBody(kTimestamp + kWavelengths + Element(5, {1, 2}) + kChecksum));
  EXPECT_EQ(Output(), Finished(kTimestamp + Bytes{0x81, 0} + mission + mission));
  ExpectLog(2, "nSizeLeft=2.\n");
  ExpectLog(4, kMisplaced);
}

// --- A recorded flight ---------------------------------------------------------------------------------------

class RecordedFlightTest : public RewriteTest {
 protected:
  void SetUp() override {
    RewriteTest::SetUp();
    const std::optional<Bytes> recording = LoadRecording(METADATA_SHARED_DATA_DIR, "recorded_flight.klv");
    if (recording)
      m_messages = SplitMessages(*recording);
    else
      std::cout << "recorded_flight.klv is absent from " METADATA_SHARED_DATA_DIR ": nothing is tested with it\n";
  }
  std::vector<Bytes> m_messages;
};

TEST_F(RecordedFlightTest, EveryMessageIsReproducedIfNothingIsToChange) {
  if (m_messages.empty()) return;
  EXPECT_EQ(m_messages.size(), 407u);
  for (const Bytes& message : m_messages) {
    ASSERT_TRUE(Rewrite(message));
    ASSERT_EQ(Output(), message);
  }
  EXPECT_EQ(Stats().nRxUASMessages, m_messages.size());
}

TEST_F(RecordedFlightTest, KeepsFourTagsAndInsertsIdentifierAndSecuritySet) {
  KeepTags({2, 13, 14, 65});
  const Bytes mission = UseMissionID("FLIGHT-7");
  const Bytes set = UseSecuritySet();
  for (const Bytes& message : m_messages) {
    Bytes body;
    bool bMission = false;
    bool bSet = false;
    for (size_t nPos = static_cast<size_t>(HeaderSizeOf(message)); nPos < message.size();) {
      const Bytes item(message.begin() + static_cast<ptrdiff_t>(nPos),
                       message.begin() + static_cast<ptrdiff_t>(nPos + 2 + message[nPos + 1]));
      if (item[0] == 3) body = body + mission;
      if (item[0] == 48) body = body + set;
      if (item[0] == 2 || item[0] == 13 || item[0] == 14 || item[0] == 65) body = body + item;
      bMission = bMission || item[0] == 3;
      bSet = bSet || item[0] == 48;
      nPos += item.size();
    }
    if (!bMission) body = body + mission;
    if (!bSet) body = body + set;
    ASSERT_TRUE(Rewrite(message));
    ASSERT_EQ(Output(), Finished(body));
    ASSERT_TRUE(ValidateUASLocalDataSet(m_pBuffer->pcData, m_nNewSize, HeaderSizeOf(Output())));
  }
}

TEST_F(RecordedFlightTest, MessagesCutOrFlippedAtEveryByteStayInsideTheirBuffers) {
  if (m_messages.empty()) return;
  KeepTags({2, 3, 13, 14, 48, 65});
  KeepSecurityTags({1, 2, 3});
  UseMissionID("FLIGHT-7");
  const Bytes& message = m_messages.front();
  const int nHeaderSize = HeaderSizeOf(message);
  for (size_t nSize = static_cast<size_t>(nHeaderSize); nSize < message.size(); nSize++)
    (void)Rewrite(Bytes(message.begin(), message.begin() + static_cast<ptrdiff_t>(nSize)), nHeaderSize);
  for (size_t nPos = 0; nPos < message.size(); nPos++) {
    for (const BYTE flip : Hex("01 7F 80 FF")) {
      Bytes damaged = message;
      damaged[nPos] = static_cast<BYTE>(damaged[nPos] ^ flip);
      if (Rewrite(damaged, nHeaderSize) && m_pBuffer != nullptr) (void)Output();
    }
  }
  EXPECT_GT(Stats().nInvalidUASMessages, 0u);
  host().ClearLogs();
}

}  // namespace
