// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Counting   of what arrives
//   Text       for people
//   JSON       for programs
#include "inspection.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>

#include "klv_walk.h"
#include "printable_text.h"
#include "render.h"

namespace mdencoder {
namespace {

using Json = nlohmann::ordered_json;
using st0601::ByteView;

constexpr size_t kMostShown = 60;  // characters of a value

struct Standard {
  std::array<uint8_t, klv_walk::kKeySize> key;
  const char* name;
};
constexpr Standard kStandards[] = {
    {{0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00},
     "MISB ST 0601 UAS Datalink Local Set"},
    {{0x06, 0x0E, 0x2B, 0x34, 0x02, 0x03, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x03, 0x02, 0x00, 0x00, 0x00},
     "MISB ST 0102 Security Metadata Local Set"},
    {{0x06, 0x0E, 0x2B, 0x34, 0x02, 0x01, 0x01, 0x01, 0x02, 0x08, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00},
     "MISB ST 0102 Security Metadata Universal Set"},
    {{0x06, 0x0E, 0x2B, 0x34, 0x02, 0x01, 0x01, 0x01, 0x0E, 0x01, 0x01, 0x02, 0x01, 0x01, 0x00, 0x00},
     "MISB EG 0104 Predator UAV Basic Universal Metadata Set"},
    {{0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x01, 0x02, 0x00, 0x00, 0x00},
     "MISB ST 0806 Remote Video Terminal Local Set"},
    {{0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x03, 0x06, 0x00, 0x00, 0x00},
     "MISB ST 0903 Video Moving Target Indicator Local Set"},
};

std::string Shown(std::string text) {
  if (text.size() <= kMostShown) return text;
  size_t end = kMostShown - 3;
  while (end > 0 && (static_cast<uint8_t>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end) + "...";
}

std::string Decimal(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f", digits, value);
  return text;
}

std::string Count(uint64_t count, const char* singular, const char* plural) {
  return std::to_string(count) + ' ' + (count == 1 ? singular : plural);
}

}  // namespace

std::string StandardName(ByteView key) {
  for (const Standard& standard : kStandards) {
    if (std::equal(key.begin(), key.end(), standard.key.begin(), standard.key.end())) return standard.name;
  }
  return "key " + st0601::Hex(key);
}

// --- Counting ----------------------------------------------------------------------------------------

void Inspection::Times::Add(uint64_t time, double gap) {
  ++count;
  if (!first) first = time;
  if (count > 1 && time < last) ++stepsBack;
  if (count > 1 && time > last) {
    longest = std::max(longest, time - last);
    if (static_cast<double>(time - last) > gap * 1e6) ++gaps;
  }
  last = time;
}

double Inspection::Times::Seconds() const {
  return first && last > *first ? static_cast<double>(last - *first) / 1e6 : 0;
}

double Inspection::Times::Rate() const {
  return Seconds() > 0 ? static_cast<double>(count - 1) / Seconds() : 0;
}

uint64_t Inspection::Stream::Faults() const {
  const auto sum = [this](st0601::ChecksumState state) { return checksums.at(static_cast<size_t>(state)); };
  uint64_t faults = damaged + missing + incomplete + sequenceMissing + sum(st0601::ChecksumState::Bad) +
                    sum(st0601::ChecksumState::Misplaced);
  // Data of another kind than KLV is no fault.
  if (walk && messages != 0) faults += walk->Runs() + walk->Cut();
  return faults;
}

uint64_t Inspection::Faults() const {
  uint64_t faults = 0;
  for (const auto& stream : m_streams) faults += stream->Faults();
  return faults;
}

void Inspection::OnStream(size_t stream, const StreamInfo& info) {
  if (stream >= kMostStreams) return;
  while (m_streams.size() <= stream) m_streams.push_back(std::make_unique<Stream>());
  Stream& made = *m_streams[stream];
  made.info = info;
  if (!info.mayHoldKlv) return;
  made.walk =
      std::make_unique<klv_walk::Walk>([this, &made](const klv_walk::Found& found) { return OnMessage(made, found); });
}

void Inspection::OnData(size_t stream, ByteView bytes, std::optional<double> seconds, bool isDamaged) {
  if (stream >= m_streams.size()) return;
  Stream& counted = *m_streams[stream];
  ++counted.packets;
  counted.bytes += bytes.size();
  if (isDamaged) ++counted.damaged;
  if (seconds) {
    if (!counted.firstSeconds) counted.firstSeconds = *seconds;
    counted.lastSeconds = std::max(counted.lastSeconds, *seconds);
  }
  if (counted.walk) counted.walk->Push(bytes);
}

void Inspection::OnMissing(size_t stream, uint64_t packets) {
  if (stream < m_streams.size()) m_streams[stream]->missing += packets;
}

void Inspection::Finish() {
  for (const auto& stream : m_streams) {
    if (stream->walk) stream->walk->Finish();
  }
}

bool Inspection::OnMessage(Stream& stream, const klv_walk::Found& found) {
  if (IsEnough()) return true;
  ++m_messages;
  ++stream.messages;
  std::string name = StandardName(found.message.first(klv_walk::kKeySize));
  if (stream.standards.size() >= kMostKinds && !stream.standards.contains(name)) name = "other keys";
  ++stream.standards[name];
  if (found.sequence) {
    if (stream.sequence >= 0) {
      stream.sequenceMissing += static_cast<uint8_t>(*found.sequence - stream.sequence - 1);
    }
    stream.sequence = *found.sequence;
  }
  const st0601::Message message = st0601::Parse(found.message);
  if (!message.isUas) return true;
  ++stream.checksums.at(static_cast<size_t>(message.checksum));
  if (!message.isComplete) ++stream.incomplete;
  CountItems(stream, message);
  return message.isComplete && message.checksum != st0601::ChecksumState::Bad;
}

void Inspection::CountItems(Stream& stream, const st0601::Message& message) const {
  for (const st0601::Element& element : message.elements) {
    if (stream.items.size() >= kMostItems && !stream.items.contains(element.tag)) continue;
    ItemCount& item = stream.items[element.tag];
    ++item.count;
    if (element.item != nullptr && element.item->kind != st0601::Kind::SecuritySet) {
      const st0601::Value value = st0601::Decode(*element.item, element.value);
      if (value.state == st0601::ValueState::OutOfRange) ++item.outOfRange;
      if (value.state == st0601::ValueState::BadLength) ++item.badLength;
      if (element.tag == st0601::kTimeStampTag && value.isWhole) {
        stream.times.Add(static_cast<uint64_t>(value.whole), m_settings.gap);
      }
      item.last = Shown(st0601::Display(*element.item, value));
    } else {
      item.last = Shown(ItemText(element));
    }
    if (item.count == 1) item.first = item.last;
  }
}

// --- Text --------------------------------------------------------------------------------------------

void Inspection::AddItems(const Stream& stream, std::vector<std::string>& lines) {
  char line[256];
  std::snprintf(line, sizeof(line), "    %3s  %-28s %8s  %s", "TAG", "ITEM", "COUNT", "FIRST, LAST");
  if (!stream.items.empty()) lines.emplace_back(line);
  for (const auto& [tag, item] : stream.items) {
    const st0601::Item* known = st0601::FindItem(tag);
    std::snprintf(line, sizeof(line), "    %3u  %-28s %8llu  ", static_cast<unsigned>(tag),
                  known == nullptr ? "-" : known->key, static_cast<unsigned long long>(item.count));
    std::string text = line + item.first;
    if (item.last != item.first) text += ", " + item.last;
    if (item.outOfRange != 0) text += " (" + std::to_string(item.outOfRange) + " out of range)";
    if (item.badLength != 0) text += " (" + std::to_string(item.badLength) + " of a wrong length)";
    lines.push_back(text);
  }
}

void Inspection::AddText(const Stream& stream, double gap, std::vector<std::string>& lines) {
  const StreamInfo& info = stream.info;
  std::string head = "  " + info.kind + ' ' + info.codec;
  if (info.id >= 0) head += " (PID " + std::to_string(info.id) + ")";
  if (!info.language.empty()) head += ' ' + info.language;
  head += ": " + Count(stream.packets, "packet", "packets") + ", " + Count(stream.bytes, "byte", "bytes");
  if (stream.Seconds() > 0) head += ", " + Decimal(stream.Seconds(), 1) + " s";
  if (stream.damaged != 0) head += ", " + Count(stream.damaged, "damaged packet", "damaged packets");
  if (stream.missing != 0) head += ", " + Count(stream.missing, "packet of RTP missing", "packets of RTP missing");
  lines.push_back(head);
  if (!stream.walk || stream.messages == 0) return;
  for (const auto& [name, count] : stream.standards) {
    lines.push_back("    " + name + ": " + Count(count, "message", "messages"));
  }
  std::string sums = "    checksums:";
  for (size_t i = 0; i < stream.checksums.size(); ++i) {
    sums += (i == 0 ? " " : ", ") + std::to_string(stream.checksums.at(i)) + ' ' +
            st0601::ChecksumStateName(static_cast<st0601::ChecksumState>(i));
  }
  lines.push_back(sums + "; " + Count(stream.incomplete, "set that is", "sets that are") + " not complete");
  if (stream.walk->Skipped() + stream.walk->Cut() != 0) {
    lines.push_back("    " + Count(stream.walk->Skipped(), "byte", "bytes") + " of no message at " +
                    Count(stream.walk->Runs(), "place", "places") + ", " +
                    Count(stream.walk->Cut(), "message", "messages") + " cut off");
  }
  if (stream.sequenceMissing != 0) {
    lines.push_back("    " + Count(stream.sequenceMissing, "sequence number", "sequence numbers") + " missing");
  }
  const Times& times = stream.times;
  if (times.first) {
    lines.push_back("    time: " + UtcText(*times.first) + " to " + UtcText(times.last) + ", " +
                    Decimal(times.Rate(), 2) + " messages a second");
    lines.push_back("    gaps: " + std::to_string(times.gaps) + " of more than " + Decimal(gap, 1) +
                    " s, the longest " + Decimal(static_cast<double>(times.longest) / 1e6, 3) + " s, " +
                    Count(times.stepsBack, "step", "steps") + " back");
  }
  AddItems(stream, lines);
}

std::vector<std::string> Inspection::Text(const std::string& name, const std::string& container) const {
  std::vector<std::string> lines;
  lines.push_back(PrintableText(name) + ": " + container + ", " + Count(m_streams.size(), "stream", "streams") + ", " +
                  Count(m_messages, "message", "messages") + ", " + Count(Faults(), "fault", "faults"));
  for (const auto& stream : m_streams) AddText(*stream, m_settings.gap, lines);
  return lines;
}

// --- JSON --------------------------------------------------------------------------------------------

std::string Inspection::Json(const std::string& name, const std::string& container) const {
  mdencoder::Json json;
  json["type"] = "inspection";
  json["name"] = PrintableText(name);
  json["container"] = container;
  json["messages"] = m_messages;
  json["faults"] = Faults();
  json["streams"] = mdencoder::Json::array();
  for (const auto& stream : m_streams) {
    mdencoder::Json& entry = json["streams"].emplace_back();
    if (stream->info.id >= 0) entry["id"] = stream->info.id;
    entry["kind"] = stream->info.kind;
    entry["codec"] = stream->info.codec;
    if (!stream->info.language.empty()) entry["language"] = stream->info.language;
    entry["packets"] = stream->packets;
    entry["bytes"] = stream->bytes;
    if (stream->Seconds() > 0) entry["seconds"] = stream->Seconds();
    entry["damaged"] = stream->damaged;
    entry["rtp_missing"] = stream->missing;
    if (!stream->walk) continue;
    entry["messages"] = stream->messages;
    entry["standards"] = stream->standards;
    for (size_t i = 0; i < stream->checksums.size(); ++i) {
      entry["checksum"][st0601::ChecksumStateName(static_cast<st0601::ChecksumState>(i))] = stream->checksums.at(i);
    }
    entry["incomplete"] = stream->incomplete;
    entry["skipped_bytes"] = stream->walk->Skipped();
    entry["skipped_at"] = stream->walk->Runs();
    entry["cut_off"] = stream->walk->Cut();
    entry["sequence_missing"] = stream->sequenceMissing;
    if (stream->times.first) {
      const Times& times = stream->times;
      entry["first_time"] = UtcText(*times.first);
      entry["last_time"] = UtcText(times.last);
      entry["rate"] = times.Rate();
      entry["gaps"] = times.gaps;
      entry["longest_gap_s"] = static_cast<double>(times.longest) / 1e6;
      entry["steps_back"] = times.stepsBack;
    }
    entry["items"] = mdencoder::Json::array();
    for (const auto& [tag, item] : stream->items) {
      mdencoder::Json& row = entry["items"].emplace_back();
      row["tag"] = tag;
      if (const st0601::Item* known = st0601::FindItem(tag)) row["key"] = known->key;
      row["count"] = item.count;
      row["out_of_range"] = item.outOfRange;
      row["bad_length"] = item.badLength;
      row["first"] = item.first;
      row["last"] = item.last;
    }
  }
  return json.dump(-1, ' ', false, mdencoder::Json::error_handler_t::replace);
}

}  // namespace mdencoder
