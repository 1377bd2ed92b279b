// SPDX-License-Identifier: Apache-2.0
// cot_text.h - what a message of ST 0601 says, as events of Cursor-on-Target: the platform with the view of its sensor, and
// the point that the sensor looks at. No I/O.
#ifndef COT_TEXT_H
#define COT_TEXT_H

#include <cstdint>
#include <string>

#include "observation.h"

namespace cot_text {

struct Names {
  std::string uid;   // of the platform; the sensor point has "-SPI" behind it
  std::string type;  // of the platform, "a-f-A-M-F-Q" for instance
  std::string name;  // of the platform, if the message has none
};

struct Times {
  uint64_t nowUs = 0;  // microseconds since 1970
  uint64_t staleUs = 0;
};

enum class Form : uint8_t {
  Xml,  // without line ends
  Tak   // a datagram of the TAK protocol, version 1
};

// Return one event of at most 1400 bytes, or "" if the message does not say where that is.
std::string PlatformEvent(const st0601::Observation& seen, const Names& names, const Times& times,
                          Form form = Form::Xml);
std::string SensorPointEvent(const st0601::Observation& seen, const Names& names, const Times& times,
                             Form form = Form::Xml);

}  // namespace cot_text

#endif  // COT_TEXT_H
