// SPDX-License-Identifier: Apache-2.0
// Tests of the KLV paths: messages from datagrams and from the serial line are rewritten, relayed and delivered after
// the stream header.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "builders.h"
#include "engine_test.h"

namespace {

Bytes Header(BYTE sequence, size_t length) {
  return {0x00, sequence, 0xDF, static_cast<BYTE>(length >> 8), static_cast<BYTE>(length)};
}

// The well-formed message with the mission identifier "MISSION".
Bytes RewrittenMessage() {
  const Bytes message = WellFormedMessage();
  const Bytes body(message.begin() + 17, message.end() - 4);
  return UasMessage().Raw(body).Item(3, Text("MISSION")).Checksum().Build();
}

MDATA_SRC_CFG WithMissionID(MDATA_SRC_CFG config) {
  strcpy(config.szMissionID, "MISSION");
  return config;
}

MDATA_SRC_CFG KeepingNothing(MDATA_SRC_CFG config) {
  config.bFilterUASTags = TRUE;
  return config;
}

class KlvPathTest : public StartedEngineTest {
 protected:
  HMDATASRC OpenUdp(const MDATA_SRC_CFG& config) { return m_source = Open(config); }
  HMDATASRC OpenUdp() { return OpenUdp(NetworkConfig()); }
  HMDATASRC OpenSerial(const MDATA_SRC_CFG& config) { return m_source = Open(config); }
  HMDATASRC OpenSerial() { return OpenSerial(SerialConfig()); }

  void Receive(const Bytes& bytes, const DatagramInfo& info = {}) {
    host().FeedDatagram(m_source->iFD, bytes, info);
    host().PassUntilIdle();
  }
  void ReceiveSerial(const Bytes& bytes) {
    host().FeedSerial(m_source->iFD, bytes);
    host().PassUntilIdle();
  }
  const KLV_STATS& Stats() const { return *GenericKLV_GetStatsPtr(m_source->pvDecodeCtxt); }
  std::vector<Bytes> Relayed(int relay = 0) const { return host().FD(m_source->Relayers[relay].iRelaySocket).sent; }
  void ExpectDelivered(const Bytes& message, size_t headerLength) {
    ASSERT_FALSE(m_encoder.messages.empty());
    EXPECT_EQ(m_encoder.messages.back().bytes,
              Header(static_cast<BYTE>(m_source->HeaderSequence - 1), headerLength) + message);
  }
  void ExpectDelivered(const Bytes& message) { ExpectDelivered(message, message.size()); }

  HMDATASRC m_source = nullptr;
};

class KlvUdpTest : public KlvPathTest {};
class KlvSerialTest : public KlvPathTest {
 protected:
  static timespec Monotonic() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
  }
};
class InspectionTest : public KlvPathTest {};

// --- UDP -------------------------------------------------------------------------------------------------

TEST_F(KlvUdpTest, DatagramIsDeliveredAfterTheStreamHeader) {
  OpenUdp();
  const Bytes message = WellFormedMessage();
  const std::string size = std::to_string(message.size());
  Receive(message, {.from = "10.1.2.3", .port = 4711});
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, message.size()) + message);
  EXPECT_EQ(m_encoder.messages[0].timestamp, 0u);
  EXPECT_EQ(Stats().nRxOkMessages, 1u);
  EXPECT_EQ(Stats().nTotalRxBytes, message.size());
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
  ExpectLog(7, "Called.\n");
  ExpectLog(7, "Received " + size + " bytes from 10.1.2.3:4711.\n");
  ExpectDump(7, "Input KLV over UDP Message", message);
  ExpectLog(7, "Got complete KLV message of " + size + " bytes.\n");
  ExpectDump(7, "Streamer KLV AU", m_encoder.messages[0].bytes);
}

TEST_F(KlvUdpTest, CallbackGetsTheFirstUserParameterTwice) {
  OpenUdp();
  Receive(WellFormedMessage());
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].param1, &m_encoder);
  EXPECT_EQ(m_encoder.messages[0].param2, &m_encoder);
  EXPECT_NE(m_source->Config.pvUserParam2, &m_encoder) << "what was configured as the second is another";
}

TEST_F(KlvUdpTest, SequenceCountsUpAndWraps) {
  OpenUdp();
  host().SetLevel("METADATALIB", 5);
  for (int i = 0; i < 258; ++i) Receive({1, 2, 3});
  ASSERT_EQ(m_encoder.messages.size(), 258u);
  for (size_t i = 0; i < 258; ++i) EXPECT_EQ(m_encoder.messages[i].bytes[1], static_cast<BYTE>(i));
}

