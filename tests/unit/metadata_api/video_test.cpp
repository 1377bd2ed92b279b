// SPDX-License-Identifier: Apache-2.0
// Tests of the video path: retrieval of packets from the capture, decimation, delivery to every source of the input.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "builders.h"
#include "engine_test.h"

namespace {

Bytes Header(BYTE sequence, size_t length) {
  return {0x00, sequence, 0xDF, static_cast<BYTE>(length >> 8), static_cast<BYTE>(length)};
}

class VideoTest : public StartedEngineTest {
 protected:
  HMDATASRC OpenVideo(const MDATA_SRC_CFG& config) { return m_source = Open(config); }
  HMDATASRC OpenVideo() { return OpenVideo(VideoConfig()); }
  MDATA_SRC_CFG WithMissionID(int input = 0) {
    MDATA_SRC_CFG config = VideoConfig(input);
    strcpy(config.szMissionID, "MISSION");
    return config;
  }
  // Delivers one packet in its own pass.
  void Receive(const Bytes& packet, UINT64 timestamp = 1, int input = 0) {
    host().FeedCapture(input, packet, timestamp);
    host().PassUntilIdle();
  }
  // Feeds timestamps that are given as letters, and returns the letters of those that were kept.
  std::string Keep(const std::string& letters) {
    std::string kept;
    for (const char letter : letters) {
      const size_t before = m_encoder.messages.size();
      Receive({1}, static_cast<UINT64>(letter));
      if (m_encoder.messages.size() != before) kept += letter;
    }
    return kept;
  }
  const KLV_STATS& Stats() const { return *GenericKLV_GetStatsPtr(m_source->pvDecodeCtxt); }
  HMDATASRC m_source = nullptr;
};

class VideoPullTest : public VideoTest {};
class VideoDeliveryTest : public VideoTest {};
class DecimationTest : public VideoTest {};

// --- Pulling -----------------------------------------------------------------------------------------------

TEST_F(VideoPullTest, PacketIsLoggedAndDistributed) {
  OpenVideo(VideoConfig(2));
  Open(VideoConfig(3));
  const Bytes packet = WellFormedMessage();
  Receive(packet, 1, 2);
  ExpectLog(7, "Called.\n");
  ExpectLog(7, "Got " + std::to_string(packet.size()) + " bytes of KLV on BNC-2.\n");
  ExpectDump(7, "HD-SDI KLV Message", packet);
  ExpectLog(7, "Going through 2 metadata sources.\n");
  EXPECT_EQ(m_encoder.messages.size(), 1u) << "the other input's source gets nothing";
}

TEST_F(VideoPullTest, OnlyVideoSourcesOfTheInputGetIt) {
  OpenVideo();
  Open(NetworkConfig());
  Open(SerialConfig());
  Receive({1, 2, 3});
  EXPECT_EQ(m_encoder.messages.size(), 1u);
  ExpectLog(7, "Going through 3 metadata sources.\n");
}

TEST_F(VideoPullTest, SourcesOfOneInputHaveTheirOwnCopiesAndSequences) {
  Encoder other;
  MDATA_SRC_CFG second = VideoConfig();
  second.pvUserParam1 = &other;
  other.answer = FALSE;
  OpenVideo();
  Open(second);
  Receive({1, 2, 3});
  Receive({4});
  ASSERT_EQ(m_encoder.messages.size(), 2u);
  ASSERT_EQ(other.messages.size(), 2u);
  EXPECT_EQ(m_encoder.messages[1].bytes, Header(1, 1) + Bytes{4});
  EXPECT_EQ(other.messages[1].bytes, Header(0, 1) + Bytes{4});
}

TEST_F(VideoPullTest, SixtyPacketsAtMostPerCall) {
  OpenVideo();
  for (int i = 0; i < 61; ++i) host().FeedCapture(0, {static_cast<BYTE>(i)}, 1);
  host().Pass();
  EXPECT_EQ(m_encoder.messages.size(), 60u);
  ExpectLog(4, "Reached maximum number of KLV (60) for one iteration.\n");
  host().Pass();
  ASSERT_EQ(m_encoder.messages.size(), 61u);
  EXPECT_EQ(m_encoder.messages[60].bytes[5], 60);
}

TEST_F(VideoPullTest, FiftyNinePacketsAreRetrievedWithoutALine) {
  OpenVideo();
  for (int i = 0; i < 59; ++i) host().FeedCapture(0, {1}, 1);
  host().Pass();
  EXPECT_EQ(m_encoder.messages.size(), 59u);
}

TEST_F(VideoPullTest, NothingRetrievedIsLoggedOncePerSecondForAllInputs) {
  OpenVideo(VideoConfig(0));
  const int first = host().LastFD("capture");
  Open(VideoConfig(1));
  const int second = host().LastFD("capture");
  const auto pull = [](int fd, intptr_t input) {
    host().FailNext("KLVCAPTURE_GetKLV");
    _SDIDataRxCallBack(nullptr, fd, 1, reinterpret_cast<void*>(input), nullptr);
  };
  pull(first, 0);
  ExpectLog(4, "No KLV retrieved from BNC-0.\n");
  pull(second, 1);
  EXPECT_EQ(CountLogs(4, "No KLV retrieved from BNC-1.\n"), 0);
  host().Advance(1000);
  pull(second, 1);
  ExpectLog(4, "No KLV retrieved from BNC-1.\n");
}

TEST_F(VideoPullTest, EndOfTheQueueAfterAPacketIsNotAnError) {
  OpenVideo();
  Receive({1});
  EXPECT_EQ(CountLogs(4, "No KLV retrieved from BNC-0.\n"), 0);
}

TEST_F(VideoPullTest, RemainingPacketsWaitIfOutOfMemory) {
  OpenVideo();
  host().FeedCapture(0, {1}, 1);
  host().FailNext("malloc");
  host().Pass();
  ExpectLog(4, "Failed to allocate buffer of 4101 bytes for KLV on BNC-0.\n");
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(CountLogs(4, "No KLV retrieved from BNC-0.\n"), 0);
  host().Pass();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

TEST_F(VideoPullTest, OnlyTheSourceWhoseCopyFailsMissesThePacket) {
  Encoder other;
  MDATA_SRC_CFG second = VideoConfig();
  second.pvUserParam1 = &other;
  OpenVideo();
  Open(second);
  host().FeedCapture(0, {1}, 1);
  host().FailNext("malloc", {.skip = 1});
  host().Pass();
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(other.messages.size(), 1u);
}

TEST_F(VideoPullTest, LargestPacketFillsTheWholeBuffer) {
  OpenVideo();
  Bytes packet(4101);
  for (size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<BYTE>(i * 3);
  Receive(packet);
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, 4101) + packet);
}

TEST_F(VideoPullTest, ImpossibleLengthsAreDroppedWithALine) {
  OpenVideo();
  for (const int length : {4102, -1, 0x7FFFFFFF}) {
    host().FeedCapture(0, {1, 2, 3}, 1, length);
    host().PassUntilIdle();
    ExpectLogContaining(4, std::to_string(length) + " bytes on BNC-0.");
  }
  EXPECT_TRUE(m_encoder.messages.empty());
  Receive({7});
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

TEST_F(VideoPullTest, EmptyPacketIsDelivered) {
  OpenVideo();
  Receive({});
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, 0));
}

