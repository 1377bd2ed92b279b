// SPDX-License-Identifier: Apache-2.0
// Tests of the CoT paths: events over UDP and from the serial link are converted, rewritten and delivered. The
// converter's results are scripted; the converter has its own tests.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "builders.h"
#include "engine_test.h"

namespace {

// The scripted result of the converter. If it is empty, the real converter is called. The test changes it only between
// passes.
std::function<int(const Bytes& event, MDATA_BUFFER** packet)> g_convert;
int g_releasedConverted = 0;  // calls of ReleaseConvertedData

}  // namespace

// The linker sends the engine's calls here (--wrap).
extern "C" {
int __real_ConvertCoT2KLV(HCONVERTER hConv, const BYTE* pvInputData, int nInDataSize, MDATA_BUFFER** ppBuffer);
void __real_ReleaseConvertedData(MDATA_BUFFER* pBuffer);

int __wrap_ConvertCoT2KLV(HCONVERTER hConv, const BYTE* pvInputData, int nInDataSize, MDATA_BUFFER** ppBuffer) {
  if (!g_convert) return __real_ConvertCoT2KLV(hConv, pvInputData, nInDataSize, ppBuffer);
  return g_convert(Bytes(pvInputData, pvInputData + nInDataSize), ppBuffer);
}

void __wrap_ReleaseConvertedData(MDATA_BUFFER* pBuffer) {
  ++g_releasedConverted;
  __real_ReleaseConvertedData(pBuffer);
}
}

namespace {

const Bytes kEvent = Text("<event type=\"a-f-A\"/>");

class CoTPathTest : public StartedEngineTest {
 protected:
  CoTPathTest() {
    g_releasedConverted = 0;
    ConvertTo(WellFormedMessage());
  }
  ~CoTPathTest() override { g_convert = nullptr; }

  // Makes every event become this packet.
  void ConvertTo(const Bytes& packet) {
    g_convert = [packet, this](const Bytes& event, MDATA_BUFFER** buffer) {
      m_events.push_back(event);
      Bytes copy = packet;
      EXPECT_TRUE(DoAllocCopyBufferEx(copy.data(), static_cast<int>(copy.size()), MDATA_STREAM_HEADER_SIZE, buffer));
      return static_cast<int>(packet.size());
    };
  }
  // Makes every event give this result and no packet.
  void ConvertToNothing(int result) {
    g_convert = [result, this](const Bytes& event, MDATA_BUFFER**) {
      m_events.push_back(event);
      return result;
    };
  }

  HMDATASRC OpenCoT(const MDATA_SRC_CFG& config) {
    const HMDATASRC source = Open(config);
    m_source = source;
    return source;
  }
  HMDATASRC OpenCoT() { return OpenCoT(NetworkConfig(MDATA_DATA_COT)); }

  void Receive(const Bytes& event = kEvent, const DatagramInfo& info = {}) {
    host().FeedDatagram(m_source->iFD, event, info);
    host().PassUntilIdle();
  }

  // Passes an event on as the serial decoder does.
  void ReceiveSerial(Bytes event = kEvent) {
    MDATA_BUFFER* buffer = nullptr;
    ASSERT_TRUE(DoAllocCopyBufferEx(event.data(), static_cast<int>(event.size()), 5, &buffer));
    _CoT_RxCallBack(buffer, m_source);
    EXPECT_EQ(buffer->nRefCount, 1) << "the event stays the decoder's";
    EXPECT_EQ(Bytes(buffer->pcData, buffer->pcData + buffer->nDataSize), event);
    DoReleaseBuffer(&buffer);
  }

  void ExpectNothingDelivered() {
    EXPECT_TRUE(m_encoder.messages.empty());
    EXPECT_EQ(m_source->nCoTConvertedKLVMessages, 0u);
    EXPECT_EQ(m_source->nCoTConvertedKLVBytes, 0u);
    EXPECT_EQ(m_source->HeaderSequence, 0);
  }
  static Bytes Header(BYTE sequence, size_t length) {
    return {0x00, sequence, 0xDF, static_cast<BYTE>(length >> 8), static_cast<BYTE>(length)};
  }
  const COT_STATS& DecoderStats() const { return *COT_GetStatsPtr(m_source->pvDecodeCtxt); }

