// SPDX-License-Identifier: Apache-2.0
// Server-sent events: what a client wants of the hub's events, as text.
#ifndef MDENCODER_HTTP_EVENTS_H
#define MDENCODER_HTTP_EVENTS_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "http/answer.h"
#include "http/hub.h"

namespace mdencoder::http {

struct EventWishes {
  std::set<std::string, std::less<>> sources;            // none: all
  std::array<bool, 4> kinds = {true, true, true, true};  // by EventKind
  ItemForm items = ItemForm::Compact;
  double rate = 0;  // most messages a second of each source; 0: all
  std::optional<uint64_t> lastId;
};

class EventFlow : public Flow {
 public:
  using Clock = std::chrono::steady_clock;
  using Say = std::function<void(const std::string& line)>;

  // `run` tells the client whether the ids that it knows are of this run.
  EventFlow(const Hub& hub, EventWishes wishes, std::string run, Say say);

  bool Next(std::string& piece) override;

 private:
  // The messages of a source at a limited rate.
  struct Pace {
    Clock::time_point due{};
    std::shared_ptr<const Event> waiting;  // the newest one that came too early
  };

  std::string Hello();
  bool IsWanted(const Event& event) const;
  void Append(const Event& event, std::string& piece) const;
  void Pass(const std::shared_ptr<const Event>& event, Clock::time_point now, std::string& piece);
  void PassWaiting(Clock::time_point now, std::string& piece);
  Clock::time_point Due(Clock::time_point now) const;

  const Hub& m_hub;
  const EventWishes m_wishes;
  const std::string m_run;
  const Say m_say;
  std::map<std::string, Pace, std::less<>> m_paces;
  uint64_t m_next = 0;
  bool m_isGreeted = false;
  bool m_isEnding = false;
  Clock::time_point m_heartbeat;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_EVENTS_H
