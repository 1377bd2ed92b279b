// SPDX-License-Identifier: Apache-2.0
// Tests of the KLV stream decoder: states, discards, time-outs and counters.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "decoder_fixture.h"

namespace {

using ::testing::ElementsAre;

const Bytes kSync = {0x06, 0x0E, 0x2B, 0x34, 0x02};

Bytes Part(const Bytes& of, size_t nBegin, size_t nEnd = SIZE_MAX) {
  return {of.begin() + static_cast<ptrdiff_t>(nBegin), of.begin() + static_cast<ptrdiff_t>(std::min(nEnd, of.size()))};
}

// Returns a good message that differs from the others.
Bytes Numbered(BYTE nNumber) {
  return UasMessage().Item(2, Bytes(8, nNumber)).Item(15, {0, nNumber}).Checksum().Build();
}

// Returns a good message of the given total size, with one item and a length field of two bytes. Its content has no
// sync pattern.
Bytes OfValueSize(size_t nValue) {
  return UasMessage().Item(3, Bytes(nValue, 'x')).Checksum().LengthForm(UasMessage::Length::Long2).Build();
}

std::vector<std::string> TextsOfLevel(int nLevel) {
  std::vector<std::string> texts;
  for (const LogLine& line : host().Logs())
    if (line.level == nLevel && line.file == "generic_klv_support") texts.push_back(line.text);
  return texts;
}

// --- Contexts --------------------------------------------------------------------------------------------

TEST_F(DecoderTest, NewContextWaitsForAHeaderWithAnEmptyBuffer) {
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
  EXPECT_EQ(Context().pfnRxHandler, &Collect);
  EXPECT_EQ(Context().pvUserParam1, this);
  EXPECT_EQ(Context().DecodeBuffer, Context().pDecodeBuffer->pcData);
  EXPECT_EQ(Context().pNextDecodeBuffer, nullptr);
  EXPECT_EQ(Stats().nTotalRxBytes + Stats().nRxOkMessages + Stats().nRxCorruptedMessages, 0u);
}

TEST_F(DecoderTest, NoContextIsCreatedIfOutOfMemory) {
  void* pvCtxt = this;
  host().FailNext("calloc");
  EXPECT_FALSE(AllocKlvDecodeContext(&pvCtxt, &Collect, this));
  EXPECT_EQ(pvCtxt, nullptr);
}

TEST_F(DecoderTest, ContextWithoutABufferDropsEverything) {
  void* pvCtxt = nullptr;
  host().FailNext("calloc", {.skip = 1});
  EXPECT_TRUE(AllocKlvDecodeContext(&pvCtxt, &Collect, this));
  ExpectAssertion("AllocBuffer(65536, &pCtxt->pDecodeBuffer)");
  const Bytes message = WellFormedMessage();
  EXPECT_EQ(GenericKLV_ProcessRxData(pvCtxt, message.data(), static_cast<int>(message.size())), 0);
  EXPECT_EQ(GenericKLV_GetStatsPtr(pvCtxt)->nTotalRxBytes, message.size());
  EXPECT_TRUE(m_messages.empty());
  EXPECT_TRUE(FreeKlvDecodeContext(&pvCtxt));
  EXPECT_EQ(pvCtxt, nullptr);
}

TEST_F(DecoderTest, FreeingANullContextAsserts) {
  EXPECT_FALSE(FreeKlvDecodeContext(nullptr));
  ExpectAssertion("ppvContext != NULL");
  void* pvNone = nullptr;
  EXPECT_FALSE(FreeKlvDecodeContext(&pvNone));
  ExpectAssertion("*ppvContext != NULL");
}

// --- Statistics ------------------------------------------------------------------------------------------

// An incomplete key is completed with the bytes that follow it in the buffer, so its position matters.
TEST_F(DecoderTest, IncompleteKeyAfterADiscardedOneMovesToTheStartOfTheBuffer) {
  Feed(kSync + Bytes{0xFF} + kSync + Bytes{0x0B, 1, 1, 0x0E, 1, 3, 1});
  ExpectLog(4, "Unrecognized registry designator (0xFF).\n");
  ExpectLog(4, "Invalid registry designator, discarding data.\n");
  ExpectState(KLV_STATE_ACQUIRING_UNIVERSAL_KEY, 12);
  EXPECT_EQ(Context().nStart, 0);
  EXPECT_EQ(Bytes(Context().DecodeBuffer, Context().DecodeBuffer + 5), kSync);
}

TEST_F(DecoderTest, StatisticsLeaveTheChannelCounterToTheCaller) {
  *GenericKLV_GetStatsPtr(m_pvCtxt) = {1, 2, 3, 4};
  KLV_STATS got = {70, 70, 70, 70};
  EXPECT_TRUE(GenericKLV_GetStats(m_pvCtxt, &got));
  EXPECT_EQ(got.nTotalRxBytes, 1u);
  EXPECT_EQ(got.nRxOkMessages, 2u);
  EXPECT_EQ(got.nRxChannel1Messages, 70u);
  EXPECT_EQ(got.nRxCorruptedMessages, 4u);
  GenericKLV_ResetStats(m_pvCtxt);
  EXPECT_EQ(Context().Stats.nTotalRxBytes + Context().Stats.nRxOkMessages + Context().Stats.nRxCorruptedMessages, 0u);
  EXPECT_EQ(Context().Stats.nRxChannel1Messages, 3u);
}

TEST_F(DecoderTest, StatisticsAreLoadedFromThoseOfTheSource) {
  MDATA_SRC_STATS source = {};
  source.nRxBytes = 100;
  source.prot.KLV.nRxUASMessages = 9;
  source.nRxOkMessages = 10;
  source.nRxCorruptMessages = 1;
  GenericKLV_SetStats(m_pvCtxt, &source);
  const KLV_STATS& now = *GenericKLV_GetStatsPtr(m_pvCtxt);
  EXPECT_EQ(now.nTotalRxBytes, 100u);
  EXPECT_EQ(now.nRxOkMessages, 10u);
  EXPECT_EQ(now.nRxChannel1Messages, 0u);
  EXPECT_EQ(now.nRxCorruptedMessages, 1u);
}

// --- Whole messages --------------------------------------------------------------------------------------

TEST_F(DecoderTest, MessageInOneChunkLogsEveryStep) {
  const Bytes message = UasMessage().Item(5, {1, 2}).Checksum().Build();
  Feed(message);
  EXPECT_THAT(m_messages, ElementsAre(message));
  EXPECT_THAT(
      TextsOfLevel(7),
      ElementsAre("Received data in SCANNING_FOR_HEADER state\n", "ScanForPattern returned 5\n",
                  "Got the start pattern\n", "Stored message start time 1704164645.0\n",
                  "LocalTAGFieldSize=-1 , LengthFieldSize=0 for registry designator 0x0B.\n",
                  "Header length field is 1 byte long\n", "Message size is 25.\n",
                  "Buffer Space for data is 65567 bytes.\n", "Got the full message\n",
                  "Called with nHeaderSize=17, nMsgSize=25\n",
                  "KLV at offset 17 has key=5 (1 bytes) len=2 (1 bytes) total=4.\n",
                  "KLV at offset 21 has key=1 (1 bytes) len=2 (1 bytes) total=4.\n", "Integrity item located.\n",
                  "Calculated checksum matches KLV value.\n", "Validator accepted message.\n", "Message is OK.\n"));
  ExpectDump(7, "Sync Pattern", kSync);
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
  ExpectCountersAddUp();
}

TEST_F(DecoderTest, MessageHasItsOwnBufferWithReservedBytes) {
  m_bKeep = true;
  const Bytes message = WellFormedMessage();
  Feed(message);
  ASSERT_EQ(m_messages.size(), 1u);
  EXPECT_EQ(m_pLast->nRefCount, 1);  // the reference that the handler kept
  EXPECT_EQ(m_pLast->pcData - static_cast<BYTE*>(m_pLast->pvAllocPtr),
            static_cast<ptrdiff_t>(sizeof(MDATA_BUFFER)) + 5);
  EXPECT_EQ(Bytes(m_pLast->pcData - 5, m_pLast->pcData), Bytes(5, 0));
  EXPECT_EQ(Context().pDecodeBuffer->nDataSize, static_cast<int>(message.size()));
  DoReleaseBuffer(&m_pLast);
}

TEST_F(DecoderTest, KeptMessageOutlivesTheNext) {
  m_bKeep = true;
  Feed(Numbered(1));
  MDATA_BUFFER* pKept = m_pLast;
  m_bKeep = false;
  Feed(Numbered(2));
  EXPECT_EQ(Bytes(pKept->pcData, pKept->pcData + pKept->nDataSize), Numbered(1));
  DoReleaseBuffer(&pKept);
}

TEST_F(DecoderTest, GarbageAfterAMessageIsScannedAndDropped) {
  const Bytes message = WellFormedMessage();
  Feed(message + Hex("AA BB CC"));
  EXPECT_THAT(m_messages, ElementsAre(message));
  ExpectLog(7, "RECEIVED 3 EXTRA BYTE\n");
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
}

TEST_F(DecoderTest, GarbageBeforeAMessageIsDropped) {
  Feed(Hex("06 0E 2B 06 AA") + Numbered(1));
  EXPECT_THAT(m_messages, ElementsAre(Numbered(1)));
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
}

TEST_F(DecoderTest, ChunkWithoutASyncPatternIsDropped) {
  Feed(Hex("01 02 03"));
  ExpectLog(7, "ScanForPattern returned 0\n");
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
  ExpectCountersAddUp();
}

TEST_F(DecoderTest, TwoMessagesInOneChunkAreDeliveredInOrder) {
  const Bytes second = Numbered(2);
  Feed(Numbered(1) + second);
  EXPECT_THAT(m_messages, ElementsAre(Numbered(1), second));
  ExpectLog(7, "RECEIVED " + std::to_string(second.size()) + " EXTRA BYTE\n");
  ExpectLog(7, "Stored amount = " + std::to_string(second.size()) + ", match offset=0\n");
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
  ExpectCountersAddUp();
}

TEST_F(DecoderTest, MessageWithoutItemsIsDelivered) {
  const Bytes empty = UasMessage().Build();
  Feed(empty);
  EXPECT_THAT(m_messages, ElementsAre(empty));
}

// --- Messages in pieces ----------------------------------------------------------------------------------

TEST_F(DecoderTest, SyncPatternCutOffAtTheEndOfAChunkIsCompleted) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 3));
  ExpectLog(7, "Switching to IN_PARTIAL_SYNC state\n");
  ExpectState(KLV_STATE_IN_PARTIAL_SYNC, 3);
  Feed(Part(message, 3));
  ExpectLog(7, "Received data in IN_PARTIAL_SYNC state\n");
  ExpectLog(7, "FULL SYNC achieved\n");
  EXPECT_THAT(m_messages, ElementsAre(message));
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
}

