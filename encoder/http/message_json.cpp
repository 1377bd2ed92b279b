// SPDX-License-Identifier: Apache-2.0
#include "http/message_json.h"

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <span>
#include <utility>

#include "render.h"

namespace mdencoder::http {
namespace {

using st0601::Element;
using st0601::Kind;
using st0601::Value;
using st0601::ValueState;

void Put(Json& json, const char* key, const std::optional<double>& value) {
  if (value) json[key] = *value;
}

void Put(Json& json, const char* key, const std::string& text) {
  if (!text.empty()) json[key] = text;
}

void Put(Json& json, const char* key, const std::optional<st0601::Position>& position) {
  if (position) json[key] = PositionJson(*position);
}

// Returns the tags and values of items that are a number, a time, a code or a text.
Json CompactItems(const st0601::Message& message) {
  Json items = Json::object();
  for (const Element& element : message.elements) {
    if (element.item == nullptr) continue;
    const Kind kind = element.item->kind;
    if (kind == Kind::SecuritySet || kind == Kind::Raw || kind == Kind::Checksum) continue;
    const Value value = st0601::Decode(*element.item, element.value);
    if (value.state != ValueState::Ok) continue;
    Json& place = items[std::to_string(element.tag)];
    if (kind == Kind::Code && !value.text.empty()) {
      place = value.text;
    } else if (value.isWhole) {
      place = value.whole;
    } else if (value.isNumber) {
      place = value.number;
    } else {
      place = value.text;
    }
  }
  return items;
}

const char* KindName(Kind kind) {
  switch (kind) {
    case Kind::Code:
      return "code";
    case Kind::Time:
      return "time";
    case Kind::Text:
    case Kind::Text16:
      return "text";
    case Kind::SecuritySet:
      return "set";
    case Kind::Checksum:
      return "checksum";
    case Kind::Raw:
      return "raw";
    default:
      return "number";
  }
}

Json TableJson(std::span<const st0601::Item> items) {
  Json table = Json::array();
  for (const st0601::Item& item : items) {
    Json row = {
        {"tag", item.tag}, {"name", item.name}, {"key", item.key}, {"unit", item.unit}, {"kind", KindName(item.kind)}};
    if (item.min != item.max) {
      row["min"] = item.min;
      row["max"] = item.max;
    }
    table.push_back(std::move(row));
  }
  return table;
}

}  // namespace

std::string Dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void AddTime(Json& json, uint64_t timeUs, const std::string& name) {
  json[name] = UtcText(timeUs);
  json[name + "_us"] = timeUs;
}

Json PositionJson(const st0601::Position& position) {
  Json json = {{"latitude", position.latitude}, {"longitude", position.longitude}};
  Put(json, "altitude", position.altitude);
  Put(json, "ellipsoid_height", position.ellipsoidHeight);
  return json;
}

Json SeenJson(const st0601::Observation& seen) {
  Json json = Json::object();
  if (seen.timeUs) json["time_us"] = *seen.timeUs;
  Put(json, "platform", seen.platform);
  const std::initializer_list<std::pair<const char*, std::optional<double>>> numbers = {
      {"heading", seen.heading},
      {"course", seen.course},
      {"pitch", seen.pitch},
      {"roll", seen.roll},
      {"ground_speed", seen.groundSpeed},
      {"azimuth", seen.TrueAzimuth()},
      {"elevation", seen.TrueElevation()},
      {"horizontal_view", seen.horizontalView},
      {"vertical_view", seen.verticalView},
      {"slant_range", seen.slantRange}};
  for (const auto& [key, value] : numbers) Put(json, key, value);
  Put(json, "frame_center", seen.frameCenter);
  Put(json, "target", seen.target);
  for (const st0601::Position& corner : seen.corners) json["corners"].push_back(PositionJson(corner));
  Put(json, "name", seen.platformName);
  Put(json, "mission", seen.missionId);
  Put(json, "sensor", seen.sensorName);
  return json;
}

Json MessageJson(const Delivered& message, ItemForm form, bool withRaw) {
  const st0601::Message parsed = st0601::Parse(message.bytes);
  Json json = {{"source", message.source}};
  if (message.id != 0) json["id"] = message.id;
  AddTime(json, message.timeUs);
  if (message.sequence) json["sequence"] = *message.sequence;
  json["length"] = message.bytes.size();
  if (message.timeStamp != 0) json["timestamp"] = message.timeStamp;
  if (message.presentation) json["presentation"] = *message.presentation;
  json["st0601"] = parsed.isUas;
  if (parsed.isUas) {
    json["checksum"] = st0601::ChecksumStateName(parsed.checksum);
    Json seen = SeenJson(st0601::Observe(parsed));
    if (!seen.empty()) json["seen"] = std::move(seen);
    if (form == ItemForm::Compact) json["items"] = CompactItems(parsed);
    if (form == ItemForm::Full) json["items"] = ItemsJson(parsed.elements, withRaw);
    if (!parsed.isComplete) json["error"] = parsed.error;
  }
  if (form == ItemForm::Full && (withRaw || !parsed.isUas)) json["raw"] = st0601::Hex(message.bytes);
  return json;
}

const std::string& Delivered::Line(ItemForm form) const {
  const auto at = static_cast<size_t>(form);
  std::call_once(m_isMade.at(at), [&] { m_lines.at(at) = Dump(MessageJson(*this, form, false)); });
  return m_lines.at(at);
}

Json ItemTablesJson() {
  return {{"standard", "ST 0601"},
          {"items", TableJson(st0601::Items())},
          {"security", TableJson(st0601::SecurityElements())}};
}

}  // namespace mdencoder::http
