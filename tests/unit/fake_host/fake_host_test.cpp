// The fake host does what its language says.
#include "fake_host.h"

#include <gtest/gtest-spi.h>
#include <time.h>

#include <atomic>

#include "builders.h"

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

TEST_F(FakeHost, ADescriptorLeftOpenFailsTheTest) {
  int fd = -1;
  const BYTE address[4] = {};
  EXPECT_TRUE(CreateUDPRxSocket(5000, address, &fd));
  EXPECT_NONFATAL_FAILURE(host().Verify(), "left open");
  close(fd);
}

// A thread that selects on a mailbox until it is told to stop.
class FakeThread : public FakeHost {
 protected:
  void SetUp() override {
    FakeHost::SetUp();
    stop = false;
    received = 0;
    timeOuts = 0;
    const MBOX_CONFIG config = {sizeof(MBOX_CONFIG), "box", FALSE};
    ASSERT_TRUE(MBOX_CreateMailBox(&config, &mailbox));
    ASSERT_TRUE(__FDMGR_CreateSet("set", &set, "", "", 0));
    __FDMGR_AddReadFD(set, MBOX_GetNotificationFD(mailbox), OnMessage, nullptr, nullptr, "", "", 0);
    ASSERT_TRUE(CreateThread(&thread, "t", 0, 1, Routine, set));
    ASSERT_TRUE(StartThread(thread));
  }
  void TearDown() override {
    FDMGR_CloseSet(&set);
    MBOX_CloseMailBox(&mailbox);
    FakeHost::TearDown();
  }

  static void OnMessage(HFDSET, int, int, void*, void*) {
    HMBOXMSG message = nullptr;
    if (!MBOX_RecvMessage(mailbox, &message)) return;
    stop = MBOX_GetMessageHeader(message)->dwEventID == 1;
    ++received;
    MBOX_FreeMessage(message);
  }
  static void OnTimeOut(HFDSET, void*, void*) {
    ++timeOuts;
    stop = true;
  }
  static DWORD Routine(void* argument) {
    while (!stop) FDMGR_Select(static_cast<HFDSET>(argument));
    return 0;
  }
  static void Send(DWORD event) {
    HMBOXMSG message = __MBOX_AllocMessage(0, "", "", 0);
    MBOX_GetMessageHeader(message)->dwEventID = event;
    MBOX_SendMessage(mailbox, message, 0);
  }

  static inline HMBOX mailbox = nullptr;
  static inline std::atomic<bool> stop = false;
  static inline int received = 0;
  static inline int timeOuts = 0;
  HFDSET set = nullptr;
  HTHREAD thread = nullptr;
};

TEST_F(FakeThread, RunsInLockstepWithItsMailbox) {
  Send(0);
  EXPECT_EQ(received, 0);
  host().Pass();
  EXPECT_EQ(received, 1);
  Send(1);
  WaitForThread(thread);
  EXPECT_EQ(received, 2);
}

TEST_F(FakeThread, JoinedWithATimeOutItWakesByTheClock) {
  const timeval interval = {2, 500000};
  FDMGR_SetSelectTimeout(set, &interval, OnTimeOut, nullptr, nullptr);
  const long start = host().NowSeconds();
  WaitForThread(thread);
  EXPECT_EQ(timeOuts, 1);
  EXPECT_EQ(host().NowSeconds(), start + 2);
}

TEST_F(FakeThread, JoinedWithNothingToWakeItFailsTheTest) {
  stop = true;  // seen after the next pass only, and nothing makes one
  EXPECT_NONFATAL_FAILURE(WaitForThread(thread), "sleeps for ever");
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