TEST_F(KlvUdpTest, CallbackResultIsIgnored) {
  OpenUdp();
  m_encoder.answer = FALSE;
  Receive({1});
  Receive({2});
  EXPECT_EQ(m_encoder.messages[1].bytes[1], 1);
  EXPECT_EQ(Stats().nRxOkMessages, 2u);
}

TEST_F(KlvUdpTest, DatagramOf1500BytesIsReceivedWhole) {
  OpenUdp();
  Bytes datagram(1500);
  for (size_t i = 0; i < datagram.size(); ++i) datagram[i] = static_cast<BYTE>(i * 7);
  Receive(datagram);
  ExpectDelivered(datagram);
  EXPECT_EQ(Stats().nTotalRxBytes, 1500u);
}

TEST_F(KlvUdpTest, LongerDatagramIsTruncatedTo1500Bytes) {
  OpenUdp();
  Receive(Bytes(1501, 9));
  ExpectDelivered(Bytes(1500, 9));
}

TEST_F(KlvUdpTest, IPv6SocketIsReadLikeTheIPv4Socket) {
  OpenUdp(NetworkConfig(MDATA_DATA_KLV, 5000, 0));
  host().FeedDatagram(m_source->iFDv6, WellFormedMessage(), {.from = "fe80::7", .port = 1});
  host().PassUntilIdle();
  ExpectDelivered(WellFormedMessage());
  ExpectLog(7, "Received " + std::to_string(WellFormedMessage().size()) + " bytes from [fe80::7]:1.\n");
}

TEST_F(KlvUdpTest, RewrittenMessageKeepsTheDatagramsLengthInItsHeader) {
  OpenUdp(WithMissionID(NetworkConfig()));
  const Bytes message = WellFormedMessage();
  Receive(message);
  ASSERT_NE(RewrittenMessage().size(), message.size());
  ExpectDelivered(RewrittenMessage(), message.size());
  ExpectDump(7, "Substituted KLV over UDP Message", RewrittenMessage());
  ExpectLog(7, "Got complete KLV message of " + std::to_string(message.size()) + " bytes.\n");
  EXPECT_EQ(Stats().nTotalRxBytes, message.size());
  EXPECT_EQ(m_source->KLVStats.nAddedMissionIDs, 1u);
}

TEST_F(KlvUdpTest, DatagramIsRelayedAsReceivedWithItsTOSAndTTL) {
  MDATA_SRC_CFG config = WithMissionID(NetworkConfig());
  AddRelay(config, {10, 0, 0, 1}, -1, -1);
  AddRelay(config, {10, 0, 0, 2}, 5, 6);
  OpenUdp(config);
  Receive(WellFormedMessage(), {.ttl = 33, .tos = 0x48});
  EXPECT_EQ(Relayed(0), std::vector<Bytes>{WellFormedMessage()});
  EXPECT_EQ(Relayed(1), std::vector<Bytes>{WellFormedMessage()});
  EXPECT_EQ(m_source->Relayers[0].CurrentRelayTTL, 33);
  EXPECT_EQ(m_source->Relayers[0].CurrentRelayTOS, 0x48);
  EXPECT_EQ(m_source->Relayers[1].CurrentRelayTTL, -1);
}

TEST_F(KlvUdpTest, ZeroIsPassedOnWithoutDetection) {
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config, {10, 0, 0, 1}, 5, 6);
  OpenUdp(config);
  Receive(WellFormedMessage(), {.ttl = 33, .tos = 0x48});
  EXPECT_EQ(m_source->SourceTTL, 0);
  EXPECT_EQ(m_source->SourceTOS, 0);
}

TEST_F(KlvUdpTest, MessageThatTheFilterEmptiesIsRelayedButNotDelivered) {
  MDATA_SRC_CFG config = KeepingNothing(NetworkConfig());
  AddRelay(config);
  OpenUdp(config);
  Receive(WellFormedMessage());
  ExpectAssertion("pUserBuff != NULL");
  EXPECT_EQ(Relayed(), std::vector<Bytes>{WellFormedMessage()});
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(m_source->HeaderSequence, 0);
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
  EXPECT_EQ(Stats().nTotalRxBytes, 0u);
}

