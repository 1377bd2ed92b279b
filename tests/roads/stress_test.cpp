// SPDX-License-Identifier: Apache-2.0
// Tests the library on real threads and the real host runtime: four threads open and close sources of all kinds while
// data flows on every path, first with a host whose services succeed, then with one that fails to send, runs out of
// messages and reacts too late. The sanitizers run this test too. STRESS_SECONDS sets the length of each of the two
// runs (3 by default).
//
// The test links the library's objects, so that the linker can insert it between them and the host's services.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cot_frame.h"
#include "host_runtime.h"
#include "metadata_api.h"
#include "metadata_lib.h"

namespace {

constexpr int kFirstPort = 17600;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

Clock::duration Duration() {
  const char* szSeconds = getenv("STRESS_SECONDS");
  return std::chrono::seconds(szSeconds != nullptr ? atoi(szSeconds) : 3);
}

// --- Failures ----------------------------------------------------------------------------------------

// The failures of the host, in percent of the calls.
struct Faults {
  std::atomic<int> nUnsent{0};         // MBOX_SendMessage
  std::atomic<int> nNoMessage{0};      // __MBOX_AllocMessage
  std::atomic<int> nNotWatched{0};     // __FDMGR_AddReadFD
  std::atomic<int> nLate{0};           // FDMGR_Select returns up to 40 ms late
  std::atomic<unsigned> nWaitMs{0};    // the longest wait, if not 0
  std::atomic<bool> bHold{false};      // makes the metadata thread stop before its next select
  std::atomic<bool> bHeld{false};      // the thread has stopped
  std::atomic<unsigned long> nMet{0};  // simulated failures

  bool Happens(const std::atomic<int>& nPercent) {
    if (nPercent == 0) return false;
    thread_local std::mt19937 random(static_cast<unsigned>(Clock::now().time_since_epoch().count()));
    const bool bHappens = static_cast<int>(random() % 100) < nPercent;
    if (bHappens) ++nMet;
    return bHappens;
  }
  void Clear() {
    nUnsent = nNoMessage = nNotWatched = nLate = 0;
    nWaitMs = 0;
    bHold = false;
  }
};

Faults g_Faults;

}  // namespace

extern "C" {

BOOL __real_MBOX_SendMessage(HMBOX, HMBOXMSG, DWORD);
HMBOXMSG __real___MBOX_AllocMessage(size_t, const char*, const char*, int);
BOOL __real___FDMGR_AddReadFD(HFDSET, int, FDMGR_READ_CALLBACK, void*, void*, const char*, const char*, int);
BOOL __real__DoWaitCond_WaitFor(WAIT_COND*, DWORD, const char*, const char*, int);
int __real_FDMGR_Select(HFDSET);

BOOL __wrap_MBOX_SendMessage(HMBOX hMBox, HMBOXMSG hMsg, DWORD dwOptions) {
  if (g_Faults.Happens(g_Faults.nUnsent)) return FALSE;
  return __real_MBOX_SendMessage(hMBox, hMsg, dwOptions);
}

HMBOXMSG __wrap___MBOX_AllocMessage(size_t nSize, const char* szFunction, const char* szFile, int nLine) {
  if (g_Faults.Happens(g_Faults.nNoMessage)) return nullptr;
  return __real___MBOX_AllocMessage(nSize, szFunction, szFile, nLine);
}

BOOL __wrap___FDMGR_AddReadFD(HFDSET hSet, int iFD, FDMGR_READ_CALLBACK pfnCallback, void* pvParam1, void* pvParam2,
                              const char* szFunction, const char* szFile, int nLine) {
  if (g_Faults.Happens(g_Faults.nNotWatched)) return FALSE;
  return __real___FDMGR_AddReadFD(hSet, iFD, pfnCallback, pvParam1, pvParam2, szFunction, szFile, nLine);
}

BOOL __wrap__DoWaitCond_WaitFor(WAIT_COND* pCond, DWORD nMilliseconds, const char* szFunction, const char* szFile,
                                int nLine) {
  const DWORD nLongest = g_Faults.nWaitMs;
  if (nLongest != 0 && nMilliseconds > nLongest) nMilliseconds = nLongest;
  return __real__DoWaitCond_WaitFor(pCond, nMilliseconds, szFunction, szFile, nLine);
}

int __wrap_FDMGR_Select(HFDSET hSet) {
  if (g_Faults.Happens(g_Faults.nLate)) std::this_thread::sleep_for(milliseconds(g_Faults.nMet % 40));
  while (g_Faults.bHold) {
    g_Faults.bHeld = true;
    std::this_thread::sleep_for(milliseconds(1));
  }
  g_Faults.bHeld = false;
  return __real_FDMGR_Select(hSet);
}
}