// --- Delivery ----------------------------------------------------------------------------------------------

TEST_F(VideoDeliveryTest, PacketIsDeliveredWithItsTimestamp) {
  OpenVideo();
  Receive({1, 2, 3}, 0x123456789ull);
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  const Delivered& message = m_encoder.messages[0];
  EXPECT_EQ(message.bytes, Header(0, 3) + Bytes({1, 2, 3}));
  EXPECT_EQ(message.timestamp, 0x123456789ull);
  EXPECT_EQ(message.param1, &m_encoder);
  EXPECT_EQ(message.param2, &m_encoder);
  ExpectLog(7, "No mission ID or security data set defined for source#7.\n");
}

TEST_F(VideoDeliveryTest, AcceptedPacketIsCountedWithItsHeader) {
  OpenVideo();
  Receive({1, 2, 3});
  EXPECT_EQ(Stats().nRxOkMessages, 1u);
  EXPECT_EQ(Stats().nTotalRxBytes, 8u);
  EXPECT_EQ(m_source->HeaderSequence, 1);
  EXPECT_EQ(host().rateTotals, std::vector<UINT64>{8});
}

TEST_F(VideoDeliveryTest, RefusedPacketIsNotCountedAndItsSequenceIsUsedAgain) {
  OpenVideo();
  m_encoder.answer = FALSE;
  Receive({1});
  Receive({2});
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
  EXPECT_EQ(Stats().nTotalRxBytes, 0u);
  EXPECT_EQ(m_source->HeaderSequence, 0);
  EXPECT_TRUE(host().rateTotals.empty());
  m_encoder.answer = TRUE;
  Receive({3});
  ASSERT_EQ(m_encoder.messages.size(), 3u);
  for (const Delivered& message : m_encoder.messages) EXPECT_EQ(message.bytes[1], 0);
  EXPECT_EQ(m_source->HeaderSequence, 1);
  EXPECT_EQ(Stats().nTotalRxBytes, 6u);
}