TEST_F(DecoderTest, SyncPatternMayArriveByteByByte) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 1));
  Feed(Part(message, 1, 2));
  ExpectLog(7, "Staying in IN_PARTIAL_SYNC state\n");
  Feed(Part(message, 2, 4));
  ExpectLog(7, "Staying in IN_PARTIAL_SYNC state\n");
  ExpectState(KLV_STATE_IN_PARTIAL_SYNC, 4);
  Feed(Part(message, 4));
  EXPECT_THAT(m_messages, ElementsAre(message));
}

TEST_F(DecoderTest, PartialSyncThatDoesNotContinueIsDroppedAndTheChunkScanned) {
  const Bytes message = WellFormedMessage();
  Feed(Part(kSync, 0, 3));
  Feed(Hex("34 AA") + message);
  ExpectLog(7, "No match comparing 2 bytes, stored amount=3 re-scanning\n");
  EXPECT_THAT(m_messages, ElementsAre(message));
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
  Feed(Part(kSync, 0, 4));
  Feed(Hex("AA"));
  ExpectLog(7, "No match comparing 1 bytes, stored amount=4 re-scanning\n");
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
}

TEST_F(DecoderTest, KeyCutOffAtTheEndOfAChunkIsCompleted) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 15));
  ExpectLog(7, "Got the start pattern\n");
  ExpectLog(7, "Switching to ACQUIRING_UNIVERSAL_KEY state\n");
  ExpectState(KLV_STATE_ACQUIRING_UNIVERSAL_KEY, 15);
  host().ClearLogs();
  Feed(Part(message, 15));
  ExpectLog(7, "Received data in ACQUIRING_LENGTH state\n");  // the text of the next state
  EXPECT_THAT(m_messages, ElementsAre(message));
}

