// SPDX-License-Identifier: Apache-2.0
// Tests of opening and closing sources: checks, resources, log lines and release for each kind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "builders.h"
#include "converter.h"
#include "engine_test.h"
#include "md_xml_log.h"

namespace {

// Claims the lines of a failed opening.
void ExpectRefused() {
  ExpectLog(6, "Not sending message, _g_bUsingInternalThread=1, bRetCode=0.\n");
  ExpectLog(6, "Returning FALSE.\n");
}

class SourceTest : public EngineTest {
 protected:
  // Checks that the call fails and leaves the caller's handle unchanged.
  void ExpectOpenFails(const MDATA_SRC_CFG& config) {
    HMDATASRC source = nullptr;
    EXPECT_FALSE(MetaData_OpenSource(&config, &source));
    EXPECT_EQ(source, nullptr);
  }

  // Checks that every descriptor of the fake host is closed again.
  static void ExpectAllClosed(const std::string& kind) {
    for (int fd : host().FDsOfKind(kind)) EXPECT_TRUE(host().FD(fd).closed) << kind << " " << fd;
  }
};

class OpenTest : public SourceTest {};
class OpenSerialTest : public SourceTest {};
class OpenNetworkTest : public SourceTest {};
class OpenVideoTest : public SourceTest {};
class CaptureFileTest : public SourceTest {};
class LocateTest : public SourceTest {};
class CloseTest : public SourceTest {};

// --- Every kind --------------------------------------------------------------------------------------

TEST_F(OpenTest, MissingConfigurationAsserts) {
  Start();
  HMDATASRC source = nullptr;
  EXPECT_FALSE(MetaData_OpenSource(nullptr, &source));
  ExpectAssertion("pCfg != NULL");
  ExpectLog(7, "Called.\n");
}

TEST_F(OpenTest, WrongSizeAssertsAndAllocatesNothing) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  config.nSize = static_cast<int>(sizeof(config)) - 1;
  AddRelay(config);
  ExpectOpenFails(config);
  ExpectAssertion("pCfg->nSize == sizeof(*pCfg)");
  EXPECT_EQ(host().Calls("socket"), 0);
  EXPECT_EQ(host().Calls("__AllocCounterRateTable"), 0);
  ExpectNoLog("Returning FALSE.\n");
}

TEST_F(OpenTest, UnknownInputTypeAsserts) {
  Start();
  ExpectOpenFails(Config(3, MDATA_DATA_KLV));
  ExpectAssertion("0");
  ExpectRefused();
}

TEST_F(OpenTest, RecordIsFilledFromTheConfiguration) {
  Start();
  const MDATA_SRC_CFG config = NetworkConfig();
  const HMDATASRC source = Open(config);
  EXPECT_EQ(memcmp(&source->dwSignature, "HMDT", 4), 0);
  EXPECT_EQ(source->DNode.pvObject, source);
  EXPECT_EQ(memcmp(&source->Config, &config, sizeof(config)), 0);
  EXPECT_EQ(source->HeaderSequence, 0);
  EXPECT_EQ(host().rateName, "Metadata");
  EXPECT_EQ(host().rateSamples, 5);
  ExpectLog(6, "Returning TRUE.\n");
}

TEST_F(OpenTest, UnterminatedTextsAreTerminatedInTheRecord) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  memset(config.szMissionID, 'M', sizeof(config.szMissionID));
  memset(config.szClassifyingCountry, 'C', sizeof(config.szClassifyingCountry));
  memset(config.szObjectCountry, 'O', sizeof(config.szObjectCountry));
  memset(config.format.CoT.szSpiUid, 'S', sizeof(config.format.CoT.szSpiUid));
  config.bClassifyMission = TRUE;
  config.enClassification = 1;
  const HMDATASRC source = Open(config);
  EXPECT_EQ(std::string(source->Config.szMissionID), std::string(127, 'M'));
  EXPECT_EQ(std::string(source->Config.szClassifyingCountry), "CCC");
  EXPECT_EQ(std::string(source->Config.szObjectCountry), std::string(23, 'O'));
  EXPECT_EQ(std::string(source->Config.format.CoT.szSpiUid), std::string(31, 'S'));
  EXPECT_EQ(source->nMissionIDElementSize, 2 + 127);
  EXPECT_NE(source->pSecurityMDataSet, nullptr);
}

TEST_F(OpenTest, FailsIfTheRecordCannotBeAllocated) {
  Start();
  for (const MDATA_SRC_CFG& config : {SerialConfig(), NetworkConfig(), VideoConfig()}) {
    host().FailNext("calloc");
    ExpectOpenFails(config);
    ExpectRefused();
  }
}

TEST_F(OpenTest, FailsSilentlyAndReleasesAllIfTheMessageCannotBeAllocated) {
  Start();
  MDATA_SRC_CFG network = NetworkConfig(MDATA_DATA_KLV, 5000, 0);
  AddRelay(network);
  network.bCaptureToDisk = TRUE;
  strcpy(network.szMissionID, "M");
  MDATA_SRC_CFG serial = SerialConfig();
  serial.bCaptureToDisk = TRUE;
  for (const MDATA_SRC_CFG& config : {network, serial, VideoConfig(), NetworkConfig(MDATA_DATA_COT)}) {
    host().FailNext("__MBOX_AllocMessage");
    ExpectOpenFails(config);
    AllowOpeningLogs();
    ExpectLog(6, "Allocating message for processing thread.\n");
    ExpectLog(6, "Returning FALSE.\n");
  }
  EXPECT_EQ(host().Calls("MBOX_SendMessage"), 0);
  EXPECT_EQ(g_XMLOutFP, nullptr);
  for (const char* kind : {"udp4", "udp6", "socket", "serial"}) ExpectAllClosed(kind);
}