TEST_F(VideoDeliveryTest, CountedSizeIsTheDeliveredOne) {
  MDATA_SRC_CFG config = VideoConfig();
  config.pfnCallback = [](MDATA_BUFFER* pBuff, void*, void*) -> BOOL {
    pBuff->nDataSize = 1000000;  // an encoder may change the record
    return TRUE;
  };
  OpenVideo(config);
  Receive({1, 2, 3});
  EXPECT_EQ(Stats().nTotalRxBytes, 8u);
}

TEST_F(VideoDeliveryTest, SequenceWraps) {
  OpenVideo();
  host().SetLevel("METADATALIB", 5);
  for (int i = 0; i < 257; ++i) Receive({1});
  EXPECT_EQ(m_encoder.messages[255].bytes[1], 255);
  EXPECT_EQ(m_encoder.messages[256].bytes[1], 0);
}

TEST_F(VideoDeliveryTest, RateIsFedOncePerSecond) {
  OpenVideo();
  Receive(Bytes(5));
  Receive(Bytes(5));
  host().Advance(1000);
  Receive(Bytes(5));
  EXPECT_EQ(host().rateTotals, (std::vector<UINT64>{10, 30}));
}

TEST_F(VideoDeliveryTest, RewrittenPacketReplacesItsOriginal) {
  MDATA_SRC_CFG config = WithMissionID();
  AddRelay(config, {10, 0, 0, 1}, -1, -1);
  OpenVideo(config);
  const Bytes message = WellFormedMessage();
  const Bytes body(message.begin() + 17, message.end() - 4);
  const Bytes rewritten = UasMessage().Raw(body).Item(3, Text("MISSION")).Checksum().Build();
  Receive(message, 77);
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, rewritten.size()) + rewritten);
  EXPECT_EQ(m_encoder.messages[0].timestamp, 77u);
  char line[128];
  snprintf(line, sizeof(line), "Mission ID (%p) or security data set (%p) defined for source#7.\n",
           static_cast<void*>(m_source->pMissionID), static_cast<void*>(m_source->pSecurityMDataSet));
  ExpectLog(7, line);
  ExpectDump(6, "Substituted HD-SDI KLV Message", rewritten);
  EXPECT_EQ(host().FD(m_source->Relayers[0].iRelaySocket).sent, std::vector<Bytes>{rewritten});
  EXPECT_EQ(m_source->SourceTTL, -1) << "relayed without TTL and TOS";
  EXPECT_EQ(Stats().nTotalRxBytes, rewritten.size() + 5);
}

TEST_F(VideoDeliveryTest, PacketThatCannotBeRewrittenIsDeliveredUnchanged) {
  OpenVideo(WithMissionID());
  const Bytes odd(30, 9);
  Receive(odd);
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, 30) + odd);
  ExpectLog(7, "_ProcessRxKLV return FALSE for source#7.\n");
}

TEST_F(VideoDeliveryTest, FilterThatLeavesNothingDropsThePacket) {
  MDATA_SRC_CFG config = VideoConfig();
  config.bFilterUASTags = TRUE;
  AddRelay(config);
  OpenVideo(config);
  Receive(WellFormedMessage());
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_TRUE(host().FD(m_source->Relayers[0].iRelaySocket).sent.empty());
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
  EXPECT_TRUE(host().Assertions().empty()) << "nNewSize is 0, as it should be";
}

TEST_F(VideoDeliveryTest, MissingCallbackAsserts) {
  MDATA_SRC_CFG config = VideoConfig();
  config.pfnCallback = nullptr;
  OpenVideo(config);
  Receive({1});
  ExpectAssertion("hSource->Config.pfnCallback != NULL");
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
}

// --- Decimation --------------------------------------------------------------------------------------------

