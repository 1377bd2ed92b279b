// SPDX-License-Identifier: Apache-2.0
// Tests of the serial Cursor-on-Target link: frames, length selection, codewords, ARQ header, XML log.
#include "cot_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "../../../tools/mdfeed/cot_frame.h"
#include "fake_host.h"
#include "md_log.h"
#include "md_xml_log.h"

namespace {

using mdfeed::BuildBlock;
using mdfeed::BuildCotFrame;
using mdfeed::BuildFrame;
using mdfeed::FrameField;
using mdfeed::PackCodewords;

struct Delivery {
  std::string text;
  int size;
  void* user;
};

std::vector<Delivery> g_deliveries;
MDATA_BUFFER* g_pKept = nullptr;
bool g_bKeep = false;

void OnMessage(MDATA_BUFFER* pBuff, void* pvUser) {
  g_deliveries.push_back(
      {std::string(reinterpret_cast<const char*>(pBuff->pcData), static_cast<size_t>(pBuff->nDataSize)),
       pBuff->nDataSize, pvUser});
  if (g_bKeep) {
    __atomic_add_fetch(&pBuff->nRefCount, 1, __ATOMIC_RELAXED);
    g_pKept = pBuff;
  }
}

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes Text(const std::string& text) {
  return {text.begin(), text.end()};
}

// Returns a header of three (length, check word) pairs.
Bytes Header(std::initializer_list<std::pair<unsigned, unsigned>> copies) {
  Bytes header = Text("oHeY!");
  for (const auto& [length, check] : copies) {
    for (const unsigned word : {length, check}) {
      header.push_back(static_cast<BYTE>(word));
      header.push_back(static_cast<BYTE>(word >> 8));
    }
  }
  return header;
}

Bytes GoodHeader(unsigned length) {
  const unsigned check = (0x10000 - length) * 2 & 0xFFFF;
  return Header({{length, check}, {length, check}, {length, check}});
}

// Returns a frame that contains the ARQ message unchanged.
Bytes ArqFrame(const std::string& message) {
  return BuildFrame(PackCodewords(BuildBlock(Text(message))));
}

// Returns a frame with the length word 'length'.
Bytes FrameWithBlockLength(unsigned length, std::size_t blockSize) {
  Bytes block(blockSize);
  block[0] = static_cast<BYTE>(length);
  block[1] = static_cast<BYTE>(length >> 8);
  return BuildFrame(PackCodewords(block));
}

class CotLink : public HostTest {
 protected:
  void SetUp() override {
    host().SetLevel("METADATALIB", 7);
    g_deliveries.clear();
    g_bKeep = false;
    g_pKept = nullptr;
    ASSERT_TRUE(AllocCotDecodeContext(&m_pvCtxt, OnMessage, &m_nUser));
  }
  void TearDown() override {
    CloseXMLLog();
    if (m_pvCtxt != nullptr) FreeCotDecodeContext(&m_pvCtxt);
  }

  void Feed(const Bytes& bytes) {
    EXPECT_EQ(COT_ProcessRxData(m_pvCtxt, bytes.data(), static_cast<int>(bytes.size())), 0);
  }
  void FeedInPieces(const Bytes& bytes, std::size_t piece) {
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      const std::size_t end = std::min(at + piece, bytes.size());
      Feed(Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin() + static_cast<std::ptrdiff_t>(end)));
    }
  }
  COT_DECODE_CONTEXT& Ctxt() { return *static_cast<COT_DECODE_CONTEXT*>(m_pvCtxt); }
  COT_STATS& Stats() { return *COT_GetStatsPtr(m_pvCtxt); }
  static std::vector<std::string> Delivered() {
    std::vector<std::string> texts;
    for (const Delivery& delivery : g_deliveries) texts.push_back(delivery.text);
    return texts;
  }

  void OpenXMLLog() { g_XMLOutFP = open_memstream(&m_szLog, &m_nLogSize); }
  std::string CloseXMLLog() {
    if (g_XMLOutFP == nullptr) return {};
    fclose(g_XMLOutFP);
    g_XMLOutFP = nullptr;
    std::string text = m_szLog != nullptr ? std::string(m_szLog, m_nLogSize) : std::string();
    free(m_szLog);
    m_szLog = nullptr;
    return text;
  }
  static std::string TimeText() {
    char szTime[40];
    return GenTimeStamp(host().NowSeconds(), szTime, sizeof(szTime));
  }

  void* m_pvCtxt = nullptr;
  int m_nUser = 0;
  char* m_szLog = nullptr;
  size_t m_nLogSize = 0;
};

