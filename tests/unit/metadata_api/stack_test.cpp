// SPDX-License-Identifier: Apache-2.0
// Measures the stack use of the library on the threads that call it and on the metadata thread. The test fills both
// stacks with a pattern, runs every call and every receive path with all log lines enabled, and looks for the lowest
// byte that changed. The figures include the fake host's services, which run on the same stacks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "../../../tools/mdfeed/cot_frame.h"
#include "builders.h"
#include "engine_test.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define STACK_IS_INFLATED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define STACK_IS_INFLATED 1
#endif
#endif

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

constexpr BYTE kPaint = 0xA5;
constexpr size_t kPainted = 256 * 1024;
// The limits in docs/integration.md. They are not compared if a sanitizer inflates the stack.
[[maybe_unused]] constexpr size_t kStatedForCalls = 24 * 1024;
[[maybe_unused]] constexpr size_t kStatedForTheMetadataThread = 16 * 1024;

// A stack for one thread, filled with the pattern.
class PaintedStack {
 public:
  PaintedStack() : m_memory(static_cast<BYTE*>(aligned_alloc(4096, kPainted))) { memset(m_memory, kPaint, kPainted); }
  ~PaintedStack() { free(m_memory); }
  PaintedStack(const PaintedStack&) = delete;
  PaintedStack& operator=(const PaintedStack&) = delete;

  // Runs the function on a thread with this stack. Returns the number of bytes used.
  size_t Run(const std::function<void()>& body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    EXPECT_EQ(pthread_attr_setstack(&attributes, m_memory, kPainted), 0);
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, &attributes, &Call, const_cast<std::function<void()>*>(&body)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    size_t nUntouched = 0;
    while (nUntouched < kPainted && m_memory[nUntouched] == kPaint) nUntouched++;
    return kPainted - nUntouched;
  }

 private:
  static void* Call(void* pvBody) {
    (*static_cast<std::function<void()>*>(pvBody))();
    return nullptr;
  }
  BYTE* m_memory;
};

// Fills the stack below its caller on the metadata thread with the pattern, and later finds how much of it was used.
struct MetadataStack {
  BYTE* pcPainted = nullptr;  // kPainted bytes
  size_t nAbove = 0;          // from their end to the start of the thread's stack
  size_t nUsed = 0;

  void Visit() {
    if (pcPainted == nullptr)
      Paint();
    else
      Read();
  }

 private:
  void __attribute__((noinline)) Paint() {
    pthread_attr_t attributes;
    void* pvLowest = nullptr;
    size_t nSize = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &pvLowest, &nSize);
    pthread_attr_destroy(&attributes);
    const auto nHere = reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) - 1024;
    pcPainted = reinterpret_cast<BYTE*>(nHere - kPainted);
    nAbove = reinterpret_cast<uintptr_t>(pvLowest) + nSize - nHere;
    for (volatile BYTE* pc = pcPainted; pc < pcPainted + kPainted; pc++) *pc = kPaint;
  }
  void __attribute__((noinline)) Read() {
    size_t nUntouched = 0;
    for (const volatile BYTE* pc = pcPainted; nUntouched < kPainted && *pc == kPaint; pc++) nUntouched++;
    nUsed = nAbove + kPainted - nUntouched;
  }
};

// It is called only on the metadata thread, between passes of the test.
MetadataStack g_stack;

BOOL VisitingCallback(MDATA_BUFFER*, void*, void*) {
  g_stack.Visit();
  return TRUE;
}

std::map<uintptr_t, int> g_delivered;  // messages by source

BOOL QuietCallback(MDATA_BUFFER*, void* pvUserParam, void*) {
  ++g_delivered[reinterpret_cast<uintptr_t>(pvUserParam)];
  return TRUE;
}