TEST_F(DecoderTest, KeyWithoutItsLengthWaitsForIt) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 16));
  ExpectLog(7, "Switching to ACQUIRING_DATA_LENGTH state\n");
  ExpectState(KLV_STATE_ACQUIRING_DATA_LENGTH, 16);
  host().Advance(250);
  Feed(Part(message, 16));
  ExpectLog(7, "Current  1704164645.250\n");
  ExpectLog(7, "Interval 0.250\n");
  ExpectLog(7, "Received data in ACQUIRING_LENGTH state\n");
  EXPECT_THAT(m_messages, ElementsAre(message));
}

TEST_F(DecoderTest, KeyCompletedByItsLastByteWaitsForTheLength) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 15));
  Feed(Part(message, 15, 16));
  ExpectState(KLV_STATE_ACQUIRING_DATA_LENGTH, 16);
  Feed(Part(message, 16));
  EXPECT_THAT(m_messages, ElementsAre(message));
}

TEST_F(DecoderTest, LongFormCutInsideItsBytesWaitsForThem) {
  const Bytes message = OfValueSize(300);
  Feed(Part(message, 0, 18));
  ExpectLog(7, "Header length field is 2 bytes long\n");
  ExpectLog(7, "Stored amount 18 is less than header size of 19, switching to ACQUIRING_DATA_LENGTH\n");
  ExpectState(KLV_STATE_ACQUIRING_DATA_LENGTH, 18);
  Feed(Part(message, 18));
  ExpectLog(7, "Data length for 2 bytes BER long form is 308\n");
  EXPECT_THAT(m_messages, ElementsAre(message));
}

