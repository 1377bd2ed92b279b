// SPDX-License-Identifier: Apache-2.0
// Tests of the statistics calls: the fields that they read, reset and restore, and those that they leave unchanged.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "builders.h"
#include "engine_test.h"

namespace {

// The value of every byte that no call has filled.
constexpr BYTE kUntouched = 0xEE;

class StatsTest : public StartedEngineTest {
 protected:
  StatsTest() { memset(&m_stats, kUntouched, sizeof(m_stats)); }

  HMDATASRC OpenSource(const MDATA_SRC_CFG& config) { return m_source = Open(config); }
  void Get() { EXPECT_TRUE(MetaData_GetSourceStats(m_source, &m_stats)); }
  // A detected TTL or TOS as the statistics show it.
  struct Detected {
    int value;
    UINT32 updates;
    UINT32 lastUpdate;
  };
  void ExpectDetected(const Detected& ttl, const Detected& tos) const {
    EXPECT_EQ(m_stats.iSrcTTL, ttl.value);
    EXPECT_EQ(m_stats.nTTLUpdates, ttl.updates);
    EXPECT_EQ(m_stats.nLastTTLUpdateUpTimeInSecs, ttl.lastUpdate);
    EXPECT_EQ(m_stats.iSrcTOS, tos.value);
    EXPECT_EQ(m_stats.nTOSUpdates, tos.updates);
    EXPECT_EQ(m_stats.nLastTOSUpdateUpTimeInSecs, tos.lastUpdate);
  }
  template <typename T>
  static bool IsUntouched(const T& field) {
    const auto* bytes = reinterpret_cast<const BYTE*>(&field);
    return std::all_of(bytes, bytes + sizeof(field), [](BYTE byte) { return byte == kUntouched; });
  }
  // Returns a record with the counters 1, 2, 3 and so on in every field that the calls use.
  static MDATA_SRC_STATS Numbered() {
    MDATA_SRC_STATS stats = {};
    stats.nRxBytes = 101;
    stats.nRxOkMessages = 102;
    stats.nRxCorruptMessages = 103;
    stats.in.Network.iSourceAddressFamily = AF_INET6;
    for (BYTE i = 0; i < 16; ++i) stats.in.Network.SourceAddress[i] = static_cast<BYTE>(i + 1);
    stats.prot.KLV = {11, 12, 13, 14, 15, 16};
    stats.iSrcTTL = 21;
    stats.nTTLUpdates = 22;
    stats.nLastTTLUpdateUpTimeInSecs = 23;
    stats.iSrcTOS = 24;
    stats.nTOSUpdates = 25;
    stats.nLastTOSUpdateUpTimeInSecs = 26;
    for (int i = 0; i < MDATA_MAX_RELAYS; ++i) {
      const auto n = 100 * (static_cast<ULONG>(i) + 1);
      stats.Relays[i] = {n + 1, n + 2, n + 3, static_cast<int>(n) + 4, static_cast<int>(n) + 5};
    }
    stats.nBitRateInKbps = 99;
    return stats;
  }
  static MDATA_SRC_CFG Following(MDATA_SRC_CFG config) {
    AddRelay(config, {10, 0, 0, 1}, -1, -1);
    return config;
  }
  static MDATA_SRC_CFG WithMissionID(MDATA_SRC_CFG config) {
    strcpy(config.szMissionID, "M");
    return config;
  }
  static bool SameRelay(const MDATA_RELAY_STATS& left, const MDATA_RELAY_STATS& right) {
    return memcmp(&left, &right, sizeof(left)) == 0;
  }

