// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Numbers       convert big-endian integers and coded numbers
//   Values        decode, encode and display values
//   Messages      read messages
//   Building      write messages
#include "st0601_items.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "printable_text.h"

namespace st0601 {

const uint8_t kUasKey[16] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01,
                             0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};

namespace {

// --- Numbers -----------------------------------------------------------------------------------------

uint64_t ReadUnsigned(ByteView bytes) {
  uint64_t value = 0;
  for (const uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

// Reads a two's complement number of 1 to 8 bytes.
int64_t ReadSigned(ByteView bytes) {
  const unsigned unused = static_cast<unsigned>(64 - 8 * bytes.size());
  return static_cast<int64_t>(ReadUnsigned(bytes) << unused) >> unused;
}

Bytes WriteInteger(uint64_t value, size_t size) {
  Bytes out(size);
  for (size_t i = 0; i < size; ++i) out[size - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
  return out;
}

size_t LeastSize(uint64_t value) {
  size_t size = 1;
  while (value >>= 8) ++size;
  return size;
}

size_t LeastSignedSize(int64_t value) {
  size_t size = 1;
  while (size < 8 && (value >> (8 * size - 1)) != 0 && (value >> (8 * size - 1)) != -1) ++size;
  return size;
}

double UnsignedSteps(size_t size) {
  return std::ldexp(1.0, static_cast<int>(8 * size)) - 1;
}
double SignedSteps(size_t size) {
  return std::ldexp(1.0, static_cast<int>(8 * size)) - 2;
}

// Scale and zero offset of MISB ST 1201 IMAPB for a range in `size` bytes.
struct Imap {
  double scale;
  double zeroOffset;
};
Imap ImapOf(const Item& item, size_t size) {
  const int rangePower = static_cast<int>(std::ceil(std::log2(item.max - item.min)));
  const double scale = std::ldexp(1.0, static_cast<int>(8 * size) - 1 - rangePower);
  double zeroOffset = 0;
  if (item.min < 0 && item.max > 0) zeroOffset = scale * item.min - std::floor(scale * item.min);
  return {scale, zeroOffset};
}

std::string FormatNumber(double value, double resolution) {
  const int digits = resolution <= 0 ? 0 : std::clamp(static_cast<int>(std::ceil(-std::log10(resolution))), 0, 9);
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f", digits, value);
  return text;
}

std::string FormatTime(uint64_t microseconds) {
  const time_t seconds = static_cast<time_t>(microseconds / 1000000);
  tm parts{};
  char text[64];
  if (gmtime_r(&seconds, &parts) == nullptr || parts.tm_year > 8099) return std::to_string(microseconds) + " us";
  const size_t used = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + used, sizeof(text) - used, ".%06uZ", static_cast<unsigned>(microseconds % 1000000));
  return text;
}

// Appends UTF-8. Half a surrogate pair becomes the three bytes of its code, which are not valid UTF-8.
void AppendUtf8(std::string& text, uint32_t code) {
  const auto add = [&text](uint32_t byte) { text += static_cast<char>(byte); };
  if (code < 0x80) {
    add(code);
    return;
  }
  if (code < 0x800) {
    add(0xC0 | code >> 6);
  } else if (code < 0x10000) {
    add(0xE0 | code >> 12);
    add(0x80 | (code >> 6 & 0x3F));
  } else {
    add(0xF0 | code >> 18);
    add(0x80 | (code >> 12 & 0x3F));
    add(0x80 | (code >> 6 & 0x3F));
  }
  add(0x80 | (code & 0x3F));
}

std::string FromUtf16(ByteView bytes) {
  std::string text;
  const auto unitAt = [&](size_t i) { return static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]); };
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    uint32_t code = unitAt(i);
    if ((code & 0xFC00) == 0xD800 && i + 3 < bytes.size() && (unitAt(i + 2) & 0xFC00) == 0xDC00) {
      code = 0x10000 + ((code & 0x3FF) << 10) + (unitAt(i + 2) & 0x3FF);
      i += 2;
    }
    AppendUtf8(text, code);
  }
  return text;
}

bool HasItsSize(const Item& item, size_t size) {
  switch (item.kind) {
    case Kind::Text:
    case Kind::SecuritySet:
    case Kind::Raw:
      return true;
    case Kind::Text16:
      return size % 2 == 0;
    default:
      return item.size != 0 ? size == item.size : size >= 1 && size <= 8;
  }
}

