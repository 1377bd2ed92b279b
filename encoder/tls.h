// SPDX-License-Identifier: Apache-2.0
// TLS on a connected socket that does not block. A fault is one line that says what to look at.
#ifndef MDENCODER_TLS_H
#define MDENCODER_TLS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace mdencoder {

// Who the peers of a TLS connection are.
struct TlsSettings {
  bool operator==(const TlsSettings&) const = default;

  std::string ca;           // file of the authorities; empty: those of the system
  std::string certificate;  // file of the client's certificate, or empty
  std::string key;          // file of its key; empty: the same file
  std::string password;     // of these files
  std::string name;         // in the server's certificate; empty: the host
};

// The files of a source. Throws ConfigError if one cannot be read or does not hold what it should.
class TlsClient {
 public:
  explicit TlsClient(const TlsSettings& settings);
  ~TlsClient();
  TlsClient(const TlsClient&) = delete;
  TlsClient& operator=(const TlsClient&) = delete;

 private:
  friend class TlsConnection;
  struct Context;
  std::unique_ptr<Context> m_context;
};

// The certificate and the key of a server, as PEM. Throws ConfigError if one cannot be read or they do not fit each other.
class TlsServer {
 public:
  // Without a file of the key, that of the certificate holds it too.
  TlsServer(const std::string& certificate, const std::string& key);
  ~TlsServer();
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;

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
  // The server's side.
  TlsConnection(const TlsServer& server, int socket);
  ~TlsConnection();
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  Outcome Handshake();
  // Done: `got` bytes were read, at least one.
  Outcome Read(std::span<uint8_t> buffer, size_t& got);
  // Done: `put` bytes were written, at least one. After another outcome the same bytes are written again, or more.
  Outcome Write(std::span<const uint8_t> bytes, size_t& put);
  // Tells the other side that nothing follows, if that can be done without waiting.
  void Finish();
  // Says why the last call failed.
  const std::string& Fault() const { return m_fault; }

 private:
  Outcome Judge(int result);

  struct State;
  std::unique_ptr<State> m_state;
  bool m_isServer = false;
  std::string m_fault;
};

}  // namespace mdencoder

#endif  // MDENCODER_TLS_H
