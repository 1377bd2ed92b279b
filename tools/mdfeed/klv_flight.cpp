#include "klv_flight.h"

#include <array>
#include <cmath>
#include <string_view>

namespace mdfeed {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::array<std::uint8_t, 16> kLocalSetKey = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01,
                                                       0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};
constexpr double kOneSigmaToCe90 = 2.145966025;
constexpr double kOneSigmaToLe90 = 1.6448538;

// Appends items; values are big-endian.
class ItemWriter {
 public:
  void Raw(std::uint8_t tag, std::uint64_t value, unsigned size) {
    m_bytes.push_back(tag);
    m_bytes.push_back(static_cast<std::uint8_t>(size));
    for (unsigned i = size; i > 0; i--) m_bytes.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
  }
  // min to max over all values of an unsigned integer.
  void Unsigned(std::uint8_t tag, double value, double min, double max, unsigned size) {
    const double steps = std::pow(2.0, 8.0 * size) - 1.0;
    Raw(tag, static_cast<std::uint64_t>(std::llround((value - min) * steps / (max - min))), size);
  }
  // -max to max over the values of a signed integer, the lowest of which means "out of range".
  void Signed(std::uint8_t tag, double value, double max, unsigned size) {
    const double steps = std::pow(2.0, 8.0 * size - 1.0) - 1.0;
    Raw(tag, static_cast<std::uint64_t>(std::llround(value * steps / max)), size);
  }
  void Text(std::uint8_t tag, std::string_view text) { Block(tag, Bytes(text.begin(), text.end())); }
  void Block(std::uint8_t tag, const Bytes& value) {
    m_bytes.push_back(tag);
    m_bytes.push_back(static_cast<std::uint8_t>(value.size()));
    m_bytes.insert(m_bytes.end(), value.begin(), value.end());
  }
  const Bytes& Get() const { return m_bytes; }

 private:
  Bytes m_bytes;
};

// MISB ST 0102: unclassified, no releasing instructions.
Bytes SecuritySet() {
  ItemWriter set;
  set.Raw(1, 1, 1);     // classification
  set.Raw(2, 1, 1);     // country coding method: ISO 3166 two letters
  set.Text(3, "//CH");  // classifying country
  set.Raw(12, 1, 1);    // object country coding method: the same
  set.Block(13, {0, 'C', 0, 'H'});
  set.Raw(22, 12, 2);  // version
  return set.Get();
}

void AddPlatform(ItemWriter& items, const FlightState& state) {
  items.Raw(2, static_cast<std::uint64_t>(state.time_us), 8);
  items.Text(3, "SIMULATION 01");
  items.Text(4, "SIM-7");
  items.Unsigned(5, state.course, 0, 360, 2);
  items.Signed(6, state.pitch, 20, 2);
  items.Signed(7, state.roll, 50, 2);
  items.Raw(9, static_cast<std::uint64_t>(std::llround(state.speed)), 1);
  items.Text(10, "SIM-UAV");
  items.Text(11, "EO");
  items.Text(12, "Geodetic WGS84");
  items.Signed(13, state.latitude, 90, 4);
  items.Signed(14, state.longitude, 180, 4);
  items.Unsigned(15, state.altitude, -900, 19'000, 2);
}

void AddSensor(ItemWriter& items, const FlightState& state) {
  items.Unsigned(16, state.fov, 0, 180, 2);
  items.Unsigned(17, state.vfov, 0, 180, 2);
  items.Unsigned(18, state.sensor_azimuth - state.course, 0, 360, 4);
  items.Signed(19, state.sensor_elevation - state.pitch, 180, 4);
  items.Unsigned(20, state.sensor_roll - state.roll, 0, 360, 4);
  items.Unsigned(21, state.slant_range, 0, 5'000'000, 4);
  items.Unsigned(22, state.frame_width, 0, 10'000, 2);
  items.Signed(23, state.frame_latitude, 90, 4);
  items.Signed(24, state.frame_longitude, 180, 4);
  items.Unsigned(25, state.frame_elevation, -900, 19'000, 2);
}

void AddTarget(ItemWriter& items, const FlightState& state) {
  items.Signed(40, state.target_latitude, 90, 4);
  items.Signed(41, state.target_longitude, 180, 4);
  items.Unsigned(42, state.target_elevation, -900, 19'000, 2);
  items.Unsigned(45, state.ce * kOneSigmaToCe90, 0, 4'095, 2);
  items.Unsigned(46, state.le * kOneSigmaToLe90, 0, 4'095, 2);
  items.Block(48, SecuritySet());
  items.Raw(56, static_cast<std::uint64_t>(std::llround(state.speed)), 1);
  items.Raw(65, 17, 1);
  items.Raw(72, static_cast<std::uint64_t>(state.start_us), 8);
}

}  // namespace

Bytes MakeKlvMessage(const FlightState& state) {
  ItemWriter items;
  AddPlatform(items, state);
  AddSensor(items, state);
  AddTarget(items, state);

  const std::size_t length = items.Get().size() + 4;
  Bytes message(kLocalSetKey.begin(), kLocalSetKey.end());
  if (length > 255) {
    message.insert(message.end(), {0x82, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)});
  } else {
    message.insert(message.end(), {0x81, static_cast<std::uint8_t>(length)});
  }
  message.insert(message.end(), items.Get().begin(), items.Get().end());
  message.insert(message.end(), {1, 2});

  // The sum of all bytes so far as big-endian words.
  unsigned sum = 0;
  for (std::size_t i = 0; i < message.size(); i++) sum += i % 2 == 0 ? message[i] * 256u : message[i];
  message.push_back(static_cast<std::uint8_t>(sum >> 8));
  message.push_back(static_cast<std::uint8_t>(sum));
  return message;
}

}  // namespace mdfeed
