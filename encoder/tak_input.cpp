// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Main thread   makes, starts, asks and ends the input
//   Thread        works, and tries again after a fault
//   Datagrams     come from a group or from anybody
//   Streams       are connected, secured and read
//   Events        are prepared and forwarded
#include "tak_input.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "loopback.h"
#include "tak_protocol.h"

namespace mdencoder {
namespace {

using namespace std::chrono_literals;
using common::Lock;
using common::OwnedFD;

constexpr auto kFirstTakPause = 2s;
constexpr auto kLongestTakPause = 30s;
constexpr auto kConnectLimit = 10s;  // for each address, and for the handshake
constexpr auto kLookUpLimit = 30s;
constexpr auto kEventLimit = 30s;  // from the beginning of an event to its end
constexpr auto kSettled = 1s;      // after which a connection without bytes counts as good
constexpr size_t kLongestEvent = 65536;
constexpr size_t kReadSize = 65536;
constexpr unsigned kEventsPerLook = 16;
constexpr uint64_t kMostUnread = 64 << 10;  // of the library's socket, whose buffer holds a multiple
constexpr auto kRoomLimit = 1s;

void SetOption(int fd, int level, int option, int value) {
  setsockopt(fd, level, option, &value, sizeof(value));
}

// Lets the kernel find out that a silent peer is gone.
void KeepAlive(int fd) {
  SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 30);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 10);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

}  // namespace

// --- Main thread -------------------------------------------------------------------------------------

TakInput::TakInput(const TakSettings& settings, bool retry)
    : m_settings(settings), m_retry(retry), m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (settings.transport == TakSettings::Transport::Tls) m_tls = std::make_unique<TlsClient>(settings.tls);
  m_out.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // This socket has its port before the library's is chosen, so that they are not the same.
  const sockaddr_in from = Loopback(0);
  bool isReady = m_wake.IsOpen() && m_out.IsOpen() &&
                 bind(m_out.Get(), reinterpret_cast<const sockaddr*>(&from), sizeof(from)) == 0;
  if (isReady) {
    m_port = FreePort();
    const sockaddr_in to = Loopback(m_port);
    isReady = m_port != 0 && connect(m_out.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof(to)) == 0;
  }
  if (!isReady) {
    throw std::runtime_error(std::string("no socket to the library: ") + std::strerror(errno));
  }
}

TakInput::~TakInput() {
  Stop();
}

void TakInput::Stop() {
  m_isStopping = true;
  eventfd_write(m_wake.Get(), 1);
  if (m_thread.joinable()) m_thread.join();
}

void TakInput::Start() try {
  m_thread = std::thread([this] { Run(); });
} catch (const std::system_error& error) {
  m_hasGivenUp = true;
  SetTrouble(std::string("no thread for ") + m_settings.url + ": " + error.what());
}

void TakInput::NetworkChanged() {
  m_isNetworkNew = true;
  eventfd_write(m_wake.Get(), 1);
}

void TakInput::Add(Count count, uint64_t number) {
  m_counts[static_cast<size_t>(count)].fetch_add(number, std::memory_order_relaxed);
}

uint64_t TakInput::Get(Count count) const {
  return m_counts[static_cast<size_t>(count)].load(std::memory_order_relaxed);
}

TakCounts TakInput::Counts() const {
  TakCounts counts;
  counts.bytes = Get(Count::Bytes);
  counts.datagrams = Get(Count::Datagrams);
  counts.connections = Get(Count::Connections);
  counts.events = Get(Count::Events);
  counts.forwarded = Get(Count::Forwarded);
  counts.otherKinds = Get(Count::OtherKinds);
  counts.otherAircraft = Get(Count::OtherAircraft);
  counts.faulty = Get(Count::Faulty);
  counts.tooLong = Get(Count::TooLong);
  counts.shortened = Get(Count::Shortened);
  counts.notSent = Get(Count::NotSent);
  return counts;
}