void SetNumber(Value& value, const Item& item, size_t size, double number) {
  double resolution = 0;
  if (item.kind == Kind::Unsigned) resolution = (item.max - item.min) / UnsignedSteps(size);
  if (item.kind == Kind::Signed) resolution = (item.max - item.min) / SignedSteps(size);
  if (item.kind == Kind::Imap) resolution = 1 / ImapOf(item, size).scale;
  value.isNumber = true;
  value.number = number;
  value.text = FormatNumber(number, resolution);
}

void SetWhole(Value& value, int64_t whole) {
  value.isNumber = value.isWhole = true;
  value.whole = whole;
  value.number = static_cast<double>(whole);
  value.text = std::to_string(whole);
}

void SetOutOfRange(Value& value) {
  value.state = ValueState::OutOfRange;
  value.text = "out of range";
}

void DecodeSigned(Value& value, const Item& item, ByteView bytes) {
  const int64_t raw = ReadSigned(bytes);
  if (static_cast<double>(raw) == -std::ldexp(1.0, static_cast<int>(8 * bytes.size()) - 1)) {
    SetOutOfRange(value);
    return;
  }
  const double half = SignedSteps(bytes.size()) / 2;
  SetNumber(value, item, bytes.size(), static_cast<double>(raw) / half * item.max);
}

// The high bit marks the special values of ST 1201, except in the pattern 100..0, which is the upper limit.
void DecodeImap(Value& value, const Item& item, ByteView bytes) {
  const uint64_t raw = ReadUnsigned(bytes);
  const uint64_t high = 1ULL << (8 * bytes.size() - 1);
  if (raw > high) {
    SetOutOfRange(value);
    return;
  }
  const Imap map = ImapOf(item, bytes.size());
  SetNumber(value, item, bytes.size(), (static_cast<double>(raw) - map.zeroOffset) / map.scale + item.min);
}

}  // namespace

// --- Values ------------------------------------------------------------------------------------------