TEST_F(OpenTest, FailedRelaySocketFailsTheOpening) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config);
  AddRelay(config, {10, 0, 0, 2});
  host().FailNext("connect", {.skip = 1, .error = ENETUNREACH});
  ExpectOpenFails(config);
  ExpectLog(3, "Failed to create relaying socket.\n");
  ExpectLogContaining(3, "Failed to connect socket");
  AllowOpeningLogs();
  AllowLogs(5, "Closing any sockets created.");
  ExpectNoLog("Returning FALSE.\n");
  ExpectAllClosed("socket");
  EXPECT_EQ(host().Calls("CreateUDPRxSocket"), 0);
}

TEST_F(OpenTest, MoreThanEightRelaysAssertAndFail) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  config.nNumOfRelays = 9;
  ExpectOpenFails(config);
  ExpectAssertion("pCfg->nNumOfRelays <= nNumOfSockets");
  ExpectLog(3, "Failed to create relaying socket.\n");
  AllowLogs(5, "Closing any sockets created.");
  EXPECT_EQ(host().Calls("socket"), 0);
}

TEST_F(OpenTest, RelaySocketsAreReleasedWhenTheSourceIsRefused) {
  Start();
  Open(NetworkConfig());
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config);
  ExpectOpenFails(config);
  AllowOpeningLogs();
  ExpectAllClosed("socket");
}

TEST_F(OpenTest, MissingRateCounterIsToleratedAndAssertedAtTheEnd) {
  Start();
  host().FailNext("__AllocCounterRateTable");
  const HMDATASRC source = Open(NetworkConfig());
  EXPECT_EQ(source->hOutputRate, nullptr);
  host().FeedDatagram(source->iFD, Bytes(40, 1));
  host().PassUntilIdle();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
  Close(source);
  ExpectAssertion("pHandle->hOutputRate != NULL");
}

// --- Serial ------------------------------------------------------------------------------------------

TEST_F(OpenSerialTest, OpensAndConfiguresTheDevice) {
  Start();
  MDATA_SRC_CFG config = SerialConfig();
  config.in.Serial = {115200, HOST_SERIAL_FLOW_NONE, HOST_SERIAL_PARITY_EVEN, HOST_SERIAL_STOP_2, 7};
  const HMDATASRC source = Open(config);
  EXPECT_EQ(host().serialPath, "/dev/ttyPS0");
  EXPECT_EQ(memcmp(&host().serialConfig, &config.in.Serial, sizeof(config.in.Serial)), 0);
  ExpectLog(6, "Serial input using device \"/dev/ttyPS0\".\n");
  ExpectLog(6, "Allocating new metadata source handle.\n");
  ExpectLog(7, "New handle allocated and linked.\n");
  ExpectLog(5, "COM port \"/dev/ttyPS0\" opened, fd=" + std::to_string(source->iFD) + ".\n");
  ExpectLog(5, "Serial port configured.\n");
  EXPECT_EQ(source->pfnDataRxHandler, GenericKLV_ProcessRxData);
  EXPECT_EQ(source->pfnResetStatsHandler, GenericKLV_ResetStats);
  EXPECT_EQ(source->pfnSetStatsHandler, GenericKLV_SetStats);
  EXPECT_EQ(source->iFDv6, -1);
  EXPECT_EQ(source->CaptureFP, nullptr);
  EXPECT_EQ(source->hConverter, nullptr);
}

TEST_F(OpenSerialTest, CoTGetsItsDecoderAndConverter) {
  StartWithCoT();
  const HMDATASRC source = Open(SerialConfig(MDATA_DATA_COT));
  EXPECT_EQ(source->pfnDataRxHandler, COT_ProcessRxData);
  EXPECT_EQ(source->pfnResetStatsHandler, COT_ResetStats);
  EXPECT_EQ(source->pfnSetStatsHandler, COT_SetStats);
  EXPECT_NE(source->pvDecodeCtxt, nullptr);
  EXPECT_NE(source->hConverter, nullptr);
}

TEST_F(OpenSerialTest, CoTWithoutSupportOpensAndReceivesNothing) {
  Start();
  const HMDATASRC source = Open(SerialConfig(MDATA_DATA_COT));
  ExpectAssertion("0");
  EXPECT_EQ(source->pfnDataRxHandler, nullptr);
  EXPECT_EQ(source->pfnResetStatsHandler, nullptr);
  EXPECT_EQ(source->pfnSetStatsHandler, nullptr);
  EXPECT_EQ(source->pvDecodeCtxt, nullptr);
  EXPECT_EQ(source->hConverter, nullptr);
  // Arriving data is read and dropped.
  host().FeedSerial(source->iFD, Bytes(48, 1));
  host().PassUntilIdle();
  ExpectLog(7, "read successfully 48 bytes from serial port.\n");
  EXPECT_TRUE(m_encoder.messages.empty());
  // The statistics calls assert and do nothing.
  MDATA_SRC_STATS stats = {};
  stats.nRxBytes = 77;
  EXPECT_TRUE(MetaData_ResetSourceStats(source));
  ExpectAssertion("pHandle->pfnResetStatsHandler != NULL");
  EXPECT_TRUE(MetaData_SetSourceStats(source, &stats));
  ExpectAssertion("pHandle->pfnSetStatsHandler != NULL");
  EXPECT_TRUE(MetaData_GetSourceStats(source, &stats));
  ExpectAssertion("pHandle->pvDecodeCtxt != NULL");
  EXPECT_EQ(stats.nRxBytes, 77u);
}

TEST_F(OpenSerialTest, SecondSourceIsRefusedWhateverItsDataType) {
  StartWithCoT();
  const HMDATASRC klv = Open(SerialConfig(MDATA_DATA_KLV));
  ExpectOpenFails(SerialConfig(MDATA_DATA_COT));
  ExpectLog(6, "Source already exists.\n");
  ExpectRefused();
  Close(klv);
  Open(SerialConfig(MDATA_DATA_COT));
  ExpectOpenFails(SerialConfig(MDATA_DATA_KLV));
  ExpectLog(6, "Source already exists.\n");
  ExpectRefused();
}

TEST_F(OpenSerialTest, UnknownDataTypeAssertsAndFails) {
  Start();
  ExpectOpenFails(SerialConfig(2));
  ExpectAssertion("0");
  ExpectRefused();
  EXPECT_EQ(host().Calls("OpenSerialPortDevice"), 0);
}

