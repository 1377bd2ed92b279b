// SPDX-License-Identifier: Apache-2.0
// Tests of the fake host itself.
#include "fake_host.h"

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "builders.h"
#include "converter.h"
#include "cot_support.h"
#include "md_xml_log.h"
#include "metadata_api.h"
#include "utils.h"

extern HDBG g_hMetaDataLibDbg;

namespace {

class FakeHost : public HostTest {};

void Print(int level, const char* text) {
  _DoDbgPrintEx(g_hMetaDataLibDbg, level, __func__, "test", __LINE__, "%s", text);
}

TEST_F(FakeHost, AnUnclaimedLineOfLevelFiveFailsTheTest) {
  Print(5, "five\n");
  EXPECT_NONFATAL_FAILURE(host().Verify(), "five");
  ExpectLog(5, "five\n");
}

TEST_F(FakeHost, AnUnclaimedLineOfLevelSixDoesNot) {
  Print(6, "six\n");
}

TEST_F(FakeHost, AnUnclaimedAssertionFailsTheTest) {
  _DoAssert("a == b", "f", "test", 1);
  EXPECT_NONFATAL_FAILURE(host().Verify(), "a == b");
  ExpectAssertion("a == b");
}

TEST_F(FakeHost, AClaimWithoutItsLineFails) {
  EXPECT_NONFATAL_FAILURE(ExpectLog(3, "absent\n"), "absent");
}

TEST_F(FakeHost, TheClockMovesOnlyWhenAdvanced) {
  const time_t start = time(nullptr);
  EXPECT_EQ(start, 1704164645);
  host().Advance(1500);
  EXPECT_EQ(time(nullptr), start + 1);
  timeval now;
  gettimeofday(&now, nullptr);
  EXPECT_EQ(now.tv_usec, 500000);
  UINT32 up = 0;
  EXPECT_TRUE(GetSystemUPTime(&up));
  EXPECT_EQ(up, 1001u);
}

TEST_F(FakeHost, ANamedServiceFailsOnce) {
  host().FailNext("__AllocCounterRateTable");
  HCOUNTERRATE rate = nullptr;
  EXPECT_FALSE(__AllocCounterRateTable(5, "x", &rate));
  EXPECT_TRUE(__AllocCounterRateTable(5, "x", &rate));
  DeleteCounterRateTable(rate);
}

TEST_F(FakeHost, FilesLiveInTheTestsOwnFolder) {
  FILE* file = fopen("/tmp/fake_host_probe.txt", "w");
  ASSERT_NE(file, nullptr);
  fputs("hello", file);
  fclose(file);
  EXPECT_EQ(host().ReadFile("/tmp/fake_host_probe.txt"), "hello");
  EXPECT_NE(host().RealPath("/tmp/fake_host_probe.txt"), "/tmp/fake_host_probe.txt");
}

// --- leaks: one planted leak of every kind ------------------------------------------------

// Checks that exactly this leak is reported.
void ExpectLeak(const char* part) {
  EXPECT_NONFATAL_FAILURE(host().Verify(), part);
}

TEST_F(FakeHost, ADescriptorLeftOpenFailsTheTest) {
  int fd = -1;
  const BYTE address[4] = {};
  EXPECT_TRUE(CreateUDPRxSocket(5000, address, &fd));
  ExpectLeak("(udp4) left open");
  close(fd);
}

TEST_F(FakeHost, ASocketLeftOpenFailsTheTest) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  ExpectLeak("(socket) left open");
  close(fd);
}

TEST_F(FakeHost, ACaptureLeftRunningFailsTheTest) {
  VIDEO_EXTRACTOR extractor = {-1, 0};
  EXPECT_TRUE(KLVCAPTURE_Start(2, &extractor));
  ExpectLeak("(capture) left open");
  KLVCAPTURE_Stop(2);
}

TEST_F(FakeHost, ABlockOfTheLibraryLeftOverFailsTheTest) {
  MDATA_BUFFER* buffer = nullptr;
  ASSERT_TRUE(DoAllocBuffer(100, &buffer));
  ExpectLeak("bytes from unit_fake_host+0x");
  DoReleaseBuffer(&buffer);
}

// The calls go through volatile pointers, so that the compiler neither merges nor removes them.
void* volatile g_none = nullptr;
struct Allocator {
  const char* name;
  void* (*volatile allocate)();
};
const Allocator kAllocators[] = {{"malloc", [] { return malloc(7); }},
                                 {"calloc", [] { return calloc(2, 4); }},
                                 {"realloc", [] { return realloc(g_none, 9); }},
                                 {"strdup", []() -> void* { return strdup("text"); }},
                                 {"strndup", []() -> void* { return strndup("text", 2); }}};

