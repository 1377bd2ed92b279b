// SPDX-License-Identifier: Apache-2.0
// Tests of initialisation, shut-down, the metadata thread and the hand-shake with it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "converter.h"
#include "engine_test.h"
#include "md_request.h"
#include "misb0601_tools.h"

namespace {

constexpr DWORD kIPv4 = METADATALIB_CAPS_IPV4_SUPPORT;
constexpr char kRemoveTimedOut[] = "Wait FAILED for source#7, errno (110): \"Connection timed out\".\n";
constexpr char kCountAboveZero[] = "_g_aVideoExtractors[hSource->Config.in.Video.enInputInterface].nRefCount > 0";

class InitTest : public EngineTest {};
class ShutdownTest : public EngineTest {};
class ThreadTest : public EngineTest {};
class VideoExtractorTest : public EngineTest {};

// --- Init --------------------------------------------------------------------------------------------

TEST_F(InitTest, ReadsTheOptionOfExtendedTagsWithAndWithoutCoT) {
  _g_bExtendedTags = TRUE;
  Start();
  EXPECT_FALSE(_g_bExtendedTags) << "off without the key";
  Stop();
  ResetLibrary();
  host().SetConfig("/etc/hostos.ini", "UASLocalSet", "ExtendedTags", "Yes");
  Start();
  EXPECT_TRUE(_g_bExtendedTags);
  Stop();
  ResetLibrary();
  _g_bExtendedTags = FALSE;
  StartWithCoT();
  EXPECT_TRUE(_g_bExtendedTags);
  _g_bExtendedTags = FALSE;
}

TEST_F(InitTest, CreatesMailboxSetAndThread) {
  Start(kIPv4);
  EXPECT_TRUE(g_bMetaDataLibInitialized);
  EXPECT_EQ(g_dwLibCaps, kIPv4);
  EXPECT_TRUE(_g_bUsingInternalThread);
  EXPECT_FALSE(_g_bCoTSupportEnabled);
  EXPECT_EQ(host().mboxName, "MetaDataEngine");
  EXPECT_EQ(host().mboxConfig.nSize, static_cast<int>(sizeof(MBOX_CONFIG)));
  EXPECT_FALSE(host().mboxConfig.bDeleteIfAreadyExisted);
  EXPECT_EQ(host().setName, "Meta-Data");
  EXPECT_EQ(host().SetDescriptors(), std::vector<int>{MBOX_GetNotificationFD(_g_hMetaDataThreadMBox)});
  EXPECT_EQ(host().threadName, "MetaData");
  EXPECT_EQ(host().threadOptions, (std::vector<DWORD>{0, 10}));
  EXPECT_TRUE(host().ThreadRuns());
  ExpectLog(6, "Called, dwCaps=0x2.\n");
  ExpectLog(6, "Meta-data thread created successfully.\n");
}

TEST_F(InitTest, MissingIPCapabilityAssertsAndInitContinues) {
  Start(0);
  ExpectAssertion("(dwCaps & METADATALIB_CAPS_IPV4_SUPPORT) || (dwCaps & METADATALIB_CAPS_IPV6_SUPPORT)");
  EXPECT_TRUE(host().ThreadRuns());
  Open(SerialConfig());
}

TEST_F(InitTest, EitherIPCapabilityIsEnough) {
  Start(METADATALIB_CAPS_IPV6_SUPPORT);
  EXPECT_TRUE(host().ThreadRuns());
}

TEST_F(InitTest, WaitConditionFailureAsserts) {
  host().FailNext("WaitCond_Init");
  Start();
  ExpectAssertion("WaitCond_Init(&_g_MetaDataThreadCond)");
}

TEST_F(InitTest, MailboxFailureReturnsFalse) {
  host().FailNext("MBOX_CreateMailBox");
  EXPECT_FALSE(METADATALIB_Init(kIPv4));
  ExpectLog(3, "Unable to create mailbox for communication with meta-data thread.\n");
  EXPECT_FALSE(g_bMetaDataLibInitialized);
  EXPECT_EQ(host().Calls("__FDMGR_CreateSet"), 0);
  WaitCond_Destroy(&_g_MetaDataThreadCond);
}

TEST_F(InitTest, ReadSetFailureKeepsTheMisspeltMessageAndClosesTheMailbox) {
  host().FailNext("__FDMGR_CreateSet");
  EXPECT_FALSE(METADATALIB_Init(kIPv4));
  ExpectLog(3, "Unable to file descriptor set for met-data thread.\n");
  EXPECT_EQ(host().Calls("MBOX_CloseMailBox"), 1);
  EXPECT_FALSE(g_bMetaDataLibInitialized);
  WaitCond_Destroy(&_g_MetaDataThreadCond);
}

TEST_F(InitTest, ThreadCreationFailureClosesTheMailboxAndLeavesTheSet) {
  host().FailNext("CreateThread");
  EXPECT_FALSE(METADATALIB_Init(kIPv4));
  ExpectLog(3, "Unable to create meta-data thread.\n");
  EXPECT_EQ(host().Calls("MBOX_CloseMailBox"), 1);
  EXPECT_EQ(host().Calls("FDMGR_CloseSet"), 0);
  EXPECT_NE(g_hMetaDataFDSet, nullptr);
  EXPECT_FALSE(_g_bUsingInternalThread);
  FDMGR_CloseSet(&g_hMetaDataFDSet);
  WaitCond_Destroy(&_g_MetaDataThreadCond);
}

TEST_F(InitTest, MailboxThatCannotBeAddedToTheSetFailsLikeThreadCreation) {
  host().FailNext("__FDMGR_AddReadFD");
  EXPECT_FALSE(METADATALIB_Init(kIPv4));
  ExpectLog(3, "Unable to add mailbox to file descriptor set of meta-data thread.\n");
  EXPECT_EQ(host().Calls("MBOX_CloseMailBox"), 1);
  EXPECT_EQ(host().Calls("FDMGR_CloseSet"), 0);
  EXPECT_EQ(host().Calls("CreateThread"), 0);
  EXPECT_FALSE(g_bMetaDataLibInitialized);
  EXPECT_FALSE(_g_bUsingInternalThread);
  FDMGR_CloseSet(&g_hMetaDataFDSet);
  WaitCond_Destroy(&_g_MetaDataThreadCond);
  Start();
  Close(Open(NetworkConfig()));
}

TEST_F(InitTest, LoadsTheGridWithCoTSupport) {
  StartWithCoT();
  EXPECT_TRUE(_g_bCoTSupportEnabled);
  EXPECT_TRUE(_g_bGridInitialized);
}

TEST_F(InitTest, MissingGridIsLoggedAssertedAndIgnored) {
  Start(METADATALIB_CAPS_COT_SUPPORT | kIPv4);
  ExpectLogContaining(5, "Support of additionnal CoT items enabled.");
  ExpectLogContaining(2, "Failed to open \"/usr/share/vendor/data/ww15mgh.grd\"");
  ExpectLog(2, "Unable to initialize grid.\n");
  ExpectAssertion("0");
  EXPECT_TRUE(_g_bCoTSupportEnabled);
  EXPECT_FALSE(_g_bGridInitialized);
  EXPECT_TRUE(host().ThreadRuns());
}

TEST_F(InitTest, SecondInitAfterShutdownAssertsAndWorks) {
  Start();
  Close(Open(NetworkConfig()));
  Stop();
  EXPECT_TRUE(g_bMetaDataLibInitialized);
  Start();
  ExpectAssertion("g_bMetaDataLibInitialized == FALSE");
  Open(NetworkConfig());
  EXPECT_EQ(ListedSources(), 1);
  EXPECT_TRUE(host().SelectInterval().has_value() || (host().Pass(), host().SelectInterval().has_value()));
}

TEST_F(InitTest, SecondInitWhileTheLibraryRunsAssertsAndChangesNothing) {
  StartWithCoT();
  const HMDATASRC source = Open(VideoConfig(1));
  host().ClearLogs();
  const HDBG debug = g_hMetaDataLibDbg;
  const HMBOX mailbox = _g_hMetaDataThreadMBox;
  const HFDSET set = g_hMetaDataFDSet;
  const HTHREAD thread = _g_hMetaDataProcessingThread;
  const DWORD caps = g_dwLibCaps;
  _g_nStrayPosts = 3;
  const char* const services[] = {"_DoDbgInit",        "MBOX_CreateMailBox", "__FDMGR_CreateSet",
                                  "__FDMGR_AddReadFD", "CreateThread",       "fopen"};
  std::vector<int> before;
  for (const char* service : services) before.push_back(host().Calls(service));
  const int conditions = host().Calls("WaitCond_Init");

  EXPECT_FALSE(METADATALIB_Init(METADATALIB_CAPS_IPV6_SUPPORT));
  ExpectAssertion("g_bMetaDataLibInitialized == FALSE");
  EXPECT_TRUE(host().Logs().empty());
  EXPECT_EQ(g_hMetaDataLibDbg, debug);
  EXPECT_EQ(_g_hMetaDataThreadMBox, mailbox);
  EXPECT_EQ(g_hMetaDataFDSet, set);
  EXPECT_EQ(_g_hMetaDataProcessingThread, thread);
  EXPECT_EQ(g_dwLibCaps, caps);
  EXPECT_TRUE(_g_bCoTSupportEnabled);
  EXPECT_TRUE(_g_bGridInitialized);
  EXPECT_EQ(_g_nStrayPosts, 3);
  EXPECT_NE(_g_pCurrentThreadSelectTimeOut, nullptr);
  for (size_t i = 0; i < before.size(); ++i) EXPECT_EQ(host().Calls(services[i]), before[i]) << services[i];
  EXPECT_EQ(host().Calls("WaitCond_Init"), conditions);

  _g_nStrayPosts = 0;
  host().FeedCapture(1, Bytes(40, 1), 1);
  host().PassUntilIdle();
  EXPECT_EQ(m_encoder.messages.size(), 1u) << "the running instance goes on";
  Close(source);
}

TEST_F(InitTest, IsRefusedWhileAThreadThatCouldNotBeStoppedRuns) {
  Start();
  host().FailNext("__MBOX_AllocMessage");
  METADATALIB_Shutdown();
  ExpectLog(5, "Called.\n");
  EXPECT_FALSE(METADATALIB_Init(kIPv4));
  ExpectAssertion("g_bMetaDataLibInitialized == FALSE");
  Open(NetworkConfig());
  EXPECT_EQ(ListedSources(), 1);
}

// --- Shut-down ---------------------------------------------------------------------------------------

TEST_F(ShutdownTest, BeforeInitOnlyAsserts) {
  METADATALIB_Shutdown();
  ExpectAssertion("g_bMetaDataLibInitialized");
  ExpectLog(5, "Called.\n");
  ExpectLog(6, "Done.\n");
  EXPECT_EQ(host().Calls("WaitForThread"), 0);
}

TEST_F(ShutdownTest, StopsJoinsAndReleases) {
  Start();
  Stop();
  ExpectLog(6, "Received EVENTID_SHUTDOWN_THREAD.\n");
  ExpectLog(6, "Waiting for metadata source thread semaphore.\n");
  ExpectLog(6, "Wait successful.\n");
  ExpectLog(7, "Closing Mailbox.\n");
  ExpectLog(6, "Done.\n");
  EXPECT_EQ(host().waits, std::vector<DWORD>{3000});
  EXPECT_EQ(host().Calls("WaitForThread"), 1);
  EXPECT_EQ(host().Calls("MBOX_CloseMailBox"), 1);
  EXPECT_EQ(host().Calls("FDMGR_CloseSet"), 1);
  EXPECT_EQ(host().Calls("WaitCond_Destroy"), 1);
  EXPECT_EQ(g_hMetaDataLibDbg, nullptr);
  EXPECT_EQ(g_hCoTConvDbg, nullptr);
  EXPECT_TRUE(g_bMetaDataLibInitialized) << "the flag outlives the shut-down";
}

TEST_F(ShutdownTest, StuckThreadLogsAssertsAndStillJoins) {
  Start();
  host().HoldThread(true);
  Stop();
  ExpectLog(3, "Wait FAILED, errno (110): \"Connection timed out\".\n");
  ExpectTextAssertion("Wait FAILED, errno (110): \"Connection timed out\".\n");
  EXPECT_EQ(host().waits, std::vector<DWORD>{3000});
  EXPECT_EQ(host().Calls("WaitForThread"), 1);
}

TEST_F(ShutdownTest, FailedSendIsRepeatedUntilItSucceeds) {
  Start();
  host().FailNext("MBOX_SendMessage", {.times = 3});
  Stop();
  ExpectLog(3, "MBOX_SendMessage FAILED.\n");  // the line is written once, however often the send fails
  ExpectLog(6, "Waiting for metadata source thread semaphore.\n");
  ExpectLog(6, "Wait successful.\n");
  EXPECT_EQ(host().Calls("MBOX_SendMessage"), 4);
  EXPECT_EQ(host().waits, std::vector<DWORD>{2970}) << "what is left of the 3000 ms";
  EXPECT_EQ(host().Calls("WaitForThread"), 1);
  EXPECT_EQ(host().Calls("MBOX_CloseMailBox"), 1);
}

TEST_F(ShutdownTest, MessageSentAtTheVeryEndStillEndsTheThread) {
  Start();
  host().FailNext("MBOX_SendMessage", {.times = 300});
  Stop();
  ExpectLog(3, "MBOX_SendMessage FAILED.\n");
  ExpectLog(3, "Wait FAILED, errno (110): \"Connection timed out\".\n");
  ExpectTextAssertion("Wait FAILED, errno (110): \"Connection timed out\".\n");
  EXPECT_EQ(host().Calls("MBOX_SendMessage"), 301);
  EXPECT_EQ(host().Calls("WaitForThread"), 1) << "joined after a failed wait too";
  EXPECT_EQ(host().Calls("MBOX_CloseMailBox"), 1);
}

TEST_F(ShutdownTest, MessageThatIsNeverSentLeavesTheThreadAndAllItUses) {
  StartWithCoT();
  const long start = host().NowSeconds();
  host().FailNext("MBOX_SendMessage", {.times = 100000});
  METADATALIB_Shutdown();
  host().StopFailing("MBOX_SendMessage");
  EXPECT_EQ(host().NowSeconds(), start + 3);
  ExpectLog(5, "Called.\n");
  ExpectLog(3, "MBOX_SendMessage FAILED.\n");
  ExpectLog(3, "Wait FAILED, errno (110): \"Connection timed out\".\n");
  ExpectTextAssertion("Wait FAILED, errno (110): \"Connection timed out\".\n");
  ExpectLog(3, "Unable to stop meta-data thread, it is left running.\n");
  ExpectLog(7, "Closing Mailbox.\n");
  ExpectLog(6, "Done.\n");
  EXPECT_TRUE(host().ThreadRuns());
  for (const char* service : {"WaitForThread", "MBOX_CloseMailBox", "FDMGR_CloseSet", "WaitCond_Destroy"})
    EXPECT_EQ(host().Calls(service), 0) << service;
  EXPECT_NE(g_hMetaDataLibDbg, nullptr);
  EXPECT_NE(g_hCoTConvDbg, nullptr);
  float undulation = 1;
  EXPECT_EQ(calcul_undulation(0, 0, &undulation), 0) << "the grid stays loaded";
  EXPECT_FALSE(_g_bShutdownThread);
  // The library still runs: a source can be opened and closed, and the next shut-down ends it.
  Close(Open(NetworkConfig()));
  Stop();
  EXPECT_EQ(host().Calls("WaitForThread"), 1);
}

TEST_F(ShutdownTest, NeitherWaitsNorJoinsIfTheMessageCannotBeAllocated) {
  Start();
  host().FailNext("__MBOX_AllocMessage");
  METADATALIB_Shutdown();
  ExpectLog(5, "Called.\n");
  ExpectLog(7, "Closing Mailbox.\n");
  ExpectLog(6, "Done.\n");
  EXPECT_TRUE(host().waits.empty());
  // The thread still uses these, so they stay until a shut-down reaches it.
  for (const char* service : {"WaitForThread", "MBOX_CloseMailBox", "FDMGR_CloseSet", "WaitCond_Destroy"})
    EXPECT_EQ(host().Calls(service), 0) << service;
  EXPECT_NE(g_hMetaDataLibDbg, nullptr);
  Stop();
  EXPECT_EQ(host().Calls("WaitForThread"), 1);
  EXPECT_EQ(g_hMetaDataLibDbg, nullptr);
}

TEST_F(ShutdownTest, SecondShutdownHasNothingLeftToStop) {
  Start();
  Stop();
  METADATALIB_Shutdown();
  EXPECT_EQ(host().Calls("WaitForThread"), 1);
  EXPECT_EQ(host().Calls("MBOX_CloseMailBox"), 1);
}

TEST_F(ShutdownTest, GridIsFreedAfterALoad) {
  StartWithCoT();
  Stop();
  EXPECT_EQ(host().waits.size(), 1u);
}

TEST_F(ShutdownTest, GridIsFreedWithoutALoadToo) {
  ASSERT_EQ(init_ww15mgh_grd(), -1) << "no grid file";
  host().ClearLogs();
  Start();
  EXPECT_FALSE(_g_bGridInitialized);
  Stop();
}

// --- The thread --------------------------------------------------------------------------------------

TEST_F(ThreadTest, SleepsUntilTheFirstSourceThenWakesEverySecond) {
  Start();
  host().Pass();
  EXPECT_FALSE(host().SelectInterval().has_value());
  const HMDATASRC source = Open(NetworkConfig());
  ExpectLog(6, "Enabling timeouts.\n");
  host().Pass();
  ASSERT_TRUE(host().SelectInterval().has_value());
  EXPECT_EQ(host().SelectInterval()->tv_sec, 1);
  EXPECT_EQ(host().SelectInterval()->tv_usec, 0);

  host().ClearLogs();
  host().SelectTimesOut();
  ExpectLog(7, "Called.\n");
  Close(source);
  ExpectLog(6, "Disabling timeouts since there are no metadata FDs left.\n");
  host().Pass();
  EXPECT_FALSE(host().SelectInterval().has_value());

  Open(NetworkConfig());
  ExpectLog(6, "Enabling timeouts.\n");
  host().Pass();
  EXPECT_TRUE(host().SelectInterval().has_value());
}

TEST_F(ThreadTest, SecondSourceLeavesTheTimeoutAlone) {
  Start();
  const HMDATASRC first = Open(NetworkConfig(MDATA_DATA_KLV, 5000));
  ExpectLog(6, "Enabling timeouts.\n");
  Open(NetworkConfig(MDATA_DATA_KLV, 5001));
  EXPECT_EQ(CountLogs(6, "Enabling timeouts.\n"), 1);
  Close(first);
  EXPECT_EQ(CountLogs(6, "Disabling timeouts since there are no metadata FDs left.\n"), 0);
}

TEST_F(ThreadTest, CountsAndTracesIterations) {
  Start();
  const int before = host().threadIterations;
  host().ClearLogs();
  host().Pass();
  EXPECT_GT(host().threadIterations, before);
  ExpectLog(8, "Calling select.\n");
  ExpectLogContaining(8, "select returned ");
  EXPECT_TRUE(host().savedStates.empty());
}

TEST_F(ThreadTest, SavesItsStateAroundSelectWhenAsked) {
  Start();
  __atomic_store_n(&g_bThreadStateDebuggingEnabled, TRUE, __ATOMIC_RELAXED);
  host().Pass();
  host().Pass();
  __atomic_store_n(&g_bThreadStateDebuggingEnabled, FALSE, __ATOMIC_RELAXED);
  ASSERT_GE(host().savedStates.size(), 2u);
  EXPECT_EQ(host().savedStates.front(), "_MetaDataThread");
}

TEST_F(ThreadTest, AgesDiscoveredSensorsOncePerWallClockSecond) {
  StartWithCoT();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_COT);
  config.format.CoT.bSensorDiscovery = TRUE;
  strcpy(config.format.CoT.szSpiUid, "SPI1");
  const HMDATASRC source = Open(config);
  const std::string event =
      "<event version=\"2.0\" uid=\"SPI2\" type=\"b-m-p-s-p-i\" time=\"2024-01-02T03:04:05.00Z\"></event>";
  host().FeedDatagram(host().LastFD("udp4"), Bytes(event.begin(), event.end()));
  host().PassUntilIdle();
  MDATA_SRC_STATS stats = {};
  MetaData_GetSourceStats(source, &stats);
  ASSERT_EQ(stats.prot.CoT.nDiscoveredSensorsCount, 1);
  // Several passes in one second age the sensors once.
  for (int second = 0; second < 10; ++second) {
    host().Advance(1000);
    host().SelectTimesOut();
    host().SelectTimesOut();
  }
  MetaData_GetSourceStats(source, &stats);
  EXPECT_EQ(stats.prot.CoT.nDiscoveredSensorsCount, 1);
  host().Advance(1000);
  host().SelectTimesOut();
  MetaData_GetSourceStats(source, &stats);
  EXPECT_EQ(stats.prot.CoT.nDiscoveredSensorsCount, 0);
}

