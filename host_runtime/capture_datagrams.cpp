// SPDX-License-Identifier: Apache-2.0
// The capture back end of udp:// and rtp:// URLs: a transport stream or KLV, which it recognises by its bytes.
#define HOST_MODULE "capture_datagrams"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "capture.h"
#include "capture_playback.h"
#include "live_datagrams.h"
#include "media_demuxer.h"
#include "nanoseconds.h"
#include "owned_fd.h"
#include "stream_url.h"

namespace host_runtime {
namespace {

// The demuxer wants to see that packets of 188 bytes follow each other before it looks at any. Null packets show it that,
// so that the first messages of a slow stream do not wait for later ones.
std::vector<uint8_t> NullPackets() {
  constexpr size_t kCount = 8;
  std::vector<uint8_t> packets(kCount * live_datagrams::kTransportPacket, 0xFF);
  for (size_t at = 0; at < packets.size(); at += live_datagrams::kTransportPacket) {
    constexpr std::array<uint8_t, 4> kHeader = {0x47, 0x1F, 0xFF, 0x10};
    std::copy(kHeader.begin(), kHeader.end(), packets.begin() + static_cast<ptrdiff_t>(at));
  }
  return packets;
}

// Returns the time of day in units of 90 kHz.
int64_t TimeOfDay() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 90'000 + now.tv_nsec * 9 / 100'000;
}

bool JoinV6(int fd, const in6_addr& group, unsigned interface) {
  ipv6_mreq request{};
  request.ipv6mr_multiaddr = group;
  request.ipv6mr_interface = interface;
  return setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof(request)) == 0;
}