constexpr char kEvent[] = "<event version=\"2.0\"></event>";

// --- Context and statistics ----------------------------------------------------------------------------

TEST_F(CotLink, NewContextWaitsForAHeader) {
  EXPECT_EQ(Ctxt().enState, COT_SCANNING_FOR_HEADER);
  EXPECT_EQ(Ctxt().nStoredAmount, 0);
  EXPECT_EQ(Ctxt().pvUserParam1, &m_nUser);
}

TEST_F(CotLink, FreeingANullContextAsserts) {
  EXPECT_FALSE(FreeCotDecodeContext(nullptr));
  ExpectAssertion("ppvContext != NULL");
  void* pvNone = nullptr;
  EXPECT_FALSE(FreeCotDecodeContext(&pvNone));
  ExpectAssertion("*ppvContext != NULL");
  EXPECT_TRUE(FreeCotDecodeContext(&m_pvCtxt));
  EXPECT_EQ(m_pvCtxt, nullptr);
}

TEST_F(CotLink, StatisticsLeaveTheChannelCounterAlone) {
  Feed(BuildCotFrame(kEvent));
  const UINT64 nBytes = BuildCotFrame(kEvent).size();
  COT_STATS read = {9, 9, 9, 77};
  EXPECT_TRUE(COT_GetStats(m_pvCtxt, &read));
  EXPECT_EQ(read.nTotalRxBytes, nBytes);
  EXPECT_EQ(read.nRxOkMessages, 1u);
  EXPECT_EQ(read.nRxCorruptedMessages, 0u);
  EXPECT_EQ(read.nRxChannel1Messages, 77u);
  EXPECT_EQ(Stats().nRxChannel1Messages, 1u);
}

TEST_F(CotLink, ResetKeepsTheChannelCounter) {
  Stats() = {1, 2, 3, 4};
  COT_ResetStats(m_pvCtxt);
  EXPECT_EQ(Stats().nTotalRxBytes, 0u);
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
  EXPECT_EQ(Stats().nRxChannel1Messages, 4u);
}

TEST_F(CotLink, SetLoadsTheThreeCountersFromTheSource) {
  MDATA_SRC_STATS saved = {};
  saved.nRxBytes = 10;
  saved.nRxOkMessages = 20;
  saved.nRxCorruptMessages = 30;
  Stats().nRxChannel1Messages = 4;
  COT_SetStats(m_pvCtxt, &saved);
  EXPECT_EQ(Stats().nTotalRxBytes, 10u);
  EXPECT_EQ(Stats().nRxOkMessages, 20u);
  EXPECT_EQ(Stats().nRxCorruptedMessages, 30u);
  EXPECT_EQ(Stats().nRxChannel1Messages, 4u);
}

// --- Length selection ----------------------------------------------------------------------------------

TEST_F(CotLink, ThreeGoodCopiesOfLength100GiveAFrameOf117Bytes) {
  Feed(Header({{100, 0xFF38}, {100, 0xFF38}, {100, 0xFF38}}));
  EXPECT_EQ(Ctxt().nMsgSize, 117);
  EXPECT_EQ(Ctxt().enState, COT_GATHERING_DATA);
  ExpectLog(7, "Received data in SCANNING_FOR_HEADER state\n");
  ExpectLog(7, "ScanForPattern returned 5\n");
  ExpectLog(7, "Got the start pattern\n");
  ExpectLog(7, "Also got the 3 lengths and CRCs\n");
  ExpectLog(7, "All lengths and CRCs are identical\n");
  ExpectLog(7, "Checksum for 100 is 0xFF38\n");
  ExpectLog(7, "length of data is 100 bytes\n");
  ExpectLog(7, "Missing 100 bytes of data\n");
}

