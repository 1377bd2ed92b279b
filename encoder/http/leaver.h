// SPDX-License-Identifier: Apache-2.0
// A client that is turned away, until it has read why. Nothing here waits: Step does what can be done at once.
#ifndef MDENCODER_HTTP_LEAVER_H
#define MDENCODER_HTTP_LEAVER_H

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "owned_fd.h"
#include "tls.h"

namespace mdencoder::http {

class Leaver {
 public:
  using Clock = std::chrono::steady_clock;

  // What a client may send while it leaves; one that sends more is cut off.
  static constexpr size_t kMostRest = size_t{64} << 10;

  // The socket must not block. `tls` is null without TLS. `text` is all that the client is told. Throws
  // std::runtime_error.
  Leaver(common::OwnedFD socket, const TlsServer* tls, std::string text, Clock::time_point until);

  // Returns false when nothing is left to do, or the time is over.
  bool Step(Clock::time_point now);
  // What the next step waits for.
  pollfd Wanted() const { return {m_socket.Get(), m_wanted, 0}; }

 private:
  enum class Outcome { Done, Wait, Failed };

  Outcome Greet();
  Outcome Tell();
  Outcome Drain();
  Outcome Judge(TlsConnection::Outcome outcome);

  const common::OwnedFD m_socket;
  std::unique_ptr<TlsConnection> m_tls;
  const std::string m_text;
  const Clock::time_point m_until;
  bool m_isGreeted = false;  // TLS is there
  bool m_isTold = false;
  size_t m_told = 0;  // bytes of the text
  size_t m_rest = 0;  // bytes that came afterwards
  short m_wanted = POLLIN;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_LEAVER_H