class DatagramBackend : public CaptureBackend {
 public:
  explicit DatagramBackend(const HostCaptureConfig& config)
      : m_url(config.path), m_name(stream_url::Shown(config.path)), m_playback(m_name, true, 1), m_buffer(65'536) {}

  bool Open(CaptureQueue& queue) override {
    const auto origin = stream_url::ParseDatagramUrl(m_url);
    if (!origin) {
      HOST_LOG(3, "%s: cannot open \"%s\": it is not %s.\n", queue.Label(), m_name.c_str(),
               stream_url::kDatagramAllowed);
      return false;
    }
    m_origin = *origin;
    if (!OpenSocket()) {
      HOST_LOG(3, "%s: no socket for \"%s\".\n", queue.Label(), m_name.c_str());
      return false;
    }
    const int on = 1;
    setsockopt(m_socket.Get(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof(on));
    return true;
  }

  void Run(CaptureQueue& queue) override {
    live_datagrams::Receiver receiver(
        {[this](auto bytes) { m_stream.insert(m_stream.end(), bytes.begin(), bytes.end()); },
         [&](auto klv, auto time) { PushKlv(queue, klv, time); }});
    while (!queue.IsStopping()) {
      // KLV is passed on in here. A transport stream is read through the demuxer from its first packets on.
      Receive(queue, receiver);
      if (!m_stream.empty()) ReadStream(queue, receiver);
    }
  }

 private:
  bool OpenSocket() {
    int fd = -1;
    if (m_origin.family == AF_INET6) {
      if (!CreateUDPv6RxSocket(m_origin.port, 0, &fd)) return false;
      m_socket.Reset(fd);
      return JoinGroupV6();
    }
    std::array<BYTE, 4> address{};
    inet_pton(AF_INET, m_origin.address.c_str(), address.data());
    if (!CreateUDPRxSocket(m_origin.port, address.data(), &fd)) return false;
    m_socket.Reset(fd);
    if (m_origin.interface.empty() || (address[0] & 0xF0) != 0xE0) return true;
    ip_mreqn request{};
    memcpy(&request.imr_multiaddr, address.data(), address.size());
    request.imr_ifindex = static_cast<int>(if_nametoindex(m_origin.interface.c_str()));
    return request.imr_ifindex != 0 &&
           (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) == 0 || errno == EADDRINUSE);
  }

  // Without an interface the group is joined where the routing table says, and on the loopback interface for senders on
  // this machine.
  bool JoinGroupV6() const {
    in6_addr group{};
    if (m_origin.address.empty() || inet_pton(AF_INET6, m_origin.address.c_str(), &group) != 1) return true;
    if (!IN6_IS_ADDR_MULTICAST(&group)) return true;
    const std::string name = m_origin.interface.empty() ? Config()->multicastInterface : m_origin.interface;
    if (!name.empty()) {
      const unsigned index = if_nametoindex(name.c_str());
      return index != 0 && JoinV6(m_socket.Get(), group, index);
    }
    const bool isRouted = JoinV6(m_socket.Get(), group, 0);
    const unsigned loopback = if_nametoindex("lo");
    return (loopback != 0 && (JoinV6(m_socket.Get(), group, loopback) || errno == EADDRINUSE)) || isRouted;
  }

  // Returns the size of a datagram in the buffer, or nothing if none waits.
  std::optional<size_t> ReceiveOne(CaptureQueue& queue) {
    iovec piece = {m_buffer.data(), m_buffer.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(uint32_t))> control;
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t got = recvmsg(m_socket.Get(), &message, MSG_DONTWAIT);
    if (got < 0) return std::nullopt;
    for (cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr; each = CMSG_NXTHDR(&message, each)) {
      if (each->cmsg_level != SOL_SOCKET || each->cmsg_type != SO_RXQ_OVFL) continue;
      uint32_t drops = 0;
      memcpy(&drops, CMSG_DATA(each), sizeof(drops));
      if (drops != m_drops) queue.Count(&HostCaptureStats::kernelDrops, drops - m_drops);
      m_drops = drops;
    }
    return static_cast<size_t>(got);
  }

  void Receive(CaptureQueue& queue, live_datagrams::Receiver& receiver) {
    const bool readable = queue.Wait(m_socket.Get(), receiver.IsWaiting() ? anc_klv::RtpOrder::kPatience : kSecond);
    const int64_t now = MonotonicNs();
    for (int i = 0; readable && i < kDatagramsAtOnce; ++i) {
      const auto size = ReceiveOne(queue);
      if (!size) break;
      if (!receiver.Push({m_buffer.data(), *size}, now) && !std::exchange(m_strangeTold, true)) {
        HOST_LOG(4, "%s: \"%s\" brings datagrams that are neither a transport stream nor KLV.\n", queue.Label(),
                 m_name.c_str());
      }
    }
    receiver.Expire(now);
    CountFaults(queue, receiver.Seen());
  }

  void CountFaults(CaptureQueue& queue, const anc_klv::Counts& seen) {
    using anc_klv::Counts;
    static constexpr std::pair<uint64_t Counts::*, uint64_t HostCaptureStats::*> kCounts[] = {
        {&Counts::damaged, &HostCaptureStats::damaged},
        {&Counts::lost, &HostCaptureStats::lostPackets},
        {&Counts::reordered, &HostCaptureStats::reordered},
        {&Counts::late, &HostCaptureStats::late},
        {&Counts::incomplete, &HostCaptureStats::incomplete}};
    for (const auto& [from, to] : kCounts) {
      if (seen.*from != m_counted.*from) queue.Count(to, seen.*from - m_counted.*from);
    }
    m_counted = seen;
  }

  void PushKlv(CaptureQueue& queue, std::span<const uint8_t> klv, std::optional<uint64_t> time) {
    m_playback.Push(queue, time ? static_cast<int64_t>(*time) : TimeOfDay(), klv);
  }

  // Reads the transport stream until the capture stops, or the demuxer gives up.
  void ReadStream(CaptureQueue& queue, live_datagrams::Receiver& receiver) {
    m_playback.BeginPass();
    const std::vector<uint8_t> nulls = NullPackets();
    m_stream.insert(m_stream.begin(), nulls.begin(), nulls.end());
    MediaDemuxer demuxer([&queue] { return queue.IsStopping(); });
    const bool isOpen = demuxer.OpenTransportStream([&](std::span<uint8_t> to) {
      while (m_stream.empty() && !queue.IsStopping()) Receive(queue, receiver);
      const size_t size = std::min(to.size(), m_stream.size());
      std::copy_n(m_stream.begin(), size, to.begin());
      m_stream.erase(m_stream.begin(), m_stream.begin() + static_cast<ptrdiff_t>(size));
      return size;
    });
    MediaDemuxer::Packet packet;
    while (isOpen && demuxer.Next(&packet) && m_playback.Push(queue, packet.time, packet.data)) continue;
    if (queue.IsStopping()) return;
    queue.Count(&HostCaptureStats::damaged);
    HOST_LOG(4, "%s: the transport stream of \"%s\" is damaged, and is read anew: %s.\n", queue.Label(), m_name.c_str(),
             demuxer.Fault().c_str());
    m_stream.clear();
  }

  const std::string m_url;
  const std::string m_name;
  stream_url::DatagramOrigin m_origin;
  common::OwnedFD m_socket;
  Playback m_playback;
  std::vector<uint8_t> m_buffer;
  std::vector<uint8_t> m_stream;  // bytes of a transport stream that the demuxer has not read
  uint32_t m_drops = 0;           // of the socket
  bool m_strangeTold = false;
  anc_klv::Counts m_counted;
};

}  // namespace

std::unique_ptr<CaptureBackend> MakeDatagramBackend(const HostCaptureConfig& config) {
  return std::make_unique<DatagramBackend>(config);
}

}  // namespace host_runtime