TEST_F(DecoderTest, BodyInPiecesIsCollected) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 20));
  ExpectLog(7, "Stored amount 20 is less than message size of " + std::to_string(message.size()) +
                   ", switching to ACQUIRING_DATA\n");
  ExpectState(KLV_STATE_ACQUIRING_DATA, 20);
  Feed(Part(message, 20, 21));
  ExpectLog(7, "Received data in GATHERING_DATA state\n");
  Feed(Part(message, 21) + Numbered(2));
  EXPECT_THAT(m_messages, ElementsAre(message, Numbered(2)));
  ExpectCountersAddUp();
}

TEST_F(DecoderTest, EmptyChunkIsOnlyNoticedWhileAMessageIsTimed) {
  const Bytes message = WellFormedMessage();
  Feed({});
  Feed(Part(message, 0, 2));
  host().ClearLogs();
  Feed({});
  Feed(Part(message, 2, 10));
  StartOver();
  Feed(Part(message, 0, 10));
  host().ClearLogs();
  Feed({});
  EXPECT_TRUE(host().Logs().empty());
  ExpectState(KLV_STATE_ACQUIRING_UNIVERSAL_KEY, 10);
  Feed(Part(message, 10, 40));
  ExpectState(KLV_STATE_ACQUIRING_DATA, 40);
  host().ClearLogs();
  Feed({});
  ExpectLog(7, "Interval 0.000\n");
  host().Advance(501);
  Feed({});
  ExpectLog(4, "TIMEOUT waiting for message data\n");
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
}

// --- Short keys ------------------------------------------------------------------------------------------

TEST_F(DecoderTest, ShortKeyInANewBufferHasAnUnknownDesignator) {
  Feed(Part(kSync, 0, 3));
  Feed(Part(kSync, 3));
  ExpectLog(7, "FULL SYNC achieved\n");
  ExpectLog(4, "Unrecognized registry designator (0x00).\n");
  ExpectLog(4, "Invalid registry designator, discarding data.\n");
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
}

TEST_F(DecoderTest, ShortKeyIsCompletedFromTheRemainsOfTheLastMessage) {
  const Bytes first = UasMessage().Item(3, Bytes(120, 'x')).Checksum().Build();
  ASSERT_EQ(first[16], 0x7E);
  const Bytes second = Numbered(2);
  Feed(first);
  host().ClearLogs();
  Feed(Part(second, 0, 4));
  Feed(Part(second, 4, 5));
  ExpectLog(7, "LocalTAGFieldSize=-1 , LengthFieldSize=0 for registry designator 0x0B.\n");
  ExpectLog(7, "Message size is 143.\n");
  ExpectLog(7, "Stored amount 5 is less than message size of 143, switching to ACQUIRING_DATA\n");
  ExpectState(KLV_STATE_ACQUIRING_DATA, 5);
}

