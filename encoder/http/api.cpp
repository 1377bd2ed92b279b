// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Paths       lead to answers
//   Sources     are reports, messages and histories
//   Program     is what is not of one source
//   Flows       are events and streams
#include "http/api.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <utility>

#include "http/query.h"
#include "http/snapshot.h"
#include "render.h"
#include "st0601_items.h"
#include "wall_clock.h"

namespace mdencoder::http {
namespace {

constexpr size_t kMostItems = 8;
constexpr int64_t kMostPoints = History::kPoints;
constexpr int64_t kUsualPoints = 1000;
constexpr int64_t kUsualRecordingPoints = 300;
constexpr size_t kMostNames = 64;
constexpr double kHighestRate = 1000;
constexpr auto kOldestState = std::chrono::seconds(10);
constexpr std::string_view kKinds[] = {"message", "statistics", "log", "sensor"};  // EventKind
constexpr std::string_view kItemFormNames[] = {"none", "compact", "full"};         // ItemForm
constexpr std::string_view kLevels[] = {"error", "warning", "notice", "debug"};

std::string MachineName() {
  char name[HOST_NAME_MAX + 1] = "";
  return gethostname(name, sizeof(name) - 1) == 0 ? name : "";
}

std::vector<std::string_view> Split(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    const size_t slash = std::min(path.find('/'), path.size());
    parts.push_back(path.substr(0, slash));
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return parts;
}

Answer JsonAnswer(const Json& json) {
  Answer answer;
  answer.body = Dump(json);
  return answer;
}

[[noreturn]] void RefusePath() {
  throw Refusal{404, "there is nothing here"};
}

// Returns where a history of so many seconds begins.
uint64_t From(uint64_t nowUs, int64_t seconds) {
  const auto span = static_cast<uint64_t>(seconds) * 1000000;
  return nowUs > span ? nowUs - span : 0;
}

class StreamFlow : public Flow {
 public:
  explicit StreamFlow(std::shared_ptr<FragmentRing> ring) : m_ring(std::move(ring)) {}

  bool Next(std::string& piece) override {
    constexpr auto kWait = std::chrono::milliseconds(250);
    piece.clear();
    if (!m_hasBegun) {
      const auto init = m_ring->Begin(m_cursor, kWait);
      if (init == nullptr) return !m_ring->IsClosed();
      m_hasBegun = true;
      piece.assign(init->begin(), init->end());
      return true;
    }
    const auto fragment = m_ring->Wait(m_cursor, kWait);
    if (fragment == nullptr) return !m_ring->IsOver(m_cursor);
    piece.assign(fragment->bytes.begin(), fragment->bytes.end());
    return true;
  }