TEST_F(KlvUdpTest, InvalidMessageIsDeliveredUnchanged) {
  OpenUdp(WithMissionID(NetworkConfig()));
  const Bytes invalid = UasMessage().Item(2, Bytes(8)).Raw({5, 9, 1}).Build();
  Receive(invalid);
  ExpectLogContaining(3, "has INVALID data length=9 with only 3 bytes remaining in message.");
  ExpectDelivered(invalid);
  EXPECT_EQ(m_source->KLVStats.nInvalidUASMessages, 1u);
}

TEST_F(KlvUdpTest, ReceiveErrorsAreLoggedAndNothingIsCounted) {
  OpenUdp();
  host().FailNext("recvmsg", {.error = ENETDOWN});
  host().FeedDatagram(m_source->iFD, {1});
  host().Pass();
  ExpectLog(3, "recvmsg returned -1, errno=100, \"Network is down\".\n");
  ExpectLog(5, "recvfrom failed, rc=-1, errno=100, \"Network is down\".\n");
  host().FailNext("recvmsg", {.error = EAGAIN, .result = 0});
  host().Pass();
  ExpectLogContaining(3, "recvmsg returned 0, ");
  ExpectLog(5, "recvfrom returned 0.\n");
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
  host().Pass();
  EXPECT_EQ(m_encoder.messages.size(), 1u) << "and reception goes on";
}

TEST_F(KlvUdpTest, OtherSendersAreNeitherRelayedNorCounted) {
  MDATA_SRC_CFG config = NetworkConfig();
  const BYTE address[] = {10, 0, 0, 5};
  memcpy(config.in.Network.acSrcAddress, address, 4);
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 10;
  AddRelay(config);
  OpenUdp(config);
  Receive(WellFormedMessage(), {.from = "10.0.0.6", .port = 99});
  ExpectLog(7, "Rejecting " + std::to_string(WellFormedMessage().size()) + " bytes from 10.0.0.6:99.\n");
  EXPECT_TRUE(Relayed().empty());
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(Stats().nTotalRxBytes, 0u);
  Close(m_source);
  EXPECT_EQ(host().ReadFile("/tmp/rawudp_5000.txt"), "");
}

TEST_F(KlvUdpTest, RateIsFedWithTheReceivedBytesOncePerSecond) {
  OpenUdp();
  Receive(Bytes(10));
  Receive(Bytes(20));
  host().Advance(999);
  Receive(Bytes(30));
  host().Advance(1);
  Receive(Bytes(40));
  EXPECT_EQ(host().rateTotals, (std::vector<UINT64>{10, 100}));
}

TEST_F(KlvUdpTest, DatagramIsDroppedIfOutOfMemory) {
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config);
  OpenUdp(config);
  host().FailNext("malloc");
  Receive(Bytes(30, 4));
  ExpectLog(4, "No memory for KLV message of 30 bytes, dropping it.\n");
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(m_source->HeaderSequence, 0);
  EXPECT_EQ(Relayed().size(), 1u);
  Receive(Bytes(30, 5));
  ExpectDelivered(Bytes(30, 5));
}

TEST_F(KlvUdpTest, MissingCallbackAsserts) {
  MDATA_SRC_CFG config = NetworkConfig();
  config.pfnCallback = nullptr;
  OpenUdp(config);
  Receive({1, 2});
  ExpectAssertion("hSource->Config.pfnCallback != NULL");
}

TEST_F(KlvUdpTest, CaptureHoldsTheReceivedBytes) {
  MDATA_SRC_CFG config = WithMissionID(NetworkConfig());
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 10;
  OpenUdp(config);
  Receive({0x01, 0xAB, 0xFF});
  AllowLogs(4, "Got less than 16 bytes");
  Close(m_source);
  EXPECT_EQ(host().ReadFile("/tmp/rawudp_5000.txt"), "01 ab ff ");
}

TEST_F(KlvUdpTest, FullCaptureStaysClosedAndReceptionContinues) {
  MDATA_SRC_CFG config = NetworkConfig();
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 1;
  OpenUdp(config);
  for (int i = 0; i < 5; ++i) Receive(Bytes(500, 0xAA));
  EXPECT_EQ(m_source->CaptureFP, nullptr);
  EXPECT_EQ(m_encoder.messages.size(), 5u);
  const size_t size = host().ReadFile("/tmp/rawudp_5000.txt").size();
  EXPECT_GE(size, 1024u);
  Receive(Bytes(500, 0xAA));
  EXPECT_EQ(host().ReadFile("/tmp/rawudp_5000.txt").size(), size);
}