TEST_F(ThreadTest, UnknownEventAsserts) {
  Start();
  HMBOXMSG message = __MBOX_AllocMessage(0, "test", "test", 1);
  MBOX_GetMessageHeader(message)->dwEventID = 3;
  ASSERT_TRUE(MBOX_SendMessage(_g_hMetaDataThreadMBox, message, 0));
  host().PassUntilIdle();
  ExpectAssertion("0");
}

TEST_F(ThreadTest, NotificationWithoutAMessageIsHarmless) {
  Start();
  host().ClearLogs();
  _MetaDataControlCallBack(g_hMetaDataFDSet, 0, 0, _g_hMetaDataThreadMBox, nullptr);
  ExpectLog(6, "Called.\n");
}

TEST_F(ThreadTest, DescriptorsJoinAndLeaveTheReadSet) {
  Start();
  const HMDATASRC source = Open(NetworkConfig(MDATA_DATA_KLV, 5000, 0));
  const int ipv4 = source->iFD;
  const int ipv6 = source->iFDv6;
  ExpectLog(6, "Received EVENTID_ADD_FD.\n");
  ExpectLog(6, "IPv4 socket descriptor " + std::to_string(ipv4) + " added to read set.\n");
  ExpectLog(6, "IPv6 socket descriptor " + std::to_string(ipv6) + " added to read set.\n");
  EXPECT_EQ(host().SetDescriptors().size(), 3u);
  Close(source);
  ExpectLog(6, "Received EVENTID_REMOVE_FD.\n");
  ExpectLog(6, "IPv4 socket " + std::to_string(ipv4) + " removed from read set.\n");
  ExpectLog(6, "IPv6 socket " + std::to_string(ipv6) + " removed from read set.\n");
  EXPECT_EQ(host().SetDescriptors().size(), 1u);

  const HMDATASRC serial = Open(SerialConfig());
  const int fd = serial->iFD;
  ExpectLog(6, "File descriptor " + std::to_string(fd) + " added to read set.\n");
  Close(serial);
  ExpectLog(6, "File descriptor " + std::to_string(fd) + " removed from read set.\n");
}

