// SPDX-License-Identifier: Apache-2.0
// The capture back ends that receive datagrams: ancillary streams over UDP, and local sockets.
#define HOST_MODULE "capture_network"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "anc_klv.h"
#include "capture.h"
#include "nanoseconds.h"
#include "owned_fd.h"

namespace host_runtime {
namespace {

// Receives a datagram into the buffer. Returns false if there is none.
bool Receive(int fd, std::vector<uint8_t>& buffer, size_t* size) {
  const ssize_t got = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (got < 0) return false;
  *size = static_cast<size_t>(got);
  return true;
}

// --- Ancillary streams -------------------------------------------------------------------------------

class AncBackend : public CaptureBackend {
 public:
  explicit AncBackend(HostCaptureConfig config) : m_config(std::move(config)) {}

  bool Open(CaptureQueue& queue) override {
    in_addr address{};
    if (!m_config.address.empty() && inet_pton(AF_INET, m_config.address.c_str(), &address) != 1) {
      HOST_LOG(3, "%s: \"%s\" is no IPv4 address.\n", queue.Label(), m_config.address.c_str());
      return false;
    }
    std::array<BYTE, 4> bytes;
    memcpy(bytes.data(), &address, bytes.size());
    int fd = -1;
    if (!CreateUDPRxSocket(m_config.port, bytes.data(), &fd)) {
      HOST_LOG(3, "%s: no socket for the ancillary stream on UDP port %u.\n", queue.Label(),
               static_cast<unsigned>(m_config.port));
      return false;
    }
    m_socket.Reset(fd);
    return true;
  }

  void Run(CaptureQueue& queue) override {
    anc_klv::Receiver receiver([&queue](const anc_klv::StampedKlv& message) {
      HOST_LOG(8, "%s: KLV of %zu bytes.\n", queue.Label(), message.klv.size());
      queue.Push(message.timestamp, message.klv);
    });
    std::vector<uint8_t> buffer(65'536);
    while (!queue.IsStopping()) {
      const bool readable = queue.Wait(m_socket.Get(), receiver.IsWaiting() ? anc_klv::RtpOrder::kPatience : kSecond);
      const int64_t now = MonotonicNs();
      size_t size = 0;
      for (int i = 0; readable && i < kDatagramsAtOnce && Receive(m_socket.Get(), buffer, &size); ++i) {
        receiver.Push({buffer.data(), std::min(size, buffer.size())}, now);
      }
      receiver.Expire(now);
      Report(queue, receiver.Seen());
    }
  }

 private:
  // Adds the faults since the last report to a counter of the queue. Returns their number.
  unsigned long long Count(CaptureQueue& queue, const anc_klv::Counts& seen, uint64_t anc_klv::Counts::*which,
                           uint64_t HostCaptureStats::*counter) const {
    const uint64_t fresh = seen.*which - m_reported.*which;
    if (fresh != 0) queue.Count(counter, fresh);
    return fresh;
  }

  // Logs and counts the faults since the last report.
  void Report(CaptureQueue& queue, const anc_klv::Counts& seen) {
    using anc_klv::Counts;
    const char* const input = queue.Label();
    if (const auto n = Count(queue, seen, &Counts::damaged, &HostCaptureStats::damaged); n != 0) {
      HOST_LOG(4, "%s: %llu damaged packets or messages dropped.\n", input, n);
    }
    if (const auto n = Count(queue, seen, &Counts::badChecksums, &HostCaptureStats::badChecksums); n != 0) {
      HOST_LOG(4, "%s: %llu ancillary packets with a wrong checksum.\n", input, n);
    }
    if (const auto n = Count(queue, seen, &Counts::badParity, &HostCaptureStats::badParity); n != 0) {
      HOST_LOG(4, "%s: %llu ancillary packets with a wrong parity bit.\n", input, n);
    }
    if (const auto n = Count(queue, seen, &Counts::lost, &HostCaptureStats::lostPackets); n != 0) {
      HOST_LOG(4, "%s: %llu RTP packets lost.\n", input, n);
    }
    if (const auto n = Count(queue, seen, &Counts::reordered, &HostCaptureStats::reordered); n != 0) {
      HOST_LOG(5, "%s: %llu RTP packets came out of order.\n", input, n);
    }
    if (const auto n = Count(queue, seen, &Counts::late, &HostCaptureStats::late); n != 0) {
      HOST_LOG(4, "%s: %llu RTP packets came twice or too late.\n", input, n);
    }
    if (seen.restarts != m_reported.restarts) HOST_LOG(5, "%s: the ancillary stream began anew.\n", input);
    if (const auto n = Count(queue, seen, &Counts::incomplete, &HostCaptureStats::incomplete); n != 0) {
      HOST_LOG(4, "%s: %llu incomplete KLV messages dropped.\n", input, n);
    }
    m_reported = seen;
  }

  const HostCaptureConfig m_config;
  common::OwnedFD m_socket;
  anc_klv::Counts m_reported;
};

// --- Local sockets -----------------------------------------------------------------------------------

// A lock file beside a socket. Its owner may make the socket; the lock ends with the object or the process.
class SocketLock {
 public:
  SocketLock() = default;
  ~SocketLock() {
    if (m_file.IsOpen()) unlink(m_path.c_str());
  }
  SocketLock(const SocketLock&) = delete;
  SocketLock& operator=(const SocketLock&) = delete;

