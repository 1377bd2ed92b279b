// SPDX-License-Identifier: Apache-2.0
// Renders messages as text: one row with every item or one JSON line each.
#ifndef MDENCODER_RENDER_H
#define MDENCODER_RENDER_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <vector>

#include "receiver.h"
#include "st0601_items.h"

namespace mdencoder {

// Returns the column titles of WideRow, without a line end.
std::string WideHeader();
// Returns local time, source, sequence, length, checksum state, and the items as "key=value unit", without a line end.
std::string WideRow(const Received& received, const st0601::Message& message);
// Returns the same and more as one JSON object, without a line end; see docs/mdencoder.md. If `chosen` has items, it has
// no others.
std::string JsonLine(const Received& received, const st0601::Message& message,
                     std::span<const st0601::Item* const> chosen = {});

// Returns the list of items that such an object has; `withRaw` adds the bytes of each, as hexadecimal digits.
nlohmann::ordered_json ItemsJson(const std::vector<st0601::Element>& elements, bool withRaw);

// Returns "2024-05-01T10:20:30.123456Z" for microseconds since 1970.
std::string UtcText(uint64_t microseconds);
// Returns "HH:MM:SS.mmm" of this machine.
std::string LocalText(uint64_t microseconds);
// Returns the value of an element for people, without its unit; a security set in braces.
std::string ItemText(const st0601::Element& element);

}  // namespace mdencoder

#endif