// --- Video extractors --------------------------------------------------------------------------------

TEST_F(VideoExtractorTest, TwoSourcesShareOneCapture) {
  Start();
  const HMDATASRC first = Open(VideoConfig(2));
  const int fd = _g_aVideoExtractors[2].iFD;
  ExpectLog(6, "Starting KLV Capture for interface 2.\n");
  ExpectLog(6, "File descriptor " + std::to_string(fd) + " added to read set. We will call _SDIDataRxCallBack.\n");
  const HMDATASRC second = Open(VideoConfig(2));
  ExpectLog(6, "We already have extractor FD (" + std::to_string(fd) + ") at index 2.\n");
  EXPECT_EQ(_g_aVideoExtractors[2].nRefCount, 2);
  EXPECT_EQ(host().captureStarts, std::vector<int>{2});

  Close(first);
  ExpectLog(6, "NOT disabling KLV extraction on BNC-2 since ref count is still at 1.\n");
  EXPECT_TRUE(host().captureStops.empty());
  Forget(second);
  HMDATASRC handle = second;
  EXPECT_TRUE(MetaData_CloseSource(&handle));
  ExpectLog(6, "File descriptor removed from read set.\n");
  ExpectLog(5, "Disabling KLV extraction on BNC-2 since ref count is at zero.\n");
  EXPECT_EQ(host().captureStops, std::vector<int>{2});
  EXPECT_EQ(_g_aVideoExtractors[2].iFD, -1);
  EXPECT_EQ(_g_aVideoExtractors[2].nRefCount, 0);
}

