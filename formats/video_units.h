// SPDX-License-Identifier: Apache-2.0
// video_units.h - the units of H.264 and H.265 in Annex B form, and the precision time stamp of MISB ST 0604 among them.
#ifndef VIDEO_UNITS_H
#define VIDEO_UNITS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace video {

using ByteView = std::span<const uint8_t>;
using Bytes = std::vector<uint8_t>;

enum class Codec { H264, H265 };

// A unit with its start code.
struct Unit {
  size_t begin = 0;  // of the start code
  size_t start = 0;  // of the unit's header, behind it
  size_t end = 0;
  uint8_t type = 0;
};

// Returns the next unit that begins at `from` or later.
std::optional<Unit> NextUnit(Codec codec, ByteView frame, size_t from);

// Returns whether the first unit is an access unit delimiter.
bool HasDelimiter(Codec codec, ByteView frame);
// Returns the parameter sets, one of each unit, with their start codes; nothing if one kind is missing.
Bytes ParameterSets(Codec codec, ByteView frame);

// Returns the frame with the time in a supplemental message in front of its first slice: microseconds since 1970.
// `isLocked` says that the clock follows a time reference.
Bytes WithTimeStamp(Codec codec, ByteView frame, uint64_t timeUs, bool isLocked);
// Returns the time of such a message.
std::optional<uint64_t> TimeStamp(Codec codec, ByteView frame);

}  // namespace video

#endif  // VIDEO_UNITS_H
