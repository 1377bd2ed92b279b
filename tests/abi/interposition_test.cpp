// SPDX-License-Identifier: Apache-2.0
// Checks that the library calls its own functions even if other code defines functions of the same names: a program
// that is linked with it and defines all of them, and a second version of it in the same process.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host_runtime.h"
#include "metadata_lib.h"

namespace {

constexpr char kSoName[] = "libmetadata_lib.so.1";
constexpr int kMessages = 50;
constexpr size_t kStreamHeader = 5;

using Bytes = std::vector<BYTE>;

// Returns a UAS Datalink Local Set with a time stamp and a correct checksum.
Bytes Message() {
  Bytes bytes = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00,
                 0x00, 14,   2,    8,    0,    1,    2,    3,    4,    5,    6,    7,    1,    2};
  unsigned sum = 0;
  for (size_t i = 0; i < bytes.size(); ++i) sum += i % 2 == 0 ? bytes[i] * 256u : bytes[i];
  bytes.push_back(static_cast<BYTE>(sum >> 8));
  bytes.push_back(static_cast<BYTE>(sum));
  return bytes;
}

struct Delivered {
  std::mutex lock;
  std::vector<Bytes> messages;
  size_t Count() {
    std::lock_guard guard(lock);
    return messages.size();
  }
};

BOOL OnMessage(MDATA_BUFFER* buffer, void* delivered, void*) {
  auto* to = static_cast<Delivered*>(delivered);
  std::lock_guard guard(to->lock);
  to->messages.emplace_back(buffer->pcData + kStreamHeader, buffer->pcData + buffer->nDataSize);
  return TRUE;
}

// One copy of the library, which is called through the exports of its own file.
class Library {
 public:
  explicit Library(void* handle) : m_handle(handle) {}

  template <typename Function>
  Function* Find(const char* name) const {
    void* found = dlsym(m_handle, name);
    EXPECT_NE(found, nullptr) << name;
    return reinterpret_cast<Function*>(found);
  }

  // Starts the copy with a source that rewrites messages from a UDP port.
  void Open(int port) {
    m_port = port;
    ASSERT_TRUE(Find<decltype(METADATALIB_Init)>("METADATALIB_Init")(METADATALIB_CAPS_IPV4_SUPPORT));
    MDATA_SRC_CFG config;
    std::memset(&config, 0, sizeof config);
    config.nSize = sizeof config;
    config.pfnCallback = OnMessage;
    config.pvUserParam1 = &m_delivered;
    config.enInputType = MDATA_INPUT_NETWORK;
    config.enDataType = MDATA_DATA_KLV;
    config.in.Network.usUDPPort = static_cast<USHORT>(port);
    config.in.Network.iSrcAddressFamily = AF_INET;
    config.bClassifyMission = TRUE;
    config.enClassification = 1;
    std::strcpy(config.szClassifyingCountry, "USA");
    std::strcpy(config.szObjectCountry, "USA");
    std::strcpy(config.szMissionID, "MISSION");
    config.bFilterUASTags = TRUE;  // every tag is kept, and logged
    for (UINT32& tags : config.UASTagFilter) tags = ~0u;
    ASSERT_TRUE(Find<decltype(MetaData_OpenSource)>("MetaData_OpenSource")(&config, &m_source));
  }

