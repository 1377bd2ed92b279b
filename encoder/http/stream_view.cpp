// SPDX-License-Identifier: Apache-2.0
#include "http/stream_view.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "st0601_items.h"
#include "stream/streams.h"

namespace mdencoder::http {
namespace {

// Returns what stands behind the name of a box, at least `size` bytes, or nothing.
std::span<const uint8_t> Behind(std::span<const uint8_t> init, std::string_view box, size_t size) {
  const auto found = std::search(init.begin(), init.end(), box.begin(), box.end());
  const auto left = static_cast<size_t>(init.end() - found);
  if (left < box.size() + size) return {};
  return init.last(left - box.size());
}

// ISO/IEC 14496-15, annex E: the codec's name with what its configuration says.
std::string Advanced(std::span<const uint8_t> record) {
  char text[32];
  std::snprintf(text, sizeof(text), "avc1.%02x%02x%02x", record[1], record[2], record[3]);
  return text;
}

std::string HighEfficiency(std::span<const uint8_t> record) {
  uint32_t compatible = 0;  // in reverse order
  for (int bit = 0; bit < 32; ++bit) {
    const unsigned byte = record[2 + static_cast<size_t>(bit) / 8];
    compatible |= (byte >> (7 - bit % 8) & 1) << bit;
  }
  char text[48];
  std::snprintf(text, sizeof(text), "hvc1.%u.%x.%c%u.%x", record[1] & 0x1Fu, compatible,
                (record[1] & 0x20) != 0 ? 'H' : 'L', static_cast<unsigned>(record[12]),
                static_cast<unsigned>(record[6]));
  return text;
}

}  // namespace

std::string MovieType(std::span<const uint8_t> init) {
  constexpr size_t kRecord = 13;
  std::string codec;
  if (const auto record = Behind(init, "avcC", kRecord); !record.empty()) codec = Advanced(record);
  if (const auto record = Behind(init, "hvcC", kRecord); !record.empty()) codec = HighEfficiency(record);
  return codec.empty() ? "video/mp4" : "video/mp4; codecs=\"" + codec + "\"";
}

StreamView ViewOf(const Streams& streams) {
  StreamView view;
  view.list = [&streams] {
    Json list = StreamsJson(streams.Snapshot());
    for (Json& stream : list) {
      const auto name = stream.at("name").get<std::string>();
      const auto ring = streams.Ring(name);
      FragmentRing::Cursor cursor;
      const auto init = ring ? ring->Begin(cursor, std::chrono::milliseconds(0)) : nullptr;
      stream["url"] = "/stream/" + name + ".mp4";
      if (init) stream["mime"] = MovieType(*init);
    }
    return list;
  };
  view.ring = [&streams](const std::string& name) { return streams.Ring(name); };
  return view;
}

Hub::Presenter PresenterOf(const Streams& streams) {
  return [&streams](const Delivered& message, const st0601::Message& parsed) -> std::optional<double> {
    std::optional<uint64_t> timeUs;
    const st0601::Element* const stamp = parsed.Find(st0601::kTimeStampTag);
    if (stamp != nullptr && parsed.checksum != st0601::ChecksumState::Bad) {
      const st0601::Value value = st0601::Decode(*st0601::FindItem(st0601::kTimeStampTag), stamp->value);
      if (value.state == st0601::ValueState::Ok && value.whole > 0) timeUs = static_cast<uint64_t>(value.whole);
    }
    for (const std::string& name : streams.Names()) {
      const auto time = streams.Presentation(name, message.source, timeUs, message.timeUs);
      if (time) return static_cast<double>(*time) / 1e6;
    }
    return std::nullopt;
  };
}

}  // namespace mdencoder::http
