// Messages as text: one table row or one JSON line each.
#ifndef MDENCODER_RENDER_H
#define MDENCODER_RENDER_H

#include <string>

#include "receiver.h"
#include "st0601_items.h"

namespace mdencoder {

// The column titles of TableRow, without a line end.
std::string TableHeader();
// Time (local), source, sequence, length, checksum state, then the items as "key=value unit". No line end.
std::string TableRow(const Received& received, const st0601::Message& message);
// The same and more as one JSON object; see docs/mdencoder.md. No line end.
std::string JsonLine(const Received& received, const st0601::Message& message);

// "2024-05-01T10:20:30.123456Z" of microseconds since 1970.
std::string UtcText(uint64_t microseconds);

}  // namespace mdencoder

#endif