  // Returns false with errno: EBUSY if another input or process owns the lock.
  bool Acquire(const std::string& path) {
    m_path = path + ".lock";
    for (;;) {
      common::OwnedFD file(open(m_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
      if (!file.IsOpen()) return false;
      if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) errno = EBUSY;
        return false;
      }
      // An owner unlinks the file before it unlocks it, so the locked file may have no name any more.
      struct stat locked;
      struct stat named;
      if (fstat(file.Get(), &locked) == 0 && stat(m_path.c_str(), &named) == 0 && locked.st_ino == named.st_ino &&
          locked.st_dev == named.st_dev) {
        m_file = std::move(file);
        return true;
      }
    }
  }

 private:
  std::string m_path;
  common::OwnedFD m_file;
};

class SocketBackend : public CaptureBackend {
 public:
  explicit SocketBackend(HostCaptureConfig config) : m_config(std::move(config)) {}
  ~SocketBackend() override {
    if (m_bound) unlink(m_config.path.c_str());
  }

  bool Open(CaptureQueue& queue) override {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string& path = m_config.path;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
      HOST_LOG(3, "%s: \"%s\" is no path for a socket, 1 to %zu characters are allowed.\n", queue.Label(), path.c_str(),
               sizeof(address.sun_path) - 1);
      return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size());
    m_bound = m_lock.Acquire(path) && Bind(address);
    if (!m_bound && (errno == EBUSY || errno == EADDRINUSE)) {
      HOST_LOG(3, "%s: socket \"%s\" is in use; each input has its own.\n", queue.Label(), path.c_str());
    } else if (!m_bound) {
      HOST_LOG(3, "%s: no socket \"%s\": %s.\n", queue.Label(), path.c_str(), strerror(errno));
    }
    return m_bound;
  }

  void Run(CaptureQueue& queue) override {
    std::vector<uint8_t> buffer(kTimeStampSize + anc_klv::kLargestKlv);
    while (!queue.IsStopping()) {
      if (!queue.Wait(m_socket.Get(), kSecond)) continue;
      size_t size = 0;
      for (int i = 0; i < kDatagramsAtOnce && Receive(m_socket.Get(), buffer, &size); ++i) {
        if (size <= kTimeStampSize || size > buffer.size()) {
          queue.Count(&HostCaptureStats::damaged);
          HOST_LOG(4, "%s: datagram of %zu bytes dropped, %zu to %zu are allowed.\n", queue.Label(), size,
                   kTimeStampSize + 1, buffer.size());
          continue;
        }
        uint64_t timestamp = 0;
        for (size_t b = 0; b < kTimeStampSize; ++b) timestamp = timestamp << 8 | buffer[b];
        queue.Push(timestamp, {buffer.data() + kTimeStampSize, size - kTimeStampSize});
      }
    }
  }

 private:
  static constexpr size_t kTimeStampSize = 8;

  // Replaces a socket that nobody listens on, because an earlier run left it behind, and no other file. Returns false
  // with errno.
  bool Bind(const sockaddr_un& address) {
    const auto* const name = reinterpret_cast<const sockaddr*>(&address);
    m_socket.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_socket.IsOpen()) return false;
    struct stat existing;
    if (lstat(m_config.path.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) {
      const common::OwnedFD probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      if (connect(probe.Get(), name, sizeof(address)) == 0 || errno != ECONNREFUSED) {
        errno = EADDRINUSE;
        return false;
      }
      unlink(m_config.path.c_str());
    }
    return bind(m_socket.Get(), name, sizeof(address)) == 0;
  }

  const HostCaptureConfig m_config;
  SocketLock m_lock;  // destroyed after the socket and its name
  common::OwnedFD m_socket;
  bool m_bound = false;
};

}  // namespace

std::unique_ptr<CaptureBackend> MakeAncBackend(const HostCaptureConfig& config) {
  return std::make_unique<AncBackend>(config);
}

std::unique_ptr<CaptureBackend> MakeSocketBackend(const HostCaptureConfig& config) {
  return std::make_unique<SocketBackend>(config);
}

}  // namespace host_runtime
