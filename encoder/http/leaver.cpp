// SPDX-License-Identifier: Apache-2.0
#include "http/leaver.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>

namespace mdencoder::http {

Leaver::Leaver(common::OwnedFD socket, const TlsServer* tls, std::string text, Clock::time_point until)
    : m_socket(std::move(socket)), m_text(std::move(text)), m_until(until), m_isGreeted(tls == nullptr) {
  if (tls != nullptr) m_tls = std::make_unique<TlsConnection>(*tls, m_socket.Get());
}

bool Leaver::Step(Clock::time_point now) {
  if (now >= m_until) return false;
  Outcome outcome = m_isGreeted ? Outcome::Done : Greet();
  if (outcome == Outcome::Done && !m_isTold) outcome = Tell();
  if (outcome == Outcome::Done) outcome = Drain();
  return outcome == Outcome::Wait;
}

Leaver::Outcome Leaver::Judge(TlsConnection::Outcome outcome) {
  m_wanted = outcome == TlsConnection::Outcome::WaitToWrite ? POLLOUT : POLLIN;
  if (outcome == TlsConnection::Outcome::Done) return Outcome::Done;
  const bool waits = outcome == TlsConnection::Outcome::WaitToRead || outcome == TlsConnection::Outcome::WaitToWrite;
  return waits ? Outcome::Wait : Outcome::Failed;
}

Leaver::Outcome Leaver::Greet() {
  const Outcome outcome = Judge(m_tls->Handshake());
  m_isGreeted = outcome == Outcome::Done;
  return outcome;
}

Leaver::Outcome Leaver::Tell() {
  while (m_told < m_text.size()) {
    const std::string_view left = std::string_view(m_text).substr(m_told);
    if (m_tls != nullptr) {
      size_t put = 0;
      const Outcome outcome = Judge(m_tls->Write({reinterpret_cast<const uint8_t*>(left.data()), left.size()}, put));
      if (outcome != Outcome::Done) return outcome;
      m_told += put;
      continue;
    }
    const ssize_t count = send(m_socket.Get(), left.data(), left.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    m_wanted = POLLOUT;
    if (count < 0) return errno == EAGAIN || errno == EINTR ? Outcome::Wait : Outcome::Failed;
    m_told += static_cast<size_t>(count);
  }
  m_isTold = true;
  if (m_tls != nullptr) m_tls->Finish();
  shutdown(m_socket.Get(), SHUT_WR);
  return Outcome::Done;
}

// A socket that is closed with unread bytes is reset, and the client may never see what it was told.
Leaver::Outcome Leaver::Drain() {
  m_wanted = POLLIN;
  std::array<char, 4096> rest;
  const ssize_t count = recv(m_socket.Get(), rest.data(), rest.size(), MSG_DONTWAIT);
  if (count < 0) return errno == EAGAIN || errno == EINTR ? Outcome::Wait : Outcome::Failed;
  m_rest += static_cast<size_t>(count);
  return count == 0 || m_rest > kMostRest ? Outcome::Done : Outcome::Wait;
}

}  // namespace mdencoder::http
