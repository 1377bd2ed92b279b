// SPDX-License-Identifier: Apache-2.0
// Recordings whose index keeps the times of the messages.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "error.h"
#include "traffic.h"

namespace mdfeed {
namespace {

using Json = nlohmann::json;

constexpr size_t kStreamHeader = 5;

class Timed : public Traffic {
 public:
  Timed(std::vector<IndexedMessage> messages, unsigned repeat) : m_messages(std::move(messages)), m_repeat(repeat) {}
  std::optional<Batch> Next() override {
    if (m_next == m_messages.size()) {
      if (++m_rounds == m_repeat) return std::nullopt;
      m_next = 0;
    }
    const IndexedMessage& message = m_messages[m_next];
    // A repetition begins as long after the last message as the last one came after that before it.
    const int64_t gap = m_next > 0 ? message.timeUs - m_messages[m_next - 1].timeUs : m_gap;
    m_gap = std::max<int64_t>(gap, 0);
    m_due += std::chrono::microseconds(m_gap);
    ++m_next;
    return Batch{message.message};
  }
  std::optional<std::chrono::microseconds> Due() const override { return m_due; }

 private:
  std::vector<IndexedMessage> m_messages;
  unsigned m_repeat;
  unsigned m_rounds = 0;
  size_t m_next = 0;
  int64_t m_gap = 0;
  std::chrono::microseconds m_due{0};
};

// Returns the next line and moves on, or an empty one at the end.
std::string_view PopLine(std::string_view& text) {
  const size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

}  // namespace

std::vector<IndexedMessage> SplitIndexed(const Bytes& recording, const Bytes& index, size_t* skipped) {
  std::string_view text(reinterpret_cast<const char*>(index.data()), index.size());
  const Json header = Json::parse(PopLine(text), nullptr, false);
  if (!header.is_object() || header.value("type", "") != "recording index" || header.value("version", 0) != 1) {
    throw RunError("the index does not begin with a line of type \"recording index\", version 1");
  }
  const size_t head = header.value("stream_header", false) ? kStreamHeader : 0;
  std::vector<IndexedMessage> messages;
  *skipped = 0;
  while (!text.empty()) {
    const Json line = Json::parse(PopLine(text), nullptr, false);
    const auto number = [&](const char* key) {
      return line.is_object() && line.contains(key) && line[key].is_number_unsigned() ? line[key].get<uint64_t>()
                                                                                      : UINT64_MAX;
    };
    const uint64_t offset = number("offset");
    const uint64_t length = number("length");
    const uint64_t time = number("time");
    if (time > INT64_MAX || length < head || length > recording.size() || offset > recording.size() - length) {
      ++*skipped;
      continue;
    }
    const auto begin = recording.begin() + static_cast<ptrdiff_t>(offset);
    messages.push_back({Bytes(begin + static_cast<ptrdiff_t>(head), begin + static_cast<ptrdiff_t>(length)),
                        static_cast<int64_t>(time)});
  }
  return messages;
}

std::unique_ptr<Traffic> MakeTimed(std::vector<IndexedMessage> messages, unsigned repeat) {
  return std::make_unique<Timed>(std::move(messages), repeat);
}

}  // namespace mdfeed
