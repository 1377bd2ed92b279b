// SPDX-License-Identifier: Apache-2.0
// The floor of the conversion of events, in C++ because the parser is.
#ifndef FLOOR_EVENTS_H
#define FLOOR_EVENTS_H

#include <string_view>

// What is read of a pair, summed up so that nothing of it can be left out.
struct FloorFields {
  double numbers = 0;
  size_t textBytes = 0;
};

// Parses both events of a pair and reads every field that their conversion needs.
FloorFields FloorEvents(std::string_view aircraft, std::string_view sensorPoint);

#endif  // FLOOR_EVENTS_H
