// SPDX-License-Identifier: Apache-2.0
#include "klv_flight.h"

#include <array>

#include "st0601_items.h"

namespace mdfeed {
namespace {

using st0601::Builder;

constexpr double kOneSigmaToCe90 = 2.145966025;
constexpr double kOneSigmaToLe90 = 1.6448538;

// MISB ST 0102: unclassified, Switzerland, countries in two letters of ISO 3166, version 12.
constexpr std::array<uint8_t, 25> kSecuritySet = {1,  1, 1,                   //
                                                  2,  1, 1,                   //
                                                  3,  4, '/', '/', 'C', 'H',  //
                                                  12, 1, 1,                   //
                                                  13, 4, 0,   'C', 0,   'H',  //
                                                  22, 2, 0,   12};

void AddPlatform(Builder& items, const FlightState& state) {
  items.AddWhole(2, state.timeUs);
  items.AddText(3, "SIMULATION 01").AddText(4, "SIM-7");
  items.Add(5, state.course).Add(6, state.pitch).Add(7, state.roll).Add(9, state.speed);
  items.AddText(10, "SIM-UAV").AddText(11, "EO").AddText(12, "Geodetic WGS84");
  items.Add(13, state.latitude).Add(14, state.longitude).Add(15, state.altitude);
}

void AddSensor(Builder& items, const FlightState& state) {
  items.Add(16, state.fov).Add(17, state.vfov);
  items.Add(18, state.sensorAzimuth - state.course);
  items.Add(19, state.sensorElevation - state.pitch);
  items.Add(20, state.sensorRoll - state.roll);
  items.Add(21, state.slantRange).Add(22, state.frameWidth);
  items.Add(23, state.frameLatitude).Add(24, state.frameLongitude).Add(25, state.frameElevation);
}

void AddTarget(Builder& items, const FlightState& state) {
  items.Add(40, state.targetLatitude).Add(41, state.targetLongitude).Add(42, state.targetElevation);
  items.Add(45, state.ce * kOneSigmaToCe90).Add(46, state.le * kOneSigmaToLe90);
  items.Add(48, kSecuritySet);
  items.Add(56, state.speed).AddWhole(65, 17).AddWhole(72, state.startUs);
}

}  // namespace

std::vector<uint8_t> MakeKlvMessage(const FlightState& state) {
  Builder items;
  AddPlatform(items, state);
  AddSensor(items, state);
  AddTarget(items, state);
  return items.Finish();
}

}  // namespace mdfeed
