// Opens and closes sources of all kinds from four threads while serial and UDP data flow, against the real host
// runtime. Nothing may time out, be lost track of, or race: the thread sanitizer runs this too.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host_runtime.h"
#include "metadata_lib.h"

namespace {

constexpr int kFirstPort = 17600;
constexpr auto kDuration = std::chrono::seconds(4);

std::atomic<unsigned long> g_nDelivered{0};
std::mutex g_KeptLock;
std::vector<MDATA_BUFFER*> g_Kept;

// Keeps every eighth buffer for a while, as an encoder does.
BOOL OnMessage(MDATA_BUFFER* pBuffer, void*, void*) {
  if (++g_nDelivered % 8 == 0) {
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

// A message with a time stamp and a right checksum.
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

MDATA_SRC_CFG SerialConfig() {
  MDATA_SRC_CFG config = BasicConfig();
  config.enInputType = MDATA_INPUT_SERIAL;
  config.in.Serial.nBaudRate = 115200;
  config.in.Serial.nDataBits = 8;
  return config;
}

MDATA_SRC_CFG VideoConfig(int iInterface) {
  MDATA_SRC_CFG config = BasicConfig();
  config.enInputType = MDATA_INPUT_VIDEO;
  config.in.Video.enInputInterface = iInterface;
  config.nDecimationFactor = 2;
  return config;
}

// The lines that would tell of a time-out.
std::atomic<int> g_nTimeOutLines{0};

class Traffic {
 public:
  Traffic(int iPtyMaster, const std::vector<std::string>& captures) : m_iPtyMaster(iPtyMaster), m_Captures(captures) {
    m_Threads.emplace_back([this] { SendUDP(); });
    m_Threads.emplace_back([this] { SendSerial(); });
    m_Threads.emplace_back([this] { SendVideo(); });
  }
  ~Traffic() {
    m_bStop = true;
    for (auto& thread : m_Threads) thread.join();
  }

 private:
  void SendUDP() {
    const std::vector<BYTE> message = Message();
    int iSocket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    while (!m_bStop) {
      for (int i = 0; i < 8; ++i) {
        address.sin_port = htons(static_cast<uint16_t>(kFirstPort + i));
        sendto(iSocket, message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    close(iSocket);
  }
  void SendSerial() {
    const std::vector<BYTE> message = Message();
    while (!m_bStop) {
      if (write(m_iPtyMaster, message.data(), message.size()) < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  }

  // The sockets come and go with the captures.
  void SendVideo() {
    std::vector<BYTE> packet(8);
    const std::vector<BYTE> message = Message();
    packet.insert(packet.end(), message.begin(), message.end());
    int iSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    while (!m_bStop) {
      ++packet[7];
      for (const std::string& path : m_Captures) {
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
  std::vector<std::string> m_Captures;
  std::atomic<bool> m_bStop{false};
  std::vector<std::thread> m_Threads;
};

struct Count {
  unsigned long opened = 0;
  unsigned long refused = 0;
};

// One encoder thread: its own UDP ports, the serial port and the video inputs with everybody else.
void OpenAndClose(int iThread, std::chrono::steady_clock::time_point end, Count& count) {
  std::mt19937 random(static_cast<unsigned>(iThread));
  while (std::chrono::steady_clock::now() < end) {
    MDATA_SRC_CFG config;
    switch (random() % 5) {
      case 0:
        config = SerialConfig();
        break;
      case 1:
        config = VideoConfig(static_cast<int>(random() % 4));
        break;
      case 2:
        config = NetworkConfig(kFirstPort + iThread * 2, MDATA_DATA_COT);
        break;
      default:
        config = NetworkConfig(kFirstPort + iThread * 2 + 1, MDATA_DATA_KLV);
        break;
    }
    HMDATASRC hSource = nullptr;
    if (!MetaData_OpenSource(&config, &hSource)) {
      ++count.refused;
      continue;
    }
    ++count.opened;
    if (random() % 2 == 0) {
      MDATA_SRC_STATS stats;
      std::memset(&stats, 0, sizeof stats);
      MetaData_GetSourceStats(hSource, &stats);
      if (random() % 4 == 0) MetaData_ResetSourceStats(hSource);
    }
    if (random() % 3 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(random() % 5));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(MetaData_CloseSource(&hSource));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4)) << "a close timed out";
    ReleaseKept();
  }
}

TEST(Stress, FourThreadsOpenAndCloseSourcesOfAllKindsWhileDataFlows) {
  int iMaster = -1;
  int iSlave = -1;
  char szSlave[128];
  ASSERT_EQ(openpty(&iMaster, &iSlave, szSlave, nullptr, nullptr), 0);
  fcntl(iMaster, F_SETFL, O_NONBLOCK);

  HostRuntimeConfig host;
  host.serialDevices["/dev/ttyPS0"] = szSlave;
  host.console = false;
  std::vector<std::string> captures;
  for (int i = 0; i < 4; ++i) {
    captures.push_back("/tmp/stress_capture_" + std::to_string(getpid()) + "_" + std::to_string(i));
    host.captures[static_cast<size_t>(i)].kind = HostCaptureConfig::Kind::kSocket;
    host.captures[static_cast<size_t>(i)].path = captures.back();
  }
  HostRuntime_OnLog([](const HostLogLine& line) {
    if (line.text.find("Wait FAILED") != std::string::npos) ++g_nTimeOutLines;
  });
  HostRuntime_Apply(host);

  ASSERT_TRUE(METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT));
  Count counts[4];
  {
    Traffic traffic(iMaster, captures);
    const auto end = std::chrono::steady_clock::now() + kDuration;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(OpenAndClose, i, end, std::ref(counts[i]));
    for (auto& thread : threads) thread.join();
  }
  METADATALIB_Shutdown();
  ReleaseKept();
  close(iMaster);
  close(iSlave);

  unsigned long nOpened = 0;
  for (const Count& count : counts) nOpened += count.opened;
  EXPECT_GT(nOpened, 100u);
  EXPECT_GT(g_nDelivered, 0u);
  EXPECT_EQ(g_nTimeOutLines, 0);
  EXPECT_EQ(HostRuntime_AssertionCount(), 0u);
}

}  // namespace
