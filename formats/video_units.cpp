// SPDX-License-Identifier: Apache-2.0
#include "video_units.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace video {
namespace {

constexpr std::string_view kIdentifier = "MISPmicrosectime";  // these characters are the message's UUID
constexpr uint8_t kUserData = 5;                              // user data, unregistered
constexpr uint8_t kTimeSize = 28;                             // UUID, status and time
constexpr uint8_t kGuard = 0xFF;                              // keeps the time from imitating a start code
constexpr size_t kLeastUnit = 4;                              // start code and a byte

struct Types {
  uint8_t delimiter;
  std::array<uint8_t, 3> sets;  // parameter sets; 0 for none
  uint8_t supplement;
  uint8_t lowestSlice;
  uint8_t highestSlice;
};
constexpr Types kTypes264 = {9, {7, 8, 0}, 6, 1, 5};
constexpr Types kTypes265 = {35, {32, 33, 34}, 39, 0, 31};

const Types& TypesOf(Codec codec) {
  return codec == Codec::H264 ? kTypes264 : kTypes265;
}

size_t HeaderSize(Codec codec) {
  return codec == Codec::H264 ? 1 : 2;
}

// Returns where three bytes 0, 0, 1 begin, or the size.
size_t FindCode(ByteView frame, size_t from) {
  constexpr uint8_t kCode[] = {0, 0, 1};
  if (from >= frame.size()) return frame.size();
  const auto rest = frame.subspan(from);
  return from +
         static_cast<size_t>(std::search(rest.begin(), rest.end(), std::begin(kCode), std::end(kCode)) - rest.begin());
}

}  // namespace

std::optional<Unit> NextUnit(Codec codec, ByteView frame, size_t from) {
  const size_t code = FindCode(frame, from);
  if (frame.size() < kLeastUnit || code > frame.size() - kLeastUnit) return std::nullopt;
  Unit unit;
  unit.begin = code > from && frame[code - 1] == 0 ? code - 1 : code;
  unit.start = code + 3;
  unit.end = FindCode(frame, unit.start);
  if (unit.end < frame.size() && unit.end > unit.start && frame[unit.end - 1] == 0) --unit.end;
  const uint8_t header = frame[unit.start];
  unit.type = codec == Codec::H264 ? header & 0x1F : header >> 1 & 0x3F;
  return unit;
}

bool HasDelimiter(Codec codec, ByteView frame) {
  const auto first = NextUnit(codec, frame, 0);
  return first && first->begin == 0 && first->type == TypesOf(codec).delimiter;
}

Bytes ParameterSets(Codec codec, ByteView frame) {
  Bytes found;
  for (const uint8_t type : TypesOf(codec).sets) {
    if (type == 0) continue;
    auto unit = NextUnit(codec, frame, 0);
    while (unit && unit->type != type) unit = NextUnit(codec, frame, unit->end);
    if (!unit) return {};
    found.insert(found.end(), {0, 0, 0, 1});
    found.insert(found.end(), frame.begin() + static_cast<std::ptrdiff_t>(unit->start),
                 frame.begin() + static_cast<std::ptrdiff_t>(unit->end));
  }
  return found;
}

Bytes WithTimeStamp(Codec codec, ByteView frame, uint64_t timeUs, bool isLocked) {
  const Types& types = TypesOf(codec);
  auto unit = NextUnit(codec, frame, 0);
  while (unit && (unit->type < types.lowestSlice || unit->type > types.highestSlice)) {
    unit = NextUnit(codec, frame, unit->end);
  }
  const auto at = static_cast<std::ptrdiff_t>(unit ? unit->begin : frame.size());
  Bytes stamped(frame.begin(), frame.begin() + at);
  stamped.insert(stamped.end(), {0, 0, 0, 1});
  if (codec == Codec::H264) {
    stamped.push_back(types.supplement);
  } else {
    stamped.insert(stamped.end(), {static_cast<uint8_t>(types.supplement << 1), 1});
  }
  stamped.insert(stamped.end(), {kUserData, kTimeSize});
  stamped.insert(stamped.end(), kIdentifier.begin(), kIdentifier.end());
  stamped.push_back(isLocked ? 0x1F : 0x9F);
  for (int i = 0; i < 8; ++i) {
    if (i != 0 && i % 2 == 0) stamped.push_back(kGuard);
    stamped.push_back(static_cast<uint8_t>(timeUs >> (56 - 8 * i)));
  }
  stamped.push_back(0x80);
  stamped.insert(stamped.end(), frame.begin() + at, frame.end());
  return stamped;
}

std::optional<uint64_t> TimeStamp(Codec codec, ByteView frame) {
  for (auto unit = NextUnit(codec, frame, 0); unit; unit = NextUnit(codec, frame, unit->end)) {
    const size_t head = unit->start + HeaderSize(codec);
    if (unit->type != TypesOf(codec).supplement || unit->end < head + 2 + kTimeSize) continue;
    const ByteView message = frame.subspan(head, 2 + kTimeSize);
    if (message[0] != kUserData || message[1] != kTimeSize ||
        !std::equal(kIdentifier.begin(), kIdentifier.end(), message.begin() + 2)) {
      continue;
    }
    const ByteView time = message.subspan(2 + kIdentifier.size() + 1);
    uint64_t timeUs = 0;
    for (size_t i = 0; i < time.size(); ++i) {
      if (i % 3 != 2) timeUs = timeUs << 8 | time[i];
    }
    return timeUs;
  }
  return std::nullopt;
}

}  // namespace video