  HMDATASRC m_source = nullptr;
  std::vector<Bytes> m_events;
};

class CoTUdpTest : public CoTPathTest {};

class CoTSerialTest : public CoTPathTest {
 protected:
  void SetUp() override {
    CoTPathTest::SetUp();
    _g_bGridInitialized = TRUE;
  }
};

// Configures a mission identifier that makes the packet longer.
MDATA_SRC_CFG WithMissionID(MDATA_SRC_CFG config) {
  strcpy(config.szMissionID, "MISSION");
  return config;
}
Bytes RewrittenMessage() {
  const Bytes packet = WellFormedMessage();
  const Bytes body(packet.begin() + 17, packet.end() - 4);
  return UasMessage().Raw(body).Item(3, Text("MISSION")).Checksum().Build();
}

// Configures a filter that keeps no tag.
MDATA_SRC_CFG KeepingNothing(MDATA_SRC_CFG config) {
  config.bFilterUASTags = TRUE;
  return config;
}

// --- UDP -------------------------------------------------------------------------------------------------

TEST_F(CoTUdpTest, ConvertedPacketIsDelivered) {
  OpenCoT();
  Receive(kEvent, {.from = "10.1.2.3", .port = 4711});
  const Bytes packet = WellFormedMessage();
  const std::string size = std::to_string(packet.size());
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  const Delivered& message = m_encoder.messages[0];
  EXPECT_EQ(message.bytes, Header(0, packet.size()) + packet);
  EXPECT_EQ(message.param1, &m_encoder);
  EXPECT_EQ(message.param2, &m_encoder) << "the first user parameter comes twice";
  EXPECT_EQ(m_events, std::vector<Bytes>{kEvent});
  EXPECT_EQ(m_source->nCoTConvertedKLVMessages, 1u);
  EXPECT_EQ(m_source->nCoTConvertedKLVBytes, packet.size());
  EXPECT_EQ(m_source->HeaderSequence, 1);
  EXPECT_EQ(DecoderStats().nRxOkMessages, 1u);
  EXPECT_EQ(DecoderStats().nTotalRxBytes, kEvent.size());
  ExpectLog(7, "Received " + std::to_string(kEvent.size()) + " bytes from 10.1.2.3:4711.\n");
  ExpectDump(7, "UDP Data", kEvent);
  ExpectLog(7, "KLV message of " + size + " bytes generated by conversion.\n");
  ExpectLog(7, "Got complete KLV message of " + size + " bytes.\n");
  ExpectDump(7, "Streamer KLV AU", message.bytes);
}

TEST_F(CoTUdpTest, WaitingEventIsRelayedAndCountedButGivesNoCallback) {
  ConvertToNothing(0);
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  AddRelay(config);
  OpenCoT(config);
  Receive();
  ExpectNothingDelivered();
  EXPECT_EQ(DecoderStats().nRxOkMessages, 1u);
  EXPECT_EQ(DecoderStats().nTotalRxBytes, kEvent.size());
  EXPECT_EQ(host().FD(m_source->Relayers[0].iRelaySocket).sent, std::vector<Bytes>{kEvent});
  ExpectNoLog("KLV message of 0 bytes generated by conversion.\n");
}

TEST_F(CoTUdpTest, EventEndsIfTheConverterReturnsNoPacket) {
  OpenCoT();
  for (const int result : {-1, 0, 3}) {
    ConvertToNothing(result);
    Receive();
    ExpectNothingDelivered();
  }
}

TEST_F(CoTUdpTest, PacketWithAResultOfZeroIsReleased) {
  OpenCoT();
  g_convert = [](const Bytes&, MDATA_BUFFER** buffer) {
    DoAllocBuffer(8, buffer);
    return 0;
  };
  Receive();
  ExpectNothingDelivered();
  EXPECT_EQ(g_releasedConverted, 1);
}

TEST_F(CoTUdpTest, MissingRelaysAreLogged) {
  OpenCoT();
  Receive();
  ExpectLog(7, "No relays configured (0).\n");
}

TEST_F(CoTUdpTest, EventIsRelayedAsReceivedWithItsTOSAndTTL) {
  MDATA_SRC_CFG config = WithMissionID(NetworkConfig(MDATA_DATA_COT));
  AddRelay(config, {10, 0, 0, 1}, -1, -1);
  OpenCoT(config);
  Receive(kEvent, {.ttl = 33, .tos = 0x48});
  EXPECT_EQ(host().FD(m_source->Relayers[0].iRelaySocket).sent, std::vector<Bytes>{kEvent});
  EXPECT_EQ(m_source->Relayers[0].CurrentRelayTTL, 33);
  EXPECT_EQ(m_source->Relayers[0].CurrentRelayTOS, 0x48);
  ExpectNoLog("No relays configured (1).\n");
}

TEST_F(CoTUdpTest, RewrittenLengthIsCountedAndInTheHeader) {
  OpenCoT(WithMissionID(NetworkConfig(MDATA_DATA_COT)));
  Receive();
  const Bytes rewritten = RewrittenMessage();
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, rewritten.size()) + rewritten);
  EXPECT_EQ(m_source->nCoTConvertedKLVBytes, rewritten.size());
  EXPECT_EQ(host().rateTotals, std::vector<UINT64>{rewritten.size()});
  ExpectDump(6, "Substituted HD-SDI KLV Message", rewritten);
  ExpectLog(7, "Got complete KLV message of " + std::to_string(rewritten.size()) + " bytes.\n");
}