// The lines show check words as LV and lengths as CRC.
TEST_F(CotLink, DamagedFirstCopyFallsBackToTheSecondAndLogsValuesSwapped) {
  Feed(Header({{101, 0xFF38}, {100, 0xFF38}, {102, 0xFF39}}));
  EXPECT_EQ(Ctxt().nMsgSize, 117);
  ExpectLog(4, "MISMATCH in LENGTHs OR CRCs LV1=0xff38, CRC1=0x0065\n");
  ExpectLog(4, "LV2=0xff38, CRC2=0x0064, LV3=0xff39, CRC3=0x0066\n");
  ExpectLog(4, "Second length 100 and checksum are OK\n");
}

TEST_F(CotLink, ThirdCopyIsUsedLast) {
  Feed(Header({{101, 0xFF38}, {101, 0xFF38}, {100, 0xFF38}}));
  EXPECT_EQ(Ctxt().nMsgSize, 117);
  ExpectLogContaining(4, "MISMATCH in LENGTHs OR CRCs");
  ExpectLogContaining(4, "LV2=");
  ExpectLog(4, "Third length 100 and checksum are OK\n");
}

TEST_F(CotLink, FirstConsistentCopyWinsOverTwoThatAgree) {
  Feed(Header({{50, 0xFF9C}, {100, 0xFF38}, {100, 0xFF38}}));
  EXPECT_EQ(Ctxt().nMsgSize, 67);
  ExpectLogContaining(4, "MISMATCH in LENGTHs OR CRCs");
  ExpectLogContaining(4, "LV2=");
  ExpectLog(4, "First length 50 and checksum is OK\n");
}

TEST_F(CotLink, HeaderWithoutAConsistentCopyDiscardsOnlyTheSyncPattern) {
  Feed(Header({{1, 1}, {2, 2}, {3, 3}}) + BuildCotFrame(kEvent));
  ExpectLogContaining(4, "MISMATCH in LENGTHs OR CRCs");
  ExpectLogContaining(4, "LV2=");
  ExpectLog(4, "None of the length-checksums match!!!\n");
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent));
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
}

TEST_F(CotLink, IdenticalCopiesWithAWrongCheckWordFailAndDecodingResumesFiveBytesLater) {
  // The next frame begins right after the sync pattern.
  const Bytes frame = BuildCotFrame(kEvent);
  const Bytes header = Header({{100, 0xFF39}, {100, 0xFF39}, {100, 0xFF39}});
  Feed(header + frame);
  ExpectLog(4, "Calculated checksum on length of 100, 0xFF38 doesn't match header's 0xFF39\n");
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent));

  g_deliveries.clear();
  Feed(Text("oHeY!") + frame);
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent));
  host().ClearLogs();
}

TEST_F(CotLink, FrameLargerThanTheBufferIsTreatedAsAHeaderWithoutLength) {
  for (const unsigned length : {65520u, 65535u}) {
    Feed(GoodHeader(length) + BuildCotFrame(kEvent));
    ExpectLog(4, "Frame with " + std::to_string(length) + " bytes of data is larger than the decode buffer\n");
    EXPECT_EQ(Ctxt().enState, COT_SCANNING_FOR_HEADER);
  }
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent, kEvent));
}

