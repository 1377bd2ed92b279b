// SPDX-License-Identifier: Apache-2.0
#include "traffic.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "error.h"
#include "klv_flight.h"
#include "value_text.h"
#include "wall_clock.h"

namespace mdfeed {
namespace {

constexpr std::array<uint8_t, 4> kUniversalLabel = {0x06, 0x0E, 0x2B, 0x34};
constexpr size_t kKeySize = 16;

// Returns the whole message at 'offset' (key, BER length, value), or nothing if there is none or it is truncated.
std::optional<size_t> KlvMessageSize(const Bytes& stream, size_t offset) {
  const size_t left = stream.size() - offset;
  if (left < kKeySize + 1) return std::nullopt;
  const uint8_t first = stream[offset + kKeySize];
  size_t header = kKeySize + 1;
  uint64_t length = first;
  if (first >= 0x80) {
    const size_t size = first & 0x7Fu;
    if (size == 0 || size > 4 || left < header + size) return std::nullopt;
    length = 0;
    for (size_t i = 0; i < size; ++i) length = length << 8 | stream[offset + header + i];
    header += size;
  }
  if (length > left - header) return std::nullopt;
  return header + static_cast<size_t>(length);
}

class Recorded : public Traffic {
 public:
  Recorded(std::vector<Bytes> messages, unsigned repeat) : m_messages(std::move(messages)), m_repeat(repeat) {}
  std::optional<Batch> Next() override {
    if (m_next == m_messages.size()) {
      if (++m_rounds == m_repeat) return std::nullopt;
      m_next = 0;
    }
    return Batch{m_messages[m_next++]};
  }

 private:
  std::vector<Bytes> m_messages;
  unsigned m_repeat;
  unsigned m_rounds = 0;
  size_t m_next = 0;
};

// The clock of the flight, with one state per tick. What stands between the start of the program and its first message,
// such as a reader that is waited for, is not part of a flight that starts now.
class FlightTicks {
 public:
  FlightTicks(FlightOptions flight, int64_t intervalUs) : m_options(std::move(flight)), m_intervalUs(intervalUs) {}
  FlightState Next() {
    if (!m_flight) {
      if (m_options.startsNow) m_options.startUs = static_cast<int64_t>(common::WallClockUs());
      m_flight.emplace(m_options);
    }
    m_flight->AdvanceTo(m_tick++ * m_intervalUs);
    return m_flight->State();
  }

 private:
  FlightOptions m_options;
  std::optional<Flight> m_flight;
  int64_t m_intervalUs;
  int64_t m_tick = 0;
};

class KlvFlight : public Traffic {
 public:
  KlvFlight(const FlightOptions& flight, int64_t intervalUs) : m_ticks(flight, intervalUs) {}
  std::optional<Batch> Next() override { return Batch{MakeKlvMessage(m_ticks.Next())}; }

 private:
  FlightTicks m_ticks;
};

class CotFlight : public Traffic {
 public:
  CotFlight(const FlightOptions& flight, const CotOptions& cot, int64_t intervalUs)
      : m_ticks(flight, intervalUs), m_writer(cot) {}
  std::optional<Batch> Next() override {
    const CotPair pair = m_writer.Write(m_ticks.Next());
    return Batch{Bytes(pair.sensor.begin(), pair.sensor.end()), Bytes(pair.aircraft.begin(), pair.aircraft.end())};
  }

 private:
  FlightTicks m_ticks;
  CotWriter m_writer;
};

class Chunked : public Traffic {
 public:
  Chunked(std::unique_ptr<Traffic> inner, size_t chunk) : m_inner(std::move(inner)), m_chunk(chunk) {}
  std::optional<Batch> Next() override {
    const auto messages = m_inner->Next();
    if (!messages) return std::nullopt;
    Batch chunks;
    for (const Bytes& message : *messages) {
      std::ranges::move(SplitChunks(message, m_chunk), std::back_inserter(chunks));
    }
    return chunks;
  }

