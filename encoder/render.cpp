// SPDX-License-Identifier: Apache-2.0
#include "render.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

#include "klv_walk.h"

namespace mdencoder {
namespace {

using Json = nlohmann::ordered_json;
using st0601::Element;
using st0601::Kind;
using st0601::ValueState;
using Chosen = std::span<const st0601::Item* const>;

// Returns "key=value unit". A nested set needs ItemText.
std::string PlainText(const Element& element) {
  if (element.item == nullptr) return std::to_string(element.tag) + "=" + st0601::Hex(element.value);
  return std::string(element.item->key) + "=" +
         st0601::Display(*element.item, st0601::Decode(*element.item, element.value));
}

std::string ElementText(const Element& element) {
  if (element.item == nullptr || element.item->kind != Kind::SecuritySet) return PlainText(element);
  return std::string(element.item->key) + "=" + ItemText(element);
}

Json ElementJson(const Element& element, bool withRaw);

Json ElementsJson(const std::vector<Element>& elements, Chosen chosen = {}, bool withRaw = false) {
  Json list = Json::array();
  for (const Element& element : elements) {
    const bool isWanted = chosen.empty() || std::find(chosen.begin(), chosen.end(), element.item) != chosen.end();
    if (isWanted) list.push_back(ElementJson(element, withRaw));
  }
  return list;
}

Json ElementJson(const Element& element, bool withRaw) {
  Json json;
  json["tag"] = element.tag;
  if (element.item == nullptr) {
    json["raw"] = st0601::Hex(element.value);
    return json;
  }
  const st0601::Item& item = *element.item;
  json["name"] = item.name;
  json["key"] = item.key;
  if (item.kind == Kind::SecuritySet) {
    json["value"] = ElementsJson(st0601::ParseSecuritySet(element.value), {}, withRaw);
    if (withRaw) json["raw"] = st0601::Hex(element.value);
    return json;
  }
  const st0601::Value value = st0601::Decode(item, element.value);
  if (value.state != ValueState::Ok) {
    json["value"] = nullptr;
    json["state"] = value.state == ValueState::OutOfRange ? "out of range" : "bad length";
    json["raw"] = st0601::Hex(element.value);
    return json;
  }
  if (value.isWhole) {
    json["value"] = value.whole;
  } else if (value.isNumber) {
    json["value"] = value.number;
  } else {
    json["value"] = value.text;
  }
  if (item.kind == Kind::Time || item.kind == Kind::Code) json["text"] = value.text;
  if (item.unit[0] != '\0') json["unit"] = item.unit;
  if (withRaw) json["raw"] = st0601::Hex(element.value);
  return json;
}

}  // namespace

std::string ItemText(const Element& element) {
  if (element.item == nullptr) return st0601::Hex(element.value);
  if (element.item->kind != Kind::SecuritySet) return st0601::Decode(*element.item, element.value).text;
  std::string text = "{";
  for (const Element& inner : st0601::ParseSecuritySet(element.value)) {
    text += (text.size() == 1 ? "" : ", ") + PlainText(inner);
  }
  return text + "}";
}

std::string LocalText(uint64_t microseconds) {
  const time_t seconds = static_cast<time_t>(microseconds / 1000000);
  tm parts{};
  localtime_r(&seconds, &parts);
  char text[32];
  const size_t used = std::strftime(text, sizeof(text), "%H:%M:%S", &parts);
  std::snprintf(text + used, sizeof(text) - used, ".%03u", static_cast<unsigned>(microseconds / 1000 % 1000));
  return text;
}

std::string UtcText(uint64_t microseconds) {
  const time_t seconds = static_cast<time_t>(microseconds / 1000000);
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[48];
  const size_t used = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + used, sizeof(text) - used, ".%06uZ", static_cast<unsigned>(microseconds % 1000000));
  return text;
}

std::string WideHeader() {
  char text[128];
  std::snprintf(text, sizeof(text), "%-12s %-16s %3s %6s %-9s %s", "TIME", "SOURCE", "SEQ", "LENGTH", "CHECKSUM",
                "ITEMS");
  return text;
}

std::string WideRow(const Received& received, const st0601::Message& message) {
  char columns[160];
  std::snprintf(columns, sizeof(columns), "%-12s %-16.64s %3u %6zu %-9s", LocalText(received.timeUs).c_str(),
                std::string(received.name).c_str(), received.sequence, received.Message().size(),
                message.isUas ? st0601::ChecksumStateName(message.checksum) : "-");
  std::string row = columns;
  for (const Element& element : message.elements) row += ' ' + ElementText(element);
  if (!message.isUas) {
    const auto start = received.Message().first(std::min(klv_walk::kKeySize, received.Message().size()));
    row += " not ST 0601: " + st0601::Hex(start);
  } else if (!message.isComplete) {
    row += " (" + message.error + ")";
  }
  return row;
}

Json ItemsJson(const std::vector<Element>& elements, bool withRaw) {
  return ElementsJson(elements, {}, withRaw);
}

std::string JsonLine(const Received& received, const st0601::Message& message, Chosen chosen) {
  Json json;
  json["type"] = "message";
  if (received.timeUs != 0) json["time"] = UtcText(received.timeUs);
  json["source"] = received.name;
  json["sequence"] = received.sequence;
  json["length"] = received.Message().size();
  json["header_length"] = received.headerLength;
  if (received.timeStamp != 0) json["timestamp"] = received.timeStamp;
  json["st0601"] = message.isUas;
  if (message.isUas) {
    json["checksum"] = st0601::ChecksumStateName(message.checksum);
    json["items"] = ElementsJson(message.elements, chosen);
    if (!message.isComplete) json["error"] = message.error;
  } else {
    json["raw"] = st0601::Hex(received.Message());
  }
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace mdencoder