TEST_F(CotLink, FrameThatFillsTheBufferIsDecoded) {
  // 65519 bytes of payload hold 3381 codewords.
  const std::string xml(44'371 - 3, 'x');
  Bytes payload = PackCodewords(BuildBlock(Text("U#1" + xml)));
  payload.resize(65'519);
  const Bytes frame = BuildFrame(payload);
  ASSERT_EQ(frame.size(), 65'536u);
  FeedInPieces(frame + BuildCotFrame(kEvent), 1000);
  EXPECT_THAT(Delivered(), testing::ElementsAre(xml, kEvent));
}

// --- Frame decoder ---------------------------------------------------------------------------------------

TEST_F(CotLink, WholeFrameInOneChunkReturnsToTheFirstState) {
  const Bytes frame = BuildCotFrame(kEvent);
  Feed(frame);
  ExpectLog(7, "Got the full message\n");
  ExpectLog(7, "Resetting INPUT BUFFER\n");
  ASSERT_EQ(g_deliveries.size(), 1u);
  EXPECT_EQ(g_deliveries[0].text, kEvent);
  EXPECT_EQ(g_deliveries[0].user, &m_nUser);
  EXPECT_EQ(Ctxt().enState, COT_SCANNING_FOR_HEADER);
  EXPECT_EQ(Ctxt().nStoredAmount, 0);
  EXPECT_EQ(Stats().nTotalRxBytes, frame.size());
}

TEST_F(CotLink, FrameAndDecodedBlockAreDumpedAtLevel8) {
  host().SetLevel("METADATALIB", 8);
  const Bytes frame = BuildCotFrame(kEvent);
  Feed(frame);
  ExpectDump(8, "Encoded Input Data", frame);
  const auto dumps = host().Dumps();
  const auto decoded =
      std::find_if(dumps.begin(), dumps.end(), [](auto& dump) { return dump.title == "Decoded Data"; });
  ASSERT_NE(decoded, dumps.end());
  EXPECT_EQ(decoded->level, 8);
  EXPECT_EQ(decoded->bytes.size(), (frame.size() - 17) * 8 / 155 * 105 / 8);
}

TEST_F(CotLink, NoiseIsDropped) {
  Feed(Text("noise without the pattern"));
  ExpectLog(7, "ScanForPattern returned 0\n");
  ExpectLog(7, "Resetting INPUT BUFFER\n");
  EXPECT_EQ(Ctxt().enState, COT_SCANNING_FOR_HEADER);
  EXPECT_EQ(Ctxt().nStoredAmount, 0);
}

TEST_F(CotLink, EmptyChunkReturnsAtOnceInEveryState) {
  for (const int32_t state : {0, 1, 2, 3}) {
    Ctxt().enState = state;
    EXPECT_EQ(COT_ProcessRxData(m_pvCtxt, nullptr, 0), 0);
    EXPECT_EQ(COT_ProcessRxData(m_pvCtxt, nullptr, -5), 0);
    EXPECT_EQ(Ctxt().enState, state);
  }
  EXPECT_EQ(Stats().nTotalRxBytes, 0u);
  EXPECT_TRUE(host().Logs().empty());
}

TEST_F(CotLink, SyncPatternCutOffAtAChunksEndIsContinued) {
  const Bytes frame = BuildCotFrame(kEvent);
  Feed(Text("noise oHe"));
  ExpectLog(7, "Switching to IN_PARTIAL_SYNC state\n");
  EXPECT_EQ(Ctxt().enState, COT_IN_PARTIAL_SYNC);
  EXPECT_EQ(Ctxt().nStoredAmount, 3);
  Feed(Bytes(frame.begin() + 3, frame.begin() + 17));
  ExpectLog(7, "Received data in IN_PARTIAL_SYNC state\n");
  EXPECT_EQ(Ctxt().enState, COT_GATHERING_DATA);
  EXPECT_EQ(Ctxt().nStoredAmount, 17);
  Feed(Bytes(frame.begin() + 17, frame.end()));
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent));
}

TEST_F(CotLink, PartialSyncThatDoesNotContinueIsScannedAgain) {
  Feed(Text("oHe"));
  Feed(Text("xoH"));
  EXPECT_EQ(Ctxt().enState, COT_IN_PARTIAL_SYNC);
  EXPECT_EQ(Ctxt().nStoredAmount, 2);
  Feed(Text("x"));
  EXPECT_EQ(Ctxt().enState, COT_SCANNING_FOR_HEADER);
  Feed(Text("oH"));
  Feed(BuildCotFrame(kEvent));
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent));
}

TEST_F(CotLink, HeaderCutOffIsAcquired) {
  const Bytes frame = BuildCotFrame(kEvent);
  Feed(Bytes(frame.begin(), frame.begin() + 16));
  EXPECT_EQ(Ctxt().enState, COT_ACQUIRING_LENGTH);
  Feed({frame[16]});
  ExpectLog(7, "Received data in ACQUIRING_LENGTH state\n");
  EXPECT_EQ(Ctxt().enState, COT_GATHERING_DATA);
}

TEST_F(CotLink, UnfinishedPayloadWaitsForEver) {
  const Bytes frame = BuildCotFrame(kEvent);
  Feed(Bytes(frame.begin(), frame.end() - 2));
  host().Advance(3'600'000);
  Feed({frame[frame.size() - 2]});
  ExpectLog(7, "Received data in GATHERING_DATA state\n");
  ExpectLog(7, "Still missing 1 out of " + std::to_string(frame.size()) + " bytes of data\n");
  EXPECT_EQ(Ctxt().enState, COT_GATHERING_DATA);
  Feed({frame.back()});
  ExpectLog(7, "Got the full " + std::to_string(frame.size()) + " bytes long message\n");
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent));
}

