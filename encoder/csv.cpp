// SPDX-License-Identifier: Apache-2.0
#include "csv.h"

#include "render.h"

namespace mdencoder {
namespace {

using st0601::Kind;

std::string Field(const st0601::Item& item, const st0601::Message& message) {
  const st0601::Element* element = message.Find(item.tag);
  if (element == nullptr) return {};
  if (item.kind == Kind::SecuritySet) return CsvText(ItemText(*element));
  const st0601::Value value = st0601::Decode(item, element->value);
  if (value.state != st0601::ValueState::Ok) return {};
  const bool isFromSender = item.kind == Kind::Text || item.kind == Kind::Text16;
  return isFromSender ? CsvText(value.text) : value.text;
}

}  // namespace

std::string CsvText(std::string_view text) {
  std::string field;
  if (!text.empty() && std::string_view("=+-@").find(text.front()) != std::string_view::npos) field += '\'';
  field += text;
  if (field.find_first_of(",\"\r\n") == std::string::npos) return field;
  std::string quoted = "\"";
  for (const char character : field) {
    if (character == '"') quoted += '"';
    quoted += character;
  }
  return quoted + '"';
}

std::string CsvHeader(std::span<const st0601::Item* const> items) {
  std::string line = "arrival,source,sequence,length,state";
  for (const st0601::Item* item : items) line += std::string(",") + item->key;
  return line + '\r';
}

std::string CsvRow(const Received& received, const st0601::Message& message,
                   std::span<const st0601::Item* const> items) {
  std::string line = received.timeUs == 0 ? "" : UtcText(received.timeUs);
  line += ',' + CsvText(received.name) + ',' + std::to_string(received.sequence) + ',' +
          std::to_string(received.Message().size()) + ',';
  line += message.isUas ? st0601::ChecksumStateName(message.checksum) : "not ST 0601";
  for (const st0601::Item* item : items) line += ',' + Field(*item, message);
  return line + '\r';
}

}  // namespace mdencoder