std::string Hex(ByteView bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

Value Decode(const Item& item, ByteView bytes) {
  Value value;
  if (!HasItsSize(item, bytes.size())) {
    value.state = ValueState::BadLength;
    value.text = Hex(bytes);
    return value;
  }
  switch (item.kind) {
    case Kind::Unsigned:
      SetNumber(
          value, item, bytes.size(),
          item.min + static_cast<double>(ReadUnsigned(bytes)) / UnsignedSteps(bytes.size()) * (item.max - item.min));
      break;
    case Kind::Signed:
      DecodeSigned(value, item, bytes);
      break;
    case Kind::Integer:
      SetWhole(value, static_cast<int64_t>(ReadUnsigned(bytes)));
      break;
    case Kind::SignedWhole:
      SetWhole(value, ReadSigned(bytes));
      break;
    case Kind::Code:
      SetWhole(value, static_cast<int64_t>(ReadUnsigned(bytes)));
      if (const auto meaning = CodeText(item, value.whole); !meaning.empty()) value.text = meaning;
      break;
    case Kind::Imap:
      DecodeImap(value, item, bytes);
      break;
    case Kind::Text:
      value.text = PrintableText({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
      break;
    case Kind::Text16:
      value.text = PrintableText(FromUtf16(bytes));
      break;
    case Kind::Time:
      SetWhole(value, static_cast<int64_t>(ReadUnsigned(bytes)));
      value.text = FormatTime(ReadUnsigned(bytes));
      break;
    case Kind::Checksum:
      SetWhole(value, static_cast<int64_t>(ReadUnsigned(bytes)));
      value.text = "0x" + Hex(bytes);
      break;
    case Kind::SecuritySet:
    case Kind::Raw:
      value.text = Hex(bytes);
      break;
  }
  return value;
}

std::optional<Bytes> EncodeWhole(const Item& item, int64_t value) {
  switch (item.kind) {
    case Kind::Integer:
    case Kind::Code:
    case Kind::Time:
    case Kind::Checksum: {
      if (value < 0) return std::nullopt;
      const size_t least = LeastSize(static_cast<uint64_t>(value));
      if (item.size != 0 && least > item.size) return std::nullopt;
      return WriteInteger(static_cast<uint64_t>(value), item.size != 0 ? item.size : least);
    }
    case Kind::SignedWhole: {
      const size_t least = LeastSignedSize(value);
      if (item.size != 0 && least > item.size) return std::nullopt;
      return WriteInteger(static_cast<uint64_t>(value), item.size != 0 ? item.size : least);
    }
    case Kind::Unsigned:
    case Kind::Signed:
    case Kind::Imap:
      return Encode(item, static_cast<double>(value));
    default:
      return std::nullopt;
  }
}

std::optional<Bytes> Encode(const Item& item, double value, size_t size) {
  const bool inside = value >= item.min && value <= item.max;  // false for NaN
  switch (item.kind) {
    case Kind::Unsigned: {
      if (!inside) return std::nullopt;
      const double raw = std::round((value - item.min) / (item.max - item.min) * UnsignedSteps(item.size));
      return WriteInteger(static_cast<uint64_t>(raw), item.size);
    }
    case Kind::Signed: {
      if (!inside) return WriteInteger(1ULL << (8 * item.size - 1), item.size);
      const double raw = std::round(value / item.max * (SignedSteps(item.size) / 2));
      return WriteInteger(static_cast<uint64_t>(static_cast<int64_t>(raw)), item.size);
    }
    case Kind::Imap: {
      if (!inside) return std::nullopt;
      const size_t bytes = std::clamp<size_t>(size == 0 ? 4 : size, 1, 7);
      const Imap map = ImapOf(item, bytes);
      return WriteInteger(static_cast<uint64_t>(map.scale * (value - item.min) + map.zeroOffset), bytes);
    }
    default:
      if (!(std::fabs(value) < 9.0e18)) return std::nullopt;
      return EncodeWhole(item, static_cast<int64_t>(std::round(value)));
  }
}

Bytes EncodeText(const Item& item, std::string_view text) {
  Bytes out;
  for (const char character : text) {
    if (item.kind == Kind::Text16) out.push_back(0);
    out.push_back(static_cast<uint8_t>(character));
  }
  return out;
}

double Resolution(const Item& item) {
  switch (item.kind) {
    case Kind::Unsigned:
      return (item.max - item.min) / UnsignedSteps(item.size);
    case Kind::Signed:
      return (item.max - item.min) / SignedSteps(item.size);
    case Kind::Imap:
      return 1 / ImapOf(item, 4).scale;
    case Kind::Text:
    case Kind::Text16:
    case Kind::SecuritySet:
    case Kind::Raw:
      return 0;
    default:
      return 1;
  }
}

std::string Display(const Item& item, const Value& value) {
  if (value.state != ValueState::Ok || item.unit[0] == '\0') return value.text;
  return value.text + ' ' + item.unit;
}

// --- Messages ----------------------------------------------------------------------------------------

namespace {

// Reads the BER length at `position` and moves the position past it. Returns nothing if the length is indefinite or
// truncated.
std::optional<size_t> ReadBerLength(ByteView bytes, size_t& position) {
  if (position >= bytes.size()) return std::nullopt;
  const uint8_t first = bytes[position];
  if (first < 0x80) {
    ++position;
    return first;
  }
  const size_t count = first & 0x7FU;
  if (count == 0 || count > 4 || bytes.size() - position - 1 < count) return std::nullopt;
  const size_t length = ReadUnsigned(bytes.subspan(position + 1, count));
  position += 1 + count;
  return length;
}

// Reads the BER-OID tag at `position` and moves the position past it.
std::optional<uint32_t> ReadTag(ByteView bytes, size_t& position) {
  uint32_t tag = 0;
  for (size_t i = 0; i < 4 && position + i < bytes.size(); ++i) {
    const uint8_t byte = bytes[position + i];
    tag = tag << 7 | (byte & 0x7FU);
    if (byte < 0x80) {
      position += i + 1;
      return tag;
    }
  }
  return std::nullopt;
}

// Walks a local set. Returns the reason if it stopped before the end, or "".
std::string ReadElements(ByteView body, const Item* (*find)(uint32_t), std::vector<Element>& elements) {
  size_t position = 0;
  while (position < body.size()) {
    const size_t start = position;
    const auto tag = ReadTag(body, position);
    if (!tag) return "unreadable tag at byte " + std::to_string(start) + " of the body";
    const auto length = ReadBerLength(body, position);
    if (!length) return "item " + std::to_string(*tag) + " has an unreadable length";
    if (*length > body.size() - position) return "item " + std::to_string(*tag) + " runs past the end";
    elements.push_back({*tag, body.subspan(position, *length), find(*tag)});
    position += *length;
  }
  return {};
}

void CheckSum(Message& message, ByteView bytes) {
  const auto isChecksum = [](const Element& element) { return element.tag == kChecksumTag; };
  const auto first = std::find_if(message.elements.begin(), message.elements.end(), isChecksum);
  if (first == message.elements.end()) return;
  if (first->value.size() != 2 || first != message.elements.end() - 1 || !message.isComplete) {
    message.checksum = ChecksumState::Misplaced;
    return;
  }
  message.storedChecksum = static_cast<uint16_t>(ReadUnsigned(first->value));
  message.computedChecksum = RunningSum(bytes.first(static_cast<size_t>(first->value.data() - bytes.data())));
  message.checksum = message.storedChecksum == message.computedChecksum ? ChecksumState::Ok : ChecksumState::Bad;
}

}  // namespace

const Element* Message::Find(uint32_t tag) const {
  const auto it = std::find_if(elements.begin(), elements.end(), [tag](const Element& e) { return e.tag == tag; });
  return it == elements.end() ? nullptr : &*it;
}

Message Parse(ByteView bytes) {
  Message message;
  if (bytes.size() < sizeof(kUasKey) || std::memcmp(bytes.data(), kUasKey, sizeof(kUasKey)) != 0) {
    message.error = "not a UAS Datalink Local Set";
    return message;
  }
  message.isUas = true;
  size_t position = sizeof(kUasKey);
  const auto length = ReadBerLength(bytes, position);
  if (!length) {
    message.error = "unreadable length";
    return message;
  }
  message.headerSize = position;
  message.totalSize = position + *length;
  const size_t present = std::min(*length, bytes.size() - position);
  message.error = ReadElements(bytes.subspan(position, present), FindItem, message.elements);
  if (message.error.empty() && present < *length) message.error = "cut off";
  message.isComplete = message.error.empty();
  CheckSum(message, bytes);
  return message;
}

std::vector<Element> ParseSecuritySet(ByteView value) {
  std::vector<Element> elements;
  ReadElements(value, FindSecurityElement, elements);
  return elements;
}

const char* ChecksumStateName(ChecksumState state) {
  static constexpr const char* kNames[] = {"ok", "bad", "missing", "misplaced"};
  return kNames[static_cast<size_t>(state)];
}

uint16_t RunningSum(ByteView bytes) {
  unsigned sum = 0;
  for (size_t i = 0; i < bytes.size(); ++i) sum += static_cast<unsigned>(bytes[i]) << (i % 2 == 0 ? 8 : 0);
  return static_cast<uint16_t>(sum);
}

// --- Building ----------------------------------------------------------------------------------------

void AppendBerLength(Bytes& out, size_t length) {
  if (length < 0x80) {
    out.push_back(static_cast<uint8_t>(length));
    return;
  }
  const size_t count = LeastSize(length);
  out.push_back(static_cast<uint8_t>(0x80 | count));
  const Bytes digits = WriteInteger(length, count);
  out.insert(out.end(), digits.begin(), digits.end());
}

Builder& Builder::Add(uint32_t tag, ByteView value) {
  if (tag >= 0x80) m_body.push_back(static_cast<uint8_t>(0x80 | tag >> 7));
  m_body.push_back(static_cast<uint8_t>(tag & 0x7F));
  AppendBerLength(m_body, value.size());
  m_body.insert(m_body.end(), value.begin(), value.end());
  return *this;
}

Builder& Builder::Add(uint32_t tag, double value) {
  const Item* item = FindItem(tag);
  if (item != nullptr) {
    if (const auto bytes = Encode(*item, value)) Add(tag, ByteView(*bytes));
  }
  return *this;
}

Builder& Builder::AddWhole(uint32_t tag, int64_t value) {
  const Item* item = FindItem(tag);
  if (item != nullptr) {
    if (const auto bytes = EncodeWhole(*item, value)) Add(tag, ByteView(*bytes));
  }
  return *this;
}

Builder& Builder::AddText(uint32_t tag, std::string_view text) {
  const Item* item = FindItem(tag);
  if (item != nullptr) Add(tag, ByteView(EncodeText(*item, text)));
  return *this;
}

Bytes Builder::Finish(bool withChecksum) const {
  Bytes out(kUasKey, kUasKey + sizeof(kUasKey));
  AppendBerLength(out, m_body.size() + (withChecksum ? 4 : 0));
  out.insert(out.end(), m_body.begin(), m_body.end());
  if (withChecksum) {
    out.push_back(kChecksumTag);
    out.push_back(2);
    const uint16_t sum = RunningSum(out);
    out.push_back(static_cast<uint8_t>(sum >> 8));
    out.push_back(static_cast<uint8_t>(sum & 0xFF));
  }
  return out;
}

}  // namespace st0601
