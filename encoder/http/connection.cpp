// SPDX-License-Identifier: Apache-2.0
#include "http/connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "http/access.h"

namespace mdencoder::http {
namespace {

constexpr auto kSlice = std::chrono::milliseconds(200);      // between two looks whether everything is to end
constexpr auto kStall = std::chrono::seconds(10);            // without a byte that the client takes
constexpr size_t kLeastRate = 4096;                          // bytes a second that a client must take
constexpr int kSendBuffer = 256 * 1024;                      // bytes that the system keeps for a client
constexpr auto kFarewell = std::chrono::milliseconds(1000);  // to read an answer that ends a connection
constexpr size_t kMostFarewellBytes = size_t{256} << 10;

// Addresses of IPv4 look like those also on sockets of IPv6.
Connection::End EndOf(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof(text));
    return {text, ntohs(v4.sin_port)};
  }
  if (address.ss_family != AF_INET6) return {};
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
  const bool isMapped = IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr);
  const void* const bytes = isMapped ? static_cast<const void*>(v6.sin6_addr.s6_addr + 12) : &v6.sin6_addr;
  inet_ntop(isMapped ? AF_INET : AF_INET6, bytes, text, sizeof(text));
  return {text, ntohs(v6.sin6_port)};
}

}  // namespace

Connection::Connection(common::OwnedFD socket, const TlsServer* tls, const std::atomic<bool>& isStopping)
    : m_socket(std::move(socket)), m_isStopping(isStopping) {
  const int on = 1;
  setsockopt(m_socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  setsockopt(m_socket.Get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  if (getsockname(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), &size) == 0) m_local = EndOf(address);
  size = sizeof(address);
  if (getpeername(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), &size) == 0) m_remote = EndOf(address);
  if (tls != nullptr) m_tls = std::make_unique<TlsConnection>(*tls, m_socket.Get());
}