TEST_F(CotLink, EveryCutBetweenTwoChunksGivesTheSameEvents) {
  host().SetLevel("METADATALIB", 4);
  const Bytes stream = Text("x") + BuildCotFrame("first") + Text("oHeY") + BuildCotFrame("second");
  for (std::size_t cut = 1; cut < stream.size(); cut++) {
    g_deliveries.clear();
    const auto at = stream.begin() + static_cast<std::ptrdiff_t>(cut);
    Feed(Bytes(stream.begin(), at));
    Feed(Bytes(at, stream.end()));
    ASSERT_THAT(Delivered(), testing::ElementsAre("first", "second")) << "cut at " << cut;
  }
  for (std::size_t piece = 1; piece < 60; piece++) {
    g_deliveries.clear();
    FeedInPieces(stream, piece);
    ASSERT_THAT(Delivered(), testing::ElementsAre("first", "second")) << "pieces of " << piece;
  }
}

TEST_F(CotLink, BytesAfterAFrameAreScanned) {
  Feed(BuildCotFrame(kEvent) + Text("abc"));
  ExpectLog(7, "RECEIVED 3 EXTRA BYTE\n");
  EXPECT_EQ(Ctxt().enState, COT_SCANNING_FOR_HEADER);
  EXPECT_EQ(Ctxt().nStoredAmount, 0);
}

TEST_F(CotLink, RejectedPayloadLeavesTheNextFrameWhole) {
  const Bytes bad = BuildCotFrame(kEvent, {'1', {FrameField::Crc}, 1});
  Feed(bad + BuildCotFrame("next"));
  ExpectLogContaining(4, "CRC DOES NOT MATCH");
  EXPECT_THAT(Delivered(), testing::ElementsAre("next"));
  EXPECT_EQ(Stats().nRxOkMessages, 1u);
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
}

TEST_F(CotLink, FrameInsideARejectedPayloadIsDecoded) {
  const Bytes inner = BuildCotFrame("inner");
  const Bytes payload = Bytes{0xFF, 0xFF, 0} + inner + Bytes(40, 0);
  Feed(GoodHeader(static_cast<unsigned>(payload.size())) + payload);
  ExpectLogContaining(4, "Estimated worst case data bytes ");
  EXPECT_THAT(Delivered(), testing::ElementsAre("inner"));
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
}

TEST_F(CotLink, ChunkLargerThanTheBufferLosesNothing) {
  host().SetLevel("METADATALIB", 4);
  Bytes stream;
  std::vector<std::string> sent;
  for (int i = 0; i < 3000; i++) {
    sent.push_back("event " + std::to_string(i));
    stream = std::move(stream) + BuildCotFrame(sent.back());
  }
  ASSERT_GT(stream.size(), 2u * 65'536u);
  Feed(stream);
  EXPECT_EQ(Delivered(), sent);
  EXPECT_EQ(Stats().nTotalRxBytes, stream.size());
  EXPECT_EQ(Stats().nRxOkMessages, sent.size());
}

TEST_F(CotLink, FrameAfterABufferFullOfNestedHeadersIsDecoded) {
  host().SetLevel("METADATALIB", 4);
  AllowLogs(4, "");
  Bytes nested;
  while (nested.size() < 65'000) nested = std::move(nested) + Text("oHeY!oHeY!oHoHeY!");
  Feed(GoodHeader(static_cast<unsigned>(nested.size())) + nested + BuildCotFrame(kEvent));
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent));
}

