// SPDX-License-Identifier: Apache-2.0
// The client's side of TLS on a connected socket that does not block. A fault is one line that says what to look at.
#ifndef MDENCODER_TLS_H
#define MDENCODER_TLS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "tak_settings.h"

namespace mdencoder {

// The files of a source. Throws ConfigError if one cannot be read or does not hold what it should.
class TlsClient {
 public:
  explicit TlsClient(const TakSettings& settings);
  ~TlsClient();
  TlsClient(const TlsClient&) = delete;
  TlsClient& operator=(const TlsClient&) = delete;

 private:
  friend class TlsConnection;
  struct Context;
  std::unique_ptr<Context> m_context;
};

// A connection over a socket that its owner keeps open. One thread.
class TlsConnection {
 public:
  enum class Outcome { Done, WaitToRead, WaitToWrite, Ended, Failed };

  // `name` is what the server's certificate must be for: a host name or a numeric address. Throws std::runtime_error.
  TlsConnection(const TlsClient& client, int socket, const std::string& name);
  ~TlsConnection();
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  Outcome Handshake();
  // Done: `got` bytes were read, at least one.
  Outcome Read(std::span<uint8_t> buffer, size_t& got);
  // Says why the last call failed.
  const std::string& Fault() const { return m_fault; }

 private:
  Outcome Judge(int result);

  struct State;
  std::unique_ptr<State> m_state;
  std::string m_fault;
};

}  // namespace mdencoder

#endif  // MDENCODER_TLS_H