TEST_F(KlvUdpTest, KeptBufferStaysUntilItIsReleased) {
  static MDATA_BUFFER* kept;
  kept = nullptr;
  MDATA_SRC_CFG config = NetworkConfig();
  config.pfnCallback = [](MDATA_BUFFER* pBuff, void*, void*) -> BOOL {
    __atomic_add_fetch(&pBuff->nRefCount, 1, __ATOMIC_SEQ_CST);
    kept = pBuff;
    return TRUE;
  };
  OpenUdp(config);
  Receive(WellFormedMessage());
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->nRefCount, 1);
  EXPECT_EQ(Bytes(kept->pcData + 5, kept->pcData + kept->nDataSize), WellFormedMessage());
  MetaData_ReleaseBuffer(kept);
}

// --- The inspection --------------------------------------------------------------------------------------

TEST_F(InspectionTest, MessageOf19BytesIsNeverRewrittenAndIsLoggedOncePerPause) {
  OpenUdp(WithMissionID(NetworkConfig()));
  const Bytes shortMessage = UasMessage().Raw({5, 0}).Build();
  ASSERT_EQ(shortMessage.size(), 19u);
  const char warning[] = "Got less than 16 bytes of KLV.\n";
  for (int i = 0; i < 6; ++i) {
    Receive(shortMessage);
    ExpectDelivered(shortMessage);
    EXPECT_EQ(CountLogs(4, warning), i < 5 ? 1 : 2) << "after " << i << " s";
    host().Advance(1000);
  }
  ExpectLog(4, warning);
  ExpectLog(4, warning);
  EXPECT_EQ(m_source->KLVStats.nRxUASMessages, 0u);
}

TEST_F(InspectionTest, ShortMessageWarningIsSharedByAllSources) {
  OpenUdp(WithMissionID(NetworkConfig(MDATA_DATA_KLV, 5000)));
  Receive({1});
  OpenUdp(WithMissionID(NetworkConfig(MDATA_DATA_KLV, 5001)));
  Receive({1});
  EXPECT_EQ(CountLogs(4, "Got less than 16 bytes of KLV.\n"), 1);
  ExpectLog(4, "Got less than 16 bytes of KLV.\n");
}

TEST_F(InspectionTest, TwentyBytesAreRewritten) {
  OpenUdp(WithMissionID(NetworkConfig()));
  const Bytes message = UasMessage().Item(5, {7}).Build();
  ASSERT_EQ(message.size(), 20u);
  Receive(message);
  ExpectLogContaining(4, "was not the last element!");
  ExpectDelivered(UasMessage().Item(5, {7}).Item(3, Text("MISSION")).Checksum().Build(), 20);
  ExpectLog(7, "Got UAS KLV message of 20 bytes.\n");
}

TEST_F(InspectionTest, OtherKeyIsNotRewritten) {
  OpenUdp(WithMissionID(NetworkConfig()));
  Bytes key = UasKey();
  key[15] = 1;
  const Bytes message = UasMessage().Key(key).Item(2, Bytes(8)).Checksum().Build();
  Receive(message);
  ExpectDelivered(message);
  ExpectLog(7, "NON UAS Data Set detected for source#7.\n");
  ExpectDump(7, "First 16 Bytes of Rx Data", key);
  ExpectDump(7, "UAS Header", UasKey());
}

TEST_F(InspectionTest, LongFormsOfOneAndTwoBytesAreRewritten) {
  OpenUdp(WithMissionID(NetworkConfig()));
  const Bytes body = UasMessage().Item(2, Bytes(8)).Body();
  const Bytes expected = UasMessage().Raw(body).Item(3, Text("MISSION")).Checksum().Build();
  for (const UasMessage::Length form : {UasMessage::Length::Long1, UasMessage::Length::Long2}) {
    const Bytes message = UasMessage().Raw(body).Checksum().LengthForm(form).Build();
    Receive(message);
    ExpectDelivered(expected, message.size());
  }
}

TEST_F(InspectionTest, OtherLengthFormsAreDeliveredUnchanged) {
  OpenUdp(WithMissionID(NetworkConfig()));
  for (const BYTE form : {BYTE{0x80}, BYTE{0x83}, BYTE{0xFF}}) {
    const Bytes message = UasKey() + Bytes{form, 0, 0, 4} + Bytes(20);
    Receive(message);
    ExpectDelivered(message);
    ExpectLog(4, "Unsupported number of bytes (" + std::to_string(form & 0x7F) + ") for UAV data set length.\n");
  }
}