std::string TakInput::Trouble() const {
  const Lock guard(m_lock);
  return m_trouble;
}

void TakInput::SetTrouble(const std::string& trouble) {
  const Lock guard(m_lock);
  m_trouble = trouble;
}

// --- Thread ------------------------------------------------------------------------------------------

void TakInput::Run() {
  pthread_setname_np(pthread_self(), "TakInput");
  try {
    Work();
  } catch (const std::exception& error) {
    m_hasGivenUp = true;
    SetTrouble(m_settings.url + ": " + error.what());
  }
}

void TakInput::Work() {
  std::chrono::seconds pause = kFirstTakPause;
  while (!IsStopping()) {
    const bool hasWorked = m_settings.transport == TakSettings::Transport::Udp ? RunDatagrams() : RunStream();
    if (IsStopping()) return;
    if (!m_retry) {
      m_hasGivenUp = true;
      return;
    }
    if (hasWorked) pause = kFirstTakPause;
    const auto next = Clock::now() + pause;
    pause = std::min<std::chrono::seconds>(pause * 2, kLongestTakPause);
    while (!IsStopping() && Clock::now() < next && !m_isNetworkNew.exchange(false)) Await(-1, 0, next);
  }
}

bool TakInput::Await(int fd, short events, Clock::time_point until) {
  pollfd set[] = {{m_wake.Get(), POLLIN, 0}, {fd, events, 0}};
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
  const int ready = poll(set, std::size(set), static_cast<int>(std::clamp<int64_t>(left, 0, 3600000)));
  if (ready <= 0) return false;
  if (set[0].revents != 0) {
    eventfd_t ignored = 0;
    eventfd_read(m_wake.Get(), &ignored);
  }
  return set[1].revents != 0 && !IsStopping();
}

// --- Datagrams ---------------------------------------------------------------------------------------

// Returns whether there was a socket.
bool TakInput::RunDatagrams() {
  std::string fault;
  const OwnedFD socket = OpenTakSocket(m_settings, fault);
  SetTrouble(fault);
  if (!socket.IsOpen()) return false;
  while (!IsStopping()) {
    if (Await(socket.Get(), POLLIN, Clock::now() + 1h)) ReadDatagrams(socket.Get());
    if (IsStopping() || !m_isNetworkNew.exchange(false) || m_settings.host.empty()) continue;
    fault.clear();
    JoinTakGroup(socket.Get(), m_settings, fault);
    SetTrouble(fault);
  }
  return true;
}

// Reads until nothing is left, a thousand at most, so that the end of a run is not missed.
void TakInput::ReadDatagrams(int socket) {
  std::vector<uint8_t> buffer(kReadSize);
  for (int i = 0; i < 1000 && !IsStopping(); ++i) {
    const ssize_t size = recv(socket, buffer.data(), buffer.size(), 0);
    if (size < 0) return;
    Add(Count::Datagrams);
    Add(Count::Bytes, static_cast<uint64_t>(size));
    PushDatagram(std::span(buffer).first(static_cast<size_t>(size)));
  }
}

// A datagram of XML may hold several events.
void TakInput::PushDatagram(std::span<const uint8_t> bytes) {
  const tak::Datagram datagram = tak::ParseDatagram(bytes);
  if (datagram.kind == tak::Datagram::Kind::Protobuf) {
    Push(tak::StreamReader::Kind::Protobuf, datagram.payload);
    return;
  }
  // Without the header of a datagram it may have that of a stream.
  tak::StreamReader reader(kLongestEvent);
  reader.Push(datagram.kind == tak::Datagram::Kind::Xml ? datagram.payload : bytes,
              [this](tak::StreamReader::Kind kind, std::span<const uint8_t> event) { Push(kind, event); });
  Add(Count::Faulty, reader.Faults() + (reader.IsInside() ? 1 : 0));
}