  HMDATASRC m_source = nullptr;
  MDATA_SRC_STATS m_stats = {};
};

class GetStatsTest : public StatsTest {};
class ResetStatsTest : public StatsTest {};
class SetStatsTest : public StatsTest {};

// --- Get -------------------------------------------------------------------------------------------------

TEST_F(GetStatsTest, DecoderCountersAreRead) {
  OpenSource(NetworkConfig());
  KLV_STATS* counters = GenericKLV_GetStatsPtr(m_source->pvDecodeCtxt);
  counters->nTotalRxBytes = 1000;
  counters->nRxOkMessages = 20;
  counters->nRxCorruptedMessages = 3;
  Get();
  EXPECT_EQ(m_stats.nRxBytes, 1000u);
  EXPECT_EQ(m_stats.nRxOkMessages, 20u);
  EXPECT_EQ(m_stats.nRxCorruptMessages, 3u);
}

TEST_F(GetStatsTest, CoTDecoderCountersAreRead) {
  OpenSource(NetworkConfig(MDATA_DATA_COT));
  COT_STATS* counters = COT_GetStatsPtr(m_source->pvDecodeCtxt);
  counters->nTotalRxBytes = 1000;
  counters->nRxOkMessages = 20;
  counters->nRxCorruptedMessages = 3;
  m_source->nCoTConvertedKLVMessages = 7;
  m_source->nCoTConvertedKLVBytes = 700;
  MDATA_COT_STATS converter = {};
  converter.nRxSPIMessages = 4;
  converter.nRxAirCraftMessages = 5;
  converter.nFilteredRxSPIMessages = 6;
  SetCoT2KLVConvertStats(m_source->hConverter, &converter);
  Get();
  EXPECT_EQ(m_stats.nRxBytes, 1000u);
  EXPECT_EQ(m_stats.nRxOkMessages, 20u);
  EXPECT_EQ(m_stats.nRxCorruptMessages, 3u);
  EXPECT_EQ(m_stats.prot.CoT.nConvertedKLVMessages, 7u);
  EXPECT_EQ(m_stats.prot.CoT.nConvertedKLVBytes, 700u);
  EXPECT_EQ(m_stats.prot.CoT.nRxSPIMessages, 4u);
  EXPECT_EQ(m_stats.prot.CoT.nRxAirCraftMessages, 5u);
  EXPECT_EQ(m_stats.prot.CoT.nFilteredRxSPIMessages, 6u);
  EXPECT_EQ(m_stats.prot.CoT.nDiscoveredSensorsCount, 0);
}

TEST_F(GetStatsTest, LocalSetCountersAreNotFilledWithoutInserts) {
  MDATA_SRC_CFG config = NetworkConfig();
  config.bFilterUASTags = TRUE;
  OpenSource(config);
  m_source->KLVStats.nRxUASMessages = 5;
  Get();
  EXPECT_TRUE(IsUntouched(m_stats.prot));
}

TEST_F(GetStatsTest, MissionIdentifierOrClassificationShowsTheLocalSetCounters) {
  MDATA_SRC_CFG classified = NetworkConfig(MDATA_DATA_KLV, 5001);
  classified.bClassifyMission = TRUE;
  strcpy(classified.szClassifyingCountry, "USA");
  for (const MDATA_SRC_CFG& config : {WithMissionID(NetworkConfig()), classified}) {
    OpenSource(config);
    m_source->KLVStats = {1, 2, 3, 4, 5, 6};
    memset(&m_stats, kUntouched, sizeof(m_stats));
    Get();
    EXPECT_EQ(memcmp(&m_stats.prot.KLV, &m_source->KLVStats, sizeof(MDATA_KLV_STATS)), 0);
  }
}

TEST_F(GetStatsTest, NothingIsClearedFirst) {
  OpenSource(SerialConfig());
  Get();
  EXPECT_TRUE(IsUntouched(m_stats.nSize));
  EXPECT_TRUE(IsUntouched(m_stats.in));
  EXPECT_TRUE(IsUntouched(m_stats.prot));
  EXPECT_TRUE(IsUntouched(m_stats.Relays));
  EXPECT_EQ(m_stats.nRxBytes, 0u);
}

TEST_F(GetStatsTest, SizeOfTheRecordIsNotChecked) {
  OpenSource(NetworkConfig());
  m_stats.nSize = 3;
  Get();
  EXPECT_EQ(m_stats.nSize, 3);
}

TEST_F(GetStatsTest, LastUpdatesAreNotFilledWithoutDetection) {
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config, {10, 0, 0, 1}, 5, 5);
  OpenSource(config);
  m_source->nSourceTTLUpdates = m_source->nSourceTOSUpdates = 9;
  m_source->SourceTTL = m_source->SourceTOS = 9;
  Get();
  EXPECT_EQ(m_stats.iSrcTTL, -1);
  EXPECT_EQ(m_stats.nTTLUpdates, 0u);
  EXPECT_TRUE(IsUntouched(m_stats.nLastTTLUpdateUpTimeInSecs));
  EXPECT_EQ(m_stats.iSrcTOS, -1);
  EXPECT_EQ(m_stats.nTOSUpdates, 0u);
  EXPECT_TRUE(IsUntouched(m_stats.nLastTOSUpdateUpTimeInSecs));
}

