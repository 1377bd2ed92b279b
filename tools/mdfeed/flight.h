// SPDX-License-Identifier: Apache-2.0
// The simulated flight: an unmanned aircraft flies east in long turns and points a gimballed camera at targets on the
// ground to its right. KLV and Cursor-on-Target are both made from the same FlightState.
#ifndef MDFEED_FLIGHT_H
#define MDFEED_FLIGHT_H

#include <cstdint>
#include <functional>
#include <string>

namespace mdfeed {

// One moment of the flight. Angles are in degrees, lengths in metres, positions in WGS-84.
struct FlightState {
  int64_t timeUs = 0;   // UTC since 1970, a multiple of 10 ms, because texts have two decimals of a second
  int64_t startUs = 0;  // start of the flight
  // Aircraft.
  double latitude = 0;
  double longitude = 0;  // -180 to 180
  double hae = 0;        // height above the ellipsoid
  double altitude = 0;   // above mean sea level
  double course = 0;     // 0 to 360, true north
  double pitch = 0;      // within +-20, nose up positive
  double roll = 0;       // within +-50, right wing down positive
  double speed = 0;      // m/s over ground, and indicated
  // Camera. The azimuth is clockwise from true north and never below the course; the elevation is above the horizon.
  double sensorAzimuth = 0;
  double sensorElevation = 0;
  double sensorRoll = 0;  // never below the aircraft's roll
  double fov = 0;         // horizontal
  double vfov = 0;
  double slantRange = 0;
  // Target.
  double frameLatitude = 0;
  double frameLongitude = 0;
  double frameHae = 0;
  double frameElevation = 0;  // above mean sea level
  double frameWidth = 0;
  double ce = 0;  // circular and linear error, one sigma
  double le = 0;
  int target = 0;  // number of the target, from 1
  double targetLatitude = 0;
  double targetLongitude = 0;
  double targetHae = 0;
  double targetElevation = 0;
};

// Returns the height of mean sea level above the ellipsoid at a position, in metres.
using Undulation = std::function<double(double latitude, double longitude)>;

struct FlightOptions {
  uint32_t seed = 1;       // selects start, altitude, rhythm and targets
  int64_t startUs = 0;     // UTC since 1970; rounded down to 10 ms
  Undulation undulation;   // empty: zero everywhere
  bool startsNow = false;  // traffic begins with its first message, instead of at startUs
};

// It is deterministic: the state at a time depends only on the options, not on earlier steps.
class Flight {
 public:
  explicit Flight(const FlightOptions& options);
  // Advances to a time after the start, and never goes back.
  void AdvanceTo(int64_t elapsedUs);
  FlightState State() const;

 private:
  struct Target {
    int number;
    double east;
    double north;
    double hae;
  };

  void Step();
  double Seconds() const;
  double Course() const;
  double Roll() const;
  double Pitch() const;
  double Hae() const;
  double Sea(double latitude, double longitude) const;
  double Vary(double period, double phase) const;  // -1 to 1
  double Speed() const;
  double Latitude(double north) const;
  double Longitude(double east) const;
  Target NearestTarget() const;
  void FillSensor(FlightState& state) const;

  FlightOptions m_options;
  int64_t m_steps = 0;
  double m_startLatitude;
  double m_startLongitude;
  double m_cruiseHae;
  double m_phase;
  double m_east = 0;  // metres from the start, on a plane with the scale of the start's latitude
  double m_north = 0;
};

// Returns "2024-05-01T12:00:00.25Z", always with two decimals.
std::string FormatTime(int64_t timeUs);
// Parses the same with any number of decimals, or none. Throws std::invalid_argument.
int64_t ParseTime(const std::string& text);

}  // namespace mdfeed

#endif  // MDFEED_FLIGHT_H