TEST_F(CoTUdpTest, PacketThatCannotBeRewrittenIsDeliveredUnchanged) {
  const Bytes odd(40, 0x11);
  ConvertTo(odd);
  OpenCoT(WithMissionID(NetworkConfig(MDATA_DATA_COT)));
  Receive();
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, 40) + odd);
}

TEST_F(CoTUdpTest, FilterThatLeavesNothingDropsTheEvent) {
  OpenCoT(KeepingNothing(NetworkConfig(MDATA_DATA_COT)));
  Receive();
  ExpectAssertion("pSubstBuff != NULL");
  ExpectNothingDelivered();
}

TEST_F(CoTUdpTest, SequenceAdvancesWhateverTheCallbackReturns) {
  OpenCoT();
  m_encoder.answer = FALSE;
  for (int i = 0; i < 3; ++i) Receive();
  ASSERT_EQ(m_encoder.messages.size(), 3u);
  EXPECT_EQ(m_encoder.messages[2].bytes[1], 2);
  EXPECT_EQ(m_source->nCoTConvertedKLVMessages, 3u);
}

TEST_F(CoTUdpTest, RateIsFedWithTheConvertedBytesOncePerSecond) {
  OpenCoT();
  const UINT64 size = WellFormedMessage().size();
  Receive();
  Receive();
  host().Advance(1000);
  Receive();
  EXPECT_EQ(host().rateTotals, (std::vector<UINT64>{size, 3 * size}));
}

TEST_F(CoTUdpTest, OtherSendersAreRejectedUncounted) {
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  const BYTE address[] = {10, 0, 0, 5};
  memcpy(config.in.Network.acSrcAddress, address, 4);
  AddRelay(config);
  OpenCoT(config);
  Receive(kEvent, {.from = "10.0.0.6", .port = 99});
  ExpectLog(7, "Rejecting " + std::to_string(kEvent.size()) + " bytes from 10.0.0.6:99.\n");
  EXPECT_TRUE(m_events.empty());
  EXPECT_EQ(DecoderStats().nTotalRxBytes, 0u);
  EXPECT_TRUE(host().FD(m_source->Relayers[0].iRelaySocket).sent.empty());
}