TEST_F(GetStatsTest, DetectedValuesAreReadWithTheirTimes) {
  OpenSource(Following(NetworkConfig()));
  Get();
  EXPECT_EQ(m_stats.iSrcTTL, -1) << "nothing arrived yet";
  EXPECT_EQ(m_stats.nLastTTLUpdateUpTimeInSecs, 0u);
  host().Advance(3000);
  host().FeedDatagram(m_source->iFD, {1}, {.ttl = 64, .tos = 8});
  host().PassUntilIdle();
  host().Advance(4000);
  host().FeedDatagram(m_source->iFD, {1}, {.ttl = 63, .tos = 8});
  host().PassUntilIdle();
  Get();
  ExpectDetected({63, 2, 1007}, {8, 1, 1003});
}

TEST_F(GetStatsTest, LastSenderIsReadByItsFamily) {
  OpenSource(NetworkConfig());
  for (BYTE i = 0; i < 16; ++i) m_source->acSourceAddress[i] = static_cast<BYTE>(i + 1);
  m_source->iSourceAddressFamily = AF_INET;
  Get();
  EXPECT_EQ(m_stats.in.Network.iSourceAddressFamily, AF_INET);
  EXPECT_EQ(memcmp(m_stats.in.Network.SourceAddress, m_source->acSourceAddress, 4), 0);
  for (int i = 4; i < 16; ++i) EXPECT_EQ(m_stats.in.Network.SourceAddress[i], kUntouched);
  m_source->iSourceAddressFamily = AF_INET6;
  Get();
  EXPECT_EQ(m_stats.in.Network.iSourceAddressFamily, AF_INET6);
  EXPECT_EQ(memcmp(m_stats.in.Network.SourceAddress, m_source->acSourceAddress, 16), 0);
}

TEST_F(GetStatsTest, UnknownSenderFamilyGivesNoSender) {
  OpenSource(NetworkConfig());
  memset(m_source->acSourceAddress, 7, 16);
  for (const int family : {0, AF_UNIX, -1}) {
    memset(&m_stats, kUntouched, sizeof(m_stats));
    m_source->iSourceAddressFamily = family;
    Get();
    EXPECT_EQ(m_stats.in.Network.iSourceAddressFamily, 0);
    EXPECT_EQ(Bytes(m_stats.in.Network.SourceAddress, m_stats.in.Network.SourceAddress + 16), Bytes(16));
  }
}

TEST_F(GetStatsTest, OnlyConfiguredRelaysAreRead) {
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config);
  AddRelay(config);
  OpenSource(config);
  host().FailNext("send", {.error = ECONNREFUSED});
  host().FeedDatagram(m_source->iFD, Bytes(10));
  host().PassUntilIdle();
  Get();
  EXPECT_EQ(m_stats.Relays[0].nRelayErrors, 1u);
  EXPECT_EQ(m_stats.Relays[0].nRelayedMessages, 0u);
  EXPECT_EQ(m_stats.Relays[0].iLastRelayError, ECONNREFUSED);
  EXPECT_EQ(m_stats.Relays[0].iLastRelayErrorTime, host().NowSeconds());
  EXPECT_EQ(m_stats.Relays[1].nRelayedMessages, 1u);
  EXPECT_EQ(m_stats.Relays[1].nRelayedBytes, 10u);
  for (int i = 2; i < MDATA_MAX_RELAYS; ++i) EXPECT_TRUE(IsUntouched(m_stats.Relays[i]));
}