TEST_F(InspectionTest, MessageShorterThanItsLengthIsDeliveredUnchanged) {
  OpenUdp(WithMissionID(NetworkConfig()));
  Bytes message = WellFormedMessage();
  message.pop_back();
  Receive(message);
  ExpectDelivered(message);
  ExpectLog(3, "UAV set of " + std::to_string(message.size() + 1) + " bytes received but buffer is " +
                   std::to_string(message.size()) + " bytes.\n");
}

TEST_F(InspectionTest, LengthThatWrapsSixteenBitsIsDeliveredUnchanged) {
  OpenUdp(WithMissionID(NetworkConfig()));
  const Bytes message = UasKey() + Bytes{0x82, 0xFF, 0xFF, 0x01};  // 65535 + 19 wraps to 18
  Receive(message);
  ExpectDelivered(message);
  EXPECT_EQ(m_source->KLVStats.nRxUASMessages, 0u);
}

TEST_F(InspectionTest, BytesBeyondTheTotalAreLeftOut) {
  OpenUdp(WithMissionID(NetworkConfig()));
  const Bytes datagram = WellFormedMessage() + Bytes(11, 0x77);
  Receive(datagram);
  ExpectDelivered(RewrittenMessage(), datagram.size());
}

TEST_F(InspectionTest, AnyOfTheFourSettingsEnablesRewriting) {
  MDATA_SRC_CFG security = NetworkConfig(MDATA_DATA_KLV, 5001);
  security.bClassifyMission = TRUE;
  strcpy(security.szClassifyingCountry, "USA");
  MDATA_SRC_CFG filter = NetworkConfig(MDATA_DATA_KLV, 5002);
  filter.bFilterUASTags = TRUE;
  memset(filter.UASTagFilter, 0xFF, sizeof(filter.UASTagFilter));
  MDATA_SRC_CFG securityFilter = NetworkConfig(MDATA_DATA_KLV, 5003);
  securityFilter.bFilterUASSecurityTags = TRUE;
  ULONG rewritten = 0;
  for (const MDATA_SRC_CFG& config : {WithMissionID(NetworkConfig()), security, filter, securityFilter}) {
    OpenUdp(config);
    Receive(WellFormedMessage());
    rewritten += m_source->KLVStats.nRxUASMessages;
  }
  EXPECT_EQ(rewritten, 4u);
  OpenUdp(NetworkConfig(MDATA_DATA_KLV, 5004));
  Receive(WellFormedMessage());
  EXPECT_EQ(m_source->KLVStats.nRxUASMessages, 0u);
}

// --- Serial ----------------------------------------------------------------------------------------------

TEST_F(KlvSerialTest, MessagesAreExtractedFromTheStream) {
  OpenSerial();
  const Bytes message = WellFormedMessage();
  const std::string size = std::to_string(message.size());
  ReceiveSerial(message + message);
  ASSERT_EQ(m_encoder.messages.size(), 2u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, message.size()) + message);
  EXPECT_EQ(m_encoder.messages[1].bytes, Header(1, message.size()) + message);
  EXPECT_EQ(m_encoder.messages[0].param2, &m_encoder);
  EXPECT_EQ(Stats().nRxOkMessages, 2u);
  EXPECT_EQ(Stats().nTotalRxBytes, 2 * message.size());
  ExpectLog(7, "Called fd=" + std::to_string(m_source->iFD) + ".\n");
  ExpectLog(7, "read successfully 48 bytes from serial port.\n");
  const Bytes stream = message + message;
  ExpectDump(7, "Input Data", Bytes(stream.begin(), stream.begin() + 48));
  ExpectLog(6, "Got complete KLV message of " + size + " bytes.\n");
  ExpectDump(7, "Streamer KLV AU", m_encoder.messages[1].bytes);
}

TEST_F(KlvSerialTest, InspectionIsNotCalledWithoutSettings) {
  MDATA_SRC_CFG config = SerialConfig();
  AddRelay(config);
  OpenSerial(config);
  ReceiveSerial(WellFormedMessage());
  ExpectDelivered(WellFormedMessage());
  EXPECT_EQ(Relayed(), std::vector<Bytes>{WellFormedMessage()});
  ExpectNoLog("Got UAS KLV message of " + std::to_string(WellFormedMessage().size()) + " bytes.\n");
}