  // Sends the messages one by one and checks the delivered messages.
  void ExpectRewritten() {
    const Bytes message = Message();
    for (size_t i = 1; i <= kMessages; ++i) {
      Send(message);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (m_delivered.Count() < i && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ASSERT_EQ(m_delivered.Count(), i);
    }
    std::lock_guard guard(m_delivered.lock);
    for (const Bytes& got : m_delivered.messages) {
      EXPECT_GT(got.size(), message.size());
      const char identifier[] = "MISSION";
      EXPECT_NE(std::search(got.begin(), got.end(), identifier, identifier + 7), got.end());
    }
    MDATA_SRC_STATS stats = {};
    EXPECT_TRUE(Find<decltype(MetaData_GetSourceStats)>("MetaData_GetSourceStats")(m_source, &stats));
    EXPECT_EQ(stats.nRxOkMessages, static_cast<ULONG>(kMessages));
    EXPECT_EQ(stats.prot.KLV.nAddedMissionIDs, static_cast<ULONG>(kMessages));
    EXPECT_EQ(stats.prot.KLV.nAddedSecuritySets, static_cast<ULONG>(kMessages));
  }

  void Close() {
    EXPECT_TRUE(Find<decltype(MetaData_CloseSource)>("MetaData_CloseSource")(&m_source));
    Find<decltype(METADATALIB_Shutdown)>("METADATALIB_Shutdown")();
  }

 private:
  void Send(const Bytes& message) const {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(m_port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(sendto(fd, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(message.size()));
    close(fd);
  }

  void* m_handle;
  int m_port = 0;
  HMDATASRC m_source = nullptr;
  Delivered m_delivered;
};

TEST(Interposition, ProgramLinkedWithTheLibraryDefinesAllItsNames) {
  void* handle = dlopen(kSoName, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(handle, nullptr) << "the program is linked with the library: " << dlerror();
  for (const char* name : {"ScanForPattern", "ProcessUASDataLinkLocalSet", "UASDataLinkKey"})
    EXPECT_NE(dlsym(RTLD_DEFAULT, name), dlsym(handle, name)) << "the program's own comes first: " << name;
  Library library(handle);
  library.Open(15671);
  library.ExpectRewritten();
  library.Close();
}

// Returns the names of the library's source files as they appear in its log lines.
const char* const kModules[] = {"metadata_api", "generic_klv_support", "klv_utils",      "cot_support",
                                "converter",    "misb0601_processing", "misb0601_tools", "utils"};

// Makes a copy of the library's file with another soname, whose log lines name other source files: "utilx" for "utils".
std::filesystem::path MakeOtherVersion(const std::filesystem::path& folder) {
  std::ifstream in(METADATA_LIBRARY, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), {});
  const auto replace = [&](const std::string& from, const std::string& to) {
    size_t count = 0;
    for (size_t at = bytes.find(from); at != std::string::npos; at = bytes.find(from, at + 1), ++count)
      bytes.replace(at, from.size(), to);
    EXPECT_GT(count, 0u) << from;
  };
  replace(std::string(kSoName) + '\0', "libmetadata_lib.so.2" + std::string(1, '\0'));
  for (const std::string module : kModules) {
    if (module == "klv_utils") continue;  // ends like "utils" and may share its place
    replace(module + '\0', module.substr(0, module.size() - 1) + "x" + '\0');
  }
  auto path = folder / "libmetadata_lib.so.2";
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

// Counts lines of the log by the source file that they name, during its lifetime.
class LinesByFile {
 public:
  LinesByFile() {
    HostRuntime_OnLog([this](const HostLogLine& line) {
      std::lock_guard guard(m_lock);
      if (line.module == "METADATALIB") ++m_counts[line.file];
    });
  }
  ~LinesByFile() { HostRuntime_OnLog({}); }
  size_t Of(const std::string& file) {
    std::lock_guard guard(m_lock);
    return m_counts[file];
  }
  std::map<std::string, size_t> All() {
    std::lock_guard guard(m_lock);
    return m_counts;
  }

 private:
  std::mutex m_lock;
  std::map<std::string, size_t> m_counts;
};

TEST(Interposition, TwoVersionsSideBySideDoNotMix) {
  HostRuntimeConfig config;
  config.logLevel = 7;
  config.logRate = 0;
  config.console = false;
  ASSERT_TRUE(HostRuntime_Apply(config));
  std::string name = "/tmp/interposition_XXXXXX";
  const std::filesystem::path folder = mkdtemp(name.data());
  void* first = dlopen(METADATA_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
  ASSERT_NE(first, nullptr) << dlerror();
  void* second = dlopen(MakeOtherVersion(folder).c_str(), RTLD_NOW | RTLD_GLOBAL);
  std::filesystem::remove_all(folder);
  ASSERT_NE(second, nullptr) << dlerror();
  ASSERT_NE(dlsym(first, "METADATALIB_Init"), dlsym(second, "METADATALIB_Init"));

  Library one(first);
  Library two(second);
  {
    LinesByFile lines;
    two.Open(15672);
    two.ExpectRewritten();
    for (const auto& [file, count] : lines.All()) EXPECT_EQ(file.back(), 'x') << file << " is the other's code";
    EXPECT_GE(lines.Of("misb0601_processinx"), static_cast<size_t>(kMessages));
    two.Close();
  }
  {
    LinesByFile lines;
    one.Open(15673);
    one.ExpectRewritten();
    EXPECT_GE(lines.Of("misb0601_processing"), static_cast<size_t>(kMessages));
    for (const auto& [file, count] : lines.All()) EXPECT_NE(file.back(), 'x') << file << " is the other's code";
    one.Close();
  }
}

}  // namespace