 private:
  std::unique_ptr<Traffic> m_inner;
  size_t m_chunk;
};

class Framed : public Traffic {
 public:
  Framed(std::unique_ptr<Traffic> inner, char channel, std::vector<FrameDamage> damage, uint32_t seed)
      : m_inner(std::move(inner)), m_channel(channel), m_damage(std::move(damage)), m_random(seed + 1) {}
  std::optional<Batch> Next() override {
    auto frames = m_inner->Next();
    if (!frames) return std::nullopt;
    for (Bytes& frame : *frames) {
      FrameOptions options{m_channel, {}, static_cast<uint32_t>(m_random())};
      for (const FrameDamage& damage : m_damage) {
        if (static_cast<double>(m_random() % 10'000) < damage.percent * 100.0) options.damage.push_back(damage.field);
      }
      frame = BuildCotFrame({reinterpret_cast<const char*>(frame.data()), frame.size()}, options);
    }
    return frames;
  }

 private:
  std::unique_ptr<Traffic> m_inner;
  char m_channel;
  std::vector<FrameDamage> m_damage;
  std::minstd_rand m_random;
};

}  // namespace

Bytes ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) ThrowErrno("cannot open " + path);
  Bytes data{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (file.bad()) ThrowErrno("cannot read " + path);
  return data;
}

std::vector<Bytes> SplitKlv(const Bytes& stream, size_t* skipped) {
  std::vector<Bytes> messages;
  *skipped = 0;
  auto at = stream.begin();
  while (at != stream.end()) {
    const auto found = std::search(at, stream.end(), kUniversalLabel.begin(), kUniversalLabel.end());
    *skipped += static_cast<size_t>(found - at);
    if (found == stream.end()) break;
    const auto size = KlvMessageSize(stream, static_cast<size_t>(found - stream.begin()));
    if (!size) {
      at = found + 1;
      ++*skipped;
      continue;
    }
    at = found + static_cast<ptrdiff_t>(*size);
    messages.emplace_back(found, at);
  }
  return messages;
}

std::vector<Bytes> SplitEvents(const Bytes& text) {
  constexpr std::string_view kStart = "<event";
  constexpr std::string_view kEnd = "</event>";
  std::vector<Bytes> events;
  auto at = text.begin();
  for (;;) {
    const auto start = std::search(at, text.end(), kStart.begin(), kStart.end());
    const auto end = std::search(start, text.end(), kEnd.begin(), kEnd.end());
    if (end == text.end()) return events;
    at = end + static_cast<ptrdiff_t>(kEnd.size());
    events.emplace_back(start, at);
  }
}

std::vector<Bytes> SplitChunks(const Bytes& data, size_t size) {
  std::vector<Bytes> chunks;
  for (size_t at = 0; at < data.size(); at += size) {
    const auto begin = data.begin() + static_cast<ptrdiff_t>(at);
    chunks.emplace_back(begin, begin + static_cast<ptrdiff_t>(std::min(size, data.size() - at)));
  }
  return chunks;
}

FrameDamage ParseFrameDamage(const std::string& text) {
  const size_t colon = text.find(':');
  FrameDamage damage{FrameField::Sync, 100.0};
  const std::string name = text.substr(0, colon);
  try {
    damage.field = ParseFrameField(name);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument("'" + name + "' is not one of " + FrameFieldNames());
  }
  if (colon == std::string::npos) return damage;
  const std::string percent = text.substr(colon + 1);
  const auto parsed = value_text::ParseReal(percent, 0, 100);
  if (!parsed) throw std::invalid_argument("'" + percent + "' is not a percentage from 0 to 100");
  damage.percent = *parsed;
  return damage;
}

std::unique_ptr<Traffic> MakeRecorded(std::vector<Bytes> messages, unsigned repeat) {
  return std::make_unique<Recorded>(std::move(messages), repeat);
}

std::unique_ptr<Traffic> MakeKlvFlight(const FlightOptions& flight, int64_t intervalUs) {
  return std::make_unique<KlvFlight>(flight, intervalUs);
}

std::unique_ptr<Traffic> MakeCotFlight(const FlightOptions& flight, const CotOptions& cot, int64_t intervalUs) {
  return std::make_unique<CotFlight>(flight, cot, intervalUs);
}

std::unique_ptr<Traffic> MakeChunked(std::unique_ptr<Traffic> inner, size_t chunk) {
  return std::make_unique<Chunked>(std::move(inner), chunk);
}

std::unique_ptr<Traffic> MakeFramed(std::unique_ptr<Traffic> inner, char channel, std::vector<FrameDamage> damage,
                                    uint32_t seed) {
  return std::make_unique<Framed>(std::move(inner), channel, std::move(damage), seed);
}

}  // namespace mdfeed
