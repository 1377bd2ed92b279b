// SPDX-License-Identifier: Apache-2.0
#include "tak_stream.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "tak_protocol.h"

namespace tak {
namespace {

constexpr std::string_view kStart = "<event";

bool IsBlank(uint8_t byte) {
  return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n' || byte == 0;
}

}  // namespace

void StreamReader::Restart() {
  Clear(State::Between);
}

void StreamReader::Clear(State next) {
  m_held.clear();
  m_state = next;
  m_place = Place::Text;
  m_depth = 0;
  m_matched = 0;
  m_missing = 0;
}

void StreamReader::Fault() {
  ++m_faults;
  Clear(State::Hunting);
}

void StreamReader::Push(std::span<const uint8_t> bytes, const Take& take) {
  while (!bytes.empty()) {
    size_t used = 1;
    if (m_state == State::Skipping || m_state == State::Body) {
      used = static_cast<size_t>(std::min<uint64_t>(m_missing, bytes.size()));
      if (m_state == State::Body)
        m_held.insert(m_held.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(used));
      m_missing -= used;
      if (m_missing == 0) {
        if (m_state == State::Body) take(Kind::Protobuf, m_held);
        Clear(State::Between);
      }
    } else {
      PushByte(bytes[0], take);
    }
    bytes = bytes.subspan(used);
  }
}

void StreamReader::PushByte(uint8_t byte, const Take& take) {
  switch (m_state) {
    case State::Between:
      Begin(byte);
      break;
    case State::Hunting:
      Hunt(byte);
      break;
    case State::Header:
      PushHeader(byte);
      break;
    default:
      PushXml(byte, take);
      break;
  }
}

void StreamReader::Begin(uint8_t byte) {
  constexpr uint8_t kByteOrderMark[] = {0xEF, 0xBB, 0xBF};
  if (IsBlank(byte)) return;
  if (byte == kMagic && m_matched == 0) {
    m_state = State::Header;
  } else if (byte == '<') {
    m_matched = 0;
    m_state = State::Xml;
    m_place = Place::Opened;
    m_markupBegin = 0;
    m_held.push_back(byte);
  } else if (byte == kByteOrderMark[m_matched % 3]) {
    m_matched = (m_matched + 1) % 3;
  } else {
    Fault();
    Hunt(byte);
  }
}

// The next header cannot be found in protobuf, so after a fault the next XML event is looked for.
void StreamReader::Hunt(uint8_t byte) {
  if (byte != static_cast<uint8_t>(kStart[m_matched])) m_matched = 0;
  if (byte == static_cast<uint8_t>(kStart[m_matched])) ++m_matched;
  if (m_matched != kStart.size()) return;
  Clear(State::Xml);
  m_place = Place::Tag;
  m_isEndTag = false;
  m_markupBegin = 0;
  m_held.assign(kStart.begin(), kStart.end());
}

void StreamReader::PushHeader(uint8_t byte) {
  m_held.push_back(byte);
  const Varint length = ParseVarint(m_held);
  if (!length.isValid) return Fault();
  if (length.size == 0) return;
  const bool isTooLong = length.value > m_longest;
  if (isTooLong) ++m_faults;
  Clear(length.value == 0 ? State::Between : isTooLong ? State::Skipping : State::Body);
  m_missing = length.value;
}

void StreamReader::PushXml(uint8_t byte, const Take& take) {
  // No tag has a "<" in it: the element was cut off, and another one begins.
  if (byte == '<' && (m_place == Place::Tag || m_place == Place::Quoted)) {
    ++m_faults;
    Clear(State::Between);
    return Begin(byte);
  }
  m_held.push_back(byte);
  if (EndsElement(byte)) {
    take(Kind::Xml, m_held);
    Clear(State::Between);
  } else if (m_held.size() >= m_longest) {
    Fault();
  } else if (m_depth == 0 && m_place == Place::Text) {
    Clear(State::Between);  // a declaration or a comment before the element
  }
}

bool StreamReader::HeldEndsWith(const char* text) const {
  const size_t size = std::strlen(text);
  return m_held.size() - m_markupBegin >= size && std::memcmp(m_held.data() + m_held.size() - size, text, size) == 0;
}

// Decides what kind of markup a "<" begins. Returns false while that is open.
bool StreamReader::IsOpened(uint8_t byte) {
  if (byte == '!') {
    m_place = Place::Declaration;
  } else if (byte == '?') {
    m_place = Place::Instruction;
  } else {
    m_place = Place::Tag;
    m_isEndTag = byte == '/';
  }
  return m_place == Place::Tag && byte == '>';
}

// A tag has ended. Returns whether the element has, too.
bool StreamReader::EndsTag() {
  m_place = Place::Text;
  if (m_isEndTag) {
    if (m_depth != 0) --m_depth;
    return m_depth == 0;
  }
  if (HeldEndsWith("/>")) return m_depth == 0;
  ++m_depth;
  return false;
}

// Moves the scan by one byte, the last one held. Returns whether it is the last one of the element.
bool StreamReader::EndsElement(uint8_t byte) {
  switch (m_place) {
    case Place::Text:
      if (byte != '<') return false;
      m_place = Place::Opened;
      m_markupBegin = m_held.size() - 1;
      return false;
    case Place::Opened:
      return IsOpened(byte) && EndsTag();
    case Place::Tag:
      if (byte == '>') return EndsTag();
      if (byte != '"' && byte != '\'') return false;
      m_quote = byte;
      m_place = Place::Quoted;
      return false;
    case Place::Quoted:
      if (byte == m_quote) m_place = Place::Tag;
      return false;
    case Place::Declaration:
      if (m_held.size() - m_markupBegin == 4 && HeldEndsWith("<!--")) m_place = Place::Comment;
      if (m_held.size() - m_markupBegin == 9 && HeldEndsWith("<![CDATA[")) m_place = Place::CData;
      if (byte == '>') m_place = Place::Text;
      return false;
    case Place::Comment:
      if (m_held.size() - m_markupBegin >= 7 && HeldEndsWith("-->")) m_place = Place::Text;
      return false;
    case Place::CData:
      if (HeldEndsWith("]]>")) m_place = Place::Text;
      return false;
    case Place::Instruction:
      if (HeldEndsWith("?>")) m_place = Place::Text;
      return false;
  }
  return false;
}

}  // namespace tak
