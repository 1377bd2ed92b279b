// SPDX-License-Identifier: Apache-2.0
#include "flight.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <numbers>
#include <stdexcept>

namespace mdfeed {
namespace {

constexpr int64_t kStepUs = 10'000;
constexpr double kStepSeconds = 0.01;
constexpr double kMetresPerDegree = 111'320.0;  // of latitude; of longitude at the equator
constexpr double kCruiseSpeed = 72.0;
constexpr double kGravity = 9.80665;
constexpr double kTurnPeriod = 120.0;  // seconds for one turn to the left and one to the right
constexpr double kTurnAngle = 25.0;    // degrees to either side of east
constexpr double kTrackWidth = 586.0;  // metres from the middle of the track to its northern and southern limits
constexpr double kTargetSpacing = 2'500.0;
constexpr double kTargetDistance = 2'600.0;  // south of the middle of the track

double Radians(double degrees) {
  return degrees * std::numbers::pi / 180.0;
}
double Degrees(double radians) {
  return radians * 180.0 / std::numbers::pi;
}

double WrapLongitude(double longitude) {
  return std::remainder(longitude, 360.0);
}

// Returns a number from 0 to 1 that depends only on the seed and the index.
double Noise(uint32_t seed, uint64_t index) {
  uint64_t x = (uint64_t{seed} << 32) ^ (index * 0x9E3779B97F4A7C15u);
  x ^= x >> 30;
  x *= 0xBF58476D1CE4E5B9u;
  x ^= x >> 27;
  x *= 0x94D049BB133111EBu;
  x ^= x >> 31;
  return static_cast<double>(x >> 11) / 9007199254740992.0;
}

}  // namespace

Flight::Flight(const FlightOptions& options)
    : m_options(options),
      m_startLatitude(46.2 + 1.5 * Noise(options.seed, 1)),
      m_startLongitude(7.0 + 3.0 * Noise(options.seed, 2)),
      m_cruiseHae(2'600.0 + 900.0 * Noise(options.seed, 3)),
      m_phase(2.0 * std::numbers::pi * Noise(options.seed, 4)) {
  m_options.startUs -= m_options.startUs % kStepUs;
}

void Flight::AdvanceTo(int64_t elapsedUs) {
  while ((m_steps + 1) * kStepUs <= elapsedUs) Step();
}

void Flight::Step() {
  const double distance = Speed() * kStepSeconds;
  m_east += distance * std::sin(Radians(Course()));
  m_north += distance * std::cos(Radians(Course()));
  ++m_steps;
}

double Flight::Seconds() const {
  return static_cast<double>(m_steps) * kStepSeconds;
}

double Flight::Vary(double period, double phase) const {
  return std::sin(2.0 * std::numbers::pi * Seconds() / period + phase + m_phase);
}

// The course turns to the left and right of east without end. The azimuth of every point south of the track is greater
// than the course, and north never lies between them.
double Flight::Course() const {
  return 90.0 + kTurnAngle * Vary(kTurnPeriod, 0.0);
}

double Flight::Speed() const {
  return kCruiseSpeed + 4.0 * Vary(61.0, 0.3);
}

double Flight::Latitude(double north) const {
  return m_startLatitude + north / kMetresPerDegree;
}

double Flight::Longitude(double east) const {
  return WrapLongitude(m_startLongitude + east / (kMetresPerDegree * std::cos(Radians(m_startLatitude))));
}

// Returns the bank angle of a level turn at which the course changes at its present rate.
double Flight::Roll() const {
  const double rate =
      Radians(kTurnAngle) * 2.0 * std::numbers::pi / kTurnPeriod * Vary(kTurnPeriod, std::numbers::pi / 2.0);
  return Degrees(std::atan(rate * kCruiseSpeed / kGravity)) + 0.4 * Vary(3.7, 1.0);
}

double Flight::Pitch() const {
  return 2.5 + 1.5 * Vary(47.0, 2.0) + 0.2 * Vary(2.9, 0.0);
}

double Flight::Hae() const {
  return m_cruiseHae + 60.0 * Vary(47.0, 0.4);
}

double Flight::Sea(double latitude, double longitude) const {
  return m_options.undulation ? m_options.undulation(latitude, longitude) : 0.0;
}

// Targets lie in a row along the track; the seed decides the offset of each from its place.
Flight::Target Flight::NearestTarget() const {
  const double index = std::round(m_east / kTargetSpacing);
  const auto key = static_cast<uint64_t>(index + 1'000.0);
  Target target{};
  target.number = static_cast<int>(std::fmod(index, 9'999.0)) + 1;
  target.east = index * kTargetSpacing + 500.0 * (Noise(m_options.seed, key) - 0.5);
  target.north =
      -kTrackWidth * std::cos(m_phase) - kTargetDistance + 800.0 * (Noise(m_options.seed, key + 200'000'000) - 0.5);
  target.hae = 420.0 + 300.0 * Noise(m_options.seed, key + 400'000'000);
  return target;
}

void Flight::FillSensor(FlightState& state) const {
  const Target target = NearestTarget();
  state.target = target.number;
  state.targetLatitude = Latitude(target.north);
  state.targetLongitude = Longitude(target.east);
  state.targetHae = target.hae;
  state.targetElevation = target.hae - Sea(state.targetLatitude, state.targetLongitude);

  // The frame moves a few metres around the target, as if an operator held it there by hand.
  const double frameNorth = target.north + 12.0 * Vary(5.3, 0.2);
  const double frameEast = target.east + 15.0 * Vary(6.1, 0.9);
  state.frameLatitude = Latitude(frameNorth);
  state.frameLongitude = Longitude(frameEast);
  state.frameHae = target.hae + 1.5 * Vary(7.7, 0.0);
  state.frameElevation = state.frameHae - Sea(state.frameLatitude, state.frameLongitude);

  const double ground = std::hypot(frameNorth - m_north, frameEast - m_east);
  const double azimuth = Degrees(std::atan2(frameEast - m_east, frameNorth - m_north));
  state.sensorAzimuth = azimuth < 0 ? azimuth + 360.0 : azimuth;
  state.sensorElevation = Degrees(std::atan2(state.frameHae - state.hae, ground));
  state.sensorRoll = state.roll + 4.0 + 3.0 * Vary(11.0, 0.5);
  state.slantRange = std::hypot(ground, state.frameHae - state.hae);
  state.fov = 4.0 + 2.5 * Vary(97.0, 0.0);
  state.vfov = state.fov * 9.0 / 16.0;
  state.frameWidth = 2.0 * state.slantRange * std::tan(Radians(state.fov / 2.0));
  state.ce = 3.0 + state.slantRange / 1'000.0;
  state.le = 2.0 + state.slantRange / 2'000.0;
}

FlightState Flight::State() const {
  FlightState state;
  state.startUs = m_options.startUs;
  state.timeUs = m_options.startUs + m_steps * kStepUs;
  state.latitude = Latitude(m_north);
  state.longitude = Longitude(m_east);
  state.hae = Hae();
  state.altitude = state.hae - Sea(state.latitude, state.longitude);
  state.course = Course();
  state.pitch = Pitch();
  state.roll = Roll();
  state.speed = Speed();
  FillSensor(state);
  return state;
}

std::string FormatTime(int64_t timeUs) {
  const std::time_t seconds = timeUs / 1'000'000;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text.data() + length, text.size() - length, ".%02dZ", static_cast<int>(timeUs % 1'000'000 / 10'000));
  return text.data();
}

int64_t ParseTime(const std::string& text) {
  std::tm parts{};
  const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) throw std::invalid_argument("'" + text + "' is no time like 2024-05-01T12:00:00.00Z");
  int64_t fraction = 0;
  if (*rest == '.') {
    int64_t unit = 100'000;
    for (++rest; *rest >= '0' && *rest <= '9'; rest++, unit /= 10) fraction += (*rest - '0') * unit;
  }
  if (*rest == 'Z') ++rest;
  if (*rest != '\0') throw std::invalid_argument("'" + text + "' is no time like 2024-05-01T12:00:00.00Z");
  return static_cast<int64_t>(timegm(&parts)) * 1'000'000 + fraction;
}

}  // namespace mdfeed