 private:
  const std::shared_ptr<FragmentRing> m_ring;
  FragmentRing::Cursor m_cursor;
  bool m_hasBegun = false;
};

}  // namespace

// --- Paths -------------------------------------------------------------------------------------------

Api::Api(ApiSettings settings, const Hub& hub, const Assets& assets)
    : m_settings(std::move(settings)),
      m_hub(hub),
      m_assets(assets),
      m_recordings(m_settings.folders),
      m_itemTables(Dump(ItemTablesJson())) {}

Answer Api::Handle(const Request& request, const ServerCounts& counts) const {
  constexpr std::string_view kApi = "/api/v1/";
  constexpr std::string_view kStream = "/stream/";
  const std::string_view path = request.path;
  if (path == "/healthz") return Health();
  if (path == "/metrics") return Metrics(counts);
  if (path.starts_with(kStream)) return Stream(std::string(path.substr(kStream.size())));
  if (!path.starts_with(kApi)) return m_assets.Get(path, request);
  if (path.ends_with('/')) RefusePath();
  Answer answer = OfApi(Split(path.substr(kApi.size())), request);
  const auto isCache = [](const auto& field) { return field.first == "Cache-Control"; };
  if (std::none_of(answer.fields.begin(), answer.fields.end(), isCache)) {
    answer.fields.emplace_back("Cache-Control", "no-store");
  }
  return answer;
}

Answer Api::OfApi(const Parts& parts, const Request& request) const {
  if (parts.empty()) RefusePath();
  const std::string_view first = parts[0];
  if (first == "sources" && parts.size() > 1) return OfSource(parts, request);
  if (first == "recordings" && parts.size() > 1) return OfRecording(parts, request);
  if (parts.size() > 1) RefusePath();
  if (first == "openapi.json") return m_assets.Get("/api/v1/openapi.json", request);
  if (first == "events") return Events(request);
  if (first == "log") return JsonAnswer(Log(request));
  Query(request.query).Finish();
  if (first == "info") return JsonAnswer(Info());
  if (first == "sources") return JsonAnswer(Sources());
  if (first == "streams") return JsonAnswer(Streams());
  if (first == "recordings") return JsonAnswer(m_recordings.List());
  if (first == "items") {
    Answer answer;
    answer.body = m_itemTables;
    return answer;
  }
  RefusePath();
}

Answer Api::OfSource(const Parts& parts, const Request& request) const {
  const std::string name(parts[1]);
  const Json source = Source(name);
  if (parts.size() == 2) {
    Query(request.query).Finish();
    return JsonAnswer(source);
  }
  if (parts.size() > 3) RefusePath();
  if (parts[2] == "last") return JsonAnswer(Last(name, request));
  if (parts[2] == "history") return JsonAnswer(History(name, request));
  if (parts[2] == "track") return JsonAnswer(Track(name, request));
  RefusePath();
}

Answer Api::OfRecording(const Parts& parts, const Request& request) const {
  const std::string name(parts[1]);
  Query query(request.query);
  if (parts.size() == 2) {
    const auto from = query.Number("from", 0, INT64_MAX);
    const auto to = query.Number("to", 0, INT64_MAX);
    const int64_t most = query.Number("points", 1, Recordings::kMostPoints, kUsualRecordingPoints);
    query.Finish();
    return JsonAnswer(m_recordings.Points(name, from, to, static_cast<size_t>(most)));
  }
  if (parts.size() > 3 || parts[2] != "message") RefusePath();
  const auto time = query.Number("time", 0, INT64_MAX);
  const auto at = query.Number("at", 0, INT64_MAX);
  const bool withRaw = query.Switch("raw");
  query.Finish();
  if (time.has_value() == at.has_value()) throw Refusal{400, "either time or at is needed"};
  return JsonAnswer(m_recordings.Message(name, time, at, withRaw));
}

// --- Sources -----------------------------------------------------------------------------------------

Json Api::Sources() const {
  const auto state = m_hub.State();
  Json json;
  AddTime(json, state->timeUs);
  json["sources"] = state->sources;
  return json;
}

Json Api::Source(const std::string& name) const {
  const auto state = m_hub.State();
  for (const Json& source : state->sources) {
    if (source.at("name") == name) return source;
  }
  throw Refusal{404, "there is no source \"" + name + "\""};
}

Json Api::Last(const std::string& name, const Request& request) const {
  Query query(request.query);
  const bool withRaw = query.Switch("raw");
  query.Finish();
  const auto last = m_hub.Last(name);
  if (!last) throw Refusal{404, "the source \"" + name + "\" has delivered no message yet"};
  return MessageJson(*last, ItemForm::Full, withRaw);
}

Json Api::History(const std::string& name, const Request& request) const {
  Query query(request.query);
  const auto seconds = query.Number("seconds", 1, http::History::kSeconds, http::History::kSeconds);
  const auto points = static_cast<size_t>(query.Number("points", 1, kMostPoints, kUsualPoints));
  const auto items = query.Texts("item", kMostItems);
  query.Finish();
  if (items.empty()) throw Refusal{400, "item is missing; it must be the tag or the key of an item"};
  const uint64_t nowUs = common::WallClockUs();
  Json json = {{"source", name}, {"now_us", nowUs}};
  json["series"] = Json::array();
  for (const std::string& text : items) {
    const bool isNumber = !text.empty() && text.size() < 6 &&
                          std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    const auto* const item =
        isNumber ? st0601::FindItem(static_cast<uint32_t>(std::stoul(text))) : st0601::FindItem(std::string_view(text));
    if (item == nullptr) throw Refusal{400, "item must be the tag or the key of an item, not \"" + text + "\""};
    Json series = {{"tag", item->tag}, {"name", item->name}, {"key", item->key}, {"unit", item->unit}};
    series["points"] = Json::array();
    for (const auto& point : m_hub.Series(name, item->tag, From(nowUs, seconds), points)) {
      series["points"].push_back({point.timeUs, point.value});
    }
    json["series"].push_back(std::move(series));
  }
  return json;
}

Json Api::Track(const std::string& name, const Request& request) const {
  Query query(request.query);
  const auto seconds = query.Number("seconds", 1, http::History::kSeconds, http::History::kSeconds);
  const auto points = static_cast<size_t>(query.Number("points", 1, kMostPoints, kUsualPoints));
  query.Finish();
  const uint64_t nowUs = common::WallClockUs();
  Json json = {{"source", name}, {"now_us", nowUs}};
  json["points"] = Json::array();
  for (const auto& place : m_hub.Track(name, From(nowUs, seconds), points)) {
    json["points"].push_back({place.timeUs, place.latitude, place.longitude,
                              place.altitude ? Json(*place.altitude) : Json(nullptr),
                              place.heading ? Json(*place.heading) : Json(nullptr)});
  }
  return json;
}

// --- Program -----------------------------------------------------------------------------------------

Json Api::Info() const {
  const uint64_t nowUs = common::WallClockUs();
  Json json = {
      {"program", "mdencoder"}, {"version", m_settings.version}, {"host", MachineName()}, {"run", m_settings.run}};
  AddTime(json, m_settings.startUs, "started");
  AddTime(json, nowUs, "now");
  json["uptime_s"] = nowUs > m_settings.startUs ? static_cast<double>(nowUs - m_settings.startUs) / 1e6 : 0;
  json["sources"] = Json::array();
  for (const Json& source : m_hub.State()->sources) json["sources"].push_back(source.at("name"));
  json["streams"] = Json::array();
  const Json streams = Streams();
  for (const Json& stream : streams.at("streams")) json["streams"].push_back(stream.at("name"));
  json["tiles"] = m_settings.tiles;
  json["tiles_attribution"] = m_settings.attribution;
  json["recordings"] = m_recordings.AreThere();
  json["history"] = {{"seconds", http::History::kSeconds}, {"points", http::History::kPoints}};
  return json;
}

Json Api::Log(const Request& request) const {
  Query query(request.query);
  const auto after = static_cast<uint64_t>(query.Number("after", 0, INT64_MAX, 0));
  const size_t level = query.Choice("level", kLevels, std::size(kLevels) - 1);
  query.Finish();
  Json json;
  json["lines"] = Json::array();
  for (const LogLine& line : m_hub.Lines(after)) {
    const auto at = std::find(std::begin(kLevels), std::end(kLevels), line.level) - std::begin(kLevels);
    if (static_cast<size_t>(at) <= level) json["lines"].push_back(LineJson(line));
  }
  return json;
}

Json Api::Streams() const {
  Json json;
  json["streams"] = m_settings.streams.list ? m_settings.streams.list() : Json::array();
  return json;
}

Answer Api::Metrics(const ServerCounts& counts) const {
  Answer answer;
  answer.type = "text/plain; version=0.0.4; charset=utf-8";
  const auto state = m_hub.State();
  MetricsInput input{*state, m_hub.Totals(), counts, m_settings.version};
  input.startSeconds = static_cast<double>(m_settings.startUs) / 1e6;
  const Json streams = m_settings.streams.list ? m_settings.streams.list() : Json::array();
  input.streams = &streams;
  answer.body = MetricsText(input);
  answer.fields.emplace_back("Cache-Control", "no-store");
  return answer;
}

Answer Api::Health() const {
  const auto state = m_hub.State();
  std::vector<std::string> reasons = state->troubles;
  const auto age = Hub::Clock::now() - state->at;
  if (age > kOldestState) {
    reasons.push_back("the program has not answered for " +
                      std::to_string(std::chrono::duration_cast<std::chrono::seconds>(age).count()) + " s");
  }
  Answer answer = JsonAnswer({{"status", reasons.empty() ? "ok" : "failing"}, {"reasons", reasons}});
  answer.status = reasons.empty() ? 200 : 503;
  answer.fields.emplace_back("Cache-Control", "no-store");
  return answer;
}

// --- Flows -------------------------------------------------------------------------------------------

Answer Api::Events(const Request& request) const {
  Query query(request.query);
  EventWishes wishes;
  for (std::string& name : query.Texts("source", kMostNames)) wishes.sources.insert(std::move(name));
  const auto kinds = query.Texts("kind", std::size(kKinds));
  if (!kinds.empty()) wishes.kinds.fill(false);
  for (const std::string& kind : kinds) {
    const auto at = std::find(std::begin(kKinds), std::end(kKinds), kind) - std::begin(kKinds);
    if (at == std::ssize(kKinds)) throw Refusal{400, "kind must be a list of message, statistics, log and sensor"};
    wishes.kinds.at(static_cast<size_t>(at)) = true;
  }
  wishes.items = static_cast<ItemForm>(query.Choice("items", kItemFormNames, 1));
  wishes.rate = query.Real("rate", 0, kHighestRate, 0);
  const auto lastId = query.Number("last_event_id", 0, INT64_MAX - 1);
  query.Finish();
  if (lastId) wishes.lastId = static_cast<uint64_t>(*lastId);
  if (!request.lastEventId.empty()) {
    const Parameters field = {{"Last-Event-ID", request.lastEventId}};
    wishes.lastId = static_cast<uint64_t>(*Query(field).Number("Last-Event-ID", 0, INT64_MAX - 1));
  }
  for (const std::string& name : wishes.sources) Source(name);
  Answer answer;
  answer.type = "text/event-stream";
  answer.flow = std::make_unique<EventFlow>(m_hub, std::move(wishes), m_settings.run, m_settings.say);
  return answer;
}

Answer Api::Stream(const std::string& file) const {
  constexpr std::string_view kSuffix = ".mp4";
  const bool isMovie = file.ends_with(kSuffix);
  const std::string name = isMovie ? file.substr(0, file.size() - kSuffix.size()) : file;
  auto ring = isMovie && m_settings.streams.ring ? m_settings.streams.ring(name) : nullptr;
  if (!ring) throw Refusal{404, "there is no stream \"" + name + "\""};
  Answer answer;
  answer.type = "video/mp4";
  answer.fields.emplace_back("Cache-Control", "no-store");
  answer.flow = std::make_unique<StreamFlow>(std::move(ring));
  return answer;
}

}  // namespace mdencoder::http