std::string Event(const std::string& type, const std::string& inner) {
  return "<?xml version='1.0'?><event version=\"2.0\" type=\"" + type +
         "\" uid=\"ID\" time=\"2024-01-02T03:04:05.00Z\" start=\"2024-01-02T03:04:05.00Z\" "
         "stale=\"2024-01-02T03:05:05.00Z\"><point lat=\"45.25\" lon=\"-73.75\" hae=\"1000.5\" ce=\"1\" le=\"1\"/><detail>" +
         inner + "</detail></event>";
}
const std::string kAircraft =
    Event("a-f-A-M-F-Q", "<track course=\"90.5\" speed=\"25\"/><attitude pitch=\"1.5\" roll=\"2.5\"/>");
const std::string kSensorPoint = Event("b-m-p-s-p-i",
                                       "<sensor model=\"EO\" fov=\"10\" vfov=\"8\" azimuth=\"20\" elevation=\"-30\" "
                                       "roll=\"1\" range=\"5000\"/>");

class StackTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    std::string grid = "1e1 - ";
    for (int i = 2; i < 1038961; ++i) grid += "0\n";
    host().WriteFile("/usr/share/vendor/data/ww15mgh.grd", grid);
    for (int level = 0; level <= 5; ++level) AllowLogs(level, "");
    g_stack = {};
    g_delivered.clear();
    for (const MDATA_SRC_CFG& config :
         {SerialConfig(), SerialConfig(MDATA_DATA_COT), NetworkConfig(MDATA_DATA_KLV, 5000, 0),
          NetworkConfig(MDATA_DATA_COT, 5001, AF_INET6), VideoConfig()})
      m_configs.push_back(Busy(config));
  }

  // Configures every treatment of a message that a source supports.
  MDATA_SRC_CFG Busy(MDATA_SRC_CFG config, uintptr_t nNumber = 0) {
    config.pfnCallback = QuietCallback;
    config.pvUserParam1 = reinterpret_cast<void*>(nNumber);
    config.bClassifyMission = TRUE;
    config.enClassification = 4;
    strcpy(config.szClassifyingCountry, "USA");
    strcpy(config.szObjectCountry, "USA");
    strcpy(config.szMissionID, "MISSION 12");
    config.bFilterUASTags = TRUE;
    for (UINT32& nWord : config.UASTagFilter) nWord = ~0u;
    config.bFilterUASSecurityTags = TRUE;
    config.UASSecurityTagFilter[0] = ~0u;
    config.bCaptureToDisk = TRUE;
    config.nMaxCaptureSizeInKBytes = 1024;
    config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 500;
    config.format.CoT.bSensorDiscovery = config.enDataType == MDATA_DATA_COT ? TRUE : FALSE;
    for (int i = 0; i < MDATA_MAX_RELAYS; ++i) AddRelay(config, {10, 0, 0, 1}, -1, -1);
    return config;
  }

  // Opens and closes every kind of source, and reads, resets and restores its statistics. The records are not on the
  // measured stack.
  void CallEverything() {
    const MDATA_SRC_CFG configs[] = {SerialConfig(), SerialConfig(MDATA_DATA_COT),
                                     NetworkConfig(MDATA_DATA_KLV, 5000, 0),
                                     NetworkConfig(MDATA_DATA_COT, 5001, AF_INET6), VideoConfig()};
    for (const MDATA_SRC_CFG& config : configs) {
      const MDATA_SRC_CFG busy = Busy(config);
      HMDATASRC source = nullptr;
      EXPECT_TRUE(MetaData_OpenSource(&busy, &source));
      MDATA_SRC_STATS stats = {};
      EXPECT_TRUE(MetaData_GetSourceStats(source, &stats));
      EXPECT_TRUE(MetaData_SetSourceStats(source, &stats));
      EXPECT_TRUE(MetaData_ResetSourceStats(source));
      EXPECT_TRUE(MetaData_CloseSource(&source));
    }
    Bytes message = WellFormedMessage();
    EXPECT_TRUE(ValidateUASLocalDataSet(message.data(), static_cast<int>(message.size()), 17));
  }

  std::vector<MDATA_SRC_CFG> m_configs;
};