TEST_F(GetStatsTest, BitRateIsZeroIfItCannotBeRead) {
  OpenSource(NetworkConfig());
  host().rate = 1234;
  Get();
  EXPECT_EQ(m_stats.nBitRateInKbps, 1234u);
  host().FailNext("__AllocCounterRateTable");
  OpenSource(NetworkConfig(MDATA_DATA_KLV, 5001));
  Get();
  EXPECT_EQ(m_stats.nBitRateInKbps, 0u);
  Close(m_source);
  ExpectAssertion("pHandle->hOutputRate != NULL");
}

// --- Reset -----------------------------------------------------------------------------------------------

TEST_F(ResetStatsTest, EveryCounterIsZeroed) {
  OpenSource(WithMissionID(Following(NetworkConfig())));
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
  Get();
  EXPECT_EQ(m_stats.nRxBytes, 0u);
  EXPECT_EQ(m_stats.nRxOkMessages, 0u);
  EXPECT_EQ(m_stats.nRxCorruptMessages, 0u);
  const MDATA_KLV_STATS zero = {};
  EXPECT_EQ(memcmp(&m_stats.prot.KLV, &zero, sizeof(zero)), 0);
  EXPECT_EQ(m_source->nCoTConvertedKLVMessages, 0u);
  EXPECT_EQ(m_source->nCoTConvertedKLVBytes, 0u);
  EXPECT_EQ(host().rateResets, 1);
}

TEST_F(ResetStatsTest, DetectedValuesAndTheirTimesStay) {
  OpenSource(Following(NetworkConfig()));
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
  Get();
  ExpectDetected({21, 0, 23}, {24, 0, 26});
}

TEST_F(ResetStatsTest, AllEightRelayersAreZeroed) {
  OpenSource(Following(NetworkConfig()));
  for (RELAYER& relayer : m_source->Relayers) {
    relayer.nRelayedBytes = relayer.nRelayedMessages = relayer.nRelayErrors = 9;
    relayer.iLastRelayError = relayer.iLastRelayErrorTime = 9;
    relayer.CurrentRelayTTL = 9;
    relayer.tLastRelayErrLogTime = 9;
  }
  const int socket = m_source->Relayers[0].iRelaySocket;
  EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
  for (const RELAYER& relayer : m_source->Relayers) {
    EXPECT_EQ(relayer.nRelayedBytes + relayer.nRelayedMessages + relayer.nRelayErrors, 0u);
    EXPECT_EQ(relayer.iLastRelayError, 0);
    EXPECT_EQ(relayer.iLastRelayErrorTime, 0);
    EXPECT_EQ(relayer.CurrentRelayTTL, 9);
    EXPECT_EQ(relayer.tLastRelayErrLogTime, 9);
  }
  EXPECT_EQ(m_source->Relayers[0].iRelaySocket, socket);
}

TEST_F(ResetStatsTest, KLVCountersAreResetASecondTime) {
  OpenSource(NetworkConfig());
  static int calls;
  calls = 0;
  m_source->pfnResetStatsHandler = [](void*) { ++calls; };
  GenericKLV_GetStatsPtr(m_source->pvDecodeCtxt)->nRxOkMessages = 5;
  EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(GenericKLV_GetStatsPtr(m_source->pvDecodeCtxt)->nRxOkMessages, 0u);
}

TEST_F(ResetStatsTest, CoTSourceResetsItsConverter) {
  OpenSource(NetworkConfig(MDATA_DATA_COT));
  MDATA_COT_STATS converter = {};
  converter.nRxSPIMessages = converter.nRxAirCraftMessages = converter.nFilteredRxSPIMessages = 4;
  SetCoT2KLVConvertStats(m_source->hConverter, &converter);
  COT_GetStatsPtr(m_source->pvDecodeCtxt)->nRxOkMessages = 5;
  m_source->nCoTConvertedKLVMessages = m_source->nCoTConvertedKLVBytes = 6;
  EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
  Get();
  EXPECT_EQ(m_stats.nRxOkMessages, 0u);
  EXPECT_EQ(m_stats.prot.CoT.nRxSPIMessages, 0u);
  EXPECT_EQ(m_stats.prot.CoT.nRxAirCraftMessages, 0u);
  EXPECT_EQ(m_stats.prot.CoT.nFilteredRxSPIMessages, 0u);
  EXPECT_EQ(m_stats.prot.CoT.nConvertedKLVMessages, 0u);
  EXPECT_EQ(m_stats.prot.CoT.nConvertedKLVBytes, 0u);
}

