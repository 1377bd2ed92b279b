#include "flight.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <numbers>
#include <stdexcept>

namespace mdfeed {
namespace {

constexpr std::int64_t kStepUs = 10'000;
constexpr double kStepSeconds = 0.01;
constexpr double kMetresPerDegree = 111'320.0;  // of latitude; of longitude at the equator
constexpr double kCruiseSpeed = 72.0;
constexpr double kGravity = 9.80665;
constexpr double kTurnPeriod = 120.0;  // seconds of one turn left and right
constexpr double kTurnAngle = 25.0;    // degrees either side of east
constexpr double kTrackWidth = 586.0;  // metres north and south of its middle that the track reaches
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

// A number between 0 and 1 that depends on the seed and the index alone.
double Noise(std::uint32_t seed, std::uint64_t index) {
  std::uint64_t x = (std::uint64_t{seed} << 32) ^ (index * 0x9E3779B97F4A7C15u);
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
      m_start_latitude(46.2 + 1.5 * Noise(options.seed, 1)),
      m_start_longitude(7.0 + 3.0 * Noise(options.seed, 2)),
      m_cruise_hae(2'600.0 + 900.0 * Noise(options.seed, 3)),
      m_phase(2.0 * std::numbers::pi * Noise(options.seed, 4)) {
  m_options.start_us -= m_options.start_us % kStepUs;
}

void Flight::AdvanceTo(std::int64_t elapsed_us) {
  while ((m_steps + 1) * kStepUs <= elapsed_us) Step();
}

void Flight::Step() {
  const double distance = Speed() * kStepSeconds;
  m_east += distance * std::sin(Radians(Course()));
  m_north += distance * std::cos(Radians(Course()));
  m_steps++;
}

double Flight::Seconds() const {
  return static_cast<double>(m_steps) * kStepSeconds;
}

double Flight::Vary(double period, double phase) const {
  return std::sin(2.0 * std::numbers::pi * Seconds() / period + phase + m_phase);
}

// Turning left and right of east for ever. Whatever lies south of the track has an azimuth above the course, without a
// wrap at north between them.
double Flight::Course() const {
  return 90.0 + kTurnAngle * Vary(kTurnPeriod, 0.0);
}

double Flight::Speed() const {
  return kCruiseSpeed + 4.0 * Vary(61.0, 0.3);
}

double Flight::Latitude(double north) const {
  return m_start_latitude + north / kMetresPerDegree;
}

double Flight::Longitude(double east) const {
  return WrapLongitude(m_start_longitude + east / (kMetresPerDegree * std::cos(Radians(m_start_latitude))));
}

// Of a level turn at the rate of the course's change.
double Flight::Roll() const {
  const double rate =
      Radians(kTurnAngle) * 2.0 * std::numbers::pi / kTurnPeriod * Vary(kTurnPeriod, std::numbers::pi / 2.0);
  return Degrees(std::atan(rate * kCruiseSpeed / kGravity)) + 0.4 * Vary(3.7, 1.0);
}

double Flight::Pitch() const {
  return 2.5 + 1.5 * Vary(47.0, 2.0) + 0.2 * Vary(2.9, 0.0);
}

double Flight::Hae() const {
  return m_cruise_hae + 60.0 * Vary(47.0, 0.4);
}

double Flight::Sea(double latitude, double longitude) const {
  return m_options.undulation ? m_options.undulation(latitude, longitude) : 0.0;
}

// Targets lie in a row along the track, each off its place by a chance that the seed decides.
Flight::Target Flight::NearestTarget() const {
  const double index = std::round(m_east / kTargetSpacing);
  const auto key = static_cast<std::uint64_t>(index + 1'000.0);
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
  state.target_latitude = Latitude(target.north);
  state.target_longitude = Longitude(target.east);
  state.target_hae = target.hae;
  state.target_elevation = target.hae - Sea(state.target_latitude, state.target_longitude);

  // The operator's hand: the frame moves a few metres around the target.
  const double frame_north = target.north + 12.0 * Vary(5.3, 0.2);
  const double frame_east = target.east + 15.0 * Vary(6.1, 0.9);
  state.frame_latitude = Latitude(frame_north);
  state.frame_longitude = Longitude(frame_east);
  state.frame_hae = target.hae + 1.5 * Vary(7.7, 0.0);
  state.frame_elevation = state.frame_hae - Sea(state.frame_latitude, state.frame_longitude);

  const double ground = std::hypot(frame_north - m_north, frame_east - m_east);
  const double azimuth = Degrees(std::atan2(frame_east - m_east, frame_north - m_north));
  state.sensor_azimuth = azimuth < 0 ? azimuth + 360.0 : azimuth;
  state.sensor_elevation = Degrees(std::atan2(state.frame_hae - state.hae, ground));
  state.sensor_roll = state.roll + 4.0 + 3.0 * Vary(11.0, 0.5);
  state.slant_range = std::hypot(ground, state.frame_hae - state.hae);
  state.fov = 4.0 + 2.5 * Vary(97.0, 0.0);
  state.vfov = state.fov * 9.0 / 16.0;
  state.frame_width = 2.0 * state.slant_range * std::tan(Radians(state.fov / 2.0));
  state.ce = 3.0 + state.slant_range / 1'000.0;
  state.le = 2.0 + state.slant_range / 2'000.0;
}

FlightState Flight::State() const {
  FlightState state;
  state.start_us = m_options.start_us;
  state.time_us = m_options.start_us + m_steps * kStepUs;
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

std::string FormatTime(std::int64_t time_us) {
  const std::time_t seconds = time_us / 1'000'000;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text.data() + length, text.size() - length, ".%02dZ", static_cast<int>(time_us % 1'000'000 / 10'000));
  return text.data();
}

std::int64_t ParseTime(const std::string& text) {
  std::tm parts{};
  const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) throw std::invalid_argument("'" + text + "' is no time like 2024-05-01T12:00:00.00Z");
  std::int64_t fraction = 0;
  if (*rest == '.') {
    std::int64_t unit = 100'000;
    for (rest++; *rest >= '0' && *rest <= '9'; rest++, unit /= 10) fraction += (*rest - '0') * unit;
  }
  if (*rest == 'Z') rest++;
  if (*rest != '\0') throw std::invalid_argument("'" + text + "' is no time like 2024-05-01T12:00:00.00Z");
  return static_cast<std::int64_t>(timegm(&parts)) * 1'000'000 + fraction;
}

}  // namespace mdfeed