// --- Streams -----------------------------------------------------------------------------------------

// Returns whether something arrived.
bool TakInput::RunStream() {
  Resolution resolution;
  if (!FindAddresses(resolution)) return false;
  OwnedFD socket;
  std::string fault = resolution.fault;
  for (const HostAddress& address : resolution.addresses) {
    socket = Connect(address, fault);
    if (socket.IsOpen() || IsStopping()) break;
  }
  if (IsStopping()) return false;
  if (!socket.IsOpen()) {
    SetTrouble(m_settings.url + ": " + fault);
    return false;
  }
  KeepAlive(socket.Get());
  std::unique_ptr<TlsConnection> tls;
  if (m_tls && !Secure(socket.Get(), tls, m_settings.url)) return false;
  Add(Count::Connections);
  return ReceiveStream(socket.Get(), tls.get(), m_settings.url);
}

bool TakInput::FindAddresses(Resolution& resolution) {
  m_resolver.Ask(m_settings.host, m_settings.port, SOCK_STREAM);
  const auto until = Clock::now() + kLookUpLimit;
  while (!IsStopping() && Clock::now() < until) {
    Await(m_resolver.Descriptor(), POLLIN, until);
    if (auto answer = m_resolver.Take()) {
      resolution = std::move(*answer);
      return true;
    }
  }
  SetTrouble("nobody tells the address of " + m_settings.host);
  return false;
}