TEST_F(DecimationTest, FactorThreeKeepsEveryThirdTimestampWithAllItsPackets) {
  MDATA_SRC_CFG config = VideoConfig();
  config.nDecimationFactor = 3;
  OpenVideo(config);
  EXPECT_EQ(Keep("AABBCDDE"), "AADD");
  ExpectLog(7, "Not decimating initial KLV with timestamp of 0x000000041.\n");
  ExpectLog(7, "Not decimating active KLV timestamp of 0x000000041.\n");
  ExpectLog(7, "Decimating new decimated KLV #1 with timestamp of 0x000000042.\n");
  ExpectLog(7, "Decimating decimated KLV timestamp of 0x000000042.\n");
  ExpectLog(7, "Decimating new decimated KLV #2 with timestamp of 0x000000043.\n");
  ExpectLog(7, "No longer decimating KLV with timestamp of 0x000000044.\n");
  ExpectLog(7, "Not decimating active KLV timestamp of 0x000000044.\n");
  ExpectLog(7, "Decimating new decimated KLV #1 with timestamp of 0x000000045.\n");
}

TEST_F(DecimationTest, DroppedPacketsAreNeitherRelayedNorCounted) {
  MDATA_SRC_CFG config = VideoConfig();
  config.nDecimationFactor = 2;
  AddRelay(config);
  OpenVideo(config);
  EXPECT_EQ(Keep("ABCD"), "AC");
  EXPECT_EQ(host().FD(m_source->Relayers[0].iRelaySocket).sent.size(), 2u);
  EXPECT_EQ(Stats().nRxOkMessages, 2u);
  EXPECT_EQ(m_encoder.messages[1].bytes[1], 1);
}

TEST_F(DecimationTest, FactorOneIsNeverTested) {
  OpenVideo();
  EXPECT_EQ(Keep("AABBA"), "AABBA");
  EXPECT_EQ(m_source->DecimateCtrl.ActivitePTS, kNoPTS);
}

TEST_F(DecimationTest, FactorZeroIsTestedAndKeepsEverything) {
  MDATA_SRC_CFG config = VideoConfig();
  config.nDecimationFactor = 0;
  OpenVideo(config);
  EXPECT_EQ(Keep("AABBA"), "AABBA");
  EXPECT_EQ(m_source->DecimateCtrl.ActivitePTS, static_cast<UINT64>('A'));
  ExpectLog(7, "No longer decimating KLV with timestamp of 0x000000042.\n");
}

TEST_F(DecimationTest, OnlyTheLastDroppedTimestampIsRemembered) {
  MDATA_SRC_CFG config = VideoConfig();
  config.nDecimationFactor = 4;
  OpenVideo(config);
  // B, C and the second B count as three new timestamps, so that D is kept.
  EXPECT_EQ(Keep("ABCBD"), "AD");
}

TEST_F(DecimationTest, TimestampsAreComparedForEqualityOnly) {
  MDATA_SRC_CFG config = VideoConfig();
  config.nDecimationFactor = 2;
  OpenVideo(config);
  EXPECT_EQ(Keep("ZYXW"), "ZX") << "backwards works like forwards";
  EXPECT_EQ(Keep("X"), "X");
}

TEST_F(DecimationTest, EachSourceDecimatesForItself) {
  Encoder other;
  MDATA_SRC_CFG config = VideoConfig();
  config.nDecimationFactor = 2;
  OpenVideo(config);
  config.pvUserParam1 = &other;
  config.nDecimationFactor = 3;
  Open(config);
  EXPECT_EQ(Keep("ABCDEF"), "ACE");
  EXPECT_EQ(other.messages.size(), 2u);
}

TEST_F(DecimationTest, FirstPacketWithACountAsserts) {
  MDATA_SRC_CFG config = VideoConfig();
  config.nDecimationFactor = 2;
  OpenVideo(config);
  m_source->DecimateCtrl.nDecimatedCount = 1;
  EXPECT_EQ(Keep("A"), "A");
  ExpectAssertion("hSource->DecimateCtrl.nDecimatedCount == 0");
}

TEST_F(DecimationTest, TimestampAboveNineDigitsIsLoggedWhole) {
  MDATA_SRC_CFG config = VideoConfig();
  config.nDecimationFactor = 2;
  OpenVideo(config);
  Receive({1}, 0xFEDCBA9876543210ull);
  ExpectLog(7, "Not decimating initial KLV with timestamp of 0xFEDCBA9876543210.\n");
}

}  // namespace