TEST_F(KlvSerialTest, RewrittenLengthIsInTheHeader) {
  OpenSerial(WithMissionID(SerialConfig()));
  ReceiveSerial(WellFormedMessage());
  ExpectDelivered(RewrittenMessage());
  ExpectDump(6, "Substituted Serial KLV Message", RewrittenMessage());
  ExpectLog(6, "Got complete KLV message of " + std::to_string(RewrittenMessage().size()) + " bytes.\n");
  EXPECT_EQ(Stats().nTotalRxBytes, WellFormedMessage().size());
}

TEST_F(KlvSerialTest, RewrittenMessageIsRelayedWithoutTOSAndTTL) {
  MDATA_SRC_CFG config = WithMissionID(SerialConfig());
  AddRelay(config, {10, 0, 0, 1}, -1, -1);
  OpenSerial(config);
  ReceiveSerial(WellFormedMessage());
  EXPECT_EQ(Relayed(), std::vector<Bytes>{RewrittenMessage()});
  EXPECT_EQ(m_source->SourceTTL, -1);
  ExpectLog(7, "Not checking TTL.\n");
}

TEST_F(KlvSerialTest, FilterThatLeavesNothingDropsTheMessage) {
  MDATA_SRC_CFG config = KeepingNothing(SerialConfig());
  AddRelay(config);
  OpenSerial(config);
  ReceiveSerial(WellFormedMessage());
  ExpectAssertion("pSubstBuff != NULL");
  EXPECT_TRUE(Relayed().empty());
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(m_source->HeaderSequence, 0);
}

TEST_F(KlvSerialTest, OnlySerialSourcesRewriteInTheMessageHandler) {
  OpenUdp(WithMissionID(NetworkConfig()));
  Bytes message = WellFormedMessage();
  MDATA_BUFFER* buffer = nullptr;
  ASSERT_TRUE(DoAllocCopyBufferEx(message.data(), static_cast<int>(message.size()), 5, &buffer));
  _KLV_RxCallBack(buffer, m_source);
  DoReleaseBuffer(&buffer);
  ExpectDelivered(message);
  EXPECT_EQ(m_source->KLVStats.nRxUASMessages, 0u);
}

TEST_F(KlvSerialTest, CallbackResultIsIgnored) {
  OpenSerial();
  m_encoder.answer = FALSE;
  ReceiveSerial(WellFormedMessage() + WellFormedMessage());
  EXPECT_EQ(m_source->HeaderSequence, 2);
}

TEST_F(KlvSerialTest, MissingCallbackAsserts) {
  MDATA_SRC_CFG config = SerialConfig();
  config.pfnCallback = nullptr;
  OpenSerial(config);
  ReceiveSerial(WellFormedMessage());
  ExpectAssertion("pHandle->Config.pfnCallback != NULL");
}

TEST_F(KlvSerialTest, RateIsFedWithTheReceivedBytesOncePerSecond) {
  OpenSerial(WithMissionID(SerialConfig()));
  const UINT64 size = WellFormedMessage().size();
  ReceiveSerial(WellFormedMessage());
  ReceiveSerial(WellFormedMessage());
  host().Advance(1000);
  ReceiveSerial(WellFormedMessage());
  EXPECT_EQ(host().rateTotals, (std::vector<UINT64>{size, 3 * size}));
}

TEST_F(KlvSerialTest, FailedReadIsLoggedAndTheDescriptorStays) {
  OpenSerial();
  host().FailNext("read", {.error = EIO});
  host().FeedSerial(m_source->iFD, WellFormedMessage());
  host().Pass();
  ExpectLog(7, "read FAILED.\n");
  EXPECT_EQ(host().Calls("nanosleep"), 1) << "a dead line must not keep the thread busy";
  EXPECT_TRUE(m_encoder.messages.empty());
  host().PassUntilIdle();
  ExpectDelivered(WellFormedMessage());
}

TEST_F(KlvSerialTest, DeviceThatHungUpIsReadWithPauses) {
  OpenSerial();
  host().HangUp(m_source->iFD);
  for (int i = 0; i < 3; ++i) host().Pass();
  EXPECT_EQ(CountLogs(7, "read FAILED.\n"), 3);
  EXPECT_EQ(host().Calls("nanosleep"), 3);
}