TEST_F(DecoderTest, GuessedLengthIsReadAgainOnceItArrives) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 7));
  Feed(Part(message, 7, 14));
  ExpectLog(7, "Message size is 17.\n");  // a new buffer holds zeros
  ExpectState(KLV_STATE_ACQUIRING_DATA, 14);
  Feed(Part(message, 14, 16));
  ExpectState(KLV_STATE_ACQUIRING_DATA, 16);
  Feed(Part(message, 16) + Numbered(2));
  EXPECT_THAT(m_messages, ElementsAre(message, Numbered(2)));
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
  ExpectCountersAddUp();
}

TEST_F(DecoderTest, GuessedDesignatorIsReadAgainOnceItArrives) {
  const Bytes fixed = UasMessage().Key(Hex("060E2B34024301010E01030101000000")).Raw(Hex("07 00 01 AA")).Build();
  Feed(Numbered(1));
  Feed(Part(fixed, 0, 2));
  Feed(Part(fixed, 2, 5));
  ExpectLog(7, "LocalTAGFieldSize=-1 , LengthFieldSize=0 for registry designator 0x0B.\n");
  Feed(Part(fixed, 5));
  ExpectLog(7, "LocalTAGFieldSize=1 , LengthFieldSize=2 for registry designator 0x43.\n");
  EXPECT_THAT(m_messages, ElementsAre(Numbered(1), fixed));
}

TEST_F(DecoderTest, LengthReadAtAnEmptyChunkIsReadAgain) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 16));
  Feed({});
  ExpectState(KLV_STATE_ACQUIRING_DATA, 16);
  Feed(Part(message, 16));
  EXPECT_THAT(m_messages, ElementsAre(message));
}

TEST_F(DecoderTest, ShortKeyKeepsItsStartTime) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 7));
  Feed(Part(message, 7, 14));
  host().Advance(400);
  Feed(Part(message, 14, 18));
  host().Advance(200);
  Feed(Part(message, 18));
  ExpectLog(4, "TIMEOUT waiting for message data\n");
  EXPECT_TRUE(m_messages.empty());
}

// --- Lengths ---------------------------------------------------------------------------------------------

TEST_F(DecoderTest, LongFormOfOneByteIsRead) {
  Feed(UasKey() + Hex("81 C8 02"));
  EXPECT_EQ(Context().nHeaderSize, 18);
  EXPECT_EQ(Context().nMsgSize, 218);
  EXPECT_EQ(Context().nHeaderLengthBytes, 1);
  ExpectLog(7, "Header length field is 1 bytes long\n");
  ExpectLog(7, "Data length for 1 byte BER long form is 200\n");
  ExpectLog(7, "Buffer Space for data is 65566 bytes.\n");
}

TEST_F(DecoderTest, LongFormOfTwoBytesIsRead) {
  Feed(UasKey() + Hex("82 01 02 02"));
  EXPECT_EQ(Context().nHeaderSize, 19);
  EXPECT_EQ(Context().nMsgSize, 19 + 0x102);
  EXPECT_EQ(Context().nHeaderLengthBytes, 2);
  ExpectLog(7, "Header length field is 2 bytes long\n");
  ExpectLog(7, "Data length for 2 bytes BER long form is 258\n");
  ExpectLog(7, "Buffer Space for data is 65565 bytes.\n");
}

TEST_F(DecoderTest, EveryOtherLongFormIsDiscarded) {
  for (int nForm = 0x80; nForm <= 0xFF; nForm++) {
    if (nForm == 0x81 || nForm == 0x82) continue;
    StartOver();
    Feed(UasKey() + Bytes{static_cast<BYTE>(nForm)} + Bytes(130, 0));
    ExpectLog(4, "Invalid long form length of " + std::to_string(nForm & 0x7F) + " bytes.\n");
    EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
    ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
  }
}

TEST_F(DecoderTest, EveryLengthInEveryFormIsOneMessage) {
  host().SetLevel("METADATALIB", 0);
  for (const auto form : {UasMessage::Length::Shortest, UasMessage::Length::Long1, UasMessage::Length::Long2}) {
    for (size_t nValue = 0; nValue <= 240; nValue++) {
      const Bytes message = UasMessage().Item(3, Bytes(nValue, 'x')).Checksum().LengthForm(form).Build();
      StartOver();
      Feed(message);
      ASSERT_THAT(m_messages, ElementsAre(message)) << nValue;
    }
  }
}

