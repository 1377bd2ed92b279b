// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   In    come messages, lines of the log and snapshots
//   Out   go events and the newest of everything
#include "http/hub.h"

#include <pthread.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "http/snapshot.h"
#include "receiver.h"
#include "render.h"
#include "wall_clock.h"

namespace mdencoder::http {
namespace {

constexpr auto kRateTime = std::chrono::seconds(5);

const char* LevelOf(Priority priority) {
  if (priority <= Priority::Error) return "error";
  if (priority == Priority::Warning) return "warning";
  return priority == Priority::Debug ? "debug" : "notice";
}

// What the event of a message may take in all its forms.
size_t CostOf(const Delivered& message) {
  return 1024 + 8 * message.bytes.size();
}

}  // namespace

Json LineJson(const LogLine& line) {
  Json json = {{"id", line.id}};
  AddTime(json, line.timeUs);
  json["level"] = line.level;
  if (!line.module.empty()) json["module"] = line.module;
  json["text"] = line.text;
  return json;
}

// --- In ----------------------------------------------------------------------------------------------

Hub::Hub(Presenter presenter)
    : m_presenter(std::move(presenter)), m_state(std::make_shared<Snapshot>()), m_thread([this] { Run(); }) {}

Hub::~Hub() {
  Stop();
}

void Hub::Push(const Received& received) {
  const st0601::ByteView bytes = received.Message();
  {
    const common::Lock lock(m_queueMutex);
    if (m_waiting.size() >= kMostWaiting || m_waitingBytes + bytes.size() > kMostWaitingBytes) {
      ++m_leftOut;
      return;
    }
  }
  auto message = std::make_shared<Delivered>();
  message->source = received.name;
  message->timeUs = received.timeUs;
  message->timeStamp = received.timeStamp;
  message->sequence = received.sequence;
  message->bytes.assign(bytes.begin(), bytes.end());
  const common::Lock lock(m_queueMutex);
  m_waitingBytes += bytes.size();
  m_waiting.push_back(std::move(message));
  m_work.NotifyOne();
}

void Hub::Stop() {
  {
    const common::Lock lock(m_queueMutex);
    m_isStopped = true;
    m_work.NotifyAll();
  }
  if (m_thread.joinable()) m_thread.join();
  const common::Lock lock(m_mutex);
  m_isOver = true;
  m_changed.NotifyAll();
}

void Hub::Run() {
  pthread_setname_np(pthread_self(), "Page");
  std::deque<std::shared_ptr<Delivered>> messages;
  std::deque<LogLine> lines;
  while (Take(messages, lines)) {
    for (const auto& message : messages) Handle(message);
    for (LogLine& line : lines) Handle(std::move(line));
  }
}

// Waits for something. Returns false after the last of it.
bool Hub::Take(std::deque<std::shared_ptr<Delivered>>& messages, std::deque<LogLine>& lines) {
  messages.clear();
  lines.clear();
  const common::Lock lock(m_queueMutex);
  while (m_waiting.empty() && m_waitingLines.empty() && !m_isStopped) m_work.Wait(m_queueMutex);
  messages.swap(m_waiting);
  lines.swap(m_waitingLines);
  m_waitingBytes = 0;
  return !messages.empty() || !lines.empty();
}

void Hub::Handle(const std::shared_ptr<Delivered>& message) {
  const st0601::Message parsed = st0601::Parse(message->bytes);
  if (m_presenter) message->presentation = m_presenter(*message, parsed);
  const uint64_t nowUs = common::WallClockUs();
  const common::Lock lock(m_mutex);
  ++m_taken;
  m_lag = nowUs > message->timeUs ? static_cast<double>(nowUs - message->timeUs) / 1e6 : 0;
  if (m_sources.size() >= kMostSources && !m_sources.contains(message->source)) return;
  OfSource& source = m_sources[message->source];
  if (parsed.isUas) source.history.Add(message->timeUs, parsed);
  if (parsed.isUas && source.isCot) NoteSensor(parsed, message->timeUs);
  message->id = m_nextId;
  source.last = message;
  AddEvent({0, EventKind::Message, message->source, message, {}}, CostOf(*message));
}

// The library's packet has the UID of the sensor as the sensor's name, and the point as the centre of the frame.
void Hub::NoteSensor(const st0601::Message& parsed, uint64_t timeUs) {
  const st0601::Observation seen = st0601::Observe(parsed);
  if (seen.sensorName.empty() || !seen.frameCenter) return;
  m_sensors.insert_or_assign(seen.sensorName, SensorPoint{*seen.frameCenter, timeUs});
  if (m_sensors.size() <= kMostSensors) return;
  m_sensors.erase(std::min_element(m_sensors.begin(), m_sensors.end(),
                                   [](const auto& a, const auto& b) { return a.second.timeUs < b.second.timeUs; }));
}

void Hub::AddEvent(Event event, size_t cost) {
  event.id = m_nextId++;
  m_events.emplace_back(std::make_shared<const Event>(std::move(event)), cost);
  m_eventBytes += cost;
  while (m_events.size() > 1 && (m_events.size() > kMostEvents || m_eventBytes > kMostEventBytes)) {
    m_eventBytes -= m_events.front().second;
    m_events.pop_front();
  }
  m_changed.NotifyAll();
}

void Hub::Log(Priority priority, std::string_view module, std::string_view text) {
  LogLine line{0, common::WallClockUs(), LevelOf(priority), std::string(module),
               std::string(text.substr(0, kLongestLogLine))};
  const common::Lock lock(m_queueMutex);
  if (m_waitingLines.size() >= kMostLogLines) return;
  m_waitingLines.push_back(std::move(line));
  m_work.NotifyOne();
}

void Hub::Handle(LogLine line) {
  const common::Lock lock(m_mutex);
  line.id = m_nextId;
  std::string shown = Dump(LineJson(line));
  const size_t cost = shown.size();
  m_log.push_back(std::move(line));
  if (m_log.size() > kMostLogLines) m_log.pop_front();
  AddEvent({0, EventKind::Log, {}, nullptr, std::move(shown)}, cost);
}

void Hub::Update(Snapshot snapshot) {
  Json event;
  AddTime(event, snapshot.timeUs);
  const common::Lock lock(m_mutex);
  for (Json& source : snapshot.sources) Complete(source, snapshot.timeUs, snapshot.at);
  event["sources"] = snapshot.sources;
  m_state = std::make_shared<const Snapshot>(std::move(snapshot));
  std::string shown = Dump(event);
  const size_t cost = shown.size();
  AddEvent({0, EventKind::Statistics, {}, nullptr, std::move(shown)}, cost);
}

// Adds what only the hub knows.
void Hub::Complete(Json& source, uint64_t nowUs, Clock::time_point now) {
  const auto name = source.at("name").get<std::string>();
  if (m_sources.size() >= kMostSources && !m_sources.contains(name)) return;
  OfSource& known = m_sources[name];
  const auto messages = source.at("messages").get<uint64_t>();
  if (!known.counts.empty() && known.counts.back().second > messages) known.counts.clear();  // they were reset
  known.counts.emplace_back(now, messages);
  while (known.counts.size() > 2 && now - known.counts[1].first >= kRateTime) known.counts.pop_front();
  const std::chrono::duration<double> time = now - known.counts.front().first;
  const auto more = static_cast<double>(messages - known.counts.front().second);
  source["rate_per_s"] = time.count() > 0 ? more / time.count() : 0;
  source["history"] = {{"points", known.history.Points()}, {"seconds", History::kSeconds}};
  source["last_id"] = known.last ? Json(known.last->id) : Json(nullptr);
  FindSensors(source, known, nowUs);
}

// Lists the discovered sensors with their points, and tells of those that are new.
void Hub::FindSensors(Json& source, OfSource& known, uint64_t nowUs) {
  const auto statistics = source.find("statistics");
  known.isCot = statistics != source.end() && statistics->contains("cot");
  if (!known.isCot) return;
  const auto uids = statistics->at("cot").at("sensors").get<std::vector<std::string>>();
  source["sensors"] = Json::array();
  if (known.sensors.size() > kMostSensors) {
    std::erase_if(known.sensors, [&uids](const auto& uid) { return std::ranges::find(uids, uid) == uids.end(); });
  }
  for (const std::string& uid : uids) {
    source["sensors"].push_back(SensorJson(uid));
    if (!known.sensors.insert(uid).second) continue;
    Json json = {{"source", source.at("name")}, {"uid", uid}};
    AddTime(json, nowUs);
    std::string shown = Dump(json);
    const size_t cost = shown.size();
    AddEvent({0, EventKind::Sensor, source.at("name").get<std::string>(), nullptr, std::move(shown)}, cost);
  }
}

Json Hub::SensorJson(const std::string& uid) const {
  Json json = {{"uid", uid}};
  const auto found = m_sensors.find(uid);
  if (found == m_sensors.end()) return json;
  json["place"] = PositionJson(found->second.place);
  AddTime(json, found->second.timeUs);
  return json;
}

// --- Out ---------------------------------------------------------------------------------------------

std::shared_ptr<const Snapshot> Hub::State() const {
  const common::Lock lock(m_mutex);
  return m_state;
}

std::shared_ptr<const Delivered> Hub::Last(const std::string& source) const {
  const common::Lock lock(m_mutex);
  const auto found = m_sources.find(source);
  return found == m_sources.end() ? nullptr : found->second.last;
}

std::vector<History::Point> Hub::Series(const std::string& source, uint32_t tag, uint64_t fromUs, size_t most) const {
  const common::Lock lock(m_mutex);
  const auto found = m_sources.find(source);
  return found == m_sources.end() ? std::vector<History::Point>() : found->second.history.Series(tag, fromUs, most);
}

std::vector<History::Place> Hub::Track(const std::string& source, uint64_t fromUs, size_t most) const {
  const common::Lock lock(m_mutex);
  const auto found = m_sources.find(source);
  return found == m_sources.end() ? std::vector<History::Place>() : found->second.history.Track(fromUs, most);
}

std::vector<LogLine> Hub::Lines(uint64_t afterId) const {
  const common::Lock lock(m_mutex);
  const auto begin =
      std::partition_point(m_log.begin(), m_log.end(), [afterId](const LogLine& line) { return line.id <= afterId; });
  return {begin, m_log.end()};
}

Hub::Counts Hub::Totals() const {
  Counts counts;
  {
    const common::Lock lock(m_queueMutex);
    counts.leftOut = m_leftOut;
  }
  const common::Lock lock(m_mutex);
  counts.taken = m_taken;
  counts.lag = m_lag;
  return counts;
}

Hub::Batch Hub::Wait(uint64_t& next, size_t most, Clock::time_point end) const {
  const common::Lock lock(m_mutex);
  while (next >= m_nextId && !m_isOver && m_changed.WaitUntil(m_mutex, end)) {
  }
  Batch batch;
  batch.isOver = m_isOver && next >= m_nextId;
  if (next >= m_nextId) return batch;
  const uint64_t oldest = m_nextId - m_events.size();
  batch.hasMissed = next < oldest;
  next = std::max(next, oldest);
  const auto begin = m_events.begin() + static_cast<std::ptrdiff_t>(next - oldest);
  const auto stop = begin + std::min<std::ptrdiff_t>(m_events.end() - begin, static_cast<std::ptrdiff_t>(most));
  for (auto it = begin; it != stop; ++it) batch.events.push_back(it->first);
  next += batch.events.size();
  return batch;
}

uint64_t Hub::NextId() const {
  const common::Lock lock(m_mutex);
  return m_nextId;
}

uint64_t Hub::OldestId() const {
  const common::Lock lock(m_mutex);
  return m_nextId - m_events.size();
}

}  // namespace mdencoder::http
