// SPDX-License-Identifier: Apache-2.0
// Renders messages as text: one table row or one JSON line each.
#ifndef MDENCODER_RENDER_H
#define MDENCODER_RENDER_H

#include <cstdint>
#include <string>

#include "receiver.h"
#include "st0601_items.h"

namespace mdencoder {

// Returns the column titles of TableRow, without a line end.
std::string TableHeader();
// Returns local time, source, sequence, length, checksum state, and the items as "key=value unit", without a line end.
std::string TableRow(const Received& received, const st0601::Message& message);
// Returns the same and more as one JSON object, without a line end; see docs/mdencoder.md.
std::string JsonLine(const Received& received, const st0601::Message& message);

// Returns "2024-05-01T10:20:30.123456Z" for microseconds since 1970.
std::string UtcText(uint64_t microseconds);

}  // namespace mdencoder

#endif