TEST_F(OpenSerialTest, DeviceThatCannotBeOpenedFails) {
  Start();
  host().FailNext("OpenSerialPortDevice");
  ExpectOpenFails(SerialConfig());
  ExpectLog(3, "Failed to open serial device.\n");
  ExpectRefused();
}

TEST_F(OpenSerialTest, DeviceThatCannotBeConfiguredFailsAndIsClosed) {
  Start();
  host().FailNext("ConfigureSerialPort");
  ExpectOpenFails(SerialConfig());
  ExpectLogContaining(5, "COM port \"/dev/ttyPS0\" opened, fd=");
  ExpectLog(3, "Failed to configure serial port.\n");
  ExpectRefused();
  ExpectAllClosed("serial");
}

// --- Network -----------------------------------------------------------------------------------------

TEST_F(OpenNetworkTest, FamilyZeroMakesBothSocketsIPv6First) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_KLV, 5000, 0);
  const HMDATASRC source = Open(config);
  ASSERT_EQ(host().udpSocketCalls.size(), 2u);
  EXPECT_TRUE(host().udpSocketCalls[0].ipv6);
  EXPECT_FALSE(host().udpSocketCalls[1].ipv6);
  EXPECT_EQ(host().udpSocketCalls[1].port, 5000);
  ExpectLog(6, "Network metadata source.\n");
  ExpectLog(5, "Successfully created IPv6 receiver socket " + std::to_string(source->iFDv6) + ".\n");
  ExpectLog(5, "Successfully created IPv4 receiver socket " + std::to_string(source->iFD) + ".\n");
  EXPECT_EQ(source->pfnDataRxHandler, nullptr) << "a datagram is a message";
  EXPECT_EQ(source->pfnResetStatsHandler, GenericKLV_ResetStats);
  EXPECT_EQ(source->pfnSetStatsHandler, GenericKLV_SetStats);
  EXPECT_EQ(source->hConverter, nullptr);
}

TEST_F(OpenNetworkTest, SourceAddressGoesToTheIPv4Socket) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  const BYTE group[4] = {239, 1, 1, 1};
  memcpy(config.in.Network.acSrcAddress, group, 4);
  Open(config);
  ASSERT_EQ(host().udpSocketCalls.size(), 1u);
  EXPECT_EQ(Bytes(host().udpSocketCalls[0].address.begin(), host().udpSocketCalls[0].address.begin() + 4),
            (Bytes{239, 1, 1, 1}));
}

TEST_F(OpenNetworkTest, FamilyZeroFollowsTheCapabilities) {
  Start(METADATALIB_CAPS_IPV4_SUPPORT);
  const HMDATASRC source = Open(NetworkConfig(MDATA_DATA_KLV, 5000, 0));
  EXPECT_GE(source->iFD, 0);
  EXPECT_EQ(source->iFDv6, -1);
}

TEST_F(OpenNetworkTest, IPv6WithoutTheCapabilityWarnsAndFails) {
  Start(METADATALIB_CAPS_IPV4_SUPPORT);
  ExpectOpenFails(NetworkConfig(MDATA_DATA_KLV, 5000, AF_INET6));
  ExpectLog(4, "AF_INET6 family specified but library initialized without IPv6 support.\n");
  EXPECT_TRUE(host().udpSocketCalls.empty());
  ExpectRefused();
}

TEST_F(OpenNetworkTest, IPv4WithoutTheCapabilityWarnsAndFails) {
  Start(METADATALIB_CAPS_IPV6_SUPPORT);
  ExpectOpenFails(NetworkConfig(MDATA_DATA_KLV, 5000, AF_INET));
  ExpectLog(4, "AF_INET family specified but library initialized without IPv4 support.\n");
  EXPECT_TRUE(host().udpSocketCalls.empty());
  ExpectRefused();
}

TEST_F(OpenNetworkTest, UnknownFamilyAssertsAndFails) {
  Start();
  ExpectOpenFails(NetworkConfig(MDATA_DATA_KLV, 5000, 99));
  ExpectTextAssertion("Invalid iSrcAddressFamily (99) detected.\n");
  EXPECT_TRUE(host().udpSocketCalls.empty());
}

TEST_F(OpenNetworkTest, OneSocketIsEnough) {
  Start();
  host().FailNext("CreateUDPv6RxSocket");
  const HMDATASRC source = Open(NetworkConfig(MDATA_DATA_KLV, 5000, 0));
  ExpectLog(3, "Failed to create IPv6 socket.\n");
  EXPECT_EQ(source->iFDv6, -1);
  Close(source);
  host().FailNext("CreateUDPRxSocket");
  const HMDATASRC other = Open(NetworkConfig(MDATA_DATA_KLV, 5000, 0));
  ExpectLog(3, "Failed to create IPv4 socket.\n");
  EXPECT_EQ(other->iFD, -1);
}

TEST_F(OpenNetworkTest, OpeningFailsWithoutAnySocket) {
  Start();
  host().FailNext("CreateUDPv6RxSocket");
  host().FailNext("CreateUDPRxSocket");
  ExpectOpenFails(NetworkConfig(MDATA_DATA_KLV, 5000, 0));
  ExpectLog(3, "Failed to create IPv6 socket.\n");
  ExpectLog(3, "Failed to create IPv4 socket.\n");
  ExpectRefused();
}

TEST_F(OpenNetworkTest, IPv6SocketIsCreatedToReportWhatRelaysFollow) {
  Start();
  const struct {
    int ttl;
    int tos;
    DWORD flags;
  } cases[] = {{0, 0, 0}, {-1, 0, 1}, {0, -1, 2}, {-1, -1, 3}, {-2, -2, 0}};
  for (const auto& c : cases) {
    MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_KLV, 5000, AF_INET6);
    AddRelay(config, {10, 0, 0, 1}, c.ttl, c.tos);
    Close(Open(config));
    EXPECT_EQ(host().udpSocketCalls.back().flags, c.flags) << c.ttl << " " << c.tos;
  }
}