TEST_F(CoTUdpTest, ReceiveErrorsAreLoggedAndNothingIsCounted) {
  OpenCoT();
  host().FailNext("recvmsg", {.error = ENETDOWN});
  Receive();
  ExpectLog(3, "recvmsg returned -1, errno=100, \"Network is down\".\n");
  ExpectLog(5, "recvfrom failed, rc=-1, errno=100, \"Network is down\".\n");
  host().FailNext("recvmsg", {.error = EAGAIN, .result = 0});
  Receive();
  ExpectLogContaining(3, "recvmsg returned 0, ");
  ExpectLog(5, "recvfrom returned 0.\n");
  EXPECT_EQ(m_events.size(), 2u) << "the datagrams themselves came later";
  EXPECT_EQ(DecoderStats().nRxOkMessages, 2u);
}

TEST_F(CoTUdpTest, MissingCallbackAsserts) {
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  config.pfnCallback = nullptr;
  OpenCoT(config);
  Receive();
  ExpectAssertion("hSource->Config.pfnCallback != NULL");
}

TEST_F(CoTUdpTest, PacketsOf16000BytesDoNotAssert) {
  ConvertTo(Bytes(16000, 1));
  OpenCoT();
  Receive();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

TEST_F(CoTUdpTest, ReferenceIsDroppedByDoReleaseBuffer) {
  OpenCoT();
  Receive();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(g_releasedConverted, 0);
}

TEST_F(CoTUdpTest, GridIsNotRequired) {
  EXPECT_FALSE(_g_bGridInitialized);
  OpenCoT();
  Receive();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

// --- Serial ----------------------------------------------------------------------------------------------

TEST_F(CoTSerialTest, ConvertedPacketIsDelivered) {
  OpenCoT();
  ReceiveSerial();
  const Bytes packet = WellFormedMessage();
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, packet.size()) + packet);
  EXPECT_EQ(m_encoder.messages[0].param2, &m_encoder);
  EXPECT_EQ(m_source->nCoTConvertedKLVMessages, 1u);
  EXPECT_EQ(m_source->nCoTConvertedKLVBytes, packet.size());
  EXPECT_EQ(m_source->HeaderSequence, 1);
  EXPECT_EQ(host().rateTotals, std::vector<UINT64>{packet.size()});
  ExpectDump(6, "Converted Streamer KLV Message", packet);
  ExpectNoLog("KLV message of " + std::to_string(packet.size()) + " bytes generated by conversion.\n");
  EXPECT_EQ(DecoderStats().nRxOkMessages, 0u) << "the decoder counts for itself";
}

TEST_F(CoTSerialTest, EventsAreIgnoredSilentlyWithoutTheGrid) {
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  AddRelay(config);
  OpenCoT(config);
  _g_bGridInitialized = FALSE;
  const size_t lines = host().Logs().size();
  ReceiveSerial();
  ExpectNothingDelivered();
  EXPECT_TRUE(m_events.empty());
  EXPECT_TRUE(host().FD(m_source->Relayers[0].iRelaySocket).sent.empty());
  for (size_t i = lines; i < host().Logs().size(); ++i) EXPECT_EQ(host().Logs()[i].file, "utils");
}

TEST_F(CoTSerialTest, EventIsRelayedAsReceivedWithoutTOSAndTTL) {
  MDATA_SRC_CFG config = WithMissionID(NetworkConfig(MDATA_DATA_COT));
  AddRelay(config, {10, 0, 0, 1}, -1, -1);
  OpenCoT(config);
  ReceiveSerial();
  EXPECT_EQ(host().FD(m_source->Relayers[0].iRelaySocket).sent, std::vector<Bytes>{kEvent});
  EXPECT_EQ(m_source->SourceTTL, -1);
  EXPECT_EQ(m_source->SourceTOS, -1);
}