// --- Set -------------------------------------------------------------------------------------------------

TEST_F(SetStatsTest, GivenValuesAreReadBack) {
  MDATA_SRC_CFG config = WithMissionID(Following(NetworkConfig()));
  AddRelay(config);
  OpenSource(config);
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  Get();
  EXPECT_EQ(m_stats.nRxBytes, 101u);
  EXPECT_EQ(m_stats.nRxOkMessages, 102u);
  EXPECT_EQ(m_stats.nRxCorruptMessages, 103u);
  EXPECT_EQ(memcmp(&m_stats.prot.KLV, &numbered.prot.KLV, sizeof(MDATA_KLV_STATS)), 0);
  ExpectDetected({21, 22, 23}, {24, 25, 26});
}

TEST_F(SetStatsTest, OnlyConfiguredRelaysGetCounters) {
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config);
  AddRelay(config);
  OpenSource(config);
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  Get();
  EXPECT_TRUE(SameRelay(m_stats.Relays[0], numbered.Relays[0]));
  EXPECT_TRUE(SameRelay(m_stats.Relays[1], numbered.Relays[1]));
  EXPECT_TRUE(IsUntouched(m_stats.Relays[2]));
  for (int i = 2; i < MDATA_MAX_RELAYS; ++i) EXPECT_EQ(m_source->Relayers[i].nRelayedBytes, 0u);
}

TEST_F(SetStatsTest, SendersFamilyIsNotRestored) {
  OpenSource(NetworkConfig());
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  EXPECT_EQ(m_source->iSourceAddressFamily, 0);
  EXPECT_EQ(memcmp(m_source->acSourceAddress, numbered.in.Network.SourceAddress, 16), 0);
  Get();
  EXPECT_EQ(m_stats.in.Network.iSourceAddressFamily, 0);
}

TEST_F(SetStatsTest, SerialSourceHasNoSender) {
  OpenSource(SerialConfig());
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  EXPECT_EQ(Bytes(m_source->acSourceAddress, m_source->acSourceAddress + 16), Bytes(16));
}

TEST_F(SetStatsTest, ConvertedCountersComeFromTheCoTPlacesForEveryDataType) {
  OpenSource(WithMissionID(NetworkConfig()));
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  EXPECT_EQ(m_source->nCoTConvertedKLVMessages, numbered.prot.KLV.nUpdatedMissionIDs);
  EXPECT_EQ(m_source->nCoTConvertedKLVBytes, numbered.prot.KLV.nAddedSecuritySets);
}

TEST_F(SetStatsTest, ConverterGetsThreeCountersOnly) {
  OpenSource(NetworkConfig(MDATA_DATA_COT));
  MDATA_SRC_STATS stats = {};
  stats.prot.CoT.nRxSPIMessages = 1;
  stats.prot.CoT.nRxAirCraftMessages = 2;
  stats.prot.CoT.nFilteredRxSPIMessages = 3;
  stats.prot.CoT.nConvertedKLVMessages = 4;
  stats.prot.CoT.nConvertedKLVBytes = 5;
  stats.prot.CoT.nDiscoveredSensorsCount = 1;
  strcpy(stats.prot.CoT.aszSensorUIDs[0], "SENSOR-1");
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &stats));
  Get();
  EXPECT_EQ(m_stats.prot.CoT.nRxSPIMessages, 1u);
  EXPECT_EQ(m_stats.prot.CoT.nRxAirCraftMessages, 2u);
  EXPECT_EQ(m_stats.prot.CoT.nFilteredRxSPIMessages, 3u);
  EXPECT_EQ(m_stats.prot.CoT.nConvertedKLVMessages, 4u);
  EXPECT_EQ(m_stats.prot.CoT.nConvertedKLVBytes, 5u);
  EXPECT_EQ(m_stats.prot.CoT.nDiscoveredSensorsCount, 0) << "sensors are seen, not restored";
}

