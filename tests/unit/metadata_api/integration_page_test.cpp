// SPDX-License-Identifier: Apache-2.0
// Tests of statements in docs/integration.md that the tests of the paths do not cover.
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

#include "builders.h"
#include "converter.h"
#include "engine_test.h"
#include "generic_klv_support.h"

namespace {

class IntegrationPageTest : public EngineTest {
 protected:
  HMDATASRC OpenIt(const MDATA_SRC_CFG& config) { return m_source = Open(config); }
  void Receive(const Bytes& bytes, const DatagramInfo& info = {}) {
    host().FeedDatagram(m_source->iFD, bytes, info);
    host().PassUntilIdle();
  }
  void ReceiveIPv6(const Bytes& bytes, DatagramInfo info) {
    info.from = "fe80::7";
    host().FeedDatagram(m_source->iFDv6, bytes, info);
    host().PassUntilIdle();
  }
  const KLV_STATS& Stats() const { return *GenericKLV_GetStatsPtr(m_source->pvDecodeCtxt); }
  std::vector<Bytes> Relayed() const { return host().FD(m_source->Relayers[0].iRelaySocket).sent; }

  static std::string LongEvent(const std::string& behind) {
    return "<event version=\"2.0\" uid=\"U\" type=\"a-f-A\" time=\"2024-01-02T03:04:05.00Z\" "
           "start=\"2024-01-02T03:04:05.00Z\"><point lat=\"1\" lon=\"2\" hae=\"3\"/>" +
           behind;
  }

  HMDATASRC m_source = nullptr;
};

// --- Datagrams above 1500 bytes --------------------------------------------------------------------------

TEST_F(IntegrationPageTest, LongKLVDatagramIsDeliveredTruncatedAndUnfiltered) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  config.bFilterUASTags = TRUE;
  strcpy(config.szMissionID, "MISSION");
  OpenIt(config);
  const Bytes message = UasMessage().Raw(Bytes{5, 0x82, 0x06, 0x00} + Bytes(0x600, 7)).Checksum().Build();
  Receive(message);
  ExpectLog(3, "UAV set of " + std::to_string(message.size()) + " bytes received but buffer is 1500 bytes.\n");
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  const Bytes& delivered = m_encoder.messages[0].bytes;
  EXPECT_EQ(Bytes(delivered.begin() + MDATA_STREAM_HEADER_SIZE, delivered.end()),
            Bytes(message.begin(), message.begin() + 1500));
}

TEST_F(IntegrationPageTest, LongCoTDatagramIsCountedRelayedTruncatedAndDropped) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  AddRelay(config);
  OpenIt(config);
  const std::string event = LongEvent(std::string(1500, ' ') + "</event>");
  Receive(Text(event));
  MDATA_SRC_STATS stats = {};
  EXPECT_TRUE(MetaData_GetSourceStats(m_source, &stats));
  EXPECT_EQ(stats.nRxOkMessages, 1u);
  EXPECT_EQ(stats.nRxBytes, 1500u);
  EXPECT_EQ(stats.nRxCorruptMessages, 0u);
  EXPECT_EQ(stats.prot.CoT.nRxAirCraftMessages, 0u);
  EXPECT_EQ(Relayed(), std::vector<Bytes>{Text(event.substr(0, 1500))});
  ExpectLog(4, "slice </event> not found\n");
}

TEST_F(IntegrationPageTest, LongCoTDatagramWhoseEventIsWholeIsConverted) {
  Start();
  OpenIt(NetworkConfig(MDATA_DATA_COT));
  Receive(Text(LongEvent("</event>" + std::string(1500, ' '))));
  MDATA_SRC_STATS stats = {};
  EXPECT_TRUE(MetaData_GetSourceStats(m_source, &stats));
  EXPECT_EQ(stats.prot.CoT.nRxAirCraftMessages, 1u);
  AllowLogs(3, "");
}

// --- TTL and TOS from IPv6 -------------------------------------------------------------------------------

TEST_F(IntegrationPageTest, HopLimitAndTrafficClassOfIPv6AreFollowedToIPv4) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_KLV, 5000, AF_INET6);
  AddRelay(config, {10, 0, 0, 1}, -1, -1);
  AddRelay(config, {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, -1, -1);
  OpenIt(config);
  ReceiveIPv6(WellFormedMessage(), {.ttl = 33, .tos = 0x48});
  EXPECT_EQ(m_source->Relayers[0].CurrentRelayTTL, 33);
  EXPECT_EQ(m_source->Relayers[0].CurrentRelayTOS, 0x48);
  EXPECT_EQ(m_source->Relayers[1].CurrentRelayTTL, -1) << "an IPv6 destination keeps its own";
  MDATA_SRC_STATS stats = {};
  EXPECT_TRUE(MetaData_GetSourceStats(m_source, &stats));
  EXPECT_EQ(stats.iSrcTTL, 33);
  EXPECT_EQ(stats.iSrcTOS, 0x48);
  bool ttl = false;
  bool tos = false;
  for (const SocketOption& option : host().FD(m_source->Relayers[0].iRelaySocket).options) {
    ttl = ttl || (option.level == IPPROTO_IP && option.option == IP_TTL && option.value[0] == 33);
    tos = tos || (option.level == IPPROTO_IP && option.option == IP_TOS && option.value[0] == 0x48);
  }
  EXPECT_TRUE(ttl);
  EXPECT_TRUE(tos);
}

// --- Out of memory --------------------------------------------------------------------------------------

