// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Files      are opened with libpcap
//   Replay     is the thread
#include "replay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "captured_packet.h"

namespace mdencoder {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kLongestGap = 60s;  // a longer one, or a step back by more than a second, is skipped
constexpr auto kLargestStepBack = 1s;

// --- Files -------------------------------------------------------------------------------------------

struct ClosePcap {
  void operator()(pcap_t* file) const { pcap_close(file); }
};
using File = std::unique_ptr<pcap_t, ClosePcap>;

std::string SetFilter(pcap_t* file, const std::string& filter) {
  bpf_program program{};
  if (pcap_compile(file, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) return pcap_geterr(file);
  const bool isSet = pcap_setfilter(file, &program) == 0;
  pcap_freecode(&program);
  return isSet ? "" : pcap_geterr(file);
}

// Returns null with a fault if the file cannot be replayed.
File OpenFile(const ReplaySettings& settings, std::string* fault) {
  std::FILE* const stream = std::fopen(settings.path.c_str(), "rbe");
  struct stat info {};
  if (stream == nullptr || fstat(fileno(stream), &info) != 0 || !S_ISREG(info.st_mode)) {
    *fault = stream == nullptr ? std::strerror(errno) : "it is not a regular file";
    if (stream != nullptr) std::fclose(stream);
    return nullptr;
  }
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  File file(pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error.data()));
  if (file == nullptr) {
    std::fclose(stream);
    *fault = error.data();
    return nullptr;
  }
  const int link = pcap_datalink(file.get());
  if (!captured_packet::KnowsLink(link)) {
    const char* const name = pcap_datalink_val_to_name(link);
    *fault = std::string("it has a kind of link without UDP datagrams, ") + (name == nullptr ? "unknown" : name);
    return nullptr;
  }
  if (!settings.filter.empty()) *fault = SetFilter(file.get(), settings.filter);
  return fault->empty() ? std::move(file) : nullptr;
}

}  // namespace

std::string FilterFault(const std::string& filter) {
  constexpr int kLongest = 65535;
  const File dead(pcap_open_dead(DLT_EN10MB, kLongest));
  if (dead == nullptr) return "out of memory";
  bpf_program program{};
  if (pcap_compile(dead.get(), &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) return pcap_geterr(dead.get());
  pcap_freecode(&program);
  return {};
}

std::string ReplayFault(const ReplaySettings& settings) {
  std::string fault;
  OpenFile(settings, &fault);
  return fault;
}

// --- Replay ------------------------------------------------------------------------------------------

Replay::Replay(std::string name, ReplaySettings settings, Surroundings around)
    : m_name(std::move(name)), m_settings(std::move(settings)), m_around(std::move(around)), m_turns(m_around.room) {
  m_socket.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  m_stop.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_socket.IsOpen() || !m_stop.IsOpen()) {
    throw std::runtime_error(std::string("no descriptors: ") + std::strerror(errno));
  }
  m_thread = std::thread([this] { Run(); });
}

Replay::~Replay() {
  eventfd_write(m_stop.Get(), 1);
  m_thread.join();
}

void Replay::Run() {
  pthread_setname_np(pthread_self(), "Replay");
  bool isWhole = true;
  do {
    isWhole = PlayOnce();
  } while (isWhole && m_settings.loop && m_counts.sent != 0);
}

// Returns true if the file was played to its end.
bool Replay::PlayOnce() {
  std::string fault;
  const File file = OpenFile(m_settings, &fault);
  m_hasTime = false;
  if (file != nullptr) {
    if (!PlayFrom(file.get())) return false;
    fault = pcap_geterr(file.get());
  }
  if (!WaitUntilTaken()) return false;
  if (!m_settings.loop || !fault.empty() || m_counts.sent == 0) {
    Report(fault);
    m_hasEnded.store(true);
  }
  return fault.empty();
}