TEST_F(OpenNetworkTest, FailedDetectionSwitchAssertsAndOpens) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config, {10, 0, 0, 1}, -1, 0);
  // The relay's TOS is set first.
  host().FailNext("setsockopt", {.skip = 1, .error = EPERM});
  Open(config);
  ExpectLogContaining(3, "Unable to set IP_RECVTTL socket option, errno (1): ");
  ExpectAssertion("_EnableTTLTOSDetectionIfNeeded(pHandle)");
}

TEST_F(OpenNetworkTest, SecondSourceOnAPortFailsWithoutAnErrorLine) {
  StartWithCoT();
  Open(NetworkConfig(MDATA_DATA_KLV, 5000, AF_INET));
  host().ClearLogs();
  ExpectOpenFails(NetworkConfig(MDATA_DATA_COT, 5000, AF_INET6));
  ExpectLog(6, "Network metadata source.\n");
  ExpectRefused();
  for (const LogLine& line : host().Logs()) {
    EXPECT_GE(line.level, 6) << line.text;
  }
  EXPECT_EQ(host().udpSocketCalls.size(), 1u);
  Open(NetworkConfig(MDATA_DATA_KLV, 5001, AF_INET));
}

TEST_F(OpenNetworkTest, UnknownDataTypeFails) {
  Start();
  ExpectOpenFails(NetworkConfig(2));
  ExpectRefused();
  EXPECT_TRUE(host().udpSocketCalls.empty());
}

TEST_F(OpenNetworkTest, CoTWithoutSupportOpens) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 500;
  const HMDATASRC source = Open(config);
  ExpectLog(6, "Network CoT metadata source.\n");
  ExpectLog(6, "Setting AirCraft SPI max delta to 500 ms.\n");
  EXPECT_EQ(source->pfnResetStatsHandler, COT_ResetStats);
  EXPECT_EQ(source->pfnSetStatsHandler, COT_SetStats);
  EXPECT_EQ(source->pfnDataRxHandler, nullptr);
  ASSERT_NE(source->hConverter, nullptr);
  EXPECT_EQ(source->hConverter->nMaxSPIAirCraftTimeDeltaInUS, 500000);
}

TEST_F(OpenNetworkTest, DeltaInMicrosecondsWraps) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 5000000;
  const HMDATASRC source = Open(config);
  ASSERT_NE(source->hConverter, nullptr);
  EXPECT_EQ(source->hConverter->nMaxSPIAirCraftTimeDeltaInUS, 705032704);
}

TEST_F(OpenNetworkTest, BadCountryOpensWithoutInserts) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  config.bClassifyMission = TRUE;
  config.enClassification = 1;
  strcpy(config.szClassifyingCountry, "US");
  strcpy(config.szMissionID, "M1");
  const HMDATASRC source = Open(config);
  EXPECT_EQ(source->pSecurityMDataSet, nullptr);
  EXPECT_EQ(source->pMissionID, nullptr);
  host().ClearLogs();
}

TEST_F(OpenNetworkTest, SecuritySetIsDroppedIfTheMissionIdentifierRunsOutOfMemory) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  config.bClassifyMission = TRUE;
  config.enClassification = 1;
  strcpy(config.szClassifyingCountry, "CAN");
  strcpy(config.szObjectCountry, "CAN");
  strcpy(config.szMissionID, "MISSION");
  host().FailNext("malloc");
  const HMDATASRC source = Open(config);
  EXPECT_EQ(source->pSecurityMDataSet, nullptr);
  EXPECT_EQ(source->pMissionID, nullptr);
}

TEST_F(OpenNetworkTest, InsertsCarryTheirSizes) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  config.bClassifyMission = TRUE;
  config.enClassification = 1;
  strcpy(config.szClassifyingCountry, "CAN");
  strcpy(config.szObjectCountry, "CAN");
  strcpy(config.szMissionID, "MISSION");
  const HMDATASRC source = Open(config);
  ASSERT_NE(source->pSecurityMDataSet, nullptr);
  EXPECT_EQ(source->nSecurityMDataSetSize, source->pSecurityMDataSet->Length + 2);
  ASSERT_NE(source->pMissionID, nullptr);
  EXPECT_EQ(source->nMissionIDElementSize, 9);
}

TEST_F(OpenNetworkTest, RelaySocketsAreStoredLast) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config);
  AddRelay(config, {10, 0, 0, 2});
  const HMDATASRC source = OpenWhileStuck(config);
  m_open.push_back(source);
  const std::vector<int> sockets = host().FDsOfKind("socket");
  ASSERT_EQ(sockets.size(), 2u);
  EXPECT_EQ(source->Relayers[0].iRelaySocket, sockets[0]);
  EXPECT_EQ(source->Relayers[1].iRelaySocket, sockets[1]);
  for (int i = 2; i < MDATA_MAX_RELAYS; ++i) EXPECT_EQ(source->Relayers[i].iRelaySocket, -1);
  host().HoldThread(false);
  host().PassUntilIdle();
}

// --- Video -------------------------------------------------------------------------------------------

TEST_F(OpenVideoTest, StartsWithoutTimestamps) {
  Start();
  MDATA_SRC_CFG config = VideoConfig(1);
  config.nDecimationFactor = 3;
  const HMDATASRC source = Open(config);
  ExpectLog(6, "Video metadata source. KLV source is SDI.\n");
  EXPECT_EQ(source->DecimateCtrl.ActivitePTS, kNoPTS);
  EXPECT_EQ(source->DecimateCtrl.DecimatedPTS, kNoPTS);
  EXPECT_EQ(source->DecimateCtrl.nDecimatedCount, 0u);
  EXPECT_EQ(source->DecimateCtrl.nDecimationFactor, 3u);
  EXPECT_EQ(source->pfnResetStatsHandler, GenericKLV_ResetStats);
  EXPECT_EQ(source->pfnSetStatsHandler, GenericKLV_SetStats);
  EXPECT_EQ(source->iFD, -1);
}