TEST_F(FakeHost, EveryAllocatorsBlockLeftOverFailsTheTest) {
  for (const Allocator& allocator : kAllocators) {
    void* const block = allocator.allocate();
    ExpectLeak("blocks were left allocated");
    free(block);
  }
}

TEST_F(FakeHost, EveryAllocatorCanBeRefused) {
  for (const Allocator& allocator : kAllocators) {
    host().FailNext(allocator.name);
    EXPECT_EQ(allocator.allocate(), nullptr) << allocator.name;
  }
}

TEST_F(FakeHost, AReallocatedBlockIsOneBlock) {
  void* (*volatile const reallocate)(void*, size_t) = realloc;
  void* const block = reallocate(kAllocators[0].allocate(), 5000);
  ExpectLeak("  5000 bytes from");
  free(block);
}

TEST_F(FakeHost, AStreamLeftOpenFailsTheTest) {
  FILE* file = fopen("/tmp/fake_host_probe.txt", "w");
  ASSERT_NE(file, nullptr);
  ExpectLeak("the stream of /tmp/fake_host_probe.txt was left open");
  fclose(file);
}

TEST_F(FakeHost, AFileLeftOpenFailsTheTestUntilAStreamOwnsIt) {
  const int fd = open("/tmp/fake_host_probe.txt", O_CREAT | O_WRONLY, 0600);
  ASSERT_GE(fd, 0);
  ExpectLeak("the file /tmp/fake_host_probe.txt was left open");
  FILE* file = fdopen(fd, "w");
  ExpectLeak("the stream of /tmp/fake_host_probe.txt was left open");
  fclose(file);
}

TEST_F(FakeHost, AFileThatIsClosedIsNoLeak) {
  const int fd = open("/tmp/fake_host_probe.txt", O_CREAT | O_WRONLY, 0600);
  close(fd);
}

TEST_F(FakeHost, ADescriptorSetLeftOpenFailsTheTest) {
  HFDSET set = nullptr;
  EXPECT_TRUE(__FDMGR_CreateSet("set", &set, "", "", 0));
  ExpectLeak("a descriptor set was left open");
  FDMGR_CloseSet(&set);
}

TEST_F(FakeHost, AMailboxLeftOpenFailsTheTest) {
  const MBOX_CONFIG config = {sizeof(MBOX_CONFIG), "box", FALSE};
  HMBOX mailbox = nullptr;
  EXPECT_TRUE(MBOX_CreateMailBox(&config, &mailbox));
  ExpectLeak("a mailbox was left open");
  MBOX_CloseMailBox(&mailbox);
}

TEST_F(FakeHost, AMessageLeftOverFailsTheTest) {
  HMBOXMSG message = __MBOX_AllocMessage(0, "", "", 0);
  ExpectLeak("a mailbox message was left over");
  MBOX_FreeMessage(message);
}

TEST_F(FakeHost, ARateTableLeftOverFailsTheTest) {
  HCOUNTERRATE rate = nullptr;
  EXPECT_TRUE(__AllocCounterRateTable(5, "x", &rate));
  ExpectLeak("a rate table was left over");
  DeleteCounterRateTable(rate);
}

TEST_F(FakeHost, AWaitConditionLeftOverFailsTheTest) {
  WAIT_COND condition;
  EXPECT_TRUE(WaitCond_Init(&condition));
  ExpectLeak("a wait condition was left over");
  WaitCond_Destroy(&condition);
}

TEST_F(FakeHost, AThreadThatIsNotJoinedFailsTheTest) {
  HTHREAD thread = nullptr;
  EXPECT_TRUE(CreateThread(
      &thread, "t", 0, 1, [](void*) -> DWORD { return 0; }, nullptr));
  ExpectLeak("a thread was not joined");
  EXPECT_TRUE(StartThread(thread));
  while (host().ThreadRuns()) {
  }
  ExpectLeak("a thread was not joined");
  WaitForThread(thread);
}

// --- arguments of recvmsg and of the rate --------------------------------------------------------------

class FakeReceive : public FakeHost {
 protected:
  void SetUp() override {
    FakeHost::SetUp();
    const BYTE address[4] = {};
    CreateUDPRxSocket(5000, address, &m_fd);
    m_part = {m_bytes, sizeof m_bytes};
    m_message.msg_iov = &m_part;
    m_message.msg_iovlen = 1;
    m_message.msg_name = &m_from;
    m_message.msg_namelen = sizeof m_from;
    m_message.msg_control = m_control;
    m_message.msg_controllen = sizeof m_control;
  }
  void TearDown() override {
    close(m_fd);
    FakeHost::TearDown();
  }
  void Receive(int flags = MSG_DONTWAIT) {
    host().FeedDatagram(m_fd, {1, 2, 3}, {.ttl = 5, .tos = 6});
    EXPECT_EQ(recvmsg(m_fd, &m_message, flags), 3);
  }

