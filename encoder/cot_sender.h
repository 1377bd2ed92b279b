// SPDX-License-Identifier: Apache-2.0
// Sends what a source sees as events of Cursor-on-Target, at a rate of its own and on a thread of its own, so that nobody
// waits for the network or for a name that is resolved.
//
// Only the last message counts: what lies between two events is not sent. A peer that is not there is tried again after 1,
// 2, 4 ... 30 seconds; one line tells that it cannot be reached, and one that it is reached again.
#ifndef MDENCODER_COT_SENDER_H
#define MDENCODER_COT_SENDER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>

#include "geoid_grid.h"
#include "observation.h"
#include "tls.h"

namespace mdencoder {

// "udp://239.2.3.1:6969", "tak://239.2.3.1:6969", "tcp://host:8087", "tls://host:8089".
struct CotDestination {
  bool isStream = false;
  bool isTls = false;  // a stream too
  bool isTak = false;  // datagrams of the TAK protocol
  std::string host;
  std::string port;
};
std::optional<CotDestination> ParseCotDestination(std::string_view text);

struct CotSenderSettings {
  // Compares what a configuration says.
  bool operator==(const CotSenderSettings& other) const {
    return std::tie(source, url, rate, uid, type, tls) ==
           std::tie(other.source, other.url, other.rate, other.uid, other.type, other.tls);
  }

  std::string source;
  std::string url;
  double rate = 1;  // of pairs of events a second
  std::string uid;
  std::string type;
  TlsSettings tls;
  Undulation undulation = SystemUndulation;
};

class CotSender {
 public:
  using Say = std::function<void(bool isWarning, const std::string& line)>;

  struct Counts {
    uint64_t sent = 0;  // events
    uint64_t lost = 0;  // events that could not be sent
  };

  CotSender(CotSenderSettings settings, Say say);
  ~CotSender();
  CotSender(const CotSender&) = delete;
  CotSender& operator=(const CotSender&) = delete;

  // Ends the thread, or leaves it behind if it waits for a name: it then says and sends nothing more.
  void Finish();
  // Gives the latest message. Never waits. One thread at a time.
  void Update(st0601::Observation seen);
  Counts Snapshot() const;

 private:
  class Core;
  const std::shared_ptr<Core> m_core;
  std::thread m_thread;
};

}  // namespace mdencoder

#endif  // MDENCODER_COT_SENDER_H