TEST_F(OpenVideoTest, CoTIsRefused) {
  Start();
  ExpectOpenFails(Config(MDATA_INPUT_VIDEO, MDATA_DATA_COT));
  ExpectRefused();
}

TEST_F(OpenVideoTest, SourcesMayShareAnInput) {
  Start();
  for (int i = 0; i < 5; ++i) Open(VideoConfig(3));
  EXPECT_EQ(_g_aVideoExtractors[3].nRefCount, 5);
  EXPECT_EQ(ListedSources(), 5);
}

// --- Capture files -----------------------------------------------------------------------------------

TEST_F(CaptureFileTest, SerialOpensBothFilesForEitherDataType) {
  StartWithCoT();
  for (int dataType : {MDATA_DATA_KLV, MDATA_DATA_COT}) {
    MDATA_SRC_CFG config = SerialConfig(dataType);
    config.bCaptureToDisk = TRUE;
    config.nMaxCaptureSizeInKBytes = 100;
    const HMDATASRC source = Open(config);
    ExpectLogContaining(5, "RAW serial input fp=0x");
    ExpectLogContaining(5, "COT XML input fp=0x");
    EXPECT_NE(source->CaptureFP, nullptr);
    EXPECT_NE(g_XMLOutFP, nullptr);
    EXPECT_TRUE(host().FileExists("/tmp/rawserial.txt"));
    EXPECT_TRUE(host().FileExists("/tmp/cotxml.txt"));
    Close(source);
    EXPECT_EQ(g_XMLOutFP, nullptr);
  }
}

TEST_F(CaptureFileTest, FileIsTruncatedAndNamedByThePort) {
  Start();
  host().WriteFile("/tmp/rawudp_5004.txt", "old");
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_KLV, 5004);
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 100;
  const HMDATASRC source = Open(config);
  ExpectLogContaining(5, "RAW UDP input fp=0x");
  EXPECT_EQ(host().ReadFile("/tmp/rawudp_5004.txt"), "");
  host().FeedDatagram(source->iFD, Bytes(40, 0xAB));
  host().PassUntilIdle();
  Close(source);
  EXPECT_NE(host().ReadFile("/tmp/rawudp_5004.txt").find("ab"), std::string::npos);
}

TEST_F(CaptureFileTest, CoTOverUDPAndVideoFilesStayEmpty) {
  StartWithCoT();
  MDATA_SRC_CFG network = NetworkConfig(MDATA_DATA_COT, 5004);
  MDATA_SRC_CFG video = VideoConfig(0);
  for (MDATA_SRC_CFG* config : {&network, &video}) {
    config->bCaptureToDisk = TRUE;
    config->nMaxCaptureSizeInKBytes = 100;
  }
  const HMDATASRC udp = Open(network);
  Open(video);
  ExpectLogContaining(5, "RAW HDSDI input fp=0x");
  host().FeedDatagram(udp->iFD, Bytes(40, 'x'));
  host().FeedCapture(0, Bytes(40, 1), 1);
  host().PassUntilIdle();
  host().ClearLogs();
  EXPECT_EQ(host().ReadFile("/tmp/rawudp_5004.txt"), "");
  EXPECT_EQ(host().ReadFile("/tmp/rawhdsdi.txt"), "");
}

