// SPDX-License-Identifier: Apache-2.0
// Descriptor sets, mailboxes, wait conditions, threads, rates, lists, time and text.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rate_table.h"
#include "runtime_test.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

// A descriptor that the test makes readable.
class Event {
 public:
  Event() : fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  ~Event() {
    if (fd >= 0) close(fd);
  }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  void Set() { eventfd_write(fd, 1); }
  void Clear() {
    eventfd_t value;
    eventfd_read(fd, &value);
  }
  int fd;
};

// --- descriptor sets ---------------------------------------------------------------------------------

class SetTest : public RuntimeTest {
 protected:
  SetTest() { EXPECT_TRUE(__FDMGR_CreateSet("Test", &m_set, HERE)); }
  ~SetTest() override { FDMGR_CloseSet(&m_set); }

  // Adds a descriptor whose callback notes its position and then does `action`.
  void Add(int fd, int name, std::function<void()> action = {}) {
    m_handlers.push_back(std::make_unique<Handler>(Handler{this, name, std::move(action)}));
    ASSERT_TRUE(__FDMGR_AddReadFD(m_set, fd, &SetTest::Called, m_handlers.back().get(), nullptr, HERE));
  }
  void Remove(int fd) { EXPECT_TRUE(__FDMGR_RemoveReadFD(m_set, fd, HERE)); }
  void TimeOutAfter(long ms) {
    timeval interval = {ms / 1000, ms % 1000 * 1000};
    EXPECT_TRUE(FDMGR_SetSelectTimeout(m_set, &interval, &SetTest::TimedOut, this, nullptr));
    interval = {1000, 0};  // the set has its own copy
  }

  struct Handler {
    SetTest* test;
    int name;
    std::function<void()> action;
  };
  static void Called(HFDSET hSet, int, int, void* pvParam1, void* pvParam2) {
    const Handler* handler = static_cast<Handler*>(pvParam1);
    EXPECT_EQ(hSet, handler->test->m_set);
    EXPECT_EQ(pvParam2, nullptr);
    handler->test->m_calls.push_back(handler->name);
    if (handler->action) handler->action();
  }
  static void TimedOut(HFDSET, void* pvParam1, void*) { ++static_cast<SetTest*>(pvParam1)->m_timeOuts; }

  HFDSET m_set = nullptr;
  std::vector<std::unique_ptr<Handler>> m_handlers;
  std::vector<int> m_calls;
  int m_timeOuts = 0;
};

TEST_F(SetTest, ReadableDescriptorsAreDispatchedInTheOrderTheyWereAdded) {
  std::vector<std::unique_ptr<Event>> events;
  for (int i = 0; i < 200; ++i) events.push_back(std::make_unique<Event>());
  for (int i = 0; i < 200; ++i) Add(events[static_cast<size_t>((i * 37) % 200)]->fd, i);
  for (auto event = events.rbegin(); event != events.rend(); ++event) (*event)->Set();
  EXPECT_EQ(FDMGR_Select(m_set), 200);
  EXPECT_TRUE(std::is_sorted(m_calls.begin(), m_calls.end()));
}