TEST_F(DecoderTest, LargestMessagePassesTheSpaceTestAndIsDelivered) {
  const Bytes message = OfValueSize(65535 - 4 - 4);
  ASSERT_EQ(message.size(), 19u + 65535u);
  Feed(Part(message, 0, 1000));
  ExpectLog(7, "Buffer Space for data is 65565 bytes.\n");
  ExpectState(KLV_STATE_ACQUIRING_DATA, 1000);
  EXPECT_EQ(Context().nMsgSize, 65554);
  Feed(Part(message, 1000));
  EXPECT_THAT(m_messages, ElementsAre(message));
}

TEST_F(DecoderTest, LargestMessageFollowedByMoreInOneChunkIsDelivered) {
  const Bytes message = OfValueSize(65535 - 4 - 4);
  Bytes stream = Part(message, 0, 65553);
  Feed(stream);
  ExpectState(KLV_STATE_ACQUIRING_DATA, 65553);
  Feed(Part(message, 65553) + message + Numbered(1) + message + Part(message, 0, 65000));
  EXPECT_THAT(m_messages, ElementsAre(message, message, Numbered(1), message));
  ExpectState(KLV_STATE_ACQUIRING_DATA, 65000);
  ExpectCountersAddUp();
}

TEST_F(DecoderTest, KeySplitByTheSlicesOfALongChunkIsReadWhole) {
  host().SetLevel("METADATALIB", 0);
  const Bytes message = Numbered(1);
  for (size_t nBeforeTheCut = 1; nBeforeTheCut < 16; nBeforeTheCut++) {
    const Bytes noise(65536 - nBeforeTheCut, 0xAA);
    for (size_t nInChunk = nBeforeTheCut + 1; nInChunk <= message.size(); nInChunk++) {
      StartOver();
      Feed(noise + Part(message, 0, nInChunk));
      Feed(Part(message, nInChunk) + Bytes(16, 0xAA));
      ASSERT_THAT(m_messages, ElementsAre(message)) << nBeforeTheCut << " " << nInChunk;
      ASSERT_EQ(Stats().nRxCorruptedMessages, 0u);
    }
  }
}

TEST_F(DecoderTest, LargestMessageInsideARejectedOneFits) {
  const Bytes inner = OfValueSize(65535 - 4 - 4);
  const Bytes outer = UasKey() + Hex("82 FF FF") + Bytes(32000, 'x') + inner;
  Feed(Part(outer, 0, 65553));
  ExpectState(KLV_STATE_ACQUIRING_DATA, 65553);
  Feed(Part(outer, 65553, 75553));
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
  ExpectState(KLV_STATE_ACQUIRING_DATA, 75553 - 32019);
  AllowLogs(4, "");
  Feed(Part(outer, 75553) + Bytes(43000, 'y') + Numbered(1));
  EXPECT_THAT(m_messages, ElementsAre(inner, Numbered(1)));
  ExpectCountersAddUp();
}

// --- Designators -----------------------------------------------------------------------------------------

TEST_F(DecoderTest, UnknownDesignatorIsDiscarded) {
  Bytes message = WellFormedMessage();
  message[5] = 0x06;
  Feed(message);
  ExpectLog(4, "Unrecognized registry designator (0x06).\n");
  ExpectLog(4, "Invalid registry designator, discarding data.\n");
  EXPECT_TRUE(m_messages.empty());
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
}

TEST_F(DecoderTest, EveryDesignatorIsAcceptedByItsCodingOrDiscarded) {
  host().SetLevel("METADATALIB", 0);
  int nAccepted = 0;
  for (int nDesignator = 0; nDesignator < 256; nDesignator++) {
    int nTag = 0;
    int nLength = 0;
    Bytes item;
    const bool bKnown = KLV_GetFieldInfoFromRegistryDesignator(static_cast<BYTE>(nDesignator), &nTag, &nLength);
    if (nTag == -1) nTag = 1;
    item = nTag == 12 ? Bytes{9, 9, 0} : Bytes(static_cast<size_t>(nTag), 9);
    item = item + Bytes(static_cast<size_t>(nLength == 0 ? 0 : nLength - 1), 0) + Bytes{2, 0xAA, 0xBB};
    Bytes key = UasKey();
    key[5] = static_cast<BYTE>(nDesignator);
    const Bytes message = UasMessage().Key(key).Raw(item + item).Build();
    StartOver();
    Feed(message);
    EXPECT_EQ(m_messages.size(), bKnown ? 1u : 0u) << nDesignator;
    EXPECT_EQ(Stats().nRxCorruptedMessages, bKnown ? 0u : 1u) << nDesignator;
    nAccepted += bKnown ? 1 : 0;
  }
  EXPECT_EQ(nAccepted, 26);
}