TEST_F(SetStatsTest, RateCounterContinues) {
  OpenSource(NetworkConfig());
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  EXPECT_EQ(host().rateResets, 0);
  EXPECT_TRUE(host().rateTotals.empty());
  host().rate = 5;
  Get();
  EXPECT_EQ(m_stats.nBitRateInKbps, 5u);
}

// --- All three -------------------------------------------------------------------------------------------

TEST_F(StatsTest, CoTSourceWithoutSupportAssertsAndDoesNothing) {
  OpenSource(SerialConfig(MDATA_DATA_COT));
  ExpectAssertion("0");
  MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  ExpectAssertion("pHandle->pfnSetStatsHandler != NULL");
  EXPECT_EQ(m_source->SourceTTL, -1);
  m_source->nSourceTTLUpdates = 5;
  EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
  ExpectAssertion("pHandle->pfnResetStatsHandler != NULL");
  EXPECT_EQ(m_source->nSourceTTLUpdates, 5u);
  EXPECT_TRUE(MetaData_GetSourceStats(m_source, &m_stats));
  EXPECT_TRUE(IsUntouched(m_stats));
  host().ClearLogs();
}

// A source whose decode context could not be allocated: the calls report it and do everything that needs no context.
class NoContextTest : public StatsTest {
 protected:
  void OpenWithoutContext(const MDATA_SRC_CFG& config) {
    host().FailNext("calloc", {.skip = 1});  // the source record comes first
    OpenSource(config);
    if (config.enDataType == MDATA_DATA_COT)
      ExpectAssertion("AllocCotDecodeContext(&pHandle->pvDecodeCtxt, _CoT_RxCallBack, pHandle)");
    else
      ExpectAssertion("AllocKlvDecodeContext(&pHandle->pvDecodeCtxt, _KLV_RxCallBack, pHandle)");
    ASSERT_EQ(m_source->pvDecodeCtxt, nullptr);
  }
  void TearDown() override {
    const bool klv = m_source->Config.enDataType == MDATA_DATA_KLV;
    Close(m_source);
    if (klv) {
      ExpectAssertion("*ppvContext != NULL");
      ExpectAssertion("FreeKlvDecodeContext(&pHandle->pvDecodeCtxt)");
    }
    StatsTest::TearDown();
  }
  void Get() {
    StatsTest::Get();
    ExpectAssertion("pHandle->pvDecodeCtxt != NULL");
  }
  void Set(const MDATA_SRC_STATS& stats) {
    EXPECT_TRUE(MetaData_SetSourceStats(m_source, &stats));
    ExpectAssertion("pHandle->pfnSetStatsHandler != NULL");
  }
  void ResetStats() {
    EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
    ExpectAssertion("pHandle->pfnResetStatsHandler != NULL");
  }
  void ExpectNoDecoderCounters() {
    EXPECT_TRUE(IsUntouched(m_stats.nRxBytes));
    EXPECT_TRUE(IsUntouched(m_stats.nRxOkMessages));
    EXPECT_TRUE(IsUntouched(m_stats.nRxCorruptMessages));
  }
};

TEST_F(NoContextTest, StatisticsOfAKLVSourceAreReadWithoutItsDecoder) {
  OpenWithoutContext(WithMissionID(Following(NetworkConfig())));
  host().rate = 77;
  host().FeedDatagram(m_source->iFD, Bytes(40), {.from = "10.1.2.3", .ttl = 33, .tos = 0x48});
  host().PassUntilIdle();
  m_source->KLVStats = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(m_encoder.messages.size(), 1u) << "a datagram needs no decoder";
  Get();
  ExpectNoDecoderCounters();
  EXPECT_EQ(memcmp(&m_stats.prot.KLV, &m_source->KLVStats, sizeof(MDATA_KLV_STATS)), 0);
  EXPECT_EQ(m_stats.in.Network.iSourceAddressFamily, AF_INET);
  EXPECT_EQ(Bytes(m_stats.in.Network.SourceAddress, m_stats.in.Network.SourceAddress + 4), (Bytes{10, 1, 2, 3}));
  EXPECT_EQ(m_stats.Relays[0].nRelayedMessages, 1u);
  EXPECT_EQ(m_stats.Relays[0].nRelayedBytes, 40u);
  EXPECT_EQ(m_stats.iSrcTTL, 33);
  EXPECT_EQ(m_stats.nTTLUpdates, 1u);
  EXPECT_EQ(m_stats.iSrcTOS, 0x48);
  EXPECT_EQ(m_stats.nBitRateInKbps, 77u);
}