TEST_F(CotLink, RandomDamageNeverStopsTheNextGoodFrame) {
  host().SetLevel("METADATALIB", 4);
  AllowLogs(4, "");
  std::minstd_rand random(7);
  UINT64 nFed = 0;
  for (int round = 0; round < 500; round++) {
    Bytes stream = BuildCotFrame(kEvent);
    for (std::size_t i = 0; i < 1 + random() % 8; i++) stream[random() % stream.size()] = static_cast<BYTE>(random());
    // After a damaged length up to a buffer of the following bytes can be lost.
    stream = std::move(stream) + Bytes(65'536, 0) + BuildCotFrame("good");
    g_deliveries.clear();
    FeedInPieces(stream, 1 + random() % 5000);
    nFed += stream.size();
    ASSERT_FALSE(g_deliveries.empty());
    ASSERT_EQ(g_deliveries.back().text, "good");
  }
  EXPECT_EQ(Stats().nTotalRxBytes, nFed);
}

// --- Codewords -------------------------------------------------------------------------------------------

TEST_F(CotLink, PayloadOf20BytesHolds13DataBytesAndALengthWordOf14IsRejected) {
  Bytes payload(20);
  payload[0] = 14;
  EXPECT_FALSE(_ProcessLayer2(&Ctxt(), payload.data(), 20));
  ExpectLog(7, "14 bytes of data to extract in packed FEC of 20 bytes\n");
  ExpectLog(7, "1 155 bit codewords with 5 bits remaining\n");
  ExpectLog(7, "There should be 13 bytes of data in message (remainder=1)\n");
  ExpectLog(4, "Estimated worst case data bytes 13 smaller than actual 14\n");
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
}

TEST_F(CotLink, LengthWordOf10ReachesTheHandlerWith5Bytes) {
  const Bytes payload = PackCodewords(BuildBlock(Text("U#1abcde")));
  ASSERT_EQ(payload[0], 10);
  EXPECT_TRUE(_ProcessLayer2(&Ctxt(), payload.data(), static_cast<int>(payload.size())));
  ASSERT_EQ(g_deliveries.size(), 1u);
  EXPECT_EQ(g_deliveries[0].size, 5);
  EXPECT_EQ(g_deliveries[0].text, "abcde");
  ExpectLogContaining(7, "Calculated CRC for data is 0x");
  ExpectLog(7, "CRC is OK!!!\n");
  ExpectLog(6, "Received Valid ARQ Data for Channel 1\n");
}

TEST_F(CotLink, LengthWordBelow2IsRefusedAndNotCounted) {
  for (const unsigned length : {0u, 1u}) {
    Feed(FrameWithBlockLength(length, 13));
    ExpectLog(4, "Estimated worst case data bytes 13 smaller than actual " + std::to_string(length) + "\n");
  }
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
}

TEST_F(CotLink, PayloadBelow2BytesIsRefusedAndNotCounted) {
  Feed(GoodHeader(0));
  Feed(GoodHeader(1) + Bytes{5});
  EXPECT_EQ(CountLogs(4, "Estimated worst case data bytes 0 smaller than actual 0\n"), 2);
  ExpectLog(4, "Estimated worst case data bytes 0 smaller than actual 0\n");
  ExpectLog(4, "Estimated worst case data bytes 0 smaller than actual 0\n");
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
  EXPECT_EQ(Ctxt().enState, COT_SCANNING_FOR_HEADER);
}

TEST_F(CotLink, LengthWordThatFillsAllDataBytesStaysInsideTheBlock) {
  for (std::size_t codewords = 1; codewords < 20; codewords++) {
    const unsigned nDataBytes = static_cast<unsigned>(codewords * 105 / 8);
    Feed(FrameWithBlockLength(nDataBytes, codewords * 105 / 8));
    ExpectLogContaining(7, std::to_string(nDataBytes) + " bytes of data to extract");
  }
  AllowLogs(4, "First byte of ARQ message is not");
  EXPECT_EQ(Stats().nRxOkMessages, 19u);
}

TEST_F(CotLink, CheckBitsAreNeitherTestedNorUsed) {
  Feed(BuildCotFrame(kEvent, {'1', {FrameField::CheckBits}, 1}));
  EXPECT_THAT(Delivered(), testing::ElementsAre(kEvent));
  Feed(BuildCotFrame(kEvent, {'1', {FrameField::Codeword}, 1}));
  ExpectLogContaining(4, "CRC DOES NOT MATCH");
  EXPECT_EQ(g_deliveries.size(), 1u);
}

TEST_F(CotLink, ReedSolomonExtractsOnlyTheDataBits) {
  Bytes block(39);
  for (std::size_t i = 0; i < block.size(); i++) block[i] = static_cast<BYTE>(i * 37);
  const Bytes packed = PackCodewords(block);
  Bytes out(39 + 13);
  _DoReedSolomon(packed.data(), out.data(), 39);
  out.resize(39);
  EXPECT_EQ(out, block);
}

TEST_F(CotLink, OnlyACrcMismatchCountsAsCorrupted) {
  Bytes payload = PackCodewords(BuildBlock(Text("U#1abcde")));
  payload[12] ^= 1;  // inside the CRC: block byte 10 and 11 are bits 80 to 95
  payload[11] ^= 0x10;
  EXPECT_FALSE(_ProcessLayer2(&Ctxt(), payload.data(), static_cast<int>(payload.size())));
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
  const unsigned nRight = CalcCRC16(reinterpret_cast<const BYTE*>("U#1abcde"), 8);
  char szLine[80];
  snprintf(szLine, sizeof(szLine), "CRC DOES NOT MATCH In=0x%04X vs Calc=0x%04X!!!\n", nRight ^ 0x10u, nRight);
  ExpectLog(4, szLine);
}

TEST_F(CotLink, PayloadIsRejectedIfOutOfMemory) {
  host().FailNext("calloc");
  Feed(BuildCotFrame(kEvent));
  EXPECT_TRUE(g_deliveries.empty());
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
}

// --- ARQ header ------------------------------------------------------------------------------------------

TEST_F(CotLink, FirstArqByteMustBeU) {
  Feed(ArqFrame("V#1text"));
  ExpectLog(4, "First byte of ARQ message is not 'U' but V (0x56)\n");
  EXPECT_TRUE(g_deliveries.empty());
}

TEST_F(CotLink, SecondArqByteMustBeHash) {
  Feed(ArqFrame("U$1text"));
  ExpectLog(4, "2nd byte of ARQ message is not '#' but $ (0x24)\n");
  EXPECT_TRUE(g_deliveries.empty());
}

TEST_F(CotLink, OtherChannelIsCountedAsReceivedButNotDelivered) {
  Feed(ArqFrame("U#2text"));
  ExpectLog(4, "This message is not on channel 1 but 2 (0x32)\n");
  EXPECT_TRUE(g_deliveries.empty());
  EXPECT_EQ(Stats().nRxOkMessages, 1u);
  EXPECT_EQ(Stats().nRxChannel1Messages, 0u);
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
}

TEST_F(CotLink, ShortArqMessageFailsAtItsFirstMissingByte) {
  using std::string_literals::operator""s;
  Feed(ArqFrame(""));
  ExpectLog(4, "First byte of ARQ message is not 'U' but \0 (0x00)\n"s);
  Feed(ArqFrame("U"));
  ExpectLog(4, "2nd byte of ARQ message is not '#' but \0 (0x00)\n"s);
  Feed(ArqFrame("U#"));
  ExpectLog(4, "This message is not on channel 1 but \0 (0x00)\n"s);
  EXPECT_TRUE(g_deliveries.empty());
  EXPECT_EQ(Stats().nRxOkMessages, 3u);
}

TEST_F(CotLink, ArqHeaderAloneDeliversAnEmptyEvent) {
  Feed(ArqFrame("U#1"));
  ASSERT_EQ(g_deliveries.size(), 1u);
  EXPECT_EQ(g_deliveries[0].size, 0);
}

TEST_F(CotLink, MissingHandlerAsserts) {
  Ctxt().pfnRxHandler = nullptr;
  Feed(BuildCotFrame(kEvent));
  ExpectAssertion("pCtxt->pfnRxHandler != NULL");
  EXPECT_EQ(Stats().nRxOkMessages, 1u);
}

TEST_F(CotLink, HandlerMayKeepTheBuffer) {
  g_bKeep = true;
  Feed(BuildCotFrame(kEvent));
  ASSERT_NE(g_pKept, nullptr);
  EXPECT_EQ(g_pKept->nRefCount, 1);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(g_pKept->pcData), static_cast<size_t>(g_pKept->nDataSize)), kEvent);
  DoReleaseBuffer(&g_pKept);
}