TEST_F(CaptureFileTest, FileThatCannotBeCreatedLeavesTheSourceWorking) {
  Start();
  host().FailNext("open", {.error = EACCES});
  MDATA_SRC_CFG config = NetworkConfig();
  config.bCaptureToDisk = TRUE;
  const HMDATASRC source = Open(config);
  EXPECT_EQ(source->CaptureFP, nullptr);
  host().FeedDatagram(source->iFD, Bytes(40, 1));
  host().PassUntilIdle();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

TEST_F(CaptureFileTest, PlantedLinkIsNotFollowed) {
  Start();
  host().WriteFile("/tmp/precious.txt", "keep");
  host().PlantLink("/tmp/rawudp_5000.txt", "/tmp/precious.txt");
  MDATA_SRC_CFG config = NetworkConfig();
  config.bCaptureToDisk = TRUE;
  const HMDATASRC source = Open(config);
  EXPECT_EQ(source->CaptureFP, nullptr);
  EXPECT_EQ(host().ReadFile("/tmp/precious.txt"), "keep");
}

TEST_F(CaptureFileTest, PlantedPipeNeitherBlocksNorIsWritten) {
  Start();
  host().PlantFifo("/tmp/rawudp_5000.txt");
  const int reader = open("/tmp/rawudp_5000.txt", O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  MDATA_SRC_CFG config = NetworkConfig();
  config.bCaptureToDisk = TRUE;
  EXPECT_EQ(Open(config)->CaptureFP, nullptr);
  close(reader);
  Close(m_open.back());
  EXPECT_EQ(Open(config)->CaptureFP, nullptr) << "without a reader either";
}

// A name under /tmp that holds a file which the library must not write, and the expected result of every capture.
struct PlantedFile {
  const char* name;
  void (*plant)(const std::string& path);
};

class PlantedCaptureTest : public CaptureFileTest, public ::testing::WithParamInterface<PlantedFile> {
 protected:
  static constexpr const char* kFiles[] = {"/tmp/rawudp_5000.txt", "/tmp/rawserial.txt", "/tmp/cotxml.txt",
                                           "/tmp/rawhdsdi.txt"};
};

TEST_P(PlantedCaptureTest, StaysUnchangedAndTheSourceWorksWithoutCapture) {
  Start();
  for (const char* path : kFiles) GetParam().plant(path);
  MDATA_SRC_CFG configs[] = {NetworkConfig(), SerialConfig(), VideoConfig(0)};
  std::vector<HMDATASRC> sources;
  for (MDATA_SRC_CFG& config : configs) {
    config.bCaptureToDisk = TRUE;
    config.nMaxCaptureSizeInKBytes = 100;
    sources.push_back(Open(config));
    ASSERT_NE(sources.back(), nullptr);
    EXPECT_EQ(sources.back()->CaptureFP, nullptr);
  }
  EXPECT_EQ(g_XMLOutFP, nullptr);
  ExpectLogContaining(5, "RAW UDP input fp=(nil)");
  host().FeedDatagram(sources[0]->iFD, Bytes(40, 1));
  host().PassUntilIdle();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
  for (const HMDATASRC source : sources) Close(source);
  for (const char* path : kFiles) EXPECT_EQ(host().ReadFile(path), "keep") << path;
}

INSTANTIATE_TEST_SUITE_P(Kinds, PlantedCaptureTest,
                         ::testing::Values(PlantedFile{"AnotherUsersFile",
                                                       [](const std::string& path) {
                                                         host().WriteFile(path, "keep");
                                                         const bool given =
                                                             chown(host().RealPath(path).c_str(), 65534, 65534) == 0;
                                                         // A process without the right to change owners acts as another
                                                         // user.
                                                         if (!given) host().FailNext("geteuid", {.result = 65534});
                                                       }},
                                           PlantedFile{"FileWithASecondName",
                                                       [](const std::string& path) {
                                                         host().WriteFile(path + ".other", "keep");
                                                         host().PlantHardLink(path, path + ".other");
                                                       }}),
                         [](const auto& planted) { return planted.param.name; });

TEST_F(CaptureFileTest, OnlyTheOwnerMayReadACapture) {
  Start();
  const mode_t mask = umask(0);
  MDATA_SRC_CFG configs[] = {NetworkConfig(), SerialConfig(), VideoConfig(0)};
  for (MDATA_SRC_CFG& config : configs) {
    config.bCaptureToDisk = TRUE;
    Open(config);
  }
  umask(mask);
  for (const char* path : {"/tmp/rawudp_5000.txt", "/tmp/rawserial.txt", "/tmp/cotxml.txt", "/tmp/rawhdsdi.txt"}) {
    struct stat info = {};
    ASSERT_EQ(stat(host().RealPath(path).c_str(), &info), 0) << path;
    EXPECT_EQ(info.st_mode & 07777, 0600u) << path;
  }
}

TEST_F(CaptureFileTest, FileThatCannotBeTruncatedIsNotWritten) {
  Start();
  host().WriteFile("/tmp/rawudp_5000.txt", "keep");
  host().FailNext("ftruncate", {.error = EPERM});
  MDATA_SRC_CFG config = NetworkConfig();
  config.bCaptureToDisk = TRUE;
  EXPECT_EQ(Open(config)->CaptureFP, nullptr);
  EXPECT_EQ(host().ReadFile("/tmp/rawudp_5000.txt"), "keep");
}

TEST_F(CaptureFileTest, ClosingAnySourceClosesTheXMLCapture) {
  Start();
  MDATA_SRC_CFG config = SerialConfig();
  config.bCaptureToDisk = TRUE;
  const HMDATASRC serial = Open(config);
  const HMDATASRC network = Open(NetworkConfig());
  ASSERT_NE(g_XMLOutFP, nullptr);
  Close(network);
  EXPECT_EQ(g_XMLOutFP, nullptr);
  EXPECT_NE(serial->CaptureFP, nullptr) << "the raw capture is the source's own";
  Close(serial);
}

TEST_F(CaptureFileTest, FailedOpeningKeepsTheXMLCaptureOfAnotherSource) {
  Start();
  MDATA_SRC_CFG config = SerialConfig();
  config.bCaptureToDisk = TRUE;
  Open(config);
  ExpectOpenFails(config);
  host().FailNext("CreateUDPRxSocket");
  ExpectOpenFails(NetworkConfig());
  ExpectLog(3, "Failed to create IPv4 socket.\n");
  EXPECT_NE(g_XMLOutFP, nullptr);
}

// --- Look-ups ----------------------------------------------------------------------------------------

TEST_F(LocateTest, SerialSourceIsFoundWhateverItsDataType) {
  Start();
  MDATA_SRC_HANDLE found = reinterpret_cast<MDATA_SRC_HANDLE>(1);
  EXPECT_FALSE(_LocateSerialDataSrc(&found));
  EXPECT_EQ(found, nullptr);
  ExpectLog(7, "Attempting to locate serial data source.\n");
  ExpectLog(7, "Source NOT located.\n");
  const HMDATASRC source = Open(SerialConfig());
  EXPECT_TRUE(_LocateSerialDataSrc(&found));
  EXPECT_EQ(found, source);
  ExpectLogContaining(7, "Source located, returning handle at 0x");
  EXPECT_TRUE(_LocateSerialDataSrc(nullptr));
}

TEST_F(LocateTest, NetworkSourceIsFoundByItsPort) {
  Start();
  Open(SerialConfig());
  const HMDATASRC first = Open(NetworkConfig(MDATA_DATA_KLV, 5000));
  const HMDATASRC second = Open(NetworkConfig(MDATA_DATA_COT, 5001));
  MDATA_SRC_HANDLE found = nullptr;
  EXPECT_TRUE(_LocateDataSrcByUDPPort(5000, &found));
  EXPECT_EQ(found, first);
  ExpectLog(7, "Attempting to locate data source by UDP port (5000).\n");
  EXPECT_TRUE(_LocateDataSrcByUDPPort(5001, &found));
  EXPECT_EQ(found, second);
  EXPECT_FALSE(_LocateDataSrcByUDPPort(0, &found));
  EXPECT_EQ(found, nullptr);
}

// --- Closing -----------------------------------------------------------------------------------------

TEST_F(CloseTest, MissingHandleAsserts) {
  Start();
  EXPECT_FALSE(MetaData_CloseSource(nullptr));
  ExpectAssertion("phDataSrc != NULL");
  HMDATASRC source = nullptr;
  EXPECT_FALSE(MetaData_CloseSource(&source));
  ExpectAssertion("*phDataSrc != NULL");
}

TEST_F(CloseTest, SourceStaysOpenIfTheMessageCannotBeAllocated) {
  Start();
  HMDATASRC source = Open(NetworkConfig());
  host().FailNext("__MBOX_AllocMessage");
  EXPECT_FALSE(MetaData_CloseSource(&source));
  ExpectLog(3, "No memory for close message.\n");
  EXPECT_TRUE(IsListed(source));
  host().FeedDatagram(source->iFD, Bytes(40, 1));
  host().PassUntilIdle();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

TEST_F(CloseTest, ReleasesDescriptorsAndRelays) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_KLV, 5000, 0);
  AddRelay(config);
  AddRelay(config, {10, 0, 0, 2});
  const HMDATASRC source = Open(config);
  Close(source);
  ExpectLog(6, "Called.\n");
  ExpectLog(6, "Closing file descriptor.\n");
  for (const char* kind : {"udp4", "udp6", "socket"}) ExpectAllClosed(kind);
}

TEST_F(CloseTest, DescriptorsThatDoNotCloseAssert) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_KLV, 5000, 0);
  AddRelay(config);
  const HMDATASRC source = Open(config);
  host().FailNext("close", {.times = 3});
  Close(source);
  ExpectAssertion("close(pHandle->iFD) == 0");
  ExpectAssertion("close(pHandle->iFDv6) == 0");
  ExpectAssertion("close(pHandle->Relayers[i].iRelaySocket) == 0");
}