TEST_F(NoContextTest, StatisticsOfACoTSourceAreReadWithoutItsDecoder) {
  OpenWithoutContext(NetworkConfig(MDATA_DATA_COT));
  ASSERT_NE(m_source->hConverter, nullptr);
  m_source->nCoTConvertedKLVMessages = 7;
  m_source->nCoTConvertedKLVBytes = 700;
  MDATA_COT_STATS converter = {};
  converter.nRxSPIMessages = 4;
  SetCoT2KLVConvertStats(m_source->hConverter, &converter);
  Get();
  ExpectNoDecoderCounters();
  EXPECT_EQ(m_stats.prot.CoT.nConvertedKLVMessages, 7u);
  EXPECT_EQ(m_stats.prot.CoT.nConvertedKLVBytes, 700u);
  EXPECT_EQ(m_stats.prot.CoT.nRxSPIMessages, 4u);
  EXPECT_EQ(m_stats.iSrcTTL, -1);
  EXPECT_EQ(m_stats.nBitRateInKbps, 0u);
}

TEST_F(NoContextTest, EverythingButTheDecodersCountersIsSetAndReadBack) {
  OpenWithoutContext(WithMissionID(Following(NetworkConfig())));
  const MDATA_SRC_STATS numbered = Numbered();
  Set(numbered);
  EXPECT_EQ(memcmp(m_source->acSourceAddress, numbered.in.Network.SourceAddress, 16), 0);
  EXPECT_EQ(m_source->nCoTConvertedKLVBytes, numbered.prot.CoT.nConvertedKLVBytes);
  Get();
  ExpectNoDecoderCounters();
  EXPECT_EQ(memcmp(&m_stats.prot.KLV, &numbered.prot.KLV, sizeof(MDATA_KLV_STATS)), 0);
  EXPECT_TRUE(SameRelay(m_stats.Relays[0], numbered.Relays[0]));
  ExpectDetected({21, 22, 23}, {24, 25, 26});
}

TEST_F(NoContextTest, SetReachesTheConverter) {
  OpenWithoutContext(NetworkConfig(MDATA_DATA_COT));
  MDATA_SRC_STATS stats = {};
  stats.prot.CoT.nRxAirCraftMessages = 5;
  Set(stats);
  Get();
  EXPECT_EQ(m_stats.prot.CoT.nRxAirCraftMessages, 5u);
}

TEST_F(NoContextTest, ResetZeroesEveryCounter) {
  OpenWithoutContext(WithMissionID(Following(NetworkConfig())));
  Set(Numbered());
  ResetStats();
  EXPECT_EQ(m_source->nCoTConvertedKLVMessages, 0u);
  EXPECT_EQ(m_source->nCoTConvertedKLVBytes, 0u);
  EXPECT_EQ(host().rateResets, 1);
  Get();
  const MDATA_KLV_STATS zero = {};
  EXPECT_EQ(memcmp(&m_stats.prot.KLV, &zero, sizeof(zero)), 0);
  EXPECT_TRUE(SameRelay(m_stats.Relays[0], {}));
  EXPECT_EQ(m_stats.nTTLUpdates, 0u);
  EXPECT_EQ(m_stats.nTOSUpdates, 0u);
  EXPECT_EQ(m_stats.iSrcTTL, 21) << "the detected values stay";
}

