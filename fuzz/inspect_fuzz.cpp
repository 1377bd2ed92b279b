// SPDX-License-Identifier: Apache-2.0
// Inspects arbitrary bytes in two pieces, and prints each message that is found in every format. Texts must be printable
// and JSON well-formed; every byte is accounted for.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "cot_text.h"
#include "inspection.h"
#include "klv_walk.h"
#include "observation.h"
#include "presentation.h"
#include "receiver.h"
#include "tak_protocol.h"
#include "track_text.h"

namespace {

void Check(bool isTrue) {
  if (!isTrue) abort();
}

void CheckLines(const std::string& text) {
  for (const char byte : text) Check(static_cast<uint8_t>(byte) >= 0x20 || byte == '\n' || byte == '\r');
}

mdencoder::Presentation Make(mdencoder::Format format) {
  mdencoder::PresentationSettings settings;
  settings.format = format;
  if (format != mdencoder::Format::Json) {
    settings.columns = *mdencoder::ParseColumns("all");
    settings.items = *mdencoder::ParseItems("all");
  }
  return mdencoder::MakePresentation(settings, 4, [] { return size_t{5000}; });
}

void CheckTracks(const st0601::Message& message) {
  const st0601::Observation seen = st0601::Observe(message);
  for (const auto format : {track_text::Format::GeoJson, track_text::Format::Kml, track_text::Format::Gpx}) {
    track_text::Writer writer(format, "fuzz");
    writer.Add(seen, 1);
    st0601::Observation next = seen;
    if (next.platform) next.platform->longitude = -next.platform->longitude;  // perhaps over the antimeridian
    writer.Add(next, 2);
    const std::string text = writer.Begin() + writer.TakeChunk() + writer.End();
    CheckLines(text);
    Check(format != track_text::Format::GeoJson || nlohmann::json::accept(text));
    Check(std::count(text.begin(), text.end(), '<') == std::count(text.begin(), text.end(), '>') ||
          format == track_text::Format::GeoJson);
  }
}

void CheckEvents(const st0601::Message& message) {
  const st0601::Observation seen = st0601::Observe(message);
  const cot_text::Names names = {"fuzz", "a-f-A", "fuzz"};
  for (const std::string& event :
       {cot_text::PlatformEvent(seen, names, {1, 2}), cot_text::SensorPointEvent(seen, names, {1, 2})}) {
    CheckLines(event);
    Check(event.size() <= 1500 &&
          std::count(event.begin(), event.end(), '<') == std::count(event.begin(), event.end(), '>'));
  }
  for (const std::string& event : {cot_text::PlatformEvent(seen, names, {1, 2}, cot_text::Form::Tak),
                                   cot_text::SensorPointEvent(seen, names, {1, 2}, cot_text::Form::Tak)}) {
    const st0601::Bytes bytes(event.begin(), event.end());
    const tak::Datagram datagram = tak::ParseDatagram(bytes);
    Check(event.size() <= 1500 && (event.empty() || tak::ParseMessage(datagram.payload).event.has_value()));
  }
}

void Print(const klv_walk::Found& found) {
  static const std::array<mdencoder::Presentation, 3> kAll = {
      Make(mdencoder::Format::Table), Make(mdencoder::Format::Json), Make(mdencoder::Format::Csv)};
  st0601::Bytes buffer(MDATA_STREAM_HEADER_SIZE);
  buffer.insert(buffer.end(), found.message.begin(), found.message.end());
  mdencoder::Received received;
  received.name = "fuzz";
  received.buffer = buffer;
  for (const mdencoder::Presentation& presentation : kAll) CheckLines(presentation.render(received));
  Check(nlohmann::json::accept(kAll[1].render(received)));
  const std::string row = kAll[2].render(received);
  Check(std::count(row.begin(), row.end(), '\r') == 1);
  CheckTracks(st0601::Parse(found.message));
  CheckEvents(st0601::Parse(found.message));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const st0601::ByteView bytes(data, size);
  const size_t half = size == 0 ? 0 : data[0] % (size + 1);
  mdencoder::Inspection inspection({});
  mdencoder::StreamInfo info;
  info.mayHoldKlv = true;
  inspection.OnStream(0, info);
  inspection.OnData(0, bytes.first(half), std::nullopt, false);
  inspection.OnData(0, bytes.subspan(half), std::nullopt, false);
  inspection.Finish();
  for (const std::string& line : inspection.Text("fuzz", "klv")) CheckLines(line);
  Check(nlohmann::json::accept(inspection.Json("fuzz", "klv")));
  uint64_t held = 0;
  klv_walk::Walk walk([&held](const klv_walk::Found& found) {
    held += found.message.size() + (found.sequence ? 5 : 0);
    Print(found);
    return true;
  });
  walk.Push(bytes);
  walk.Finish();
  Check(walk.Bytes() == size && held + walk.Skipped() == size);
  return 0;
}