// --- Discards --------------------------------------------------------------------------------------------

TEST_F(DecoderTest, RejectedMessageIsScannedForTheNextOne) {
  const Bytes inner = Numbered(1);
  Bytes outer = UasMessage().Item(3, inner).Checksum().Build();
  outer.back() = static_cast<BYTE>(outer.back() ^ 1);
  Feed(outer);
  ExpectLogContaining(4, "Calculated checksum (0x");
  ExpectLog(4, "Validator rejected message.\n");
  EXPECT_THAT(m_messages, ElementsAre(inner));
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
  EXPECT_EQ(Stats().nRxOkMessages, 1u);
}

TEST_F(DecoderTest, LateDataDiscardsFiveBytesAndScansTheHeldBytes) {
  const Bytes inner = Numbered(1);
  const Bytes outer = UasMessage().Item(3, inner).Item(4, Bytes(60, 'x')).Checksum().Build();
  Feed(Part(outer, 0, outer.size() - 10));
  ExpectState(KLV_STATE_ACQUIRING_DATA, static_cast<int>(outer.size()) - 10);
  EXPECT_TRUE(m_messages.empty());
  host().Advance(600);
  Feed(Part(outer, outer.size() - 10) + Numbered(2));
  ExpectLog(7, "Interval 0.600\n");
  ExpectLog(4, "TIMEOUT waiting for message data\n");
  EXPECT_THAT(m_messages, ElementsAre(inner));  // the late chunk, which contains a message, is lost
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
  ExpectCountersAddUp();
}

TEST_F(DecoderTest, LateDataInPlaceOfTheLengthIsLostToo) {
  const Bytes message = WellFormedMessage();
  Feed(Part(message, 0, 16));
  host().Advance(600);
  Feed(Part(message, 16));
  ExpectLog(4, "TIMEOUT waiting for message length\n");
  EXPECT_TRUE(m_messages.empty());
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
}

TEST_F(DecoderTest, LateChunkIsLostWithAllItsSlices) {
  Feed(Part(WellFormedMessage(), 0, 30));
  host().Advance(600);
  Feed(Bytes(70000, 0) + Numbered(1));
  ExpectLog(4, "TIMEOUT waiting for message data\n");
  EXPECT_TRUE(m_messages.empty());
  ExpectCountersAddUp();
}

// The clock is read once for the keys of a chunk, and again for the message that is left waiting; a log of level 7 shows
// the time of each.
TEST_F(DecoderTest, HandlerThatTakesLongDoesNotMakeTheNextMessageLate) {
  host().SetLevel("METADATALIB", 6);
  Context().pfnRxHandler = [](MDATA_BUFFER*, void*) { host().Advance(400); };
  Feed(Numbered(1) + Numbered(2) + Part(Numbered(3), 0, 30));
  host().Advance(400);
  Feed(Part(Numbered(3), 30));
  EXPECT_EQ(Stats().nRxOkMessages, 3u);
}

TEST_F(DecoderTest, WaitingMessageAssertsIfTheClockFailsOnlyForIt) {
  host().SetLevel("METADATALIB", 6);
  host().FailNext("gettimeofday", {.skip = 1});
  Feed(Numbered(1) + Part(Numbered(2), 0, 30));
  ExpectAssertion("gettimeofday(&pCtxt->MsgStartTime, NULL) == 0");
  Feed(Part(Numbered(2), 30));
  EXPECT_THAT(m_messages, ElementsAre(Numbered(1), Numbered(2)));
}

TEST_F(DecoderTest, HalfASecondIsStillInTime) {
  const Bytes message = WellFormedMessage();
  host().SetWallClock(5000, 100000);
  Feed(Part(message, 0, 30));
  host().SetWallClock(5000, 600000);
  Feed(Part(message, 30, 35));
  ExpectState(KLV_STATE_ACQUIRING_DATA, 35);
  host().SetWallClock(5000, 600001);
  Feed(Part(message, 35));
  ExpectLog(4, "TIMEOUT waiting for message data\n");
  EXPECT_TRUE(m_messages.empty());
}