namespace {

// --- The encoder -------------------------------------------------------------------------------------

enum Path { SerialKlv, SerialCoT, UdpKlv, UdpCoT, Video, PathCount };

// One source as its ready callback sees it. It outlives the source.
struct Watch {
  std::atomic<unsigned long>* pnDelivered = nullptr;
  std::atomic<Clock::rep> nClosed{0};  // time at which its close returned
};

std::atomic<unsigned long> g_anDelivered[PathCount];
std::atomic<unsigned long> g_nAll{0};
std::atomic<unsigned long> g_nTooLate{0};  // callbacks that began well after their source was closed
std::mutex g_KeptLock;
std::vector<MDATA_BUFFER*> g_Kept;

// Keeps every eighth buffer for a while, as an encoder does. A busy machine may delay a callback that was entered while
// the close gave up, but not by a second.
BOOL OnMessage(MDATA_BUFFER* pBuffer, void* pvUserParam1, void*) {
  auto* pWatch = static_cast<Watch*>(pvUserParam1);
  const Clock::rep nClosed = pWatch->nClosed;
  if (nClosed != 0 && Clock::now().time_since_epoch() - Clock::duration(nClosed) > std::chrono::seconds(1))
    ++g_nTooLate;
  ++*pWatch->pnDelivered;
  if (++g_nAll % 8 == 0) {
    __atomic_add_fetch(&pBuffer->nRefCount, 1, __ATOMIC_RELAXED);
    std::lock_guard lock(g_KeptLock);
    g_Kept.push_back(pBuffer);
  }
  return TRUE;
}

void ReleaseKept() {
  std::vector<MDATA_BUFFER*> kept;
  {
    std::lock_guard lock(g_KeptLock);
    kept.swap(g_Kept);
  }
  for (MDATA_BUFFER* pBuffer : kept) MetaData_ReleaseBuffer(pBuffer);
}

// Returns a message with a time stamp and a correct checksum.
std::vector<BYTE> Message() {
  std::vector<BYTE> bytes = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00,
                             0x00, 14,   2,    8,    0,    1,    2,    3,    4,    5,    6,    7,    1,    2};
  unsigned sum = 0;
  for (size_t i = 0; i < bytes.size(); ++i) sum += i % 2 == 0 ? bytes[i] * 256u : bytes[i];
  bytes.push_back(static_cast<BYTE>(sum >> 8));
  bytes.push_back(static_cast<BYTE>(sum));
  return bytes;
}

MDATA_SRC_CFG BasicConfig() {
  MDATA_SRC_CFG config;
  std::memset(&config, 0, sizeof config);
  config.nSize = sizeof config;
  config.pfnCallback = OnMessage;
  return config;
}

MDATA_SRC_CFG NetworkConfig(int iPort, int enDataType) {
  MDATA_SRC_CFG config = BasicConfig();
  config.enInputType = MDATA_INPUT_NETWORK;
  config.enDataType = enDataType;
  config.in.Network.usUDPPort = static_cast<USHORT>(iPort);
  config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 500;
  std::strcpy(config.szMissionID, "STRESS");
  config.nNumOfRelays = 1;
  config.Relays[0].usUDPPort = 17699;
  config.Relays[0].iDestAddressFamily = AF_INET;
  config.Relays[0].acDestAddress[0] = 127;
  config.Relays[0].acDestAddress[3] = 1;
  config.Relays[0].IpTOS = -1;
  config.Relays[0].IpTTL = -1;
  return config;
}

MDATA_SRC_CFG SerialConfig(int enDataType) {
  MDATA_SRC_CFG config = BasicConfig();
  config.enInputType = MDATA_INPUT_SERIAL;
  config.enDataType = enDataType;
  config.in.Serial.nBaudRate = 115200;
  config.in.Serial.nDataBits = 8;
  config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 500;
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 64;
  return config;
}