TEST_F(SetTest, ADifferenceOfTimesIsKnownInsideTheCallbackThatAskedForIt) {
  Event first;
  Event second;
  std::vector<std::optional<int64_t>> known;
  const auto look = [&known] {
    int64_t difference = 0;
    known.push_back(HostRuntime_TimeDifference(&difference) ? std::optional(difference) : std::nullopt);
  };
  Add(first.fd, 1, [&] {
    const timeval early = {10, 900'000};
    const timeval late = {12, 100'000};
    timeval difference = {};
    look();
    CalcTimeOfDayAbsDiff(&early, &late, &difference);
    look();
  });
  Add(second.fd, 2, look);
  first.Set();
  second.Set();
  EXPECT_EQ(FDMGR_Select(m_set), 2);
  EXPECT_EQ(FDMGR_Select(m_set), 2);
  EXPECT_THAT(known, ElementsAre(std::nullopt, 1'200'000, std::nullopt, std::nullopt, 1'200'000, std::nullopt));
}

TEST_F(SetTest, ADescriptorIsDispatchedAsLongAsItStaysReadable) {
  Event event;
  Add(event.fd, 1);
  event.Set();
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  event.Clear();
  TimeOutAfter(0);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
  EXPECT_EQ(m_timeOuts, 1);
}

TEST_F(SetTest, ARemovalTakesEffectInTheSamePass) {
  Event first;
  Event second;
  Add(first.fd, 1, [&] { Remove(second.fd); });
  Add(second.fd, 2);
  first.Set();
  second.Set();
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_THAT(m_calls, ElementsAre(1));
}

TEST_F(SetTest, ADescriptorAddedAnewUnderTheSameNumberWaitsForItsOwnEvent) {
  Event first;
  Event second;
  Add(first.fd, 1, [&] {
    Remove(second.fd);
    second.Clear();
    Add(second.fd, 3);
  });
  Add(second.fd, 2);
  first.Set();
  second.Set();
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_THAT(m_calls, ElementsAre(1));
}

TEST_F(SetTest, ACallbackMayRemoveItself) {
  Event event;
  Add(event.fd, 1, [&] { Remove(event.fd); });
  event.Set();
  TimeOutAfter(0);
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
}

TEST_F(SetTest, TheIntervalIsCopiedAndArmedAnewForEverySelect) {
  TimeOutAfter(30);
  for (int i = 1; i <= 2; ++i) {
    const auto begin = Clock::now();
    EXPECT_EQ(FDMGR_Select(m_set), 0);
    EXPECT_GE(Clock::now() - begin, milliseconds(30));
    EXPECT_EQ(m_timeOuts, i);
  }
}

TEST_F(SetTest, WithoutIntervalASelectWaitsForADescriptor) {
  Event event;
  Add(event.fd, 1);
  TimeOutAfter(1);
  EXPECT_TRUE(FDMGR_SetSelectTimeout(m_set, nullptr, &SetTest::TimedOut, this, nullptr));
  std::thread other([&] {
    std::this_thread::sleep_for(milliseconds(50));
    event.Set();
  });
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  other.join();
  EXPECT_EQ(m_timeOuts, 0);
}

TEST_F(SetTest, ABusyDescriptorKeepsNobodyWaiting) {
  Event busy;
  Event quiet;
  Add(busy.fd, 1, [&] { busy.Set(); });
  Add(quiet.fd, 2);
  busy.Set();
  quiet.Set();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(FDMGR_Select(m_set), 2);
}

// A datagram socket bound to a free port of the loopback interface, and sends to itself.
class SelfSender {
 public:
  SelfSender() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    socklen_t size = sizeof(address);
    EXPECT_EQ(getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    EXPECT_EQ(connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  ~SelfSender() { close(m_fd); }
  SelfSender(const SelfSender&) = delete;
  SelfSender& operator=(const SelfSender&) = delete;
  int Fd() const { return m_fd; }
  void Send(int count) {
    for (int i = 0; i < count; ++i) EXPECT_EQ(send(m_fd, "x", 1, 0), 1);
  }
  void Read() {
    char byte = 0;
    EXPECT_EQ(recv(m_fd, &byte, 1, 0), 1);
  }

 private:
  int m_fd;
};

TEST_F(SetTest, ASocketWithMoreDatagramsIsCalledAgainInThePassUpToSixteenTimes) {
  SelfSender socket;
  Add(socket.Fd(), 1, [&] { socket.Read(); });
  socket.Send(20);
  EXPECT_EQ(FDMGR_Select(m_set), 16);
  EXPECT_EQ(FDMGR_Select(m_set), 4);
  EXPECT_EQ(m_calls.size(), 20u);
}

TEST_F(SetTest, SocketsWithMoreDatagramsAreCalledInTurn) {
  SelfSender first;
  SelfSender second;
  Event event;
  Add(first.Fd(), 1, [&] { first.Read(); });
  Add(event.fd, 2);
  Add(second.Fd(), 3, [&] { second.Read(); });
  first.Send(3);
  second.Send(2);
  event.Set();
  EXPECT_EQ(FDMGR_Select(m_set), 6);
  EXPECT_EQ(m_calls, (std::vector<int>{1, 2, 3, 1, 3, 1}));
}

TEST_F(SetTest, ASocketThatIsRemovedIsNotCalledAgain) {
  SelfSender socket;
  Add(socket.Fd(), 1, [&] {
    socket.Read();
    Remove(socket.Fd());
  });
  SelfSender other;
  SelfSender victim;
  Add(other.Fd(), 2, [&] {
    other.Read();
    if (m_calls.size() == 4) Remove(victim.Fd());
  });
  Add(victim.Fd(), 3, [&] { victim.Read(); });
  socket.Send(5);
  other.Send(2);
  victim.Send(5);
  EXPECT_EQ(FDMGR_Select(m_set), 4);
  EXPECT_EQ(m_calls, (std::vector<int>{1, 2, 3, 2}));
}

TEST_F(SetTest, ASocketThatSeldomHasMoreIsSeldomAsked) {
  SelfSender socket;
  Add(socket.Fd(), 1, [&] { socket.Read(); });
  socket.Send(1);
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  // Not asked for seven calls, each of which is a pass of its own.
  socket.Send(10);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_EQ(FDMGR_Select(m_set), 3);
}

TEST_F(SetTest, APeerThatClosedMakesItsDescriptorReadable) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  Add(ends[0], 1);
  close(ends[1]);
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  Remove(ends[0]);
  close(ends[0]);
}

TEST_F(SetTest, MisuseFailsAndIsLogged) {
  Event event;
  EXPECT_FALSE(__FDMGR_AddReadFD(m_set, -1, &SetTest::Called, nullptr, nullptr, HERE));
  EXPECT_FALSE(__FDMGR_RemoveReadFD(m_set, event.fd, HERE));
  Add(event.fd, 1);
  EXPECT_FALSE(__FDMGR_AddReadFD(m_set, event.fd, &SetTest::Called, nullptr, nullptr, HERE));
  EXPECT_EQ(Lines().size(), 3u);
  HFDSET none = nullptr;
  EXPECT_FALSE(FDMGR_CloseSet(&none));
  EXPECT_EQ(FDMGR_Select(nullptr), -1);
}

TEST_F(SetTest, ADescriptorClosedWithoutRemovalCanBeAddedAgain) {
  const int fd = eventfd(1, EFD_CLOEXEC);
  Add(fd, 1);
  close(fd);
  const int again = eventfd(1, EFD_CLOEXEC);
  ASSERT_EQ(again, fd);
  Add(again, 2);
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_THAT(m_calls, ElementsAre(2));
  close(again);
  Remove(again);
}

// --- mailboxes ---------------------------------------------------------------------------------------

class MailboxTest : public RuntimeTest {
 protected:
  static bool Readable(HMBOX mailbox) {
    pollfd wait = {MBOX_GetNotificationFD(mailbox), POLLIN, 0};
    return poll(&wait, 1, 0) == 1;
  }
  static HMBOX Create(const char* name, BOOL replace = FALSE) {
    const MBOX_CONFIG mailboxConfig = {sizeof(MBOX_CONFIG), name, replace};
    HMBOX mailbox = nullptr;
    return MBOX_CreateMailBox(&mailboxConfig, &mailbox) ? mailbox : nullptr;
  }
  static bool Send(HMBOX mailbox, DWORD id) {
    const HMBOXMSG message = __MBOX_AllocMessage(0, HERE);
    MBOX_GetMessageHeader(message)->dwEventID = id;
    if (MBOX_SendMessage(mailbox, message, 0)) return true;
    MBOX_FreeMessage(message);  // a failed send leaves it with the caller
    return false;
  }
  static DWORD Receive(HMBOX mailbox) {
    HMBOXMSG message = nullptr;
    if (!MBOX_RecvMessage(mailbox, &message)) return 0;
    const DWORD id = MBOX_GetMessageHeader(message)->dwEventID;
    MBOX_FreeMessage(message);
    return id;
  }
};

TEST_F(MailboxTest, FirstInFirstOutAndReadableWhileAnythingWaits) {
  HMBOX mailbox = Create("Box");
  ASSERT_NE(mailbox, nullptr);
  EXPECT_FALSE(Readable(mailbox));
  for (DWORD i = 1; i <= 3; ++i) EXPECT_TRUE(Send(mailbox, i));
  for (DWORD i = 1; i <= 3; ++i) {
    EXPECT_TRUE(Readable(mailbox));
    EXPECT_EQ(Receive(mailbox), i);
  }
  EXPECT_FALSE(Readable(mailbox));
  EXPECT_EQ(Receive(mailbox), 0u);
  EXPECT_TRUE(MBOX_CloseMailBox(&mailbox));
  EXPECT_EQ(mailbox, nullptr);
}

TEST_F(MailboxTest, AMessageStartsZeroedAndClosingFreesWhatIsQueued) {
  HMBOX mailbox = Create("Box");
  const HMBOXMSG message = __MBOX_AllocMessage(100, HERE);
  EXPECT_EQ(MBOX_GetMessageHeader(message)->pvParam1, nullptr);
  EXPECT_TRUE(MBOX_SendMessage(mailbox, message, 0));
  EXPECT_TRUE(MBOX_CloseMailBox(&mailbox));
  EXPECT_EQ(__MBOX_AllocMessage(SIZE_MAX, HERE), nullptr);
}

TEST_F(MailboxTest, ANameIsUsedOnceUnlessReplaced) {
  HMBOX first = Create("Box");
  EXPECT_EQ(Create("Box"), nullptr);
  HMBOX second = Create("Box", TRUE);
  ASSERT_NE(second, nullptr);
  EXPECT_TRUE(Send(first, 1));
  EXPECT_TRUE(MBOX_CloseMailBox(&first));
  EXPECT_EQ(Create("Box"), nullptr);
  EXPECT_TRUE(MBOX_CloseMailBox(&second));
  second = Create("Box");
  EXPECT_NE(second, nullptr);
  EXPECT_TRUE(MBOX_CloseMailBox(&second));
}

TEST_F(MailboxTest, AFullMailboxRefusesAndTheMessageStaysWithTheCaller) {
  HMBOX mailbox = Create("Box");
  DWORD sent = 0;
  while (sent < 100'000 && Send(mailbox, sent + 1)) ++sent;
  EXPECT_EQ(sent, 4096u);
  EXPECT_EQ(Receive(mailbox), 1u);
  EXPECT_TRUE(Send(mailbox, 7));
  EXPECT_TRUE(MBOX_CloseMailBox(&mailbox));
}

TEST_F(MailboxTest, ManyThreadsSendToOne) {
  HMBOX mailbox = Create("Box");
  std::vector<std::thread> senders;
  for (DWORD s = 0; s < 4; ++s) {
    senders.emplace_back([&, s] {
      for (DWORD i = 1; i <= 500; ++i) EXPECT_TRUE(Send(mailbox, s << 16 | i));
    });
  }
  DWORD last[4] = {};
  for (int received = 0; received < 2000;) {
    pollfd wait = {MBOX_GetNotificationFD(mailbox), POLLIN, 0};
    ASSERT_EQ(poll(&wait, 1, 10'000), 1);
    const DWORD id = Receive(mailbox);
    ASSERT_NE(id, 0u);
    EXPECT_EQ(id & 0xFFFF, ++last[id >> 16]);
    ++received;
  }
  for (std::thread& sender : senders) sender.join();
  EXPECT_FALSE(Readable(mailbox));
  EXPECT_TRUE(MBOX_CloseMailBox(&mailbox));
}

// --- wait conditions ---------------------------------------------------------------------------------

TEST(WaitCond, PostsCountAlsoBeforeTheWait) {
  WAIT_COND cond;
  ASSERT_TRUE(WaitCond_Init(&cond));
  EXPECT_TRUE(WaitCond_Post(&cond));
  EXPECT_TRUE(WaitCond_Post(&cond));
  EXPECT_TRUE(_DoWaitCond_WaitFor(&cond, 0, HERE));
  EXPECT_TRUE(_DoWaitCond_WaitFor(&cond, 5000, HERE));
  errno = 0;
  EXPECT_FALSE(_DoWaitCond_WaitFor(&cond, 0, HERE));
  EXPECT_EQ(errno, ETIMEDOUT);
  WaitCond_Destroy(&cond);
}

TEST(WaitCond, AWaitWithoutAPostTakesItsTime) {
  WAIT_COND cond;
  ASSERT_TRUE(WaitCond_Init(&cond));
  const auto begin = Clock::now();
  EXPECT_FALSE(_DoWaitCond_WaitFor(&cond, 40, HERE));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_GE(Clock::now() - begin, milliseconds(40));
  EXPECT_LT(Clock::now() - begin, milliseconds(5000));
  WaitCond_Destroy(&cond);
}

TEST(WaitCond, EachPostWakesOneWaiter) {
  WAIT_COND cond;
  ASSERT_TRUE(WaitCond_Init(&cond));
  std::atomic<int> taken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] { taken += _DoWaitCond_WaitFor(&cond, 10'000, HERE) ? 1 : 0; });
  }
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(WaitCond_Post(&cond));
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(taken, 3);
  EXPECT_FALSE(_DoWaitCond_WaitFor(&cond, 0, HERE));
  WaitCond_Destroy(&cond);
}

// --- threads -----------------------------------------------------------------------------------------

class ThreadTest : public RuntimeTest {
 protected:
  static DWORD Run(void* pvArgument) {
    (*static_cast<std::function<void()>*>(pvArgument))();
    return 0;
  }
  HTHREAD Make(std::function<void()>& body, DWORD stack = 0, DWORD priority = 0) {
    HTHREAD thread = nullptr;
    EXPECT_TRUE(CreateThread(&thread, "A thread with a long name", stack, priority, &ThreadTest::Run, &body));
    return thread;
  }
};

TEST_F(ThreadTest, AThreadRunsOnlyOnceItIsStarted) {
  std::atomic<int> runs{0};
  char name[32] = "";
  sigset_t blocked;
  std::function<void()> body = [&] {
    pthread_getname_np(pthread_self(), name, sizeof(name));
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    ++runs;
  };
  HTHREAD thread = Make(body);
  std::this_thread::sleep_for(milliseconds(30));
  EXPECT_EQ(runs, 0);
  EXPECT_TRUE(StartThread(thread));
  EXPECT_TRUE(WaitForThread(thread));
  EXPECT_EQ(runs, 1);
  EXPECT_STREQ(name, "A thread with a");
  EXPECT_TRUE(sigismember(&blocked, SIGINT));
}

TEST_F(ThreadTest, AThreadThatWasNeverStartedIsJustFreed) {
  std::function<void()> body = [] { ADD_FAILURE() << "it ran"; };
  EXPECT_TRUE(WaitForThread(Make(body)));
  EXPECT_THAT(HostRuntime_Threads(), IsEmpty());
}

TEST_F(ThreadTest, StackAndPriorityAreWishes) {
  std::function<void()> body = [] {};
  for (const DWORD priority : {0u, 1u, 10u, 99u, 5000u}) {
    HTHREAD thread = Make(body, 1, priority);
    EXPECT_TRUE(StartThread(thread));
    EXPECT_TRUE(WaitForThread(thread));
  }
  m_config.realtimeThreads = false;
  Apply();
  int policy = -1;
  std::function<void()> ask = [&] { policy = sched_getscheduler(0); };
  HTHREAD thread = Make(ask, 1 << 20, 10);
  EXPECT_TRUE(StartThread(thread));
  EXPECT_TRUE(WaitForThread(thread));
  EXPECT_EQ(policy, SCHED_OTHER);
}

TEST_F(ThreadTest, TheWatchShowsWhereEachThreadIs) {
  std::atomic<int> step{0};
  std::function<void()> body = [&] {
    __IncrementThreadIterations();
    __IncrementThreadIterations();
    __SaveThreadState("_MetaDataThread", "metadata_api", 42);
    __SetThreadPausedState(TRUE);
    step = 1;
    Eventually([&] { return step == 2; });
    __SetThreadPausedState(FALSE);
    __SetThreadIterations(77);
  };
  HTHREAD thread = Make(body);
  ASSERT_EQ(HostRuntime_Threads().size(), 1u);
  EXPECT_FALSE(HostRuntime_Threads()[0].running);
  StartThread(thread);
  ASSERT_TRUE(Eventually([&] { return step == 1; }));
  HostThreadState seen = HostRuntime_Threads()[0];
  EXPECT_EQ(seen.name, "A thread with a long name");
  EXPECT_TRUE(seen.running);
  EXPECT_TRUE(seen.paused);
  EXPECT_EQ(seen.iterations, 2u);
  EXPECT_EQ(seen.function, "_MetaDataThread");
  EXPECT_EQ(seen.file, "metadata_api");
  EXPECT_EQ(seen.line, 42);
  EXPECT_GE(seen.secondsSinceSign, 0.0);
  step = 2;
  ASSERT_TRUE(Eventually([] { return !HostRuntime_Threads()[0].running; }));
  seen = HostRuntime_Threads()[0];
  EXPECT_FALSE(seen.paused);
  EXPECT_EQ(seen.iterations, 77u);
  EXPECT_TRUE(WaitForThread(thread));
  EXPECT_THAT(HostRuntime_Threads(), IsEmpty());
}

TEST_F(ThreadTest, AThreadThatWaitsForDescriptorsGivesASignEverySecond) {
  HFDSET set = nullptr;
  ASSERT_TRUE(__FDMGR_CreateSet("Idle", &set, HERE));
  Event end;
  const auto nothing = [](HFDSET, int, int, void*, void*) {};
  ASSERT_TRUE(__FDMGR_AddReadFD(set, end.fd, nothing, nullptr, nullptr, HERE));
  std::function<void()> body = [&] { EXPECT_EQ(FDMGR_Select(set), 1) << "the signs end no select"; };
  HTHREAD thread = Make(body);
  StartThread(thread);
  double longest = 0;
  for (const auto until = Clock::now() + milliseconds(2500); Clock::now() < until;) {
    longest = std::max(longest, HostRuntime_Threads()[0].secondsSinceSign);
    std::this_thread::sleep_for(milliseconds(20));
  }
  EXPECT_GT(longest, 0.8);
  EXPECT_LT(longest, 2.0);
  end.Set();
  EXPECT_TRUE(WaitForThread(thread));
  EXPECT_TRUE(FDMGR_CloseSet(&set));
}

TEST_F(ThreadTest, ReportsOfOtherThreadsAreIgnoredAndAskedForByTheConfiguration) {
  __IncrementThreadIterations();
  __SaveThreadState("f", "m", 1);
  __SetThreadPausedState(TRUE);
  __SetThreadIterations(1);
  EXPECT_THAT(HostRuntime_Threads(), IsEmpty());
  EXPECT_FALSE(g_bThreadStateDebuggingEnabled);
  m_config.threadStates = true;
  Apply();
  EXPECT_TRUE(g_bThreadStateDebuggingEnabled);
}

TEST_F(ThreadTest, MisuseFails) {
  HTHREAD thread = nullptr;
  EXPECT_FALSE(CreateThread(&thread, "x", 0, 0, nullptr, nullptr));
  EXPECT_FALSE(StartThread(nullptr));
  EXPECT_FALSE(WaitForThread(nullptr));
}

// --- rates -------------------------------------------------------------------------------------------

constexpr int64_t kSecond = 1'000'000'000;

// Adds one sample per second, each `step` bytes larger.
int64_t Feed(host_runtime::RateTable& table, int samples, uint64_t step, uint64_t& total, int64_t now) {
  for (int i = 0; i < samples; ++i) {
    now += kSecond;
    total += step;
    table.Add(total, now);
  }
  return now;
}

TEST(RateTable, TheRateIsBytesOverTimeInKbitPerSecond) {
  host_runtime::RateTable table(5);
  EXPECT_EQ(table.Rate(0), 0u);
  table.Add(1'000'000, kSecond);
  EXPECT_EQ(table.Rate(kSecond), 0u);
  table.Add(1'125'000, 2 * kSecond);
  EXPECT_EQ(table.Rate(2 * kSecond), 1000u);
  table.Add(1'375'000, 4 * kSecond);
  EXPECT_EQ(table.Rate(4 * kSecond), 1000u);
}

TEST(RateTable, OnlyTheLastSamplesCount) {
  host_runtime::RateTable table(5);
  uint64_t total = 0;
  int64_t now = Feed(table, 10, 1250, total, 0);
  EXPECT_EQ(table.Rate(now), 10u);
  now = Feed(table, 5, 2500, total, now);
  EXPECT_EQ(table.Rate(now), 20u);
}

TEST(RateTable, ATotalThatDecreasesDoesNotDistortTheRate) {
  host_runtime::RateTable table(5);
  uint64_t total = 1'000'000;
  int64_t now = Feed(table, 6, 1250, total, 0);
  total = 0;
  now = Feed(table, 1, 300, total, now);
  EXPECT_EQ(table.Rate(now), 10u);
  now = Feed(table, 5, 1250, total, now);
  EXPECT_EQ(table.Rate(now), 10u);
}

TEST(RateTable, ATotalThatJumpsDoesNotDistortTheRate) {
  for (const uint64_t jump : {uint64_t{50'000}, uint64_t{5'000'000'000}, uint64_t{1} << 62}) {
    host_runtime::RateTable table(5);
    uint64_t total = 0;
    int64_t now = Feed(table, 6, 1250, total, 0);
    total += jump;
    for (int i = 0; i < 6; ++i) {
      now = Feed(table, 1, 1250, total, now);
      EXPECT_EQ(table.Rate(now), 10u) << jump;
    }
  }
}

TEST(RateTable, AJumpBeforeAnythingIsKnownCountsOnlyUpToAFastLine) {
  host_runtime::RateTable table(5);
  uint64_t total = 0;
  int64_t now = Feed(table, 1, 0, total, 0);
  total += uint64_t{1} << 40;
  now = Feed(table, 3, 1250, total, now);
  EXPECT_EQ(table.Rate(now), 10u);
}

TEST(RateTable, AStreamThatReallyGetsFasterShowsWithItsSecondSample) {
  host_runtime::RateTable table(2);
  uint64_t total = 0;
  int64_t now = Feed(table, 3, 1250, total, 0);
  now = Feed(table, 1, 125'000, total, now);
  EXPECT_EQ(table.Rate(now), 10u);
  now = Feed(table, 1, 125'000, total, now);
  EXPECT_EQ(table.Rate(now), 1000u);
}

TEST(RateTable, WithoutSamplesTheRateSinksTo0) {
  host_runtime::RateTable table(5);
  uint64_t total = 0;
  const int64_t now = Feed(table, 6, 1250, total, 0);
  EXPECT_EQ(table.Rate(now + 2 * kSecond), 10u);
  EXPECT_EQ(table.Rate(now + 4 * kSecond), 6u);
  EXPECT_EQ(table.Rate(now + 5 * kSecond), 0u);
  EXPECT_EQ(table.Rate(now + 500 * kSecond), 0u);
}

TEST(RateTable, SamplesInQuickSuccessionAreTakenTogether) {
  host_runtime::RateTable table(5);
  table.Add(0, 0);
  for (int i = 1; i <= 1000; ++i) table.Add(static_cast<uint64_t>(i), i * 1'000'000);
  EXPECT_EQ(table.Rate(kSecond), 8u);
}

TEST(RateCounter, TheServiceIsSafeFromTwoThreads) {
  HCOUNTERRATE rate = nullptr;
  EXPECT_FALSE(__AllocCounterRateTable(0, "Metadata", &rate));
  ASSERT_TRUE(__AllocCounterRateTable(5, "Metadata", &rate));
  std::thread other([&] {
    for (UINT64 i = 0; i < 2000; ++i) AddCounterValue(rate, i * 100);
  });
  UINT32 value = 1;
  for (int i = 0; i < 2000; ++i) EXPECT_TRUE(GetCounterRate(rate, 1, &value));
  other.join();
  ResetCounterRateTable(rate);
  EXPECT_TRUE(GetCounterRate(rate, 1, &value));
  EXPECT_EQ(value, 0u);
  DeleteCounterRateTable(rate);
  EXPECT_FALSE(GetCounterRate(nullptr, 1, &value));
}

// --- lists -------------------------------------------------------------------------------------------

TEST(List, LinksAtTheTailAndUnlinksAnywhere) {
  FLIST_D list = {{'F', 'L', 'S', 'T'}, nullptr, nullptr};
  FNODE_D nodes[3];
  int objects[3] = {0, 1, 2};
  const auto order = [&] {
    std::string forward;
    std::string backward;
    for (FNODE_D* node = list.pHead; node != nullptr; node = node->pNext) {
      forward += std::to_string(*static_cast<int*>(node->pvObject));
    }
    for (FNODE_D* node = list.pTail; node != nullptr; node = node->pPrev) {
      backward.insert(0, std::to_string(*static_cast<int*>(node->pvObject)));
    }
    EXPECT_EQ(forward, backward);
    return forward;
  };
  for (int i = 0; i < 3; ++i) {
    FastInitNode(&nodes[i], &objects[i]);
    FastLinkD(&list, &nodes[i]);
  }
  EXPECT_EQ(order(), "012");
  FastUnlinkD(&list, &nodes[1]);
  EXPECT_EQ(order(), "02");
  FastUnlinkD(&list, &nodes[1]);
  EXPECT_EQ(order(), "02");
  FastLinkD(&list, &nodes[1]);
  EXPECT_EQ(order(), "021");
  FastUnlinkD(&list, &nodes[0]);
  FastUnlinkD(&list, &nodes[1]);
  EXPECT_EQ(order(), "2");
  FastUnlinkD(&list, &nodes[2]);
  EXPECT_EQ(order(), "");
  EXPECT_EQ(list.pHead, nullptr);
  EXPECT_EQ(list.pTail, nullptr);
}

// --- time and text -----------------------------------------------------------------------------------

TEST(Util, UpTimeCountsFromTheStartOfTheSystem) {
  UINT32 seconds = 0;
  ASSERT_TRUE(GetSystemUPTime(&seconds));
  double uptime = 0;
  std::ifstream("/proc/uptime") >> uptime;
  EXPECT_NEAR(static_cast<double>(seconds), uptime, 3.0);
}

TEST(Util, TimeStampsAreUTC) {
  char text[40];
  EXPECT_EQ(GenTimeStamp(1224807209, text, sizeof(text)), text);
  EXPECT_STREQ(text, "2008-10-24 00:13:29");
  GenTimeStamp(1224807209, text, 4);
  EXPECT_STREQ(text, "?");
}

TEST(Util, TimeDifferencesAreNeverNegative) {
  const timeval early = {10, 900'000};
  const timeval late = {12, 100'000};
  timeval difference = {};
  CalcTimeOfDayDiff(&early, &late, &difference);
  EXPECT_EQ(difference.tv_sec, 1);
  EXPECT_EQ(difference.tv_usec, 200'000);
  CalcTimeOfDayDiff(&late, &early, &difference);
  EXPECT_EQ(difference.tv_sec, 0);
  EXPECT_EQ(difference.tv_usec, 0);
  CalcTimeOfDayAbsDiff(&late, &early, &difference);
  EXPECT_EQ(difference.tv_sec, 1);
  EXPECT_EQ(difference.tv_usec, 200'000);
  timeval same = late;
  CalcTimeOfDayAbsDiff(&same, &early, &same);
  EXPECT_EQ(same.tv_sec, 1);
}

TEST(Util, TextsAlwaysEnd) {
  char text[6] = "xxxxx";
  EXPECT_EQ(PrintToString(text, sizeof(text), "%d", 123), 3);
  EXPECT_STREQ(text, "123");
  EXPECT_EQ(PrintToString(text, sizeof(text), "%s", "abcdefgh"), 5);
  EXPECT_STREQ(text, "abcde");
  EXPECT_EQ(PrintToString(text, 0, "%s", "z"), 0);
  CopyString(text, "12345678", sizeof(text));
  EXPECT_STREQ(text, "12345");
  CopyString(text, nullptr, sizeof(text));
  EXPECT_STREQ(text, "");
  text[0] = 'k';
  CopyString(text, "1", 0);
  EXPECT_EQ(text[0], 'k');
}

TEST(Util, TagNamesAreTheStandards) {
  EXPECT_STREQ(GetUAVTagName(1), "Checksum");
  EXPECT_STREQ(GetUAVTagName(2), "Precision Time Stamp");
  EXPECT_STREQ(GetUAVTagName(13), "Sensor Latitude");
  EXPECT_STREQ(GetUAVTagName(65), "UAS Datalink LS Version Number");
  EXPECT_STREQ(GetUAVTagName(143), "Metadata Substream ID Pack");
  for (int tag = 1; tag <= 143; ++tag) EXPECT_STRNE(GetUAVTagName(static_cast<BYTE>(tag)), "Unknown") << tag;
  for (const int tag : {0, 144, 255}) EXPECT_STREQ(GetUAVTagName(static_cast<BYTE>(tag)), "Unknown") << tag;
  EXPECT_STREQ(GetSecurityTagName(1), "Security Classification");
  EXPECT_STREQ(GetSecurityTagName(3), "Classifying Country");
  EXPECT_STREQ(GetSecurityTagName(22), "Version");
  for (const int tag : {0, 25, 255}) EXPECT_STREQ(GetSecurityTagName(static_cast<BYTE>(tag)), "Unknown") << tag;
}

}  // namespace