TEST_F(IntegrationPageTest, MessageIsDeliveredAsReceivedIfItsRewritingRunsOutOfMemory) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  config.bFilterUASTags = TRUE;
  config.UASTagFilter[0] = 1u << 2;
  strcpy(config.szMissionID, "MISSION");
  OpenIt(config);
  host().FailNext("malloc");
  Receive(WellFormedMessage());
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  const Bytes& delivered = m_encoder.messages[0].bytes;
  EXPECT_EQ(Bytes(delivered.begin() + MDATA_STREAM_HEADER_SIZE, delivered.end()), WellFormedMessage());
  EXPECT_EQ(m_source->KLVStats.nRxUASMessages, 0u);
  EXPECT_EQ(m_source->KLVStats.nAddedMissionIDs, 0u);
}

TEST_F(IntegrationPageTest, DatagramIsRelayedAndNotCountedIfOutOfMemory) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  strcpy(config.szMissionID, "MISSION");
  AddRelay(config);
  OpenIt(config);
  host().FailNext("malloc", {.times = 2});
  Receive(WellFormedMessage());
  ExpectLogContaining(4, "No memory for KLV message of ");
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(Relayed().size(), 1u);
  EXPECT_EQ(Stats().nRxOkMessages, 0u);
  EXPECT_EQ(Stats().nTotalRxBytes, 0u);
  EXPECT_EQ(m_source->HeaderSequence, 0);
}

TEST_F(IntegrationPageTest, SerialMessageIsCountedAndDroppedIfOutOfMemory) {
  Start();
  MDATA_SRC_CFG config = SerialConfig();
  AddRelay(config);
  OpenIt(config);
  host().FailNext("malloc");
  host().FeedSerial(m_source->iFD, WellFormedMessage());
  host().PassUntilIdle();
  ExpectLogContaining(4, "No memory for KLV message of ");
  EXPECT_EQ(Stats().nRxOkMessages, 1u);
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_TRUE(Relayed().empty());
}

// --- Memory of a source ----------------------------------------------------------------------------------

TEST_F(IntegrationPageTest, EveryKLVSourceHasADecodeBufferOf128KiB) {
  StartWithCoT();
  for (const MDATA_SRC_CFG& config : {SerialConfig(), NetworkConfig(), VideoConfig()}) {
    const HMDATASRC source = Open(config);
    const auto* context = static_cast<const KLV_DECODE_CONTEXT*>(source->pvDecodeCtxt);
    ASSERT_NE(context->pDecodeBuffer, nullptr);
    EXPECT_GE(context->pDecodeBuffer->nAllocSize, 128 * 1024);
    EXPECT_LT(context->pDecodeBuffer->nAllocSize, 129 * 1024);
    Close(source);
  }
}

// --- Options ---------------------------------------------------------------------------------------------

TEST_F(IntegrationPageTest, AllItemsOptionIsReadOnlyWithCoTSupport) {
  host().SetConfig("/etc/hostos.ini", "CursorOnTarget", "AllItemsSupport", "No");
  Start();
  EXPECT_TRUE(_g_bAllItemsSupport) << "nobody asked for it";
  Stop();
  METADATALIB_Init(METADATALIB_CAPS_COT_SUPPORT | METADATALIB_CAPS_IPV4_SUPPORT);
  m_started = true;
  host().ClearLogs();
  EXPECT_FALSE(_g_bAllItemsSupport);
  _g_bAllItemsSupport = TRUE;
}

// --- A wall clock that is set back -----------------------------------------------------------------------

TEST_F(IntegrationPageTest, ClockSetBackSuppressesTheShortMessageLineForTheStep) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  strcpy(config.szMissionID, "MISSION");
  OpenIt(config);
  const char line[] = "Got less than 16 bytes of KLV.\n";
  const Bytes message(5, 1);
  Receive(message);
  ExpectLog(4, line);
  const long start = host().NowSeconds();
  host().SetWallClock(start - 3600);
  for (int i = 0; i < 3605; ++i) {
    Receive(message);
    host().Advance(1000);
  }
  EXPECT_EQ(host().NowSeconds(), start + 5);
  EXPECT_EQ(CountLogs(4, line), 1) << "held back for the hour of the step and the usual pause";
  Receive(message);
  ExpectLog(4, line);
}

TEST_F(IntegrationPageTest, ClockSetBackSuppressesTheRelayLineForTheStep) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config);
  OpenIt(config);
  const auto fail = [&] {
    host().FailNext("send", {.error = ENETUNREACH});
    Receive(WellFormedMessage());
  };
  fail();
  ExpectLogContaining(3, "Failed to relay");
  host().SetWallClock(host().NowSeconds() - 3600);
  fail();
  host().Advance(3604 * 1000);
  fail();
  EXPECT_EQ(m_source->Relayers[0].nRelayErrors, 3u) << "counted all the same";
  host().Advance(1000);
  fail();
  ExpectLogContaining(3, "Failed to relay");
}

TEST_F(IntegrationPageTest, ClockSetBackSuppressesTheInvalidMessageLineForTheStep) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  strcpy(config.szMissionID, "MISSION");
  OpenIt(config);
  const Bytes invalid = UasMessage().Item(2, Bytes(8)).Raw({5, 9, 1}).Build();
  Receive(invalid);
  ExpectLogContaining(3, "has INVALID data length=9");
  host().SetWallClock(host().NowSeconds() - 3600);
  Receive(invalid);
  host().Advance(3604 * 1000);
  Receive(invalid);
  host().Advance(1000);
  Receive(invalid);
  ExpectLogContaining(3, "has INVALID data length=9");
  EXPECT_EQ(m_source->KLVStats.nInvalidUASMessages, 4u);
}

}  // namespace
