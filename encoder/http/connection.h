// SPDX-License-Identifier: Apache-2.0
// A client's connection, with or without TLS. Nothing on it takes longer than its time: a client that does not send its
// request, or does not read its answer, is given up.
#ifndef MDENCODER_HTTP_CONNECTION_H
#define MDENCODER_HTTP_CONNECTION_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "owned_fd.h"
#include "tls.h"

namespace mdencoder::http {

class Connection {
 public:
  using Clock = std::chrono::steady_clock;

  // The socket must not block. `tls` is null without TLS. `isStopping` becomes true when everything is to end.
  Connection(common::OwnedFD socket, const TlsServer* tls, const std::atomic<bool>& isStopping);

  enum class Outcome { Done, Ended, TimeOver, TooLong, Failed };

  Outcome Handshake(Clock::time_point end);
  // Reads the head of the next request, up to and with its empty line. Waits for its first byte until `begin`, and for the
  // rest `most` from then on.
  Outcome ReadHead(std::string& head, Clock::time_point begin, Clock::duration most);
  // Tells whether the beginning of a request was read, and not its end.
  bool HasPart() const { return !m_received.empty(); }
  // Writes everything, or gives up a client that does not read.
  bool Write(std::string_view bytes);
  bool HasFailed() const { return m_hasFailed; }    // a Write did
  bool IsTimedOut() const { return m_isTimedOut; }  // because the client did not read
  // Tells whether the client has gone, as far as the system knows.
  bool IsGone() const;
  // Says that nothing follows, and gives the client a moment to read what was sent.
  void Finish();
  // Lets every call above end soon. Any thread.
  void Cancel() const;

  // Numeric addresses of both ends.
  struct End {
    std::string address;
    int port = 0;
  };
  const End& Local() const { return m_local; }
  const End& Remote() const { return m_remote; }

 private:
  Outcome Receive(Clock::time_point end);
  Outcome ReadSome(char* to, size_t size, size_t& got, short& wanted);
  Outcome WriteSome(std::string_view bytes, size_t& put, short& wanted);
  bool WaitFor(short events, Clock::time_point end) const;

  const common::OwnedFD m_socket;
  const std::atomic<bool>& m_isStopping;
  std::unique_ptr<TlsConnection> m_tls;
  std::string m_received;  // and not taken yet
  bool m_hasFailed = false;
  bool m_isTimedOut = false;
  End m_local;
  End m_remote;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_CONNECTION_H