constexpr DWORD kAllCaps = METADATALIB_CAPS_COT_SUPPORT | METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT;

TEST_F(StackTest, CallsUseNoMoreStackThanDocumented) {
  const size_t nIdle = PaintedStack().Run([] {});
  const size_t nStart = PaintedStack().Run([this] { Start(kAllCaps); });
  const size_t nCalls = PaintedStack().Run([this] { CallEverything(); });
  const size_t nStop = PaintedStack().Run([this] {
    METADATALIB_Shutdown();
    m_started = false;
  });
  printf("idle thread %zu, start %zu, sources %zu, shut-down %zu bytes\n", nIdle, nStart, nCalls, nStop);
#ifndef STACK_IS_INFLATED
  for (const size_t nUsed : {nStart, nCalls, nStop}) EXPECT_LE(nUsed, kStatedForCalls);
#endif
}

TEST_F(StackTest, ReceivePathsUseNoMoreStackThanDocumented) {
  Start(kAllCaps);
  MDATA_SRC_CFG probe = NetworkConfig(MDATA_DATA_KLV, 4000);
  probe.pfnCallback = VisitingCallback;
  const HMDATASRC visited = Open(probe);
  const auto visit = [&] {
    host().FeedDatagram(visited->iFD, WellFormedMessage());
    host().PassUntilIdle();
  };
  visit();
  ASSERT_NE(g_stack.pcPainted, nullptr);
  CallEverything();  // their control events are handled on the metadata thread

  const HMDATASRC klv = Open(Busy(NetworkConfig(MDATA_DATA_KLV, 5000), 1));
  const HMDATASRC cot = Open(Busy(NetworkConfig(MDATA_DATA_COT, 5001), 2));
  Open(Busy(VideoConfig(), 3));
  const HMDATASRC serial = Open(Busy(SerialConfig(), 4));
  for (int i = 0; i < 3; ++i) {
    host().FeedDatagram(klv->iFD, WellFormedMessage(), {.ttl = 60 + i, .tos = i});
    host().FeedDatagram(cot->iFD, Text(kAircraft), {.ttl = 60 + i, .tos = i});
    host().FeedDatagram(cot->iFD, Text(kSensorPoint));
    host().FeedCapture(0, WellFormedMessage(), static_cast<UINT64>(i));
    host().FeedSerial(serial->iFD, WellFormedMessage() + Bytes(100, 0x06) + WellFormedMessage());
    host().PassUntilIdle();
    host().Advance(5000);
    host().SelectTimesOut();
  }
  Close(serial);
  const HMDATASRC link = Open(Busy(SerialConfig(MDATA_DATA_COT), 5));
  for (const std::string& event : {kAircraft, kSensorPoint, kAircraft}) {
    host().FeedSerial(link->iFD, mdfeed::BuildCotFrame(event));
    host().PassUntilIdle();
  }
  EXPECT_THAT(g_delivered, ElementsAre(Pair(1u, 3), Pair(2u, 3), Pair(3u, 3), Pair(4u, 6), Pair(5u, 1)));
  for (const char* name : {"send", "recvmsg", "read"}) host().FailNext(name);
  host().FeedDatagram(klv->iFD, WellFormedMessage());
  host().FeedSerial(link->iFD, Bytes(10, 1));
  host().PassUntilIdle();
  visit();
  printf("metadata thread %zu bytes\n", g_stack.nUsed);
  EXPECT_GT(g_stack.nUsed, 2000u);
#ifndef STACK_IS_INFLATED
  EXPECT_LE(g_stack.nUsed, kStatedForTheMetadataThread);
#endif
  for (const Assertion& raised : host().Assertions()) ADD_FAILURE() << raised.text;
}

}  // namespace
