// SPDX-License-Identifier: Apache-2.0
// Messages as JSON for the page and for programs (docs/outputs/live_page.md).
#ifndef MDENCODER_HTTP_MESSAGE_JSON_H
#define MDENCODER_HTTP_MESSAGE_JSON_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "observation.h"
#include "st0601_items.h"

namespace mdencoder::http {

using Json = nlohmann::ordered_json;

// One line; control characters are escaped, and what is no UTF-8 is replaced.
std::string Dump(const Json& json);

enum class ItemForm { None, Compact, Full };
constexpr size_t kItemForms = 3;

// A message that was delivered, without its stream header. Any thread may read it.
class Delivered {
 public:
  uint64_t id = 0;  // of its event; 0 without one
  std::string source;
  uint64_t timeUs = 0;
  uint64_t timeStamp = 0;              // 90 kHz, or 0
  std::optional<uint8_t> sequence;     // of its stream header
  std::optional<double> presentation;  // seconds on the clock of the stream
  std::vector<uint8_t> bytes;

  // Returns the line of the message's event. It is made once for all readers.
  const std::string& Line(ItemForm form) const;

 private:
  mutable std::array<std::once_flag, kItemForms> m_isMade;
  mutable std::array<std::string, kItemForms> m_lines;
};

// Returns a message with its items, as ItemForm says; `withRaw` adds the bytes of each item and of the whole.
Json MessageJson(const Delivered& message, ItemForm form, bool withRaw);

Json PositionJson(const st0601::Position& position);

// Returns what a message says about positions and directions, and {} if it says nothing.
Json SeenJson(const st0601::Observation& seen);

// Adds "time" and "time_us", with a prefix in front of both.
void AddTime(Json& json, uint64_t timeUs, const std::string& name = "time");

// Returns the tables of the standards.
Json ItemTablesJson();

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_MESSAGE_JSON_H
