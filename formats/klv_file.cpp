// SPDX-License-Identifier: Apache-2.0
#include "klv_file.h"

#include <algorithm>
#include <array>
#include <limits>
#include <nlohmann/json.hpp>

#include "st0601_items.h"

namespace klv_file {
namespace {

using Json = nlohmann::json;

constexpr size_t kStreamHeader = 5;
constexpr uint8_t kStreamMark = 0xDF;  // third byte of a stream header
constexpr std::array<uint8_t, 4> kLabel = {0x06, 0x0E, 0x2B, 0x34};

bool BeginsWithLabel(ByteView bytes) {
  return bytes.size() >= kLabel.size() && std::equal(kLabel.begin(), kLabel.end(), bytes.begin());
}

bool BeginsWithHeader(ByteView bytes) {
  return bytes.size() >= kStreamHeader && bytes[0] == 0 && bytes[2] == kStreamMark &&
         BeginsWithLabel(bytes.subspan(kStreamHeader));
}

std::optional<uint64_t> Number(const Json& line, const char* key) {
  const auto found = line.find(key);
  if (found == line.end() || !found->is_number_unsigned()) return std::nullopt;
  return found->get<uint64_t>();
}

// Returns an object, or null. A line is short, so that nothing in it can be deep.
Json ParseObject(std::string_view line) {
  if (line.size() > kLongestIndexLine) return nullptr;
  Json json = Json::parse(line, nullptr, false);
  return json.is_object() ? json : Json(nullptr);
}

}  // namespace

void Walker::Push(ByteView bytes) {
  m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<ptrdiff_t>(m_at));
  m_at = 0;
  m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
}

void Walker::Skip(size_t count) {
  m_at += count;
  m_offset += count;
  m_skipped += count;
}

std::optional<Walker::Found> Walker::Pop() {
  using State = anc_klv::KlvSize::State;
  for (;;) {
    const ByteView rest = ByteView(m_bytes).subspan(m_at);
    const size_t header = m_hasHeaders ? kStreamHeader : 0;
    if (rest.size() < header + kLabel.size() && !m_isFinished) return std::nullopt;
    if (rest.empty()) return std::nullopt;
    // A message without its stream header is found too.
    const size_t front = m_hasHeaders && BeginsWithHeader(rest) ? header : 0;
    const anc_klv::KlvSize size = anc_klv::SizeOfKlv(rest.subspan(front));
    const bool isWhole = size.state == State::Known && size.size <= rest.size() - front;
    if (isWhole) {
      const Found found = {m_offset, rest.subspan(front, size.size)};
      m_at += front + size.size;
      m_offset += front + size.size;
      return found;
    }
    const bool mayGrow = size.state != State::Bad && (size.state == State::NeedMore || size.size > rest.size() - front);
    if (mayGrow && !m_isFinished) return std::nullopt;
    const auto next = std::search(rest.begin() + 1, rest.end(), kLabel.begin(), kLabel.end());
    const auto distance = static_cast<size_t>(next - rest.begin());
    if (next != rest.end()) {
      // The header before the label belongs to the message.
      const size_t before =
          m_hasHeaders && distance > kStreamHeader && BeginsWithHeader(rest.subspan(distance - kStreamHeader))
              ? kStreamHeader
              : 0;
      Skip(distance - before);
    } else if (m_isFinished) {
      Skip(rest.size());
    } else {
      // The end may be the beginning of a header or a label.
      const size_t kept = header + kLabel.size() - 1;
      if (rest.size() <= kept) return std::nullopt;
      Skip(rest.size() - kept);
      return std::nullopt;
    }
  }
}

bool BeginsWithKlv(ByteView beginning, bool* hasStreamHeaders) {
  *hasStreamHeaders = BeginsWithHeader(beginning);
  return *hasStreamHeaders || BeginsWithLabel(beginning);
}

std::optional<int64_t> TimeOf(ByteView klv) {
  const st0601::Message message = st0601::Parse(klv);
  const st0601::Element* const element = message.isUas ? message.Find(2) : nullptr;
  if (element == nullptr || element->value.size() != 8) return std::nullopt;
  uint64_t time = 0;
  for (const uint8_t byte : element->value) time = time << 8 | byte;
  if (time > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
  return static_cast<int64_t>(time);
}

std::optional<IndexHeader> ParseIndexHeader(std::string_view line) {
  const Json json = ParseObject(line);
  if (!json.is_object()) return std::nullopt;
  const auto type = json.find("type");
  if (type == json.end() || *type != "recording index" || Number(json, "version") != 1) return std::nullopt;
  const auto headers = json.find("stream_header");
  return IndexHeader{headers != json.end() && *headers == true};
}

std::optional<IndexLine> ParseIndexLine(std::string_view line) {
  const Json json = ParseObject(line);
  if (!json.is_object()) return std::nullopt;
  const auto offset = Number(json, "offset");
  const auto length = Number(json, "length");
  const auto time = Number(json, "time");
  if (!offset || !length || !time || *time > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    return std::nullopt;
  }
  return IndexLine{*offset, *length, static_cast<int64_t>(*time), Number(json, "timestamp")};
}

}  // namespace klv_file