OwnedFD TakInput::Connect(const HostAddress& address, std::string& fault) {
  OwnedFD fd(socket(address.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.IsOpen() && connect(fd.Get(), address.Plain(), address.size) == 0) return fd;
  if (!fd.IsOpen() || errno != EINPROGRESS) {
    fault = std::strerror(errno);
    return OwnedFD();
  }
  const auto until = Clock::now() + kConnectLimit;
  bool isReady = false;
  while (!isReady && !IsStopping() && Clock::now() < until) isReady = Await(fd.Get(), POLLOUT, until);
  int error = ETIMEDOUT;
  socklen_t size = sizeof(error);
  if (isReady) getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
  if (isReady && error == 0) return fd;
  fault = std::strerror(error);
  return OwnedFD();
}

bool TakInput::Secure(int socket, std::unique_ptr<TlsConnection>& tls, const std::string& peer) {
  using Outcome = TlsConnection::Outcome;
  tls = std::make_unique<TlsConnection>(*m_tls, socket,
                                        m_settings.tls.name.empty() ? m_settings.host : m_settings.tls.name);
  const auto until = Clock::now() + kConnectLimit;
  while (!IsStopping()) {
    const Outcome outcome = tls->Handshake();
    if (outcome == Outcome::Done) return true;
    if (outcome == Outcome::Failed || outcome == Outcome::Ended) {
      SetTrouble(peer + ": " + (outcome == Outcome::Failed ? tls->Fault() : "the server ended the connection"));
      return false;
    }
    if (Clock::now() >= until) {
      SetTrouble(peer + ": no TLS handshake within 10 s");
      return false;
    }
    Await(socket, outcome == Outcome::WaitToRead ? POLLIN : POLLOUT, until);
  }
  return false;
}

bool TakInput::ReceiveStream(int socket, TlsConnection* tls, const std::string& peer) {
  tak::StreamReader reader(kLongestEvent);
  const uint64_t before = Get(Count::Bytes);
  uint64_t events = Get(Count::Events);
  auto eventBegan = Clock::now();
  const auto settled = Clock::now() + kSettled;
  bool isUp = false;
  std::string fault;
  while (!IsStopping()) {
    const auto now = Clock::now();
    if (events != Get(Count::Events) || !reader.IsInside()) {
      events = Get(Count::Events);
      eventBegan = now;
    }
    if (now - eventBegan > kEventLimit) {
      Add(Count::Faulty);
      fault = "an event has no end after 30 s";
      break;
    }
    if (!isUp && (now >= settled || Get(Count::Bytes) != before)) {
      isUp = true;
      SetTrouble({});
    }
    if (Await(socket, POLLIN, isUp ? now + 1s : settled) && !ReadStream(socket, tls, reader, fault)) break;
  }
  if (!IsStopping()) SetTrouble(peer + ": " + fault);
  return Get(Count::Bytes) != before;
}

// Reads what there is, as far as the library takes it. Returns false at the end of the stream, with the reason.
bool TakInput::ReadStream(int socket, TlsConnection* tls, tak::StreamReader& reader, std::string& fault) {
  std::vector<uint8_t> buffer(kReadSize);
  using Outcome = TlsConnection::Outcome;
  while (!IsStopping()) {
    size_t got = 0;
    Outcome outcome = Outcome::Done;
    if (tls != nullptr) {
      outcome = tls->Read(buffer, got);
      if (outcome == Outcome::Failed) fault = tls->Fault();
    } else {
      const ssize_t size = recv(socket, buffer.data(), buffer.size(), 0);
      if (size < 0 && (errno == EAGAIN || errno == EINTR)) return true;
      if (size < 0) fault = std::strerror(errno);
      outcome = size < 0 ? Outcome::Failed : size == 0 ? Outcome::Ended : Outcome::Done;
      got = size > 0 ? static_cast<size_t>(size) : 0;
    }
    if (outcome == Outcome::Ended) fault = "the server ended the connection";
    if (outcome == Outcome::WaitToRead || outcome == Outcome::WaitToWrite) return true;
    if (outcome != Outcome::Done) return false;
    const uint64_t faults = reader.Faults();
    Add(Count::Bytes, got);
    reader.Push(std::span(buffer).first(got),
                [this](tak::StreamReader::Kind kind, std::span<const uint8_t> event) { Push(kind, event); });
    Add(Count::Faulty, reader.Faults() - faults);
  }
  return true;
}

// --- Events ------------------------------------------------------------------------------------------

void TakInput::Push(tak::StreamReader::Kind kind, std::span<const uint8_t> bytes) {
  if (kind == tak::StreamReader::Kind::Xml) {
    Add(Count::Events);
    Forward(cot::Prepare(bytes));
    return;
  }
  const tak::Message message = tak::ParseMessage(bytes);
  if (!message.isValid) Add(Count::Faulty);
  if (!message.event) return;
  Add(Count::Events);
  Forward(cot::Prepare(*message.event));
}

void TakInput::Forward(const cot::Prepared& prepared) {
  switch (prepared.verdict) {
    case cot::Verdict::OtherKind:
      Add(Count::OtherKinds);
      return;
    case cot::Verdict::Faulty:
      Add(Count::Faulty);
      return;
    case cot::Verdict::TooLong:
      Add(Count::TooLong);
      return;
    case cot::Verdict::Ready:
      break;
  }
  if (prepared.isAircraft && !m_settings.aircraft.empty() && prepared.uid != m_settings.aircraft) {
    Add(Count::OtherAircraft);
    return;
  }
  if (send(m_out.Get(), prepared.datagram.data(), prepared.datagram.size(), 0) < 0) {
    Add(Count::NotSent);
    return;
  }
  Add(Count::Forwarded);
  if (prepared.leftOut != 0) Add(Count::Shortened);
  if (++m_sentSinceLook >= kEventsPerLook) AwaitRoom();
}

// The kernel drops what the library's socket has no room for, without a word to the sender. A peer that sends faster than
// the library reads is therefore made to wait.
void TakInput::AwaitRoom() {
  m_sentSinceLook = 0;
  const auto until = Clock::now() + kRoomLimit;
  while (!IsStopping() && Clock::now() < until) {
    if (UnreadBytes(m_port) <= kMostUnread) return;
    Await(-1, 0, Clock::now() + 2ms);
  }
}

}  // namespace mdencoder
