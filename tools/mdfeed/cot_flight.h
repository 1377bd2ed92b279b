// The simulated flight as Cursor-on-Target events: the aircraft, and the point its sensor looks at.
#ifndef MDFEED_COT_FLIGHT_H
#define MDFEED_COT_FLIGHT_H

#include <cstdint>
#include <random>
#include <string>

#include "flight.h"

namespace mdfeed {

struct CotOptions {
  std::string uid = "SIM-UAV";  // of the aircraft; the sensors are SIM-UAV.S1, SIM-UAV.S2, ...
  int sensors = 1;              // they take turns, one sensor point per pair
  int jitterMs = 20;            // by how much at most the sensor point is older than the aircraft event; cut to 10 ms
  uint32_t seed = 1;
};

struct CotPair {
  std::string sensor;    // type b-m-p-s-p-i
  std::string aircraft;  // type a-f-A-M-F-Q; its time is the state's
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
