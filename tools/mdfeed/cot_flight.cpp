// SPDX-License-Identifier: Apache-2.0
#include "cot_flight.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace mdfeed {
namespace {

constexpr int64_t kStaleAfterUs = 5'000'000;
constexpr const char* kModels[] = {"EO Nose", "IR Nose", "EO Wide", "LRF"};

// Appends formatted text. Numbers have a decimal point, because this program never sets a locale.
__attribute__((format(printf, 2, 3))) void Append(std::string& text, const char* format, ...) {
  std::array<char, 1024> line{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  text += line.data();
}

// Returns the event's start tag. The time precedes every other attribute that could be confused with it.
std::string StartEvent(const std::string& uid, const char* type, int64_t timeUs, int64_t startUs) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n";
  Append(text, "<event version=\"2.0\" uid=\"%s\" type=\"%s\" ", uid.c_str(), type);
  Append(text, "time=\"%s\" ", FormatTime(timeUs).c_str());
  Append(text, "start=\"%s\" ", FormatTime(startUs).c_str());
  Append(text, "stale=\"%s\" how=\"m-g\">\n", FormatTime(timeUs + kStaleAfterUs).c_str());
  return text;
}

}  // namespace

CotWriter::CotWriter(const CotOptions& options) : m_options(options), m_random(options.seed + 1) {}

CotPair CotWriter::Write(const FlightState& state) {
  const auto choices = static_cast<unsigned>(m_options.jitterMs / 10 + 1);
  const int64_t jitterUs = static_cast<int64_t>(m_random() % choices) * 10'000;
  const int sensor = m_nextSensor;
  m_nextSensor = (m_nextSensor + 1) % m_options.sensors;
  return {SensorPoint(state, sensor, state.timeUs - jitterUs), Aircraft(state)};
}

std::string CotWriter::Aircraft(const FlightState& state) const {
  std::string text = StartEvent(m_options.uid, "a-f-A-M-F-Q", state.timeUs, state.startUs);
  Append(text, " <point lat=\"%.9f\" lon=\"%.9f\" hae=\"%.3f\" ", state.latitude, state.longitude, state.hae);
  Append(text, "ce=\"4.5\" le=\"6.0\"/>\n <detail>\n");
  Append(text, "  <contact callsign=\"%s\"/>\n", m_options.uid.c_str());
  Append(text, "  <track course=\"%.8f\" speed=\"%.4f\" slope=\"0.0\"/>\n", state.course, state.speed);
  Append(text, "  <_uastool activeRoute=\"false\" extendedCot=\"true\"/>\n  <spatial>\n");
  Append(text, "   <attitude roll=\"%.8f\" pitch=\"%.8f\" yaw=\"%.8f\"/>\n", state.roll, state.pitch, state.course);
  Append(text, "   <spin roll=\"0.0\" pitch=\"0.0\" yaw=\"0.0\"/>\n  </spatial>\n");
  Append(text, "  <vehicle typeTag=\"_SIM_\" batteryRemainingCapacity=\"0.81\"/>\n");
  Append(text, "  <remarks>Simulated flight, target %d</remarks>\n", state.target);
  Append(text, "  <_flow-tags_ mdfeed=\"%s\"/>\n </detail>\n</event>\n", FormatTime(state.timeUs).c_str());
  return text;
}

std::string CotWriter::SensorPoint(const FlightState& state, int sensor, int64_t timeUs) const {
  const std::string uid = m_options.uid + ".S" + std::to_string(sensor + 1);
  std::string text = StartEvent(uid, "b-m-p-s-p-i", timeUs, state.startUs);
  Append(text, " <point lat=\"%.9f\" lon=\"%.9f\" ", state.frameLatitude, state.frameLongitude);
  Append(text, "hae=\"%.3f\" ce=\"%.5f\" le=\"%.5f\"/>\n <detail>\n", state.frameHae, state.ce, state.le);
  Append(text, "  <contact callsign=\"%s\"/>\n", uid.c_str());
  Append(text, "  <link relation=\"p-p\" type=\"a-f-A-M-F-Q\" uid=\"%s\"/>\n", m_options.uid.c_str());
  Append(text, "  <sensor fov=\"%.8f\" vfov=\"%.8f\" ", state.fov, state.vfov);
  Append(text, "model=\"%s\" type=\"r-e\" ", kModels[static_cast<unsigned>(sensor) % std::size(kModels)]);
  Append(text, "azimuth=\"%.8f\" elevation=\"%.8f\" ", state.sensorAzimuth, state.sensorElevation);
  Append(text, "roll=\"%.8f\" range=\"%.4f\"/>\n", state.sensorRoll, state.slantRange);
  Append(text, "  <precisionlocation altsrc=\"DTED0\" geopointsrc=\"Calc\"/>\n");
  Append(text, "  <_flow-tags_ mdfeed=\"%s\"/>\n </detail>\n</event>\n", FormatTime(timeUs).c_str());
  return text;
}

}  // namespace mdfeed
