// SPDX-License-Identifier: Apache-2.0
// observation.h - what a message of ST 0601 says about where the platform is and what it looks at.
#ifndef OBSERVATION_H
#define OBSERVATION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "st0601_items.h"

namespace st0601 {

struct Position {
  double latitude = 0;                    // degrees, -90 to 90
  double longitude = 0;                   // degrees, -180 to 180
  std::optional<double> altitude;         // metres above mean sea level
  std::optional<double> ellipsoidHeight;  // metres above the WGS-84 ellipsoid
};

// Items that are absent, out of range or of a wrong length are nothing. Angles are degrees, lengths metres.
struct Observation {
  std::optional<uint64_t> timeUs;  // microseconds since 1970, of a year up to 9999
  std::string platformName;        // call sign, designation or tail number; printable, as all texts
  std::string missionId;
  std::string sensorName;
  std::optional<Position> platform;
  std::optional<double> heading;
  std::optional<double> course;
  std::optional<double> pitch;
  std::optional<double> roll;
  std::optional<double> groundSpeed;      // metres a second
  std::optional<double> sensorAzimuth;    // relative to the platform
  std::optional<double> sensorElevation;  // likewise
  std::optional<double> sensorRoll;       // likewise
  std::optional<double> horizontalView;   // field of view
  std::optional<double> verticalView;     // likewise
  std::optional<double> slantRange;
  std::optional<Position> frameCenter;
  std::optional<Position> target;
  std::vector<Position> corners;  // all four of the image on the ground, in their order, or none

  // Return the direction in which the sensor looks, clockwise from true north and up from the horizon. Pitch is added, roll
  // is not taken into account.
  std::optional<double> TrueAzimuth() const;
  std::optional<double> TrueElevation() const;
};

Observation Observe(const Message& message);

}  // namespace st0601

#endif  // OBSERVATION_H