MDATA_SRC_CFG VideoConfig(int iInterface) {
  MDATA_SRC_CFG config = BasicConfig();
  config.enInputType = MDATA_INPUT_VIDEO;
  config.in.Video.enInputInterface = iInterface;
  config.nDecimationFactor = 2;
  return config;
}

// Even ports carry events, odd ports messages.
MDATA_SRC_CFG ConfigOf(Path path, int iNumber) {
  switch (path) {
    case SerialKlv:
      return SerialConfig(MDATA_DATA_KLV);
    case SerialCoT:
      return SerialConfig(MDATA_DATA_COT);
    case UdpKlv:
      return NetworkConfig(kFirstPort + iNumber * 2 + 1, MDATA_DATA_KLV);
    case UdpCoT:
      return NetworkConfig(kFirstPort + iNumber * 2, MDATA_DATA_COT);
    default:
      return VideoConfig(iNumber);
  }
}

std::vector<BYTE> ReadEvent(const char* szName) {
  std::ifstream file(std::filesystem::path(METADATA_COT_EVENTS_DIR) / szName, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Returns an aircraft event and its sensor point, which together make a packet.
const std::vector<std::vector<BYTE>>& Events() {
  static const std::vector<std::vector<BYTE>> kEvents = {ReadEvent("level_flight_aircraft.xml"),
                                                         ReadEvent("level_flight_spi.xml")};
  return kEvents;
}

// The log lines that report a time-out.
std::atomic<int> g_nTimeOutLines{0};

std::atomic<int> g_enSerialData{MDATA_DATA_KLV};

class Traffic {
 public:
  Traffic(int iPtyMaster, const std::vector<std::string>& captures) : m_iPtyMaster(iPtyMaster), m_captures(captures) {
    m_threads.emplace_back([this] { SendUDP(); });
    m_threads.emplace_back([this] { SendSerial(); });
    m_threads.emplace_back([this] { SendVideo(); });
  }
  ~Traffic() {
    m_bStop = true;
    for (auto& thread : m_threads) thread.join();
  }

 private:
  void SendUDP() {
    const std::vector<BYTE> message = Message();
    int iSocket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (size_t n = 0; !m_bStop; ++n) {
      for (int i = 0; i < 8; ++i) {
        const std::vector<BYTE>& bytes = i % 2 == 0 ? Events()[n % 2] : message;
        address.sin_port = htons(static_cast<uint16_t>(kFirstPort + i));
        sendto(iSocket, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    close(iSocket);
  }
  // The purpose of the source that was opened last.
  void SendSerial() {
    const std::vector<BYTE> message = Message();
    std::vector<std::vector<BYTE>> frames;
    for (const std::vector<BYTE>& event : Events())
      frames.push_back(mdfeed::BuildCotFrame({reinterpret_cast<const char*>(event.data()), event.size()}));
    for (size_t n = 0; !m_bStop; ++n) {
      const std::vector<BYTE>& bytes = g_enSerialData == MDATA_DATA_COT ? frames[n % 2] : message;
      for (size_t nSent = 0; nSent < bytes.size() && !m_bStop;) {
        const ssize_t nWritten = write(m_iPtyMaster, bytes.data() + nSent, bytes.size() - nSent);
        if (nWritten > 0) nSent += static_cast<size_t>(nWritten);
        if (nWritten < 0) std::this_thread::sleep_for(milliseconds(1));
      }
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  }

  // The sockets exist as long as the captures.
  void SendVideo() {
    std::vector<BYTE> packet(8);
    const std::vector<BYTE> message = Message();
    packet.insert(packet.end(), message.begin(), message.end());
    int iSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    while (!m_bStop) {
      ++packet[7];
      for (const std::string& path : m_captures) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        sendto(iSocket, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(400));
    }
    close(iSocket);
  }

  int m_iPtyMaster;
  std::vector<std::string> m_captures;
  std::atomic<bool> m_bStop{false};
  std::vector<std::thread> m_threads;
};

// --- The runs ----------------------------------------------------------------------------------------

struct Count {
  unsigned long opened = 0;
  unsigned long refused = 0;
};

// Reads, sets and resets statistics from the encoder's thread.
void UseStatistics(HMDATASRC hSource, std::mt19937& random) {
  MDATA_SRC_STATS stats;
  std::memset(&stats, 0, sizeof stats);
  MetaData_GetSourceStats(hSource, &stats);
  if (random() % 2 == 0) MetaData_SetSourceStats(hSource, &stats);
  if (random() % 4 == 0) MetaData_ResetSourceStats(hSource);
}

// One encoder thread with its own UDP ports. It shares the serial port and the video inputs with the other threads.
class Opener {
 public:
  explicit Opener(int iThread) : m_iThread(iThread), m_random(static_cast<unsigned>(iThread)) {}

  // Runs until the end, and checks the duration of each close unless closes may be given up.
  void Run(Clock::time_point end, bool bFailing) {
    while (Clock::now() < end) {
      const Path path = static_cast<Path>(m_random() % PathCount);
      HMDATASRC hSource = Open(path);
      if (hSource == nullptr) continue;
      if (m_random() % 2 == 0) UseStatistics(hSource, m_random);
      const bool bSerial = path == SerialKlv || path == SerialCoT;
      if (bSerial || m_random() % 3 == 0)
        std::this_thread::sleep_for(milliseconds(bSerial ? 50 + m_random() % 150 : m_random() % 5));
      const auto start = Clock::now();
      Close(hSource);
      if (!bFailing) {
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(4)) << "a close timed out";
      }
      ReleaseKept();
      // Openers whose wait times out hold the library's mutex most of the time, and the serial path needs it too.
      if (bFailing) std::this_thread::sleep_for(milliseconds(m_random() % 100));
    }
  }

  HMDATASRC Open(Path path) {
    MDATA_SRC_CFG config = ConfigOf(path, m_iThread);
    m_watches.emplace_back();
    m_watches.back().pnDelivered = &g_anDelivered[path];
    config.pvUserParam1 = &m_watches.back();
    HMDATASRC hSource = nullptr;
    if (!MetaData_OpenSource(&config, &hSource)) {
      ++m_count.refused;
      return nullptr;
    }
    if (config.enInputType == MDATA_INPUT_SERIAL) g_enSerialData = config.enDataType;
    ++m_count.opened;
    return hSource;
  }

  // If no message can be allocated, the source stays open and the close is repeated.
  void Close(HMDATASRC hSource) {
    while (!MetaData_CloseSource(&hSource)) std::this_thread::sleep_for(milliseconds(1));
    m_watches.back().nClosed = Clock::now().time_since_epoch().count();
  }

  const Count& Counted() const { return m_count; }

 private:
  int m_iThread;
  std::mt19937 m_random;
  std::deque<Watch> m_watches;
  Count m_count;
};

bool EveryPathDelivered() {
  for (const auto& nDelivered : g_anDelivered)
    if (nDelivered == 0) return false;
  return true;
}

// Counts again at the end: nothing may be left open.
size_t OpenDescriptors() {
  size_t nCount = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++nCount;
  return nCount;
}

class Stress : public ::testing::Test {
 protected:
  static constexpr DWORD kCaps =
      METADATALIB_CAPS_COT_SUPPORT | METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT;

  void SetUp() override {
    ASSERT_TRUE(std::filesystem::exists("/usr/share/vendor/data/ww15mgh.grd")) << "the geoid grid is not installed";
    char szSlave[128];
    ASSERT_EQ(openpty(&m_iMaster, &m_iSlave, szSlave, nullptr, nullptr), 0);
    termios raw{};
    tcgetattr(m_iSlave, &raw);
    cfmakeraw(&raw);
    tcsetattr(m_iSlave, TCSANOW, &raw);
    fcntl(m_iMaster, F_SETFL, O_NONBLOCK);
    HostRuntimeConfig host;
    host.serialDevices["/dev/ttyPS0"] = szSlave;
    host.console = false;
    for (int i = 0; i < 4; ++i) {
      m_captures.push_back("/tmp/stress_capture_" + std::to_string(getpid()) + "_" + std::to_string(i));
      host.captures[static_cast<size_t>(i)].kind = HostCaptureConfig::Kind::Socket;
      host.captures[static_cast<size_t>(i)].path = m_captures.back();
    }
    HostRuntime_OnLog([](const HostLogLine& line) {
      if (line.text.find("Wait FAILED") != std::string::npos) ++g_nTimeOutLines;
    });
    HostRuntime_Apply(host);
    for (auto& nDelivered : g_anDelivered) nDelivered = 0;
    g_nTimeOutLines = 0;
  }

  void TearDown() override {
    g_Faults.Clear();
    ReleaseKept();
    close(m_iMaster);
    close(m_iSlave);
  }

  // Runs four threads for the set time, and longer until every path has delivered.
  unsigned long Run(bool bFailing) {
    std::deque<Opener> openers;
    for (int i = 0; i < 4; ++i) openers.emplace_back(i);
    Traffic traffic(m_iMaster, m_captures);
    const auto limit = Clock::now() + std::chrono::seconds(90);
    auto end = Clock::now() + Duration();
    do {
      std::vector<std::thread> threads;
      for (Opener& opener : openers) threads.emplace_back([&opener, end, bFailing] { opener.Run(end, bFailing); });
      for (auto& thread : threads) thread.join();
      end = Clock::now() + std::chrono::seconds(1);
    } while (!EveryPathDelivered() && Clock::now() < limit);
    for (size_t i = 0; i < PathCount; ++i) EXPECT_GT(g_anDelivered[i], 0u) << "path " << i;
    unsigned long nOpened = 0;
    for (const Opener& opener : openers) nOpened += opener.Counted().opened;
    // The watches are destroyed with the openers, so none of their closes may be unfinished.
    g_Faults.Clear();
    EndLibrary();
    return nOpened;
  }

  // A shut-down that never returns fails the test instead of blocking it.
  static Clock::duration EndLibrary() {
    const auto start = Clock::now();
    auto done = std::async(std::launch::async, [] { METADATALIB_Shutdown(); });
    if (done.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
      fprintf(stderr, "METADATALIB_Shutdown does not return.\n");
      abort();
    }
    return Clock::now() - start;
  }

  int m_iMaster = -1;
  int m_iSlave = -1;
  std::vector<std::string> m_captures;
};

TEST_F(Stress, FourThreadsOpenAndCloseSourcesOfAllKindsWhileDataFlows) {
  ASSERT_TRUE(METADATALIB_Init(kCaps));
  const auto nAssertions = HostRuntime_AssertionCount();
  EXPECT_GT(Run(false), 20u);
  EXPECT_EQ(g_nTimeOutLines, 0);
  EXPECT_EQ(HostRuntime_AssertionCount(), nAssertions);
}

TEST_F(Stress, FailedSendsFailedMessagesAndTimeOutsLeaveNothingBehind) {
  const size_t nDescriptors = OpenDescriptors();
  ASSERT_TRUE(METADATALIB_Init(kCaps));
  g_Faults.nUnsent = 10;
  g_Faults.nNoMessage = 10;
  g_Faults.nLate = 10;
  g_Faults.nWaitMs = 30;
  EXPECT_GT(Run(true), 20u);
  EXPECT_GT(g_Faults.nMet, 10u);
  EXPECT_GT(g_nTimeOutLines, 0) << "no wait timed out: the run proved nothing";
  EXPECT_EQ(g_nTooLate, 0u);
  EXPECT_EQ(g_MetaDataSrcList.pHead, nullptr);
  EXPECT_EQ(_g_pSweepList, nullptr);
  EXPECT_EQ(OpenDescriptors(), nDescriptors);
}

// --- One thing at a time -----------------------------------------------------------------------------

class Corner : public Stress {
 protected:
  // Waits for the next message of the path, which also wakes the metadata thread.
  static void AwaitDelivery(Path path) {
    const unsigned long nBefore = g_anDelivered[path];
    const auto limit = Clock::now() + std::chrono::seconds(60);
    while (g_anDelivered[path] == nBefore && Clock::now() < limit) std::this_thread::sleep_for(milliseconds(1));
    EXPECT_GT(g_anDelivered[path], nBefore) << "path " << path;
  }

  static void HoldThread() {
    g_Faults.bHold = true;
    while (!g_Faults.bHeld) std::this_thread::sleep_for(milliseconds(1));
  }

  // Returns when the thread has handled all messages queued before.
  void Synchronise() {
    Opener opener(3);
    if (HMDATASRC hSource = opener.Open(UdpKlv)) opener.Close(hSource);
  }

  // Gives up a close on the path while data waits for the held thread. Nothing may be delivered afterwards.
  void GiveUp(Path path, bool bSent) {
    SCOPED_TRACE(testing::Message() << "path " << path << (bSent ? " timed out" : " unsent"));
    Opener first(1);
    Opener opener(0);
    HMDATASRC hFirst = first.Open(UdpKlv);
    HMDATASRC hSource = opener.Open(path);
    ASSERT_NE(hFirst, nullptr);
    ASSERT_NE(hSource, nullptr);
    AwaitDelivery(path);
    HoldThread();
    g_Faults.nWaitMs = 20;
    if (bSent) first.Close(hFirst);  // its message is handled first, and its source is still read in the same pass
    g_Faults.nUnsent = bSent ? 0 : 100;
    opener.Close(hSource);
    const unsigned long nDelivered = g_anDelivered[path];
    std::this_thread::sleep_for(milliseconds(100));  // the traffic continues
    const int nTimeOuts = g_nTimeOutLines;
    g_Faults.Clear();
    Synchronise();
    EXPECT_EQ(g_anDelivered[path], nDelivered);
    EXPECT_GT(nTimeOuts, 0);
    if (!bSent) first.Close(hFirst);
    ReleaseKept();
  }
};

TEST_F(Corner, CloseThatIsGivenUpDeliversNothingMoreOnAnyPath) {
  ASSERT_TRUE(METADATALIB_Init(kCaps));
  {
    Traffic traffic(m_iMaster, m_captures);
    for (const Path path : {SerialKlv, SerialCoT, UdpCoT, Video}) {
      GiveUp(path, true);
      GiveUp(path, false);
    }
  }
  EndLibrary();
}

TEST_F(Corner, ShutDownRepeatsItsMessage) {
  const size_t nDescriptors = OpenDescriptors();
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT));
    g_Faults.nUnsent = 80;
    EndLibrary();
    g_Faults.Clear();
    EXPECT_FALSE(_g_bUsingInternalThread);
  }
  EXPECT_EQ(OpenDescriptors(), nDescriptors);
}

TEST_F(Corner, ShutDownThatCannotBeSentLeavesTheThreadToTheNextOne) {
  const size_t nDescriptors = OpenDescriptors();
  ASSERT_TRUE(METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT));
  g_Faults.nUnsent = 100;
  const auto duration = EndLibrary();
  EXPECT_GE(duration, milliseconds(2990));
  EXPECT_LT(duration, std::chrono::seconds(10));
  g_Faults.Clear();
  EXPECT_EQ(HostRuntime_Threads().size(), 1u);
  Synchronise();  // the thread still runs
  g_Faults.nNoMessage = 100;
  EndLibrary();
  g_Faults.Clear();
  Synchronise();
  EXPECT_FALSE(METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT));
  EndLibrary();
  EXPECT_TRUE(HostRuntime_Threads().empty());
  EXPECT_EQ(OpenDescriptors(), nDescriptors);
}

TEST_F(Corner, InitThatCannotAddItsMailboxToTheSetFails) {
  g_Faults.nNotWatched = 100;
  EXPECT_FALSE(METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT));
  g_Faults.Clear();
  FDMGR_CloseSet(&g_hMetaDataFDSet);
  ASSERT_TRUE(METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT));
  Synchronise();
  EndLibrary();
}

TEST_F(Corner, VideoSourceClosedAfterTheShutDownReleasesItsCapture) {
  Traffic traffic(m_iMaster, m_captures);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT));
    Opener opener(2);
    HMDATASRC hSource = opener.Open(Video);
    ASSERT_NE(hSource, nullptr);
    AwaitDelivery(Video);
    EndLibrary();
    opener.Close(hSource);
    EXPECT_EQ(_g_aVideoExtractors[2].iFD, -1);
  }
}

}  // namespace
