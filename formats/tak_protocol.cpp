// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Wire      reads and writes fields
//   Tables    name the fields
//   Messages  are events with their details
//   Headers   stand before messages
#include "tak_protocol.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <iterator>
#include <system_error>
#include <utility>

namespace tak {
namespace {

using Bytes = std::span<const uint8_t>;
using Buffer = std::vector<uint8_t>;

// --- Wire --------------------------------------------------------------------------------------------

constexpr unsigned kVarint = 0;
constexpr unsigned kFixed64 = 1;
constexpr unsigned kBytes = 2;
constexpr unsigned kFixed32 = 5;

struct Field {
  uint64_t number = 0;
  unsigned type = 0;
  uint64_t value = 0;  // of a number
  Bytes bytes;         // of a text or a message

  std::string Text() const { return std::string(bytes.begin(), bytes.end()); }
  double Real() const { return std::bit_cast<double>(value); }
};

// Gives the fields of a message one after the other.
class FieldReader {
 public:
  explicit FieldReader(Bytes bytes) : m_rest(bytes) {}

  // Returns false at the end and at a fault, which IsValid() tells apart.
  bool Next(Field& field) {
    if (m_rest.empty() || !m_isValid) return false;
    m_isValid = Read(field);
    return m_isValid;
  }
  bool IsValid() const { return m_isValid; }

 private:
  bool ReadVarint(uint64_t& value) {
    const Varint varint = ParseVarint(m_rest);
    if (!varint.isValid || varint.size == 0) return false;
    value = varint.value;
    m_rest = m_rest.subspan(varint.size);
    return true;
  }

  bool ReadFixed(size_t size, uint64_t& value) {
    if (m_rest.size() < size) return false;
    value = 0;
    for (size_t i = 0; i < size; ++i) value |= static_cast<uint64_t>(m_rest[i]) << 8 * i;
    m_rest = m_rest.subspan(size);
    return true;
  }

  bool Read(Field& field) {
    uint64_t tag = 0;
    field = {};
    if (!ReadVarint(tag)) return false;
    field.number = tag >> 3;
    field.type = tag & 7;
    if (field.number == 0) return false;
    switch (field.type) {
      case kVarint:
        return ReadVarint(field.value);
      case kFixed64:
        return ReadFixed(8, field.value);
      case kFixed32:
        return ReadFixed(4, field.value);
      case kBytes: {
        uint64_t size = 0;
        if (!ReadVarint(size) || size > m_rest.size()) return false;
        field.bytes = m_rest.first(static_cast<size_t>(size));
        m_rest = m_rest.subspan(static_cast<size_t>(size));
        return true;
      }
      default:  // the groups of old messages, which no TAK message has
        return false;
    }
  }