  int m_fd = -1;
  BYTE m_bytes[16] = {};
  sockaddr_storage m_from = {};
  alignas(cmsghdr) BYTE m_control[2 * CMSG_SPACE(sizeof(int))] = {};
  iovec m_part = {};
  msghdr m_message = {};
};

TEST_F(FakeReceive, ACompleteRequestIsRecorded) {
  Receive();
  ASSERT_EQ(host().receives.size(), 1u);
  EXPECT_EQ(host().receives[0].flags, MSG_DONTWAIT);
  EXPECT_EQ(host().receives[0].size, sizeof m_bytes);
  EXPECT_EQ(host().receives[0].nameSize, sizeof m_from);
  EXPECT_EQ(host().receives[0].controlSize, sizeof m_control);
  EXPECT_EQ(m_message.msg_flags, 0);
}

TEST_F(FakeReceive, WithoutSenderAndControlMessagesIsAllowed) {
  m_message.msg_name = nullptr;
  m_message.msg_namelen = 0;
  m_message.msg_control = nullptr;
  m_message.msg_controllen = 0;
  Receive();
}

TEST_F(FakeReceive, CallThatMayBlockFailsTheTest) {
  EXPECT_NONFATAL_FAILURE(Receive(0), "must not block");
}

TEST_F(FakeReceive, RoomForOnlyAnIPv4SenderFailsTheTest) {
  m_message.msg_namelen = sizeof(sockaddr_in);
  EXPECT_NONFATAL_FAILURE(Receive(), "the sender's room");
}

TEST_F(FakeReceive, RoomForOneControlMessageFailsTheTestAndTruncatesThem) {
  m_message.msg_controllen = CMSG_SPACE(sizeof(int));
  EXPECT_NONFATAL_FAILURE(Receive(), "the room for control messages");
  EXPECT_EQ(m_message.msg_flags, MSG_CTRUNC);
}

TEST_F(FakeReceive, MissingBufferForTheDatagramFailsTheTest) {
  m_part = {nullptr, 0};
  host().FeedDatagram(m_fd, {});
  EXPECT_NONFATAL_FAILURE((void)recvmsg(m_fd, &m_message, MSG_DONTWAIT), "one part, with memory");
}

TEST_F(FakeHost, AnotherSelectorThanTheBitRateFailsTheTest) {
  HCOUNTERRATE rate = nullptr;
  ASSERT_TRUE(__AllocCounterRateTable(5, "x", &rate));
  UINT32 value = 0;
  EXPECT_NONFATAL_FAILURE(GetCounterRate(rate, 0, &value), "the selector");
  EXPECT_TRUE(GetCounterRate(rate, 1, &value));
  DeleteCounterRateTable(rate);
}

TEST_F(FakeHost, ARateTableThatDoesNotExistFailsTheTest) {
  EXPECT_NONFATAL_FAILURE(AddCounterValue(nullptr, 1), "does not exist");
}

// --- the library's globals ---------------------------------------------------------------------------------

TEST_F(FakeHost, EveryGlobalOfTheLibraryGetsItsInitialValueBack) {
  g_dwLibCaps = 99;                  // zero in a fresh process
  _g_bSelectTimeOutChanged = FALSE;  // not zero
  _g_aVideoExtractors[3] = {5, 6};   // a table
  _g_bAllItemsSupport = FALSE;       // other modules
  g_nXMLEventCount = 7;
  _g_nAllocatedBuffers = 8;
  g_MetaDataSrcList.pHead = nullptr;
  g_MetaDataSrcList.acSignature[0] = '?';
  host().Reset();
  EXPECT_EQ(g_dwLibCaps, 0u);
  EXPECT_EQ(_g_bSelectTimeOutChanged, TRUE);
  EXPECT_EQ(_g_aVideoExtractors[3].iFD, -1);
  EXPECT_EQ(_g_aVideoExtractors[3].nRefCount, 0);
  EXPECT_EQ(_g_bAllItemsSupport, TRUE);
  EXPECT_EQ(g_nXMLEventCount, 0);
  EXPECT_EQ(_g_nAllocatedBuffers, 0u);
  EXPECT_EQ(g_MetaDataSrcList.acSignature[0], 'F');
}

// --- the metadata thread -----------------------------------------------------------------------------------