TEST_F(CoTSerialTest, WaitingEventGivesNoCallback) {
  OpenCoT();
  for (const int result : {-1, 0, 3}) {
    ConvertToNothing(result);
    ReceiveSerial();
    ExpectNothingDelivered();
  }
  EXPECT_EQ(m_events.size(), 3u);
}

TEST_F(CoTSerialTest, RewrittenLengthIsCountedAndInTheHeader) {
  OpenCoT(WithMissionID(NetworkConfig(MDATA_DATA_COT)));
  ReceiveSerial();
  const Bytes rewritten = RewrittenMessage();
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_encoder.messages[0].bytes, Header(0, rewritten.size()) + rewritten);
  EXPECT_EQ(m_source->nCoTConvertedKLVBytes, rewritten.size());
  ExpectDump(6, "Substituted HD-SDI KLV Message", rewritten);
  ExpectDump(6, "Converted Streamer KLV Message", rewritten);
}

TEST_F(CoTSerialTest, FilterThatLeavesNothingDropsTheEvent) {
  OpenCoT(KeepingNothing(NetworkConfig(MDATA_DATA_COT)));
  ReceiveSerial();
  ExpectAssertion("pSubstBuff != NULL");
  ExpectNothingDelivered();
}

TEST_F(CoTSerialTest, PacketOf16000BytesAsserts) {
  OpenCoT();
  ConvertTo(Bytes(15999, 1));
  ReceiveSerial();
  ConvertTo(Bytes(16000, 1));
  ReceiveSerial();
  ExpectAssertion("nConvertedLength < 16000");
  EXPECT_EQ(m_encoder.messages.size(), 2u) << "and is delivered all the same";
}

TEST_F(CoTSerialTest, MissingConverterAsserts) {
  OpenCoT();
  HCONVERTER converter = m_source->hConverter;
  m_source->hConverter = nullptr;
  ReceiveSerial();
  ExpectAssertion("pHandle->hConverter != NULL");
  ExpectNothingDelivered();
  m_source->hConverter = converter;
}

TEST_F(CoTSerialTest, MissingCallbackAsserts) {
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  config.pfnCallback = nullptr;
  OpenCoT(config);
  ReceiveSerial();
  ExpectAssertion("pHandle->Config.pfnCallback != NULL");
}

TEST_F(CoTSerialTest, ReferenceIsDroppedByReleaseConvertedData) {
  OpenCoT();
  ReceiveSerial();
  EXPECT_EQ(g_releasedConverted, 1);
}

// A close is given up while an event is converted: the steps before stay done, and the encoder gets nothing.
TEST_F(CoTUdpTest, CallbackIsSkippedIfTheCloseIsGivenUpDuringTheConversion) {
  OpenCoT();
  const auto convert = g_convert;
  g_convert = [this, convert](const Bytes& event, MDATA_BUFFER** packet) {
    __atomic_store_n(&m_source->nRemoveRequest, REQUEST_ABANDONED, __ATOMIC_RELEASE);
    return convert(event, packet);
  };
  Receive();
  EXPECT_EQ(m_events.size(), 1u);
  EXPECT_TRUE(m_encoder.messages.empty());
  Receive();
  EXPECT_EQ(m_events.size(), 1u) << "the next event is not even converted";
}

TEST_F(CoTSerialTest, EventOfASourceWhoseCloseWasGivenUpIsNeitherRelayedNorConverted) {
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  AddRelay(config);
  OpenCoT(config);
  ReceiveSerial();
  ASSERT_EQ(m_encoder.messages.size(), 1u);
  __atomic_store_n(&m_source->nRemoveRequest, REQUEST_ABANDONED, __ATOMIC_RELEASE);
  ReceiveSerial();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
  EXPECT_EQ(m_events.size(), 1u);
  EXPECT_EQ(host().FD(m_source->Relayers[0].iRelaySocket).sent.size(), 1u);
}

}  // namespace