TEST_F(CloseTest, HandleAndPortSettingsStay) {
  Start();
  const HMDATASRC source = Open(SerialConfig());
  const int configured = host().Calls("ConfigureSerialPort");
  Close(source);  // checks that the handle is unchanged
  EXPECT_EQ(host().Calls("ConfigureSerialPort"), configured);
}

TEST_F(CloseTest, SourceIsReleasedWithoutTheThreadAfterTheShutdown) {
  Start();
  const HMDATASRC source = Open(NetworkConfig());
  Stop();
  const size_t waits = host().waits.size();
  Close(source);
  EXPECT_EQ(host().waits.size(), waits);
  EXPECT_EQ(ListedSources(), 0);
  ExpectAllClosed("udp4");
}

TEST_F(CloseTest, UnknownDataTypeAsserts) {
  Start();
  const HMDATASRC source = Open(VideoConfig());
  void* context = source->pvDecodeCtxt;
  source->Config.enDataType = 5;
  Close(source);
  ExpectAssertion("0");
  FreeKlvDecodeContext(&context);
}

TEST_F(CloseTest, EveryKindOfSourceReleasesEverything) {
  StartWithCoT();
  for (const MDATA_SRC_CFG& config : {SerialConfig(MDATA_DATA_KLV), SerialConfig(MDATA_DATA_COT),
                                      NetworkConfig(MDATA_DATA_KLV), NetworkConfig(MDATA_DATA_COT), VideoConfig()}) {
    MDATA_SRC_CFG full = config;
    full.bCaptureToDisk = TRUE;
    full.bClassifyMission = TRUE;
    full.enClassification = 1;
    strcpy(full.szClassifyingCountry, "CAN");
    strcpy(full.szObjectCountry, "CAN");
    strcpy(full.szMissionID, "MISSION");
    AddRelay(full);
    Close(Open(full));
  }
  EXPECT_EQ(ListedSources(), 0);
}

// --- Closes that were given up --------------------------------------------------------------------------

// These two messages fit into one serial read.
Bytes SmallMessage() {
  return UasMessage().Checksum().Build();
}

// Acts as the encoder's thread: from now on the close of the source counts as given up.
void GiveUp(HMDATASRC source) {
  __atomic_store_n(&source->nRemoveRequest, REQUEST_ABANDONED, __ATOMIC_RELEASE);
}

// A source whose callback gives up the closes of other sources.
struct GivingUp {
  std::vector<HMDATASRC> victims;
  int calls = 0;
};

BOOL GiveUpInCallback(MDATA_BUFFER*, void* pvUserParam1, void*) {
  auto* encoder = static_cast<GivingUp*>(pvUserParam1);
  ++encoder->calls;
  for (HMDATASRC victim : encoder->victims) GiveUp(victim);
  return TRUE;
}

class GivenUpTest : public SourceTest {
 protected:
  // Closes the source while the thread is stuck: the wait times out, and the message, if any, stays queued.
  void CloseWhileStuck(HMDATASRC source, bool sent) {
    Forget(source);
    if (!sent) host().FailNext("MBOX_SendMessage");
    host().HoldThread(true);
    HMDATASRC handle = source;
    EXPECT_TRUE(MetaData_CloseSource(&handle));
    host().HoldThread(false);
    if (!sent) ExpectLog(3, "MBOX_SendMessage FAILED.\n");
    ExpectLogContaining(3, "Wait FAILED for source#7, errno (110)");
  }

  // The thread's next pass handles another source's message first, so that the source is still in the read set.
  void LetAnotherGoFirst() { CloseWhileStuck(Open(NetworkConfig(MDATA_DATA_KLV, 5999)), true); }

  static void Feed(HMDATASRC source, const Bytes& bytes) {
    if (source->Config.enInputType == MDATA_INPUT_NETWORK)
      host().FeedDatagram(source->iFD, bytes);
    else if (source->Config.enInputType == MDATA_INPUT_SERIAL)
      host().FeedSerial(source->iFD, bytes);
    else
      host().FeedCapture(source->Config.in.Video.enInputInterface, bytes, 1);
  }

  std::vector<MDATA_SRC_CFG> EveryPath() {
    std::vector<MDATA_SRC_CFG> configs = {NetworkConfig(), NetworkConfig(MDATA_DATA_COT), SerialConfig(),
                                          SerialConfig(MDATA_DATA_COT), VideoConfig()};
    for (MDATA_SRC_CFG& config : configs) AddRelay(config);
    return configs;
  }