// A thread that selects on a mailbox until a flag tells it to stop.
class FakeThread : public FakeHost {
 protected:
  void SetUp() override {
    FakeHost::SetUp();
    m_stop = false;
    m_received = 0;
    m_timeOuts = 0;
    const MBOX_CONFIG config = {sizeof(MBOX_CONFIG), "box", FALSE};
    ASSERT_TRUE(MBOX_CreateMailBox(&config, &m_mailbox));
    ASSERT_TRUE(__FDMGR_CreateSet("set", &m_set, "", "", 0));
    __FDMGR_AddReadFD(m_set, MBOX_GetNotificationFD(m_mailbox), OnMessage, nullptr, nullptr, "", "", 0);
    ASSERT_TRUE(CreateThread(&m_thread, "t", 0, 1, Routine, m_set));
    ASSERT_TRUE(StartThread(m_thread));
  }
  void TearDown() override {
    FDMGR_CloseSet(&m_set);
    MBOX_CloseMailBox(&m_mailbox);
    FakeHost::TearDown();
  }

  static void OnMessage(HFDSET, int, int, void*, void*) {
    HMBOXMSG message = nullptr;
    if (!MBOX_RecvMessage(m_mailbox, &message)) return;
    m_stop = MBOX_GetMessageHeader(message)->dwEventID == 1;
    ++m_received;
    MBOX_FreeMessage(message);
  }
  static void OnTimeOut(HFDSET, void*, void*) {
    ++m_timeOuts;
    m_stop = true;
  }
  static DWORD Routine(void* argument) {
    while (!m_stop) FDMGR_Select(static_cast<HFDSET>(argument));
    return 0;
  }
  static void Send(DWORD event) {
    HMBOXMSG message = __MBOX_AllocMessage(0, "", "", 0);
    MBOX_GetMessageHeader(message)->dwEventID = event;
    MBOX_SendMessage(m_mailbox, message, 0);
  }

  static inline HMBOX m_mailbox = nullptr;
  static inline std::atomic<bool> m_stop = false;
  static inline int m_received = 0;
  static inline int m_timeOuts = 0;
  HFDSET m_set = nullptr;
  HTHREAD m_thread = nullptr;
};

TEST_F(FakeThread, RunsInLockstepWithItsMailbox) {
  Send(0);
  EXPECT_EQ(m_received, 0);
  host().Pass();
  EXPECT_EQ(m_received, 1);
  Send(1);
  WaitForThread(m_thread);
  EXPECT_EQ(m_received, 2);
}

TEST_F(FakeThread, JoinWithATimeOutWakesItByTheClock) {
  const timeval interval = {2, 500000};
  FDMGR_SetSelectTimeout(m_set, &interval, OnTimeOut, nullptr, nullptr);
  const long start = host().NowSeconds();
  WaitForThread(m_thread);
  EXPECT_EQ(m_timeOuts, 1);
  EXPECT_EQ(host().NowSeconds(), start + 2);
}

TEST_F(FakeThread, JoinFailsTheTestIfNothingWakesIt) {
  m_stop = true;  // the thread sees it only after the next pass, which never happens
  EXPECT_NONFATAL_FAILURE(WaitForThread(m_thread), "sleeps for ever");
}

TEST_F(FakeHost, AnActionHappensInTheMiddleOfTheNamedCall) {
  int calls = 0;
  host().WhenCalled(
      "__AllocCounterRateTable", [&] { calls = host().Calls("__AllocCounterRateTable"); }, 1);
  for (int i = 0; i < 3; ++i) {
    HCOUNTERRATE rate = nullptr;
    EXPECT_TRUE(__AllocCounterRateTable(5, "x", &rate));
    DeleteCounterRateTable(rate);
  }
  EXPECT_EQ(calls, 2);
  host().WhenCalled("WaitCond_Init", [] {});
  EXPECT_NONFATAL_FAILURE(host().Verify(), "waits for WaitCond_Init in vain");
  WAIT_COND cond;
  WaitCond_Init(&cond);
  WaitCond_Destroy(&cond);
}

TEST_F(FakeHost, FailuresCanBeTakenBack) {
  host().FailNext("__AllocCounterRateTable", {.times = 100});
  HCOUNTERRATE rate = nullptr;
  EXPECT_FALSE(__AllocCounterRateTable(5, "x", &rate));
  host().StopFailing("__AllocCounterRateTable");
  EXPECT_TRUE(__AllocCounterRateTable(5, "x", &rate));
  DeleteCounterRateTable(rate);
}

TEST_F(FakeHost, BuildsMessagesWithARightChecksum) {
  const Bytes message = UasMessage().Item(2, Bytes(8)).Checksum().Build();
  EXPECT_EQ(message.size(), 16u + 1 + 10 + 4);
  EXPECT_EQ(OwnChecksum(message, message.size() - 2), message[29] * 256 + message[30]);
  EXPECT_EQ(SplitMessages(message + message).size(), 2u);
}

}  // namespace
