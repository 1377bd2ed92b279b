// SPDX-License-Identifier: Apache-2.0
// The server: a thread that accepts, and one for each client, whose number is limited. Requests are read with limits in
// size and time before the library of HTTP sees them.
#ifndef MDENCODER_HTTP_SERVER_H
#define MDENCODER_HTTP_SERVER_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "http/access.h"
#include "http/api.h"
#include "http/metrics.h"
#include "http/settings.h"

namespace mdencoder::http {

// Lines of the log about clients: so many at once, and then one in a while, of each kind.
constexpr double kLinesAtOnce = 3;
constexpr std::chrono::seconds kLineEach{60};

class Server {
 public:
  static constexpr size_t kMostConnections = 128;
  static constexpr size_t kMostFlows = 64;  // of them: clients of events and streams

  using Say = std::function<void(const std::string& line)>;

  // Opens the port; nobody is answered before Start. The API must live as long. Throws ConfigError for a file that cannot
  // be used, and std::runtime_error for a port that cannot be had.
  Server(const HttpSettings& settings, const Api& api, Say say);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  void Start();
  // Ends every connection. Flows should be at their end.
  void Stop();
  ServerCounts Counts() const;

 private:
  class Core;
  const std::unique_ptr<Core> m_core;
};

// Returns the content security policy of every answer.
std::string ContentPolicy(const std::string& tiles);

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_SERVER_H