  Bytes m_rest;
  bool m_isValid = true;
};

void PutVarint(uint64_t value, Buffer& to) {
  for (; value >= 0x80; value >>= 7) to.push_back(static_cast<uint8_t>(value | 0x80));
  to.push_back(static_cast<uint8_t>(value));
}

void PutTag(unsigned number, unsigned type, Buffer& to) {
  PutVarint(static_cast<uint64_t>(number) << 3 | type, to);
}

// A value of zero or nothing is left out, as protobuf's third version has it.
void PutNumber(unsigned number, uint64_t value, Buffer& to) {
  if (value == 0) return;
  PutTag(number, kVarint, to);
  PutVarint(value, to);
}

void PutReal(unsigned number, double value, Buffer& to) {
  const auto bits = std::bit_cast<uint64_t>(value);
  if (bits == 0) return;
  PutTag(number, kFixed64, to);
  for (unsigned i = 0; i < 8; ++i) to.push_back(static_cast<uint8_t>(bits >> 8 * i));
}

template <typename Range>
void PutBytes(unsigned number, const Range& value, Buffer& to) {
  if (value.empty()) return;
  PutTag(number, kBytes, to);
  PutVarint(value.size(), to);
  to.insert(to.end(), value.begin(), value.end());
}

// --- Tables ------------------------------------------------------------------------------------------

struct TextField {
  unsigned number;
  std::string Event::*text;
};
constexpr TextField kTexts[] = {{1, &Event::type}, {2, &Event::access}, {3, &Event::qos},
                                {4, &Event::opex}, {5, &Event::uid},    {9, &Event::how}};

struct TimeField {
  unsigned number;
  uint64_t Event::*time;
};
constexpr TimeField kTimes[] = {{6, &Event::sendTime}, {7, &Event::startTime}, {8, &Event::staleTime}};

struct RealField {
  unsigned number;
  double Event::*value;
};
constexpr RealField kReals[] = {
    {10, &Event::lat}, {11, &Event::lon}, {12, &Event::hae}, {13, &Event::ce}, {14, &Event::le}};

constexpr unsigned kEventField = 2;
constexpr unsigned kDetailField = 15;
constexpr unsigned kXmlDetailField = 1;

struct AttributeField {
  unsigned number;
  const char* name;
  unsigned type;
};
struct ElementField {
  unsigned number;
  const char* name;
  std::span<const AttributeField> attributes;
};
constexpr AttributeField kContact[] = {{1, "endpoint", kBytes}, {2, "callsign", kBytes}};
constexpr AttributeField kGroup[] = {{1, "name", kBytes}, {2, "role", kBytes}};
constexpr AttributeField kPrecision[] = {{1, "geopointsrc", kBytes}, {2, "altsrc", kBytes}};
constexpr AttributeField kStatus[] = {{1, "battery", kVarint}};
constexpr AttributeField kTakv[] = {
    {1, "device", kBytes}, {2, "platform", kBytes}, {3, "os", kBytes}, {4, "version", kBytes}};
constexpr AttributeField kTrack[] = {{1, "speed", kFixed64}, {2, "course", kFixed64}};
constexpr ElementField kElements[] = {
    {2, "contact", kContact}, {3, "__group", kGroup}, {4, "precisionlocation", kPrecision},
    {5, "status", kStatus},   {6, "takv", kTakv},     {7, "track", kTrack}};

// --- Messages ----------------------------------------------------------------------------------------

std::string ValueText(const Field& field) {
  if (field.type == kBytes) return field.Text();
  char text[32];
  const auto [end, error] = field.type == kFixed64 ? std::to_chars(text, std::end(text), field.Real())
                                                   : std::to_chars(text, std::end(text), field.value);
  return error == std::errc() ? std::string(text, end) : std::string();
}

// Absent fields of a track are zeros, those of other elements are absent attributes.
bool ParseElement(Bytes bytes, const ElementField& known, DetailElement& element) {
  element.name = known.name;
  std::vector<std::string> values(known.attributes.size());
  for (size_t i = 0; i < values.size(); ++i) {
    if (known.attributes[i].type == kFixed64) values[i] = "0";
  }
  FieldReader reader(bytes);
  Field field;
  while (reader.Next(field)) {
    for (size_t i = 0; i < values.size(); ++i) {
      const AttributeField& attribute = known.attributes[i];
      if (attribute.number == field.number && attribute.type == field.type) values[i] = ValueText(field);
    }
  }
  for (size_t i = 0; i < values.size(); ++i) {
    if (!values[i].empty()) element.attributes.push_back({known.attributes[i].name, values[i]});
  }
  return reader.IsValid();
}

// A repeated element replaces the one before it, so that a message cannot grow on its way.
bool ParseDetail(Bytes bytes, Event& event) {
  FieldReader reader(bytes);
  Field field;
  while (reader.Next(field)) {
    if (field.type != kBytes) continue;
    if (field.number == kXmlDetailField) event.xmlDetail = field.Text();
    for (const ElementField& known : kElements) {
      if (known.number != field.number) continue;
      DetailElement element;
      if (!ParseElement(field.bytes, known, element)) return false;
      std::erase_if(event.elements, [&](const DetailElement& other) { return other.name == element.name; });
      event.elements.push_back(std::move(element));
    }
  }
  return reader.IsValid();
}

bool ParseEvent(Bytes bytes, Event& event) {
  FieldReader reader(bytes);
  Field field;
  while (reader.Next(field)) {
    if (field.type == kBytes && field.number == kDetailField && !ParseDetail(field.bytes, event)) return false;
    for (const TextField& each : kTexts) {
      if (field.type == kBytes && field.number == each.number) event.*each.text = field.Text();
    }
    for (const TimeField& each : kTimes) {
      if (field.type == kVarint && field.number == each.number) event.*each.time = field.value;
    }
    for (const RealField& each : kReals) {
      if (field.type == kFixed64 && field.number == each.number) event.*each.value = field.Real();
    }
  }
  return reader.IsValid();
}

Buffer FormatElement(const DetailElement& element, const ElementField& known) {
  Buffer bytes;
  for (const AttributeField& field : known.attributes) {
    for (const auto& [name, value] : element.attributes) {
      if (name != field.name) continue;
      double real = 0;
      uint64_t number = 0;
      if (field.type == kBytes) PutBytes(field.number, value, bytes);
      if (field.type == kFixed64 &&
          std::from_chars(value.data(), value.data() + value.size(), real).ec == std::errc()) {
        PutReal(field.number, real, bytes);
      }
      if (field.type == kVarint &&
          std::from_chars(value.data(), value.data() + value.size(), number).ec == std::errc()) {
        PutNumber(field.number, number, bytes);
      }
    }
  }
  return bytes;
}

Buffer FormatDetail(const Event& event) {
  Buffer bytes;
  PutBytes(kXmlDetailField, event.xmlDetail, bytes);
  for (const ElementField& known : kElements) {
    for (const DetailElement& element : event.elements) {
      if (element.name == known.name) PutBytes(known.number, FormatElement(element, known), bytes);
    }
  }
  return bytes;
}

}  // namespace

Message ParseMessage(Bytes bytes) {
  Message message;
  FieldReader reader(bytes);
  Field field;
  while (reader.Next(field)) {
    if (field.number != kEventField || field.type != kBytes) continue;
    Event event;
    if (!ParseEvent(field.bytes, event)) return {};
    message.event = std::move(event);
  }
  message.isValid = reader.IsValid();
  if (!message.isValid) message.event.reset();
  return message;
}

Buffer FormatMessage(const Event& event) {
  Buffer fields;
  for (const TextField& each : kTexts) {
    if (each.number < kTimes[0].number) PutBytes(each.number, event.*each.text, fields);
  }
  for (const TimeField& each : kTimes) PutNumber(each.number, event.*each.time, fields);
  for (const TextField& each : kTexts) {
    if (each.number > kTimes[0].number) PutBytes(each.number, event.*each.text, fields);
  }
  for (const RealField& each : kReals) PutReal(each.number, event.*each.value, fields);
  PutBytes(kDetailField, FormatDetail(event), fields);
  Buffer message;
  PutBytes(kEventField, fields, message);
  return message;
}

// --- Headers -----------------------------------------------------------------------------------------

Varint ParseVarint(Bytes bytes) {
  constexpr size_t kLongest = 10;
  Varint varint;
  for (size_t i = 0; i < std::min(bytes.size(), kLongest); ++i) {
    const uint64_t bits = bytes[i] & 0x7F;
    if (i == kLongest - 1 && bits > 1) break;
    varint.value |= bits << 7 * i;
    if ((bytes[i] & 0x80) != 0) continue;
    varint.size = i + 1;
    return varint;
  }
  varint.isValid = bytes.size() < kLongest;
  varint.value = 0;
  return varint;
}

Buffer FormatDatagram(const Event& event) {
  Buffer bytes = {kMagic, kProtobufVersion, kMagic};
  const Buffer message = FormatMessage(event);
  bytes.insert(bytes.end(), message.begin(), message.end());
  return bytes;
}

Buffer FormatStreamMessage(const Event& event) {
  Buffer bytes = {kMagic};
  const Buffer message = FormatMessage(event);
  PutVarint(message.size(), bytes);
  bytes.insert(bytes.end(), message.begin(), message.end());
  return bytes;
}

Datagram ParseDatagram(Bytes bytes) {
  if (bytes.empty() || bytes[0] != kMagic) return {Datagram::Kind::Xml, bytes};
  const Varint version = ParseVarint(bytes.subspan(1));
  const size_t header = 1 + version.size + 1;
  if (version.size == 0 || bytes.size() < header || bytes[header - 1] != kMagic) return {};
  const Bytes payload = bytes.subspan(header);
  if (version.value == kXmlVersion) return {Datagram::Kind::Xml, payload};
  if (version.value == kProtobufVersion) return {Datagram::Kind::Protobuf, payload};
  return {};
}

}  // namespace tak
