// SPDX-License-Identifier: Apache-2.0
// Makes, of Cursor-on-Target events as clients send them, datagrams that the library converts: one event each, of at
// most 1500 bytes, in the spelling that the converter reads (docs/formats/cot_to_st0601.md). No I/O.
//
// The converter looks for names as bare text and takes the first hit. Therefore what it reads comes first, each name
// before anything that contains it. What it does not read follows for the receivers of relays, as far as it fits.
#ifndef COT_EVENT_H
#define COT_EVENT_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "tak_protocol.h"

namespace cot {

constexpr size_t kLargestDatagram = 1500;  // of the library's buffer
constexpr size_t kLongestUid = 64;         // of the items that hold it

enum class Verdict {
  Ready,      // there is a datagram
  OtherKind,  // neither an aircraft nor a sensor point: the converter has no use for it
  Faulty,     // no event, or one without a type, time, identifier or position that can be read
  TooLong     // what the converter reads does not fit into a datagram
};

struct Prepared {
  Verdict verdict = Verdict::Faulty;
  std::string datagram;
  std::string uid;     // of an event that is not faulty
  size_t leftOut = 0;  // elements of <detail> that did not fit, or that the converter would take for others
  bool isAircraft = false;
};

// Takes one XML element. An error bound (ce, le) that is unknown, as 9999999.0 says, or larger than its item can hold
// becomes the largest that it can: the error is at least that.
Prepared Prepare(std::span<const uint8_t> xml);
Prepared Prepare(const tak::Event& event);

}  // namespace cot

#endif  // COT_EVENT_H