TEST_F(NoContextTest, ResetReachesTheConverter) {
  OpenWithoutContext(NetworkConfig(MDATA_DATA_COT));
  MDATA_COT_STATS converter = {};
  converter.nRxSPIMessages = 4;
  SetCoT2KLVConvertStats(m_source->hConverter, &converter);
  ResetStats();
  Get();
  EXPECT_EQ(m_stats.prot.CoT.nRxSPIMessages, 0u);
}

TEST_F(NoContextTest, SerialSourceKeepsItsOtherStatistics) {
  OpenWithoutContext(WithMissionID(SerialConfig()));
  m_source->KLVStats.nRxUASMessages = 5;
  Get();
  ExpectNoDecoderCounters();
  EXPECT_EQ(m_stats.prot.KLV.nRxUASMessages, 5u);
  ResetStats();
  EXPECT_EQ(m_source->KLVStats.nRxUASMessages, 0u);
}

// The library has CoT support; the serial CoT source only lacks memory.
TEST_F(NoContextTest, SerialCoTSourceKeepsItsConvertersStatistics) {
  _g_bCoTSupportEnabled = TRUE;
  OpenWithoutContext(SerialConfig(MDATA_DATA_COT));
  MDATA_SRC_STATS stats = {};
  stats.prot.CoT.nRxSPIMessages = 3;
  Set(stats);
  Get();
  ExpectNoDecoderCounters();
  EXPECT_EQ(m_stats.prot.CoT.nRxSPIMessages, 3u);
  ResetStats();
  StatsTest::Get();
  ExpectAssertion("pHandle->pvDecodeCtxt != NULL");
  EXPECT_EQ(m_stats.prot.CoT.nRxSPIMessages, 0u);
}

TEST_F(StatsTest, CallsHoldTheLibrarysMutex) {
  OpenSource(NetworkConfig());
  static std::atomic<int> busy;
  busy = 0;
  const auto probe = [] {
    std::thread other([] {
      if (g_MetaDataAPIMutex.TryLock())
        g_MetaDataAPIMutex.Unlock();
      else
        ++busy;
    });
    other.join();
  };
  static void (*sProbe)();
  sProbe = probe;
  m_source->pfnSetStatsHandler = [](void*, const MDATA_SRC_STATS*) { sProbe(); };
  m_source->pfnResetStatsHandler = [](void*) { sProbe(); };
  const MDATA_SRC_STATS numbered = Numbered();
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
  EXPECT_EQ(busy, 2);

  // Reading waits for the holder of the mutex.
  g_MetaDataAPIMutex.Lock();
  std::atomic<bool> done = false;
  std::thread getter([&] {
    Get();
    done = true;
  });
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  EXPECT_FALSE(done);
  g_MetaDataAPIMutex.Unlock();
  getter.join();
  EXPECT_TRUE(done);
}

TEST_F(StatsTest, SenderIsNeverTornWhileTheThreadReceives) {
  OpenSource(NetworkConfig());
  host().SetLevel("METADATALIB", 5);
  for (int i = 0; i < 500; ++i)
    host().FeedDatagram(m_source->iFD, {1}, {.from = i % 2 == 0 ? "10.10.10.10" : "20.20.20.20"});
  std::atomic<bool> done = false;
  std::thread reader([&] {
    while (!done) {
      MDATA_SRC_STATS stats = {};
      EXPECT_TRUE(MetaData_GetSourceStats(m_source, &stats));
      const BYTE* address = stats.in.Network.SourceAddress;
      for (int i = 1; i < 4; ++i) EXPECT_EQ(address[i], address[0]);
      EXPECT_LE(stats.nRxOkMessages, 500u);
    }
  });
  host().PassUntilIdle();
  done = true;
  reader.join();
  Get();
  EXPECT_EQ(m_stats.nRxOkMessages, 500u);
}

TEST_F(StatsTest, NothingIsLogged) {
  OpenSource(NetworkConfig());
  const size_t lines = host().Logs().size();
  const MDATA_SRC_STATS numbered = Numbered();
  Get();
  EXPECT_TRUE(MetaData_ResetSourceStats(m_source));
  EXPECT_TRUE(MetaData_SetSourceStats(m_source, &numbered));
  EXPECT_EQ(host().Logs().size(), lines);
}

}  // namespace