TEST_F(VideoExtractorTest, InterfacesZeroToThreeIndexTheTable) {
  Start();
  for (int input = 0; input < 4; ++input) {
    Open(VideoConfig(input));
    EXPECT_EQ(_g_aVideoExtractors[input].nRefCount, 1);
    EXPECT_GE(_g_aVideoExtractors[input].iFD, 0);
  }
  EXPECT_EQ(host().captureStarts, (std::vector<int>{0, 1, 2, 3}));
}

TEST_F(VideoExtractorTest, FailedStartLinksTheSourceWithoutData) {
  Start();
  host().FailNext("KLVCAPTURE_Start");
  const HMDATASRC source = Open(VideoConfig(1));
  ExpectLog(3, "Failed to start KLV capture.\n");
  EXPECT_TRUE(IsListed(source));
  EXPECT_EQ(_g_aVideoExtractors[1].iFD, -1);
  EXPECT_EQ(_g_aVideoExtractors[1].nRefCount, 0);
  Close(source);
  ExpectAssertion(kCountAboveZero);
  EXPECT_EQ(_g_aVideoExtractors[1].nRefCount, 0) << "the count does not fall below zero";
  EXPECT_TRUE(host().captureStops.empty());
}

TEST_F(VideoExtractorTest, ClosingASourceThatNeverStartedKeepsTheCaptureOfAnother) {
  Start();
  host().FailNext("KLVCAPTURE_Start");
  const HMDATASRC silent = Open(VideoConfig(1));
  ExpectLog(3, "Failed to start KLV capture.\n");
  const HMDATASRC receiving = Open(VideoConfig(1));
  Close(silent);
  ExpectAssertion(kCountAboveZero);
  EXPECT_TRUE(host().captureStops.empty());
  EXPECT_EQ(_g_aVideoExtractors[1].nRefCount, 1);
  Close(receiving);
  EXPECT_EQ(host().captureStops, std::vector<int>{1});
}