// Returns false when the time is over or everything is to end.
bool Connection::WaitFor(short events, Clock::time_point end) const {
  while (!m_isStopping.load(std::memory_order_relaxed)) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    pollfd set = {m_socket.Get(), events, 0};
    const int ready = poll(&set, 1, static_cast<int>(std::min<std::chrono::milliseconds>(left, kSlice).count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
  return false;
}

Connection::Outcome Connection::Handshake(Clock::time_point end) {
  while (m_tls != nullptr) {
    const auto outcome = m_tls->Handshake();
    if (outcome == TlsConnection::Outcome::Done) break;
    const bool wantsRead = outcome == TlsConnection::Outcome::WaitToRead;
    if (!wantsRead && outcome != TlsConnection::Outcome::WaitToWrite) return Outcome::Failed;
    if (!WaitFor(wantsRead ? POLLIN : POLLOUT, end)) return Outcome::TimeOver;
  }
  return Outcome::Done;
}

// Done with nothing got: `wanted` is what to wait for.
Connection::Outcome Connection::ReadSome(char* to, size_t size, size_t& got, short& wanted) {
  got = 0;
  wanted = POLLIN;
  if (m_tls != nullptr) {
    switch (m_tls->Read({reinterpret_cast<uint8_t*>(to), size}, got)) {
      case TlsConnection::Outcome::WaitToWrite:
        wanted = POLLOUT;
        return Outcome::Done;
      case TlsConnection::Outcome::Done:
      case TlsConnection::Outcome::WaitToRead:
        return Outcome::Done;
      case TlsConnection::Outcome::Ended:
        return Outcome::Ended;
      default:
        return Outcome::Failed;
    }
  }
  const ssize_t count = recv(m_socket.Get(), to, size, 0);
  if (count == 0) return Outcome::Ended;
  if (count < 0) return errno == EAGAIN || errno == EINTR ? Outcome::Done : Outcome::Failed;
  got = static_cast<size_t>(count);
  return Outcome::Done;
}

// Adds what comes next to what was received.
Connection::Outcome Connection::Receive(Clock::time_point end) {
  std::array<char, 4096> buffer;
  for (;;) {
    size_t got = 0;
    short wanted = POLLIN;
    const Outcome outcome = ReadSome(buffer.data(), buffer.size(), got, wanted);
    if (outcome != Outcome::Done) return outcome;
    if (got != 0) {
      m_received.append(buffer.data(), got);
      return Outcome::Done;
    }
    if (!WaitFor(wanted, end)) return Outcome::TimeOver;
  }
}

Connection::Outcome Connection::ReadHead(std::string& head, Clock::time_point begin, Clock::duration most) {
  // Empty lines in front of a request are allowed.
  const auto skip = [this] { m_received.erase(0, std::min(m_received.find_first_not_of("\r\n"), m_received.size())); };
  for (skip(); m_received.empty(); skip()) {
    const Outcome outcome = Receive(begin);
    if (outcome != Outcome::Done) return outcome;
  }
  const auto end = Clock::now() + most;
  for (size_t from = 0;;) {
    const size_t found = m_received.find("\r\n\r\n", from);
    if (found != std::string::npos && found + 4 <= kLongestHead) {
      head = m_received.substr(0, found + 4);
      m_received.erase(0, found + 4);
      return Outcome::Done;
    }
    if (m_received.size() > kLongestHead) return Outcome::TooLong;
    from = m_received.size() < 3 ? 0 : m_received.size() - 3;
    const Outcome outcome = Receive(end);
    if (outcome != Outcome::Done) return outcome;
  }
}

Connection::Outcome Connection::WriteSome(std::string_view bytes, size_t& put, short& wanted) {
  put = 0;
  wanted = POLLOUT;
  if (m_tls != nullptr) {
    switch (m_tls->Write({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, put)) {
      case TlsConnection::Outcome::WaitToRead:
        wanted = POLLIN;
        return Outcome::Done;
      case TlsConnection::Outcome::Done:
      case TlsConnection::Outcome::WaitToWrite:
        return Outcome::Done;
      default:
        return Outcome::Failed;
    }
  }
  const ssize_t count = send(m_socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (count < 0) return errno == EAGAIN || errno == EINTR ? Outcome::Done : Outcome::Failed;
  put = static_cast<size_t>(count);
  return Outcome::Done;
}

bool Connection::Write(std::string_view bytes) {
  const auto last = Clock::now() + kStall + std::chrono::seconds(bytes.size() / kLeastRate);
  auto end = Clock::now() + kStall;
  while (!bytes.empty()) {
    size_t put = 0;
    short wanted = POLLOUT;
    if (m_hasFailed || WriteSome(bytes, put, wanted) != Outcome::Done) {
      m_hasFailed = true;
      return false;
    }
    bytes.remove_prefix(put);
    if (put != 0) {
      end = std::min(last, Clock::now() + kStall);
    } else if (!WaitFor(wanted, end)) {
      m_hasFailed = true;
      m_isTimedOut = !m_isStopping.load(std::memory_order_relaxed);
      return false;
    }
  }
  return true;
}

bool Connection::IsGone() const {
  pollfd set = {m_socket.Get(), POLLRDHUP, 0};
  return poll(&set, 1, 0) > 0 && (set.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// A socket that is closed with unread bytes is reset, and the client may never see the answer.
void Connection::Finish() {
  if (m_tls != nullptr) m_tls->Finish();
  shutdown(m_socket.Get(), SHUT_WR);
  const auto end = Clock::now() + kFarewell;
  std::array<char, 4096> rest;
  for (size_t total = 0; total < kMostFarewellBytes && WaitFor(POLLIN, end);) {
    const ssize_t count = recv(m_socket.Get(), rest.data(), rest.size(), 0);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) return;
    total += count > 0 ? static_cast<size_t>(count) : 0;
  }
}

void Connection::Cancel() const {
  shutdown(m_socket.Get(), SHUT_RDWR);
}

}  // namespace mdencoder::http