  // Checks that no data of the source was relayed, counted or delivered, and that arrived data was dropped.
  void ExpectDropped(HMDATASRC source) {
    EXPECT_TRUE(m_encoder.messages.empty());
    EXPECT_EQ(source->HeaderSequence, 0);
    EXPECT_TRUE(host().FD(source->Relayers[0].iRelaySocket).sent.empty());
    const bool cot = source->Config.enDataType == MDATA_DATA_COT;
    const void* context = source->pvDecodeCtxt;
    EXPECT_EQ(cot ? COT_GetStatsPtr(const_cast<void*>(context))->nTotalRxBytes
                  : GenericKLV_GetStatsPtr(const_cast<void*>(context))->nTotalRxBytes,
              0u);
    for (const LogLine& line : host().Logs()) {
      EXPECT_EQ(line.text.find("Received "), line.text.find("Received EVENTID"));
      EXPECT_EQ(line.text.find("Called fd="), std::string::npos);
      EXPECT_EQ(line.text.find("read successfully"), std::string::npos);
    }
  }
};

TEST_F(GivenUpTest, TimedOutCloseDeliversNothingMoreOnAnyPath) {
  StartWithCoT();
  for (const MDATA_SRC_CFG& config : EveryPath()) {
    SCOPED_TRACE(testing::Message() << "input " << config.enInputType << " data " << config.enDataType);
    const HMDATASRC source = Open(config);
    LetAnotherGoFirst();
    CloseWhileStuck(source, true);
    host().ClearLogs();
    Feed(source, WellFormedMessage());
    host().Pass();
    ASSERT_TRUE(IsListed(source)) << "its own message is still queued";
    ExpectDropped(source);
    host().PassUntilIdle();
    AllowLogs(5, "Disabling KLV extraction");
    EXPECT_EQ(ListedSources(), 0);
  }
}

TEST_F(GivenUpTest, UnsentCloseDeliversNothingMoreOnAnyPath) {
  StartWithCoT();
  for (const MDATA_SRC_CFG& config : EveryPath()) {
    SCOPED_TRACE(testing::Message() << "input " << config.enInputType << " data " << config.enDataType);
    const HMDATASRC source = Open(config);
    const int relay = source->Relayers[0].iRelaySocket;
    CloseWhileStuck(source, false);
    host().ClearLogs();
    Feed(source, WellFormedMessage());
    host().Pass();
    EXPECT_TRUE(m_encoder.messages.empty());
    EXPECT_TRUE(host().FD(relay).sent.empty());
    AllowLogs(5, "Disabling KLV extraction");
    EXPECT_EQ(ListedSources(), 0) << "swept after the pass";
  }
}

TEST_F(GivenUpTest, DataThatArrivesMeanwhileIsReadAndDropped) {
  Start();
  const HMDATASRC network = Open(NetworkConfig(MDATA_DATA_KLV, 5000, 0));
  const HMDATASRC serial = Open(SerialConfig());
  GiveUp(network);
  GiveUp(serial);
  host().ClearLogs();
  for (int i = 0; i < 20; ++i) host().FeedDatagram(i % 2 == 0 ? network->iFD : network->iFDv6, Bytes(1500, 1));
  host().FeedSerial(serial->iFD, Bytes(480, 1));
  host().PassUntilIdle();
  EXPECT_TRUE(m_encoder.messages.empty());
  EXPECT_EQ(host().Calls("FDMGR_Select"), 1 + 2 + 10) << "two additions, ten reads";
}

TEST_F(GivenUpTest, HungUpDeviceDoesNotMakeTheThreadSpin) {
  Start();
  const HMDATASRC serial = Open(SerialConfig());
  GiveUp(serial);
  host().HangUp(serial->iFD);
  host().Pass();
  host().Pass();
  EXPECT_EQ(host().Calls("nanosleep"), 2);
}

TEST_F(GivenUpTest, SourceDeliversWhileItsCloseIsStillWaitedFor) {
  Start();
  const HMDATASRC source = Open(NetworkConfig());
  __atomic_store_n(&source->nRemoveRequest, REQUEST_PENDING, __ATOMIC_RELEASE);
  host().FeedDatagram(source->iFD, WellFormedMessage());
  host().PassUntilIdle();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

TEST_F(GivenUpTest, RestOfASerialChunkIsDropped) {
  Start();
  GivingUp encoder;
  MDATA_SRC_CFG config = SerialConfig();
  AddRelay(config);
  config.pfnCallback = GiveUpInCallback;
  config.pvUserParam1 = &encoder;
  const HMDATASRC source = Open(config);
  encoder.victims = {source};
  // The key of the third message ends the second message in the decoder.
  host().FeedSerial(source->iFD, SmallMessage() + SmallMessage() + SmallMessage());
  host().Pass();
  host().Pass();
  EXPECT_EQ(encoder.calls, 1);
  EXPECT_EQ(host().FD(source->Relayers[0].iRelaySocket).sent.size(), 1u);
}

TEST_F(GivenUpTest, OneOfSeveralSourcesOfAVideoInputIsSkipped) {
  Start();
  GivingUp first;
  MDATA_SRC_CFG config = VideoConfig();
  config.pfnCallback = GiveUpInCallback;
  config.pvUserParam1 = &first;
  Open(config);
  MDATA_SRC_CFG relayed = VideoConfig();
  AddRelay(relayed);
  GivingUp second;
  relayed.pfnCallback = GiveUpInCallback;
  relayed.pvUserParam1 = &second;
  const HMDATASRC dropped = Open(relayed);
  Open(VideoConfig());
  first.victims = {dropped};
  host().FeedCapture(0, WellFormedMessage(), 1);
  host().PassUntilIdle();
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 0);
  EXPECT_TRUE(host().FD(dropped->Relayers[0].iRelaySocket).sent.empty());
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

TEST_F(GivenUpTest, CallbackIsSkippedIfTheCloseIsGivenUpDuringTheHandler) {
  Start();
  for (const MDATA_SRC_CFG& config : {NetworkConfig(), VideoConfig()}) {
    const HMDATASRC source = Open(config);
    Feed(source, WellFormedMessage());
    // The copy for the encoder is the handler's last allocation.
    const int before = config.enInputType == MDATA_INPUT_VIDEO ? 1 : 0;
    host().WhenCalled(
        "malloc", [source] { GiveUp(source); }, before);
    host().Pass();
    EXPECT_TRUE(m_encoder.messages.empty());
  }
}

}  // namespace
