// SPDX-License-Identifier: Apache-2.0
// The simulated flight as Cursor-on-Target events for the aircraft and for the point that its sensor looks at.
#ifndef MDFEED_COT_FLIGHT_H
#define MDFEED_COT_FLIGHT_H

#include <cstdint>
#include <random>
#include <string>

#include "flight.h"

namespace mdfeed {

struct CotOptions {
  std::string uid = "SIM-UAV";  // UID of the aircraft; those of the sensors are SIM-UAV.S1, SIM-UAV.S2, ...
  int sensors = 1;              // the pairs have the point of each sensor in turn
  int jitterMs = 20;            // largest lead of the sensor point over the aircraft event; rounded down to 10 ms
  uint32_t seed = 1;
};

struct CotPair {
  std::string sensor;    // type b-m-p-s-p-i
  std::string aircraft;  // type a-f-A-M-F-Q, with the time of the state
};

class CotWriter {
 public:
  explicit CotWriter(const CotOptions& options);
  CotPair Write(const FlightState& state);

 private:
  std::string Aircraft(const FlightState& state) const;
  std::string SensorPoint(const FlightState& state, int sensor, int64_t timeUs) const;

  CotOptions m_options;
  std::minstd_rand m_random;
  int m_nextSensor = 0;
};

}  // namespace mdfeed

#endif  // MDFEED_COT_FLIGHT_H