// Without a log the coarse clock is asked first, which stands up to a tick behind.
TEST_F(DecoderTest, HalfASecondIsTheSameInEitherDirectionWithoutALog) {
  host().SetLevel("METADATALIB", 6);
  const Bytes message = WellFormedMessage();
  for (const bool forward : {true, false}) {
    for (const int lag : {0, 4000, 10000}) {
      host().SetCoarseClockLag(lag);
      const int start = forward ? 100000 : 900000;
      const int last = forward ? 600000 : 400000;
      host().SetWallClock(5000, start);
      Feed(Part(message, 0, 30));
      host().SetWallClock(5000, last);
      Feed(Part(message, 30, 35));
      ExpectState(KLV_STATE_ACQUIRING_DATA, 35);
      host().SetWallClock(5000, forward ? last + 1 : last - 1);
      Feed(Part(message, 35));
      ExpectLog(4, "TIMEOUT waiting for message data\n");
      EXPECT_TRUE(m_messages.empty());
    }
  }
}

TEST_F(DecoderTest, ExactClockIsReadWhereTheCoarseOneDoesNotDecide) {
  host().SetLevel("METADATALIB", 6);
  host().SetWallClock(5000, 995000);
  host().SetCoarseClockLag(10000);
  const Bytes message = WellFormedMessage();
  size_t at = 30;
  const auto readings = [&](long microseconds) {
    const int before = host().Calls("gettimeofday");
    host().SetWallClock(5000 + (995000 + microseconds) / 1000000, (995000 + microseconds) % 1000000);
    Feed(Part(message, at, at + 1));
    ++at;
    return host().Calls("gettimeofday") - before;
  };
  Feed(Part(message, 0, at));
  EXPECT_EQ(readings(0), 0) << "the coarse clock still shows a time before the start";
  EXPECT_EQ(readings(200000), 0);
  EXPECT_EQ(readings(250000), 0);
  EXPECT_EQ(readings(260000), 1);
  EXPECT_EQ(readings(500000), 1);
  EXPECT_EQ(readings(-240000), 1);
  host().FailNext("clock_gettime");
  EXPECT_EQ(readings(0), 1);
  ExpectState(KLV_STATE_ACQUIRING_DATA, static_cast<int>(at));
}

TEST_F(DecoderTest, ClockSetBackCountsAsLate) {
  const Bytes message = WellFormedMessage();
  host().SetWallClock(5000);
  Feed(Part(message, 0, 30));
  host().SetWallClock(4999);
  Feed(Part(message, 30));
  ExpectLog(4, "TIMEOUT waiting for message data\n");
}

TEST_F(DecoderTest, NoTimerDiscardsAStalledMessage) {
  Feed(Part(WellFormedMessage(), 0, 30));
  host().Advance(3600 * 1000);
  ExpectState(KLV_STATE_ACQUIRING_DATA, 30);
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
}

// --- Failures --------------------------------------------------------------------------------------------

TEST_F(DecoderTest, FailedClockAssertsAndDecodingContinues) {
  host().FailNext("gettimeofday");
  Feed(WellFormedMessage());
  ExpectAssertion("gettimeofday(&pCtxt->MsgStartTime, NULL) == 0");
  EXPECT_EQ(m_messages.size(), 1u);
}

TEST_F(DecoderTest, MissingHandlerAssertsAndDecodingContinues) {
  Context().pfnRxHandler = nullptr;
  Feed(WellFormedMessage());
  ExpectAssertion("pCtxt->pfnRxHandler != NULL");
  EXPECT_EQ(Stats().nRxOkMessages, 1u);
  ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
}

TEST_F(DecoderTest, MessageIsLostIfOutOfMemoryAndTheNextIsDelivered) {
  host().FailNext("malloc");
  const Bytes first = Numbered(1);
  Feed(first + Numbered(2));
  ExpectLog(4, "No memory for KLV message of " + std::to_string(first.size()) + " bytes.\n");
  EXPECT_THAT(m_messages, ElementsAre(Numbered(2)));
  EXPECT_EQ(Stats().nRxOkMessages, 2u);
}

TEST_F(DecoderTest, DiscardIsNotLoggedBelowLevelFour) {
  host().SetLevel("METADATALIB", 3);
  Feed(UasKey() + Hex("83 00 00 00"));
  EXPECT_TRUE(host().Logs().empty());
  EXPECT_TRUE(host().Dumps().empty());
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
}

}  // namespace