TEST_F(KlvSerialTest, BytesWaitWhileAnotherThreadHoldsTheMutex) {
  OpenSerial();
  host().FeedSerial(m_source->iFD, WellFormedMessage());
  g_MetaDataAPIMutex.Lock();
  const timespec before = Monotonic();
  host().Pass();
  const timespec after = Monotonic();
  EXPECT_EQ(host().Calls("read"), 0);
  EXPECT_EQ(host().Calls("pthread_mutex_clocklock"), 1) << "one wait, which ends as soon as the library is free";
  EXPECT_EQ(host().Calls("nanosleep"), 0);
  EXPECT_EQ((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000, 20);
  g_MetaDataAPIMutex.Unlock();
  host().PassUntilIdle();
  ExpectDelivered(WellFormedMessage());
}

TEST_F(KlvSerialTest, WaitForTheMutexMayCrossASecond) {
  OpenSerial();
  host().Advance(990 - Monotonic().tv_nsec / 1000000);
  host().FeedSerial(m_source->iFD, WellFormedMessage());
  g_MetaDataAPIMutex.Lock();
  const timespec before = Monotonic();
  host().Pass();
  const timespec after = Monotonic();
  EXPECT_EQ(before.tv_nsec, 990000000);
  EXPECT_EQ(after.tv_sec, before.tv_sec + 1);
  EXPECT_EQ(after.tv_nsec, 10000000);
  g_MetaDataAPIMutex.Unlock();
  host().PassUntilIdle();
  ExpectDelivered(WellFormedMessage());
}

TEST_F(KlvSerialTest, MutexIsHeldDuringTheCallback) {
  MDATA_SRC_CFG config = SerialConfig();
  static int result;
  result = 0;
  config.pfnCallback = [](MDATA_BUFFER*, void*, void*) -> BOOL {
    std::thread other([] {
      result = g_MetaDataAPIMutex.TryLock() ? 0 : EBUSY;
      if (result == 0) g_MetaDataAPIMutex.Unlock();
    });
    other.join();
    return TRUE;
  };
  OpenSerial(config);
  ReceiveSerial(WellFormedMessage());
  EXPECT_EQ(result, EBUSY);
}

TEST_F(KlvSerialTest, FullCaptureStaysClosedAndReceptionContinues) {
  MDATA_SRC_CFG config = SerialConfig();
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 1;
  OpenSerial(config);
  for (int i = 0; i < 20; ++i) ReceiveSerial(WellFormedMessage());
  EXPECT_EQ(m_source->CaptureFP, nullptr);
  EXPECT_EQ(m_encoder.messages.size(), 20u);
  EXPECT_EQ(host().ReadFile("/tmp/rawserial.txt").substr(0, 2), "06");
}

// --- A recorded flight -----------------------------------------------------------------------------------

TEST_F(KlvPathTest, RecordedFlightArrivesWholeOverUdpAndSerial) {
  const std::optional<Bytes> recording = LoadRecording(METADATA_SHARED_DATA_DIR, "recorded_flight.klv");
  if (!recording) {
    std::cout << "recorded_flight.klv is absent from " METADATA_SHARED_DATA_DIR ": nothing is tested with it\n";
    return;
  }
  const std::vector<Bytes> messages = SplitMessages(*recording);
  EXPECT_EQ(messages.size(), 407u);
  for (const char* module : {"METADATALIB", "COTCONVERTER"}) host().SetLevel(module, 5);
  OpenUdp();
  for (const Bytes& message : messages) Receive(message);
  ASSERT_EQ(m_encoder.messages.size(), messages.size());
  for (size_t i = 0; i < messages.size(); ++i)
    ASSERT_EQ(m_encoder.messages[i].bytes, Header(static_cast<BYTE>(i), messages[i].size()) + messages[i]);
  EXPECT_EQ(Stats().nTotalRxBytes, recording->size());

  m_encoder.messages.clear();
  OpenSerial();
  ReceiveSerial(*recording);
  ASSERT_EQ(m_encoder.messages.size(), messages.size());
  for (size_t i = 0; i < messages.size(); ++i)
    ASSERT_EQ(m_encoder.messages[i].bytes, Header(static_cast<BYTE>(i), messages[i].size()) + messages[i]);
  EXPECT_EQ(Stats().nRxOkMessages, messages.size());
  EXPECT_EQ(Stats().nTotalRxBytes, recording->size());
  EXPECT_EQ(Stats().nRxCorruptedMessages, 0u);
}

}  // namespace
