// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Peer        is connected without waiting
//   Core        is what the thread does
//   CotSender   starts and ends it
#include "cot_sender.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "address_list.h"
#include "annotated_mutex.h"
#include "cot_text.h"
#include "owned_fd.h"
#include "value_text.h"
#include "wall_clock.h"

namespace mdencoder {
namespace {

using Clock = std::chrono::steady_clock;
using Outcome = TlsConnection::Outcome;

constexpr size_t kMostWaiting = 65536;  // bytes for a peer that reads slowly
constexpr auto kFirstSenderPause = std::chrono::seconds(1);
constexpr auto kLongestSenderPause = std::chrono::seconds(30);
constexpr auto kConnectTime = std::chrono::seconds(10);
constexpr auto kFarewell = std::chrono::milliseconds(200);
constexpr double kLeastStale = 5;   // seconds after which a client drops an event
constexpr double kStaleEvents = 3;  // and the events that may be missing until then
constexpr int kHops = 16;           // of a group
constexpr int kMostReads = 64;      // at once
constexpr char kClosed[] = "the peer has closed the connection";

// Returns a socket that is connected or connecting, or the reason why there is none. May wait for the name.
common::OwnedFD ConnectPeer(const CotDestination& destination, std::string& reason) {
  addrinfo hints{};
  hints.ai_socktype = destination.isStream ? SOCK_STREAM : SOCK_DGRAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(destination.host.c_str(), destination.port.c_str(), &hints, &found);
  if (result != 0) {
    reason = gai_strerror(result);
    return common::OwnedFD();
  }
  const common::AddressList list(found);
  for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
    common::OwnedFD fd(socket(each->ai_family, each->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.IsOpen()) {
      const int yes = 1;
      setsockopt(fd.Get(), IPPROTO_IP, IP_MULTICAST_TTL, &kHops, sizeof(kHops));
      setsockopt(fd.Get(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &kHops, sizeof(kHops));
      setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &yes, sizeof(yes));
      setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
      if (connect(fd.Get(), each->ai_addr, each->ai_addrlen) == 0 || errno == EINPROGRESS) return fd;
    }
    reason = std::strerror(errno);
  }
  return common::OwnedFD();
}

}  // namespace

std::optional<CotDestination> ParseCotDestination(std::string_view text) {
  CotDestination destination;
  destination.isTls = text.starts_with("tls://");
  destination.isStream = destination.isTls || text.starts_with("tcp://");
  destination.isTak = text.starts_with("tak://");
  if (!destination.isStream && !destination.isTak && !text.starts_with("udp://")) return std::nullopt;
  text.remove_prefix(6);
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  destination.port = text.substr(colon + 1);
  if (!value_text::ParseWholeNumber(destination.port, 1, 65535)) return std::nullopt;
  text = text.substr(0, colon);
  const bool hasBrackets = text.size() > 2 && text.front() == '[' && text.back() == ']';
  if (hasBrackets) text = text.substr(1, text.size() - 2);
  const bool isName = text.find_first_of("[]/ @") == std::string_view::npos;
  if (!isName || hasBrackets != (text.find(':') != std::string_view::npos)) return std::nullopt;
  destination.host = text;
  return destination;
}

// --- Core --------------------------------------------------------------------------------------------

class CotSender::Core {
 public:
  Core(CotSenderSettings settings, Say say)
      : m_settings(std::move(settings)),
        m_destination(*ParseCotDestination(m_settings.url)),
        m_names({m_settings.uid, m_settings.type, m_settings.source}),
        m_say(std::move(say)),
        m_stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  void Run() {
    pthread_setname_np(pthread_self(), "CotSender");
    const auto interval =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / m_settings.rate));
    auto due = Clock::now();
    while (!IsStopped()) {
      const auto now = Clock::now();
      if (now >= due) {
        Send(now);
        due = std::max(due + interval, now);
      }
      Wait(due);
    }
    const common::Lock lock(m_mutex);
    m_done = true;
    m_changed.NotifyAll();
  }

  void Update(st0601::Observation seen) {
    const common::Lock lock(m_mutex);
    m_seen = std::move(seen);
  }

  Counts Snapshot() {
    const common::Lock lock(m_mutex);
    return m_counts;
  }

  // Returns true when the thread has ended.
  bool Finish() {
    common::Lock lock(m_mutex);
    m_stopped = true;
    eventfd_write(m_stop.Get(), 1);
    const auto end = Clock::now() + kFarewell;
    while (!m_done && m_changed.WaitUntil(m_mutex, end)) continue;
    return m_done;
  }

 private:
  bool IsStopped() {
    const common::Lock lock(m_mutex);
    return m_stopped;
  }

  std::optional<st0601::Observation> TakeLatest() {
    const common::Lock lock(m_mutex);
    return std::exchange(m_seen, std::nullopt);
  }

  void Count(uint64_t sent, uint64_t lost) {
    const common::Lock lock(m_mutex);
    m_counts.sent += sent;
    m_counts.lost += lost;
  }

  // Lines are said under the lock, so that none follows the end.
  void Tell(bool isWarning, const std::string& line) {
    const common::Lock lock(m_mutex);
    if (!m_stopped) m_say(isWarning, "the events of " + m_settings.source + " " + line);
  }

  void Send(Clock::time_point now) {
    auto seen = TakeLatest();
    if (!m_fd.IsOpen() && now >= m_nextTry) Connect(now);
    if (m_isConnecting && now >= m_connectEnd) Fail(now, std::strerror(ETIMEDOUT));
    if (!seen) return;
    AddEllipsoidHeights(*seen, m_settings.undulation);
    cot_text::Times times;
    times.nowUs = common::WallClockUs();
    times.staleUs = times.nowUs + static_cast<uint64_t>(std::max(kLeastStale, kStaleEvents / m_settings.rate) * 1e6);
    const auto form = m_destination.isTak ? cot_text::Form::Tak : cot_text::Form::Xml;
    for (const std::string& event : {cot_text::PlatformEvent(*seen, m_names, times, form),
                                     cot_text::SensorPointEvent(*seen, m_names, times, form)}) {
      if (!event.empty()) Push(now, event);
    }
  }

  void Push(Clock::time_point now, const std::string& event) {
    if (!m_fd.IsOpen() || m_isConnecting || m_waiting.size() + event.size() > kMostWaiting) return Count(0, 1);
    if (m_destination.isStream) {
      m_waiting += event;
      Count(1, 0);
      WriteOut(now);
      return;
    }
    // Nobody may listen at the destination, or not yet: that is told by the datagram after.
    ssize_t sent = send(m_fd.Get(), event.data(), event.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == ECONNREFUSED) sent = send(m_fd.Get(), event.data(), event.size(), MSG_NOSIGNAL);
    const int error = errno;
    Count(sent < 0 ? 0 : 1, sent < 0 ? 1 : 0);
    if (sent >= 0) {
      Succeed();
    } else if (error != EAGAIN && error != ECONNREFUSED) {
      Fail(now, std::strerror(error));
    }
  }

  void Connect(Clock::time_point now) {
    std::string reason;
    m_fd = ConnectPeer(m_destination, reason);
    m_waiting.clear();
    if (!m_fd.IsOpen()) return Fail(Clock::now(), reason);
    m_isConnecting = m_destination.isStream;
    m_connectEnd = now + kConnectTime;
  }

  // Its files are read at every connection, because certificates are renewed.
  void BeginTls(Clock::time_point now) {
    try {
      const TlsSettings& tls = m_settings.tls;
      m_tlsClient = std::make_unique<TlsClient>(tls);
      m_tls =
          std::make_unique<TlsConnection>(*m_tlsClient, m_fd.Get(), tls.name.empty() ? m_destination.host : tls.name);
    } catch (const std::runtime_error& error) {
      return Fail(now, error.what());
    }
    Shake(now);
  }

  void Shake(Clock::time_point now) {
    const auto outcome = m_tls->Handshake();
    if (!Goes(now, outcome)) return;
    if (outcome != Outcome::Done) return;
    m_isConnecting = false;
    Succeed();
  }

  // Notes what the connection waits for. Returns false if it has ended.
  bool Goes(Clock::time_point now, Outcome outcome) {
    m_tlsEvents = outcome == Outcome::WaitToWrite ? POLLOUT : POLLIN;
    if (outcome != Outcome::Ended && outcome != Outcome::Failed) return true;
    Fail(now, outcome == Outcome::Ended ? kClosed : m_tls->Fault());
    return false;
  }

  void Fail(Clock::time_point now, const std::string& reason) {
    const std::string why = reason;  // it may be that of the connection
    m_tls.reset();
    m_fd = common::OwnedFD();
    m_isConnecting = false;
    m_waiting.clear();
    // A peer that takes connections and ends them at once is not tried at once.
    if (m_isGood && now - m_goodSince >= kLongestSenderPause) m_pause = kFirstSenderPause;
    m_isGood = false;
    m_nextTry = now + m_pause;
    m_pause = std::min<std::chrono::seconds>(2 * m_pause, kLongestSenderPause);
    if (!std::exchange(m_isFailing, true)) Tell(true, "cannot be sent to " + m_settings.url + ": " + why);
  }

  void Succeed() {
    if (!std::exchange(m_isGood, true)) m_goodSince = Clock::now();
    if (std::exchange(m_isFailing, false)) Tell(false, "are sent to " + m_settings.url + " again");
  }

  void WriteTls(Clock::time_point now) {
    while (!m_waiting.empty()) {
      size_t put = 0;
      const auto outcome = m_tls->Write({reinterpret_cast<const uint8_t*>(m_waiting.data()), m_waiting.size()}, put);
      if (!Goes(now, outcome) || outcome != Outcome::Done) return;
      m_waiting.erase(0, put);
    }
  }

  void WriteOut(Clock::time_point now) {
    if (m_tls) return WriteTls(now);
    while (!m_waiting.empty()) {
      const ssize_t sent = send(m_fd.Get(), m_waiting.data(), m_waiting.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0 && errno != EAGAIN) return Fail(now, std::strerror(errno));
      if (sent <= 0) return;
      m_waiting.erase(0, static_cast<size_t>(sent));
    }
  }

  void Wait(Clock::time_point due) {
    pollfd set[] = {{m_stop.Get(), POLLIN, 0}, {m_fd.Get(), POLLIN, 0}};
    if (m_tls) {
      set[1].events |= m_tlsEvents;
    } else if (m_isConnecting || !m_waiting.empty()) {
      set[1].events |= POLLOUT;
    }
    const bool polls = m_destination.isStream && m_fd.IsOpen();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
    if (poll(set, polls ? 2 : 1, static_cast<int>(std::clamp<int64_t>(left, 0, 3600000))) <= 0) return;
    if (polls && set[1].revents != 0) OnStream(set[1].revents);
  }

  void OnStream(short events) {
    const auto now = Clock::now();
    if (m_isConnecting) {
      int error = 0;
      socklen_t size = sizeof(error);
      getsockopt(m_fd.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
      if (error != 0) return Fail(now, std::strerror(error));
      if (m_tls) return Shake(now);
      if ((events & POLLOUT) == 0) return;
      if (m_destination.isTls) return BeginTls(now);
      m_isConnecting = false;
      return Succeed();
    }
    if (!ReadAway(now)) return;
    if (m_tls || (events & POLLOUT) != 0) WriteOut(now);
  }

  // A server sends the events of others; nobody reads them here. Returns false if the connection has ended.
  bool ReadAway(Clock::time_point now) {
    std::array<uint8_t, 4096> ignored{};
    if (!m_tls) {
      const ssize_t got = recv(m_fd.Get(), ignored.data(), ignored.size(), 0);
      if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) return true;
      Fail(now, got == 0 ? kClosed : std::strerror(errno));
      return false;
    }
    // What was received already is not in the socket any more.
    Outcome outcome = Outcome::Done;
    for (int reads = 0; reads < kMostReads && outcome == Outcome::Done; ++reads) {
      size_t got = 0;
      outcome = m_tls->Read(ignored, got);
    }
    return Goes(now, outcome);
  }

  const CotSenderSettings m_settings;
  const CotDestination m_destination;
  const cot_text::Names m_names;
  const Say m_say;
  const common::OwnedFD m_stop;

  // Thread.
  common::OwnedFD m_fd;
  std::unique_ptr<TlsClient> m_tlsClient;
  std::unique_ptr<TlsConnection> m_tls;  // of a connected stream
  short m_tlsEvents = POLLIN;            // that it waits for
  bool m_isConnecting = false;           // and shaking hands
  Clock::time_point m_connectEnd;
  Clock::time_point m_nextTry;
  std::chrono::seconds m_pause = kFirstSenderPause;
  bool m_isGood = false;  // events are sent
  Clock::time_point m_goodSince;
  bool m_isFailing = false;  // a line has said so
  std::string m_waiting;     // for a stream

  common::Mutex m_mutex;  // leaf, but for the lines
  common::Condition m_changed;
  std::optional<st0601::Observation> m_seen GUARDED_BY(m_mutex);
  Counts m_counts GUARDED_BY(m_mutex);
  bool m_stopped GUARDED_BY(m_mutex) = false;
  bool m_done GUARDED_BY(m_mutex) = false;
};

// --- CotSender ---------------------------------------------------------------------------------------

CotSender::CotSender(CotSenderSettings settings, Say say)
    : m_core(std::make_shared<Core>(std::move(settings), std::move(say))), m_thread([core = m_core] { core->Run(); }) {}

CotSender::~CotSender() {
  Finish();
}

void CotSender::Finish() {
  if (!m_thread.joinable()) return;
  if (m_core->Finish()) {
    m_thread.join();
  } else {
    m_thread.detach();  // it waits for a name, and keeps what it needs
  }
}

void CotSender::Update(st0601::Observation seen) {
  m_core->Update(std::move(seen));
}

CotSender::Counts CotSender::Snapshot() const {
  return m_core->Snapshot();
}

}  // namespace mdencoder
