// SPDX-License-Identifier: Apache-2.0
#include "http/events.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "render.h"
#include "wall_clock.h"

namespace mdencoder::http {
namespace {

constexpr size_t kBatch = 64;
constexpr auto kHeartbeat = std::chrono::seconds(5);
constexpr auto kLongestWait = std::chrono::seconds(1);
constexpr const char* kNames[] = {"message", "statistics", "log", "sensor"};

std::string Bye(const char* reason) {
  return std::string("event: bye\ndata: {\"reason\":\"") + reason + "\"}\n\n";
}

}  // namespace

EventFlow::EventFlow(const Hub& hub, EventWishes wishes, std::string run, Say say)
    : m_hub(hub), m_wishes(std::move(wishes)), m_run(std::move(run)), m_say(std::move(say)), m_next(hub.NextId()) {}

std::string EventFlow::Hello() {
  bool hasMissed = false;
  if (m_wishes.lastId) {
    const uint64_t wanted = *m_wishes.lastId + 1;
    hasMissed = wanted > m_next || wanted < m_hub.OldestId();
    if (!hasMissed) m_next = wanted;
  }
  Json json = {{"run", m_run}};
  AddTime(json, common::WallClockUs(), "now");
  json["missed"] = hasMissed;
  return "retry: 1000\nevent: hello\ndata: " + Dump(json) + "\n\n";
}

bool EventFlow::IsWanted(const Event& event) const {
  if (!m_wishes.kinds.at(static_cast<size_t>(event.kind))) return false;
  return event.source.empty() || m_wishes.sources.empty() || m_wishes.sources.contains(event.source);
}

void EventFlow::Append(const Event& event, std::string& piece) const {
  piece += "event: ";
  piece += kNames[static_cast<size_t>(event.kind)];
  piece += "\nid: " + std::to_string(event.id) + "\ndata: ";
  piece += event.message ? event.message->Line(m_wishes.items) : event.line;
  piece += "\n\n";
}

// Passes an event on now, or keeps a message for later in place of an older one.
void EventFlow::Pass(const std::shared_ptr<const Event>& event, Clock::time_point now, std::string& piece) {
  if (m_wishes.rate <= 0 || event->kind != EventKind::Message) return Append(*event, piece);
  Pace& pace = m_paces[event->source];
  pace.waiting = event;
  if (now >= pace.due) PassWaiting(now, piece);
}

void EventFlow::PassWaiting(Clock::time_point now, std::string& piece) {
  const auto interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / std::max(m_wishes.rate, 0.001)));
  for (auto& [source, pace] : m_paces) {
    if (!pace.waiting || now < pace.due) continue;
    Append(*pace.waiting, piece);
    pace.waiting.reset();
    pace.due = (now - pace.due < interval ? pace.due : now) + interval;
  }
}

// Returns when there is something to do even if no event comes.
EventFlow::Clock::time_point EventFlow::Due(Clock::time_point now) const {
  auto due = std::min(m_heartbeat, now + kLongestWait);
  for (const auto& [source, pace] : m_paces) {
    if (pace.waiting) due = std::min(due, pace.due);
  }
  return due;
}

bool EventFlow::Next(std::string& piece) {
  piece.clear();
  if (m_isEnding) return false;
  const auto before = Clock::now();
  if (!m_isGreeted) {
    m_isGreeted = true;
    m_heartbeat = before + kHeartbeat;
    piece = Hello();
    return true;
  }
  const Hub::Batch batch = m_hub.Wait(m_next, kBatch, Due(before));
  const auto now = Clock::now();
  if (batch.hasMissed) {
    if (m_say) m_say("a client of the page reads its events too slowly and is closed");
    piece = Bye("too slow");
    m_isEnding = true;
    return true;
  }
  for (const auto& event : batch.events) {
    if (IsWanted(*event)) Pass(event, now, piece);
  }
  PassWaiting(now, piece);
  if (batch.isOver) {
    piece += Bye("the program ends");
    m_isEnding = true;
  }
  if (piece.empty() && now >= m_heartbeat) piece = ":\n\n";
  if (!piece.empty()) m_heartbeat = now + kHeartbeat;
  return true;
}

}  // namespace mdencoder::http