// --- XML log ---------------------------------------------------------------------------------------------

TEST_F(CotLink, XMLLogNumbersEventsAndCountsALostOne) {
  OpenXMLLog();
  Feed(BuildCotFrame("<a></a>\n"));
  Feed(BuildCotFrame("lost", {'1', {FrameField::Crc}, 1}));
  ExpectLogContaining(4, "CRC DOES NOT MATCH");
  Feed(BuildCotFrame("<b></b>\n"));
  EXPECT_EQ(g_nXMLEventCount, 3);
  EXPECT_EQ(CloseXMLLog(), "XML Event #1 at " + TimeText() + "\nU#1<a></a>\n\n" + "\nLOST XML Event #1\n" +
                               "XML Event #3 at " + TimeText() + "\nU#1<b></b>\n\n");
}

TEST_F(CotLink, LastByteOfAMessageIsDeliveredButNotLogged) {
  OpenXMLLog();
  Feed(BuildCotFrame("<a></a>"));
  EXPECT_THAT(Delivered(), testing::ElementsAre("<a></a>"));
  EXPECT_THAT(CloseXMLLog(), testing::EndsWith("\nU#1<a></a\n\n"));
}

TEST_F(CotLink, XMLLogHoldsOnlyDeliveredEvents) {
  OpenXMLLog();
  Feed(ArqFrame("U#2other channel"));
  ExpectLogContaining(4, "This message is not on channel 1");
  EXPECT_EQ(CloseXMLLog(), "");
  EXPECT_EQ(g_nXMLEventCount, 0);
}