TEST_F(VideoExtractorTest, SourcesClosedAfterTheShutdownReleaseTheirCapture) {
  Start();
  const HMDATASRC first = Open(VideoConfig(2));
  const HMDATASRC second = Open(VideoConfig(2));
  Stop();
  const int removals = host().Calls("__FDMGR_RemoveReadFD");
  Close(first);
  EXPECT_EQ(_g_aVideoExtractors[2].nRefCount, 1);
  EXPECT_TRUE(host().captureStops.empty());
  Close(second);
  EXPECT_EQ(_g_aVideoExtractors[2].nRefCount, 0);
  EXPECT_EQ(_g_aVideoExtractors[2].iFD, -1);
  EXPECT_EQ(host().captureStops, std::vector<int>{2});
  EXPECT_EQ(host().Calls("__FDMGR_RemoveReadFD"), removals) << "there is no read set any more";
  EXPECT_EQ(ListedSources(), 0);

  Start();
  ExpectAssertion("g_bMetaDataLibInitialized == FALSE");
  Open(VideoConfig(2));
  EXPECT_EQ(host().captureStarts, (std::vector<int>{2, 2}));
  host().FeedCapture(2, Bytes(40, 1), 1);
  host().PassUntilIdle();
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

TEST_F(VideoExtractorTest, SourceThatNeverStartedReleasesNothingAfterTheShutdown) {
  Start();
  host().FailNext("KLVCAPTURE_Start");
  const HMDATASRC silent = Open(VideoConfig(1));
  ExpectLog(3, "Failed to start KLV capture.\n");
  const HMDATASRC receiving = Open(VideoConfig(1));
  Stop();
  Close(silent);
  ExpectAssertion(kCountAboveZero);
  EXPECT_EQ(_g_aVideoExtractors[1].nRefCount, 1);
  EXPECT_TRUE(host().captureStops.empty());
  Close(receiving);
  EXPECT_EQ(host().captureStops, std::vector<int>{1});
}

TEST_F(VideoExtractorTest, UnknownTypesAssertInTheThread) {
  Start();
  const HMDATASRC source = Open(NetworkConfig());
  source->Config.enInputType = 9;
  HMBOXMSG message = __MBOX_AllocMessage(0, "test", "test", 1);
  tagMDATA_SRC_HANDLE record = {};
  record.Config.enInputType = 9;
  record.iFD = -1;
  FastInitNode(&record.DNode, &record);
  MBOX_GetMessageHeader(message)->dwEventID = EVENTID_ADD_FD;
  MBOX_GetMessageHeader(message)->pvParam1 = &record;
  ASSERT_TRUE(MBOX_SendMessage(_g_hMetaDataThreadMBox, message, 0));
  host().PassUntilIdle();
  ExpectAssertion("0");
  EXPECT_TRUE(IsListed(&record)) << "linked whatever its type";
  message = __MBOX_AllocMessage(0, "test", "test", 1);
  MBOX_GetMessageHeader(message)->dwEventID = EVENTID_REMOVE_FD;
  MBOX_GetMessageHeader(message)->pvParam1 = &record;
  ASSERT_TRUE(MBOX_SendMessage(_g_hMetaDataThreadMBox, message, 0));
  host().PassUntilIdle();
  EXPECT_FALSE(IsListed(&record));
  source->Config.enInputType = MDATA_INPUT_NETWORK;
}

// --- The hand-shake ----------------------------------------------------------------------------------

class HandshakeTest : public EngineTest {
 protected:
  void CloseWhileStuck(HMDATASRC source) {
    Forget(source);
    host().HoldThread(true);
    HMDATASRC handle = source;
    EXPECT_TRUE(MetaData_CloseSource(&handle));
    ExpectLog(3, kRemoveTimedOut);
  }

  // Opens a source whose message cannot be sent.
  HMDATASRC OpenUnsent(const MDATA_SRC_CFG& config) {
    host().FailNext("MBOX_SendMessage");
    const HMDATASRC source = OpenWhileStuck(config);
    ExpectLog(3, "MBOX_SendMessage FAILED.\n");
    return source;
  }

  // Closes a source whose message cannot be sent.
  void CloseUnsent(HMDATASRC source) {
    host().FailNext("MBOX_SendMessage");
    CloseWhileStuck(source);
    ExpectLog(3, "MBOX_SendMessage FAILED.\n");
  }

  void LetTheThreadRun() {
    host().HoldThread(false);
    host().PassUntilIdle();
  }

  // Queues the event that ends the thread before all messages that are sent from now on.
  void EndTheThreadWithItsNextMessage() {
    HMBOXMSG message = __MBOX_AllocMessage(0, "test", "test", 1);
    MBOX_GetMessageHeader(message)->dwEventID = EVENTID_SHUTDOWN_THREAD;
    ASSERT_TRUE(MBOX_SendMessage(_g_hMetaDataThreadMBox, message, 0));
  }

  // Checks that no post is left that a later wait could consume.
  void ExpectPostsInOrder() { EXPECT_EQ(host().outstandingPosts, _g_nStrayPosts); }
};

TEST_F(HandshakeTest, OpenAndCloseWaitFiveSecondsAtMost) {
  Start();
  const HMDATASRC source = Open(NetworkConfig());
  ExpectLog(6, "Allocating message for processing thread.\n");
  ExpectLog(6, "Waiting for metadata source thread semaphore.\n");
  ExpectLog(6, "Wait successful.\n");
  Close(source);
  ExpectLog(6, "Waiting for metadata source thread semaphore.\n");
  ExpectLog(6, "Wait successful.\n");
  EXPECT_EQ(host().waits, (std::vector<DWORD>{5000, 5000}));
  EXPECT_EQ(host().outstandingPosts, 0);
}

TEST_F(HandshakeTest, TimedOutAddIsExecutedLater) {
  Start();
  const HMDATASRC source = OpenWhileStuck(NetworkConfig());
  ASSERT_NE(source, nullptr);
  EXPECT_FALSE(IsListed(source));
  LetTheThreadRun();
  EXPECT_TRUE(IsListed(source));
  ExpectPostsInOrder();
  Close(source);
  ExpectPostsInOrder();
}

TEST_F(HandshakeTest, TimedOutRemoveIsFinishedByTheThread) {
  Start();
  const HMDATASRC source = Open(NetworkConfig());
  const int fd = source->iFD;
  CloseWhileStuck(source);
  EXPECT_FALSE(host().FD(fd).closed) << "nothing is taken from under the thread";
  EXPECT_TRUE(IsListed(source));
  LetTheThreadRun();
  EXPECT_TRUE(host().FD(fd).closed);
  EXPECT_EQ(ListedSources(), 0);
  ExpectPostsInOrder();
}

TEST_F(HandshakeTest, PostOfAnAbandonedRequestEndsNoLaterWait) {
  Start();
  const HMDATASRC first = Open(NetworkConfig(MDATA_DATA_KLV, 5000));
  CloseWhileStuck(first);
  LetTheThreadRun();
  EXPECT_EQ(host().outstandingPosts, 1);
  const HMDATASRC second = Open(NetworkConfig(MDATA_DATA_KLV, 5001));
  EXPECT_TRUE(IsListed(second)) << "the open returned only after its own request was carried out";
  Close(second);
  ExpectPostsInOrder();
}

TEST_F(HandshakeTest, AddAndRemoveThatBothTimedOutAreBothFinished) {
  Start();
  const HMDATASRC source = OpenWhileStuck(NetworkConfig());
  const int fd = source->iFD;
  CloseWhileStuck(source);
  LetTheThreadRun();
  EXPECT_TRUE(host().FD(fd).closed);
  EXPECT_EQ(ListedSources(), 0);
  ExpectPostsInOrder();
}

TEST_F(HandshakeTest, FailedSendOfAnAddLeavesASourceThatReceivesNothing) {
  Start();
  const HMDATASRC source = OpenUnsent(NetworkConfig());
  LetTheThreadRun();
  EXPECT_FALSE(IsListed(source));
  const int fd = source->iFD;
  Close(source);
  EXPECT_TRUE(host().FD(fd).closed);
  ExpectPostsInOrder();
}

TEST_F(HandshakeTest, FailedSendOfARemoveIsSweptByTheThread) {
  Start();
  const HMDATASRC source = Open(NetworkConfig());
  const int fd = source->iFD;
  CloseUnsent(source);
  EXPECT_FALSE(host().FD(fd).closed);
  host().HoldThread(false);
  host().SelectTimesOut();
  EXPECT_TRUE(host().FD(fd).closed);
  EXPECT_EQ(ListedSources(), 0);
  ExpectLog(6, "Disabling timeouts since there are no metadata FDs left.\n");
  ExpectPostsInOrder();
}

TEST_F(HandshakeTest, FailedSendOfARemoveIsSweptByShutdown) {
  Start();
  const HMDATASRC source = Open(NetworkConfig());
  const int fd = source->iFD;
  CloseUnsent(source);
  host().HoldThread(false);
  Stop();
  EXPECT_TRUE(host().FD(fd).closed);
}

TEST_F(HandshakeTest, FailedSendsOfBothAddAndRemoveAreSwept) {
  Start();
  Open(NetworkConfig(MDATA_DATA_KLV, 5001));
  const HMDATASRC source = OpenUnsent(NetworkConfig());
  const int fd = source->iFD;
  CloseUnsent(source);
  host().SelectTimesOut();
  EXPECT_TRUE(host().FD(fd).closed);
  EXPECT_EQ(_g_pSweepList, nullptr);
  host().HoldThread(false);
}

TEST_F(HandshakeTest, SweepWaitsForAnAddThatIsStillQueued) {
  Start();
  m_open.push_back(OpenWhileStuck(NetworkConfig(MDATA_DATA_KLV, 5001)));
  const HMDATASRC source = OpenWhileStuck(NetworkConfig());
  const int fd = source->iFD;
  CloseUnsent(source);
  EXPECT_EQ(_g_pSweepList, source);
  host().Pass();  // handles the other source's message
  EXPECT_FALSE(host().FD(fd).closed) << "a queued message still names the record";
  EXPECT_EQ(_g_pSweepList, source);
  LetTheThreadRun();
  EXPECT_TRUE(host().FD(fd).closed);
  EXPECT_EQ(_g_pSweepList, nullptr);
  EXPECT_EQ(ListedSources(), 1);
  ExpectPostsInOrder();
}

TEST_F(HandshakeTest, AddsTheThreadLeavesQueuedAreFinishedByShutdown) {
  Start();
  EndTheThreadWithItsNextMessage();
  const HMDATASRC first = OpenWhileStuck(NetworkConfig(MDATA_DATA_KLV, 5001));
  const HMDATASRC second = OpenWhileStuck(NetworkConfig());
  const std::vector<int> descriptors = {first->iFD, second->iFD};
  CloseUnsent(first);
  CloseUnsent(second);
  host().HoldThread(false);
  Stop();
  for (int fd : descriptors) EXPECT_TRUE(host().FD(fd).closed);
}

TEST_F(HandshakeTest, RemovesTheThreadLeavesQueuedAreFinishedByShutdown) {
  Start();
  const HMDATASRC first = Open(NetworkConfig(MDATA_DATA_KLV, 5001));
  const HMDATASRC second = Open(NetworkConfig());
  const std::vector<int> descriptors = {first->iFD, second->iFD};
  EndTheThreadWithItsNextMessage();
  CloseWhileStuck(first);
  CloseWhileStuck(second);
  host().HoldThread(false);
  Stop();
  for (int fd : descriptors) EXPECT_TRUE(host().FD(fd).closed);
}

TEST_F(HandshakeTest, FailedPostAsserts) {
  Start();
  host().FailNext("WaitCond_Post");
  const HMDATASRC source = Open(NetworkConfig());
  ExpectAssertion("WaitCond_Post(&_g_MetaDataThreadCond)");
  EXPECT_TRUE(IsListed(source));
}

}  // namespace
