// SPDX-License-Identifier: Apache-2.0
#include "flight.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "cot_flight.h"
#include "klv_flight.h"
#include "traffic.h"

namespace mdfeed {
namespace {

constexpr int64_t kStart = 1'714'564'800'250'000;  // 2024-05-01T12:00:00.25Z

FlightState StateAt(uint32_t seed, double seconds) {
  Flight flight({seed, kStart, {}});
  flight.AdvanceTo(static_cast<int64_t>(seconds * 1e6));
  return flight.State();
}

// Returns the value bytes of an item as an unsigned number.
std::optional<uint64_t> Item(const std::vector<uint8_t>& message, uint8_t tag) {
  for (size_t at = 18; at + 1 < message.size(); at += 2u + message[at + 1]) {
    if (message[at] != tag) continue;
    uint64_t value = 0;
    for (size_t i = 0; i < message[at + 1]; ++i) value = value << 8 | message[at + 2 + i];
    return value;
  }
  return std::nullopt;
}

double Attribute(const std::string& xml, const std::string& name) {
  std::smatch match;
  if (!std::regex_search(xml, match, std::regex("[ <]" + name + "=\"([^\"]*)\""))) return std::nan("");
  return std::strtod(match[1].str().c_str(), nullptr);
}

TEST(Time, IsWrittenWithTwoDecimalsAndReadWithAny) {
  EXPECT_EQ(FormatTime(kStart), "2024-05-01T12:00:00.25Z");
  EXPECT_EQ(ParseTime("2024-05-01T12:00:00.25Z"), kStart);
  EXPECT_EQ(ParseTime("2024-05-01T12:00:00.250000Z"), kStart);
  EXPECT_EQ(ParseTime("2024-05-01T12:00:00Z"), kStart - 250'000);
  EXPECT_THROW(ParseTime("2024-05-01T12:00:00.25X"), std::invalid_argument);
  EXPECT_THROW(ParseTime("noon"), std::invalid_argument);
}

TEST(Flight, DependsOnSeedAndTimeNotOnTheSteps) {
  Flight inSteps({5, kStart, {}});
  for (int64_t us = 0; us <= 30'000'000; us += 40'000) inSteps.AdvanceTo(us);
  EXPECT_EQ(MakeKlvMessage(inSteps.State()), MakeKlvMessage(StateAt(5, 30)));
  EXPECT_NE(MakeKlvMessage(StateAt(6, 30)), MakeKlvMessage(StateAt(5, 30)));
}

TEST(Flight, StaysWithinTheRangesOfItsItems) {
  for (uint32_t seed = 0; seed < 20; ++seed) {
    Flight flight({seed, kStart, {}});
    for (int64_t second = 0; second < 3'600; second += 3) {
      flight.AdvanceTo(second * 1'000'000);
      const FlightState state = flight.State();
      ASSERT_EQ(state.timeUs, kStart + second * 1'000'000);
      ASSERT_LT(std::abs(state.latitude), 60);
      ASSERT_LE(std::abs(state.longitude), 180);
      ASSERT_LT(std::abs(state.pitch), 20);
      ASSERT_LT(std::abs(state.roll), 50);
      ASSERT_GE(state.course, 60);
      ASSERT_LE(state.course, 120);
      ASSERT_GT(state.sensorAzimuth, state.course) << "seed " << seed << " second " << second;
      ASSERT_LT(state.sensorAzimuth, 360);
      ASSERT_LT(state.sensorElevation, -5);
      ASSERT_GT(state.sensorElevation, -90);
      ASSERT_GT(state.sensorRoll, state.roll);
      ASSERT_GT(state.fov, 0);
      ASSERT_LT(state.slantRange, 10'000);
      ASSERT_GT(state.slantRange, state.hae - state.frameHae);
    }
  }
}

TEST(Flight, LooksAtOneTargetAfterTheOther) {
  Flight flight({1, kStart, {}});
  int last = flight.State().target;
  int changes = 0;
  double latitude = flight.State().targetLatitude;
  for (int64_t second = 0; second < 600; ++second) {
    flight.AdvanceTo(second * 1'000'000);
    const FlightState state = flight.State();
    if (state.target != last) {
      changes++;
    } else {
      ASSERT_EQ(state.targetLatitude, latitude) << "a target does not move";
    }
    last = state.target;
    latitude = state.targetLatitude;
  }
  EXPECT_GE(changes, 10);
}

TEST(Flight, HeightsAboveSeaLevelUseTheUndulation) {
  Flight flight({1, kStart, [](double, double) { return 50.0; }});
  const FlightState state = flight.State();
  EXPECT_DOUBLE_EQ(state.hae - state.altitude, 50.0);
  EXPECT_DOUBLE_EQ(state.frameHae - state.frameElevation, 50.0);
  EXPECT_DOUBLE_EQ(state.targetHae - state.targetElevation, 50.0);
}

TEST(KlvFlight, IsALocalSetWithItsTimeFirstAndItsChecksumLast) {
  const auto message = MakeKlvMessage(StateAt(1, 12.34));
  ASSERT_EQ(message[16], 0x81);
  ASSERT_EQ(message[17], message.size() - 18);
  EXPECT_EQ(message[18], 2);
  EXPECT_EQ(message[message.size() - 4], 1);
  EXPECT_EQ(message[message.size() - 3], 2);
  unsigned sum = 0;
  for (size_t i = 0; i + 2 < message.size(); ++i) sum += i % 2 == 0 ? 256u * message[i] : message[i];
  EXPECT_EQ(sum & 0xFFFF, 256u * message[message.size() - 2] + message[message.size() - 1]);
  EXPECT_EQ(Item(message, 2), static_cast<uint64_t>(kStart + 12'340'000));
}

TEST(KlvFlight, SplitsIntoTheSameMessagesAgain) {
  Bytes stream;
  std::vector<Bytes> messages;
  for (int i = 0; i < 5; ++i) {
    messages.push_back(MakeKlvMessage(StateAt(1, i)));
    stream.insert(stream.end(), messages.back().begin(), messages.back().end());
  }
  size_t skipped = 1;
  EXPECT_EQ(SplitKlv(stream, &skipped), messages);
  EXPECT_EQ(skipped, 0u);
}

TEST(CotFlight, SaysTheSameAsTheKlv) {
  const FlightState state = StateAt(3, 77.7);
  const CotPair pair = CotWriter({}).Write(state);
  const auto klv = MakeKlvMessage(state);
  const auto item = [&](uint8_t tag) { return static_cast<double>(Item(klv, tag).value()); };
  EXPECT_NEAR(item(13), Attribute(pair.aircraft, "lat") * 2147483647 / 90, 1);
  EXPECT_NEAR(item(14), Attribute(pair.aircraft, "lon") * 2147483647 / 180, 1);
  EXPECT_NEAR(item(15), (Attribute(pair.aircraft, "hae") + 900) * 65535 / 19900, 1);
  EXPECT_NEAR(item(5), Attribute(pair.aircraft, "course") * 65535 / 360, 1);
  EXPECT_NEAR(item(9), Attribute(pair.aircraft, "speed"), 1);
  EXPECT_NEAR(item(23), Attribute(pair.sensor, "lat") * 2147483647 / 90, 1);
  EXPECT_NEAR(item(24), Attribute(pair.sensor, "lon") * 2147483647 / 180, 1);
  EXPECT_NEAR(item(16), Attribute(pair.sensor, "fov") * 65535 / 180, 1);
  EXPECT_NEAR(item(17), Attribute(pair.sensor, "vfov") * 65535 / 180, 1);
  EXPECT_NEAR(item(21), Attribute(pair.sensor, "range") * 4294967295.0 / 5e6, 1);
  EXPECT_NEAR(item(18), (Attribute(pair.sensor, "azimuth") - state.course) * 4294967295.0 / 360, 2);
  EXPECT_NEAR(item(45), Attribute(pair.sensor, "ce") * 2.145966025 * 16, 1);
  EXPECT_NEAR(item(46), Attribute(pair.sensor, "le") * 1.6448538 * 16, 1);
  EXPECT_THAT(pair.aircraft, testing::HasSubstr("time=\"" + FormatTime(state.timeUs) + "\""));
  EXPECT_THAT(pair.aircraft, testing::HasSubstr("start=\"" + FormatTime(state.startUs) + "\""));
}

TEST(CotFlight, EventsFitIntoADatagram) {
  const CotPair pair = CotWriter({}).Write(StateAt(3, 77.7));
  EXPECT_LT(pair.aircraft.size(), 1400u);
  EXPECT_LT(pair.sensor.size(), 1400u);
}

TEST(CotFlight, SensorsTakeTurnsAndAreUpToTheJitterOlder) {
  CotOptions options;
  options.sensors = 3;
  options.jitterMs = 40;
  CotWriter writer(options);
  const FlightState state = StateAt(1, 0);
  std::set<std::string> times;
  for (int i = 0; i < 60; ++i) {
    const CotPair pair = writer.Write(state);
    EXPECT_THAT(pair.sensor, testing::HasSubstr("uid=\"SIM-UAV.S" + std::to_string(i % 3 + 1) + "\""));
    std::smatch match;
    ASSERT_TRUE(std::regex_search(pair.sensor, match, std::regex("time=\"([^\"]*)\"")));
    times.insert(match[1]);
    EXPECT_THAT(pair.aircraft, testing::HasSubstr("time=\"" + FormatTime(kStart) + "\""));
  }
  EXPECT_EQ(times.size(), 5u);
  EXPECT_EQ(*times.begin(), FormatTime(kStart - 40'000));
  EXPECT_EQ(*times.rbegin(), FormatTime(kStart));
}

}  // namespace
}  // namespace mdfeed
