// SPDX-License-Identifier: Apache-2.0
// What the page and programs can ask for: the last messages, their history, the newest events, the log and the statistics.
//
// Messages come in through a bounded queue and are looked at on a thread of the hub's own, so that nobody waits for it:
// what does not fit into the queue is left out and counted. Readers share the events; one that falls behind misses some,
// and learns that it did. All memory is bounded.
#ifndef MDENCODER_HTTP_HUB_H
#define MDENCODER_HTTP_HUB_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "annotated_mutex.h"
#include "http/history.h"
#include "http/message_json.h"
#include "observation.h"
#include "service.h"
#include "st0601_items.h"

namespace mdencoder {
struct Received;
}

namespace mdencoder::http {

struct Snapshot;

enum class EventKind : uint8_t { Message, Statistics, Log, Sensor };

struct Event {
  uint64_t id = 0;
  EventKind kind = EventKind::Message;
  std::string source;                        // of a message or a sensor
  std::shared_ptr<const Delivered> message;  // of a message
  std::string line;                          // of all others
};

struct LogLine {
  uint64_t id = 0;  // of its event
  uint64_t timeUs = 0;
  const char* level = "notice";  // "error", "warning", "notice", "debug"
  std::string module;            // of the library and the host; empty: of this program
  std::string text;
};

Json LineJson(const LogLine& line);

class Hub {
 public:
  using Clock = std::chrono::steady_clock;
  // Returns the presentation time of a message in a stream, in seconds.
  using Presenter = std::function<std::optional<double>(const Delivered& message, const st0601::Message& parsed)>;

  static constexpr size_t kMostWaiting = 2048;  // messages
  static constexpr size_t kMostWaitingBytes = size_t{4} << 20;
  static constexpr size_t kMostEvents = 2048;
  static constexpr size_t kMostEventBytes = size_t{16} << 20;  // as lines of text, about
  static constexpr size_t kMostLogLines = 500;
  static constexpr size_t kLongestLogLine = 2000;
  static constexpr size_t kMostSources = 256;
  static constexpr size_t kMostSensors = 1024;  // of Cursor-on-Target, whose last points are known

  explicit Hub(Presenter presenter = {});
  ~Hub();
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  // Copies a message into the queue, or leaves it out. Recorder's thread. Never waits.
  void Push(const Received& received);
  // Leaves lines out that come faster than they are looked at. Any thread. Never waits.
  void Log(Priority priority, std::string_view module, std::string_view text);
  // Replaces the snapshot; adds "rate_per_s", "history" and "last_id" to its sources, and "sensors" to those of
  // Cursor-on-Target. Main thread.
  void Update(Snapshot snapshot);
  // Ends the thread after the messages that wait, and lets readers come to their end.
  void Stop();

  // --- for readers, on any thread

  std::shared_ptr<const Snapshot> State() const;
  std::shared_ptr<const Delivered> Last(const std::string& source) const;
  // Return nothing for a source that has delivered nothing yet.
  std::vector<History::Point> Series(const std::string& source, uint32_t tag, uint64_t fromUs, size_t most) const;
  std::vector<History::Place> Track(const std::string& source, uint64_t fromUs, size_t most) const;
  std::vector<LogLine> Lines(uint64_t afterId) const;

  struct Counts {
    uint64_t taken = 0;    // messages
    uint64_t leftOut = 0;  // messages that did not fit into the queue
    double lag = 0;        // seconds from the arrival of the newest message to here
  };
  Counts Totals() const;

  struct Batch {
    std::vector<std::shared_ptr<const Event>> events;
    bool hasMissed = false;  // events between the cursor and these are no longer held
    bool isOver = false;     // nothing will follow
  };
  // Returns the events from `next` on, at most `most`, and moves it behind them. Waits for one until `end`.
  Batch Wait(uint64_t& next, size_t most, Clock::time_point end) const;
  // Returns the id of the next event to come, and that of the oldest one that is held.
  uint64_t NextId() const;
  uint64_t OldestId() const;

 private:
  struct OfSource {
    std::shared_ptr<const Delivered> last;
    History history;
    std::deque<std::pair<Clock::time_point, uint64_t>> counts;  // messages at the last snapshots
    bool isCot = false;
    std::set<std::string> sensors;  // that an event has told of
  };
  // The point that a sensor of Cursor-on-Target looked at last.
  struct SensorPoint {
    st0601::Position place;
    uint64_t timeUs = 0;
  };

  void Run();
  bool Take(std::deque<std::shared_ptr<Delivered>>& messages, std::deque<LogLine>& lines);
  void Handle(const std::shared_ptr<Delivered>& message);
  void Handle(LogLine line);
  void AddEvent(Event event, size_t cost) REQUIRES(m_mutex);
  void Complete(Json& source, uint64_t nowUs, Clock::time_point now) REQUIRES(m_mutex);
  void NoteSensor(const st0601::Message& parsed, uint64_t timeUs) REQUIRES(m_mutex);
  void FindSensors(Json& source, OfSource& known, uint64_t nowUs) REQUIRES(m_mutex);
  Json SensorJson(const std::string& uid) const REQUIRES(m_mutex);

  const Presenter m_presenter;

  mutable common::Mutex m_queueMutex;  // leaf
  common::Condition m_work;
  std::deque<std::shared_ptr<Delivered>> m_waiting GUARDED_BY(m_queueMutex);
  size_t m_waitingBytes GUARDED_BY(m_queueMutex) = 0;
  std::deque<LogLine> m_waitingLines GUARDED_BY(m_queueMutex);
  uint64_t m_leftOut GUARDED_BY(m_queueMutex) = 0;
  bool m_isStopped GUARDED_BY(m_queueMutex) = false;

  mutable common::Mutex m_mutex;  // leaf
  mutable common::Condition m_changed;
  std::map<std::string, OfSource, std::less<>> m_sources GUARDED_BY(m_mutex);
  std::map<std::string, SensorPoint> m_sensors GUARDED_BY(m_mutex);                          // by their UIDs
  std::deque<std::pair<std::shared_ptr<const Event>, size_t>> m_events GUARDED_BY(m_mutex);  // with their costs
  size_t m_eventBytes GUARDED_BY(m_mutex) = 0;
  uint64_t m_nextId GUARDED_BY(m_mutex) = 1;
  std::deque<LogLine> m_log GUARDED_BY(m_mutex);
  std::shared_ptr<const Snapshot> m_state GUARDED_BY(m_mutex);
  uint64_t m_taken GUARDED_BY(m_mutex) = 0;
  double m_lag GUARDED_BY(m_mutex) = 0;
  bool m_isOver GUARDED_BY(m_mutex) = false;

  std::thread m_thread;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_HUB_H