// Returns false if it is to stop.
bool Replay::PlayFrom(pcap_t* file) {
  const int link = pcap_datalink(file);
  pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  while (pcap_next_ex(file, &header, &data) == 1) {
    const auto datagram = captured_packet::Unpack(link, {data, header->caplen});
    m_counts.fragments += datagram.kind == captured_packet::Kind::Fragment ? 1 : 0;
    m_counts.cut += datagram.kind == captured_packet::Kind::Cut ? 1 : 0;
    if (datagram.kind != captured_packet::Kind::Udp) {
      if (!WaitUntil(Clock::time_point::min())) return false;
      continue;
    }
    // The fraction is in nanoseconds, as asked for.
    const auto time = std::chrono::seconds(header->ts.tv_sec) + std::chrono::nanoseconds(header->ts.tv_usec);
    if (!WaitForTime(time) || !WaitForTurn()) return false;
    Send(datagram.payload.data(), datagram.payload.size(), datagram.ttl, datagram.tos);
  }
  return true;
}

// Returns false if it is to stop.
bool Replay::WaitUntil(Clock::time_point due) {
  for (;;) {
    const auto left = due - std::min(due, Clock::now());
    pollfd stop = {m_stop.Get(), POLLIN, 0};
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(std::min<Clock::duration>(left, 1h)).count();
    if (poll(&stop, 1, static_cast<int>(ms)) > 0) return false;
    if (Clock::now() >= due) return true;
  }
}

bool Replay::WaitForTime(std::chrono::nanoseconds time) {
  const bool isJump = m_last - time > kLargestStepBack || time - m_last > kLongestGap;
  if (!std::exchange(m_hasTime, true) || isJump) {
    m_anchor = time;
    m_anchorAt = Clock::now();
  }
  m_last = isJump ? time : std::max(m_last, time);
  if (m_settings.speed == 0) return true;
  const std::chrono::duration<double, std::nano> since = (time - m_anchor) / m_settings.speed;
  return WaitUntil(m_anchorAt + std::chrono::duration_cast<Clock::duration>(since));
}

// Waits until the source has a port, and its socket and the program have room. Returns false if it is to stop.
bool Replay::WaitForTurn() {
  for (;;) {
    const bool isTurn = m_turns.Take(m_port.load());
    if (!WaitUntil(isTurn ? Clock::time_point::min() : Clock::now() + Turns::kLook)) return false;
    if (isTurn) return true;
  }
}

bool Replay::WaitUntilTaken() {
  while (m_port.load() == 0 || UnreadBytes(m_port.load()) != 0) {
    if (!WaitUntil(Clock::now() + Turns::kLook)) return false;
  }
  return true;
}

// With the TTL and TOS of the captured datagram, which relays can follow.
void Replay::Send(const void* data, size_t size, uint8_t ttl, uint8_t tos) {
  sockaddr_in to = Loopback(m_port.load());
  iovec piece = {const_cast<void*>(data), size};  // is only read
  constexpr size_t kOption = CMSG_SPACE(sizeof(int));
  alignas(cmsghdr) std::array<char, 2 * kOption> control{};
  msghdr message{};
  message.msg_name = &to;
  message.msg_namelen = sizeof(to);
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* option = CMSG_FIRSTHDR(&message);
  for (const auto& [type, value] : {std::pair<int, int>{IP_TTL, std::max<int>(ttl, 1)}, {IP_TOS, tos}}) {
    option->cmsg_level = IPPROTO_IP;
    option->cmsg_type = type;
    option->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(option), &value, sizeof(value));
    option = CMSG_NXTHDR(&message, option);
  }
  ++(sendmsg(m_socket.Get(), &message, MSG_NOSIGNAL) < 0 ? m_counts.unsent : m_counts.sent);
}

void Replay::Report(const std::string& fault) const {
  std::string line = "source " + m_name + ": ";
  if (!fault.empty()) {
    line += m_settings.path + " cannot be read" + (m_counts.sent != 0 ? " to its end" : "") + ": " + fault;
  } else {
    line += "end of " + m_settings.path;
  }
  line += ", after " + std::to_string(m_counts.sent) + " datagrams";
  const auto add = [&line](uint64_t count, const char* what) {
    if (count != 0) line += ", " + std::to_string(count) + what;
  };
  add(m_counts.fragments, " fragments left out");
  add(m_counts.cut, " left out because the capture cut them off");
  add(m_counts.unsent, " refused by the kernel");
  m_around.say(!fault.empty() || m_counts.fragments + m_counts.cut + m_counts.unsent != 0, line);
}

}  // namespace mdencoder
