// Capture of the KLV of video inputs. Each back end owns a descriptor that is readable while KLV waits.
//
// The local-socket back end takes datagrams of 8 bytes of big-endian timestamp and then the KLV.
#define HOST_MODULE "capture"

#include "capture.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>

namespace {

constexpr size_t kTimeStampSize = 8;
constexpr size_t kLargestDatagram = 65536;

class SocketCapture : public Capture {
 public:
  static std::unique_ptr<Capture> Open(const HostCaptureConfig& config) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (config.path.empty() || config.path.size() >= sizeof address.sun_path) {
      HOST_LOG(3, "capture: \"%s\" is no path for a socket", config.path.c_str());
      return nullptr;
    }
    memcpy(address.sun_path, config.path.c_str(), config.path.size());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    unlink(config.path.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      HOST_LOG(3, "capture: no socket \"%s\": %s", config.path.c_str(), strerror(errno));
      if (fd >= 0) close(fd);
      return nullptr;
    }
    return std::unique_ptr<Capture>(new SocketCapture(fd, config.path));
  }
  ~SocketCapture() override {
    close(m_fd);
    unlink(m_path.c_str());
  }
  int FD() const override { return m_fd; }
  bool Take(CapturedKLV& out) override {
    for (;;) {
      out.bytes.resize(kLargestDatagram);
      const ssize_t got = recv(m_fd, out.bytes.data(), out.bytes.size(), 0);
      if (got < 0) return false;
      if (static_cast<size_t>(got) <= kTimeStampSize) {
        HOST_LOG(4, "capture: datagram of %zd bytes is too short", got);
        continue;
      }
      out.timestamp = 0;
      for (size_t i = 0; i < kTimeStampSize; ++i) out.timestamp = out.timestamp << 8 | out.bytes[i];
      out.bytes.resize(static_cast<size_t>(got));
      out.bytes.erase(out.bytes.begin(), out.bytes.begin() + kTimeStampSize);
      return true;
    }
  }

 private:
  SocketCapture(int fd, std::string path) : m_fd(fd), m_path(std::move(path)) {}
  int m_fd;
  std::string m_path;
};

struct Input {
  std::unique_ptr<Capture> capture;
  HostCaptureStats stats = {};
};

std::mutex g_Lock;
Input g_Inputs[4];

std::unique_ptr<Capture> OpenCapture(int input, const HostCaptureConfig& config) {
  switch (config.kind) {
    case HostCaptureConfig::Kind::kSocket:
      return SocketCapture::Open(config);
    default:
      HOST_LOG(3, "video input %d has no capture configured", input);
      return nullptr;
  }
}

Input* FindInput(int fd) {
  for (Input& input : g_Inputs)
    if (input.capture && input.capture->FD() == fd) return &input;
  return nullptr;
}

}  // namespace

HostCaptureStats HostRuntime_CaptureStats(int input) {
  std::lock_guard guard(g_Lock);
  return input < 0 || input > 3 ? HostCaptureStats{} : g_Inputs[input].stats;
}

extern "C" {

BOOL KLVCAPTURE_Start(int iInterface, VIDEO_EXTRACTOR* pExtractor) {
  if (iInterface < 0 || iInterface > 3) {
    HOST_LOG(3, "there is no video input %d", iInterface);
    return FALSE;
  }
  const auto config = host_runtime::Config();
  std::lock_guard guard(g_Lock);
  Input& input = g_Inputs[iInterface];
  input.capture = OpenCapture(iInterface, config->captures[static_cast<size_t>(iInterface)]);
  if (!input.capture) return FALSE;
  pExtractor->iFD = input.capture->FD();
  return TRUE;
}

void KLVCAPTURE_Stop(int iInterface) {
  if (iInterface < 0 || iInterface > 3) return;
  std::lock_guard guard(g_Lock);
  g_Inputs[iInterface].capture.reset();
}

BOOL KLVCAPTURE_GetKLV(int iFD, BYTE* pcData, int* pnLength, UINT64* pnTimeStamp) {
  std::lock_guard guard(g_Lock);
  Input* input = FindInput(iFD);
  CapturedKLV packet;
  while (input != nullptr && input->capture->Take(packet)) {
    if (packet.bytes.size() > static_cast<size_t>(*pnLength)) {
      ++input->stats.oversized;
      HOST_LOG(4, "capture: packet of %zu bytes is larger than %d", packet.bytes.size(), *pnLength);
      continue;
    }
    ++input->stats.packets;
    memcpy(pcData, packet.bytes.data(), packet.bytes.size());
    *pnLength = static_cast<int>(packet.bytes.size());
    *pnTimeStamp = packet.timestamp;
    return TRUE;
  }
  return FALSE;
}

}  // extern "C"