TEST_F(CotLink, EventsAreNotNumberedWithoutAnXMLLog) {
  Feed(BuildCotFrame(kEvent));
  Feed(BuildCotFrame("lost", {'1', {FrameField::Crc}, 1}));
  ExpectLogContaining(4, "CRC DOES NOT MATCH");
  EXPECT_EQ(g_nXMLEventCount, 0);
}

TEST_F(CotLink, XMLLogOnAFullDiskIsReportedOnceAndEventsAreStillDelivered) {
  g_XMLOutFP = fopen("/dev/full", "w");
  ASSERT_NE(g_XMLOutFP, nullptr);
  setvbuf(g_XMLOutFP, nullptr, _IONBF, 0);
  Feed(BuildCotFrame("one"));
  Feed(BuildCotFrame("two"));
  Feed(BuildCotFrame("lost", {'1', {FrameField::Crc}, 1}));
  ExpectLog(3, "Unable to write to the XML event log, errno=28, \"No space left on device\".\n");
  ExpectLogContaining(4, "CRC DOES NOT MATCH");
  EXPECT_THAT(Delivered(), testing::ElementsAre("one", "two"));
}

// --- Damage of every field -------------------------------------------------------------------------------

struct Outcome {
  FrameField field;
  bool delivered;
  bool countedOk;
  bool countedCorrupted;
};

class DamagedField : public CotLink, public testing::WithParamInterface<Outcome> {};

TEST_P(DamagedField, HasItsOutcomeAndTheNextFrameArrives) {
  AllowLogs(4, "");
  const Outcome& expected = GetParam();
  for (std::uint32_t seed = 0; seed < 20; seed++) {
    g_deliveries.clear();
    COT_ResetStats(m_pvCtxt);
    Feed(BuildCotFrame("damaged", {'1', {expected.field}, seed}) + BuildCotFrame("next"));
    ASSERT_EQ(g_deliveries.size(), expected.delivered ? 2u : 1u);
    EXPECT_EQ(g_deliveries.back().text, "next");
    EXPECT_EQ(Stats().nRxOkMessages, expected.countedOk ? 2u : 1u);
    EXPECT_EQ(Stats().nRxCorruptedMessages, expected.countedCorrupted ? 1u : 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllFields, DamagedField,
    testing::Values(Outcome{FrameField::Sync, false, false, false}, Outcome{FrameField::Length1, true, true, false},
                    Outcome{FrameField::Length2, true, true, false}, Outcome{FrameField::Length3, true, true, false},
                    Outcome{FrameField::Check1, true, true, false}, Outcome{FrameField::Check2, true, true, false},
                    Outcome{FrameField::Check3, true, true, false}, Outcome{FrameField::Codeword, false, false, true},
                    Outcome{FrameField::CheckBits, true, true, false},
                    Outcome{FrameField::BlockLength, false, false, false}, Outcome{FrameField::Crc, false, false, true},
                    Outcome{FrameField::ArqU, false, true, false}, Outcome{FrameField::ArqHash, false, true, false},
                    Outcome{FrameField::Channel, false, true, false}));

}  // namespace
