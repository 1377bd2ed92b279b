// SPDX-License-Identifier: Apache-2.0
#include "observation.h"

#include <cmath>

namespace st0601 {
namespace {

constexpr int64_t kEndOfTime = 253402300800000000;  // the year 10000

// Return the value of an item, or of the first of two that is there.
std::optional<double> Number(const Message& message, uint32_t tag) {
  const Element* element = message.Find(tag);
  if (element == nullptr || element->item == nullptr) return std::nullopt;
  const Value value = Decode(*element->item, element->value);
  const bool isThere = value.state == ValueState::Ok && value.isNumber && std::isfinite(value.number);
  return isThere ? std::optional(value.number) : std::nullopt;
}
std::optional<double> Number(const Message& message, uint32_t tag, uint32_t otherwise) {
  const auto number = Number(message, tag);
  return number ? number : Number(message, otherwise);
}

std::string Text(const Message& message, uint32_t tag) {
  const Element* element = message.Find(tag);
  if (element == nullptr || element->item == nullptr) return {};
  return Decode(*element->item, element->value).text;
}

std::optional<Position> Place(const Message& message, uint32_t latitudeTag, uint32_t longitudeTag) {
  const auto latitude = Number(message, latitudeTag);
  const auto longitude = Number(message, longitudeTag);
  if (!latitude || !longitude) return std::nullopt;
  Position position;
  position.latitude = *latitude;
  position.longitude = *longitude;
  return position;
}

double Turned(double degrees, double full) {
  const double turned = std::fmod(degrees, full);
  return turned < 0 ? turned + full : turned;
}

// The full corners, or the offsets from the centre of the frame.
std::vector<Position> Corners(const Message& message, const std::optional<Position>& center) {
  constexpr uint32_t kFull = 82;
  constexpr uint32_t kOffset = 26;
  std::vector<Position> corners;
  for (uint32_t i = 0; i < 4; ++i) {
    auto corner = Place(message, kFull + 2 * i, kFull + 2 * i + 1);
    if (!corner && center) {
      corner = Place(message, kOffset + 2 * i, kOffset + 2 * i + 1);
      if (corner) {
        corner->latitude += center->latitude;
        corner->longitude = Turned(corner->longitude + center->longitude + 180, 360) - 180;
      }
    }
    if (!corner || std::fabs(corner->latitude) > 90) return {};
    corners.push_back(*corner);
  }
  return corners;
}

}  // namespace

std::optional<double> Observation::TrueAzimuth() const {
  if (!heading || !sensorAzimuth) return std::nullopt;
  return Turned(*heading + *sensorAzimuth, 360);
}

std::optional<double> Observation::TrueElevation() const {
  if (!sensorElevation) return std::nullopt;
  const double elevation = Turned(*sensorElevation + pitch.value_or(0) + 180, 360) - 180;
  return elevation > 90 ? 180 - elevation : elevation < -90 ? -180 - elevation : elevation;
}

Observation Observe(const Message& message) {
  Observation seen;
  const Element* time = message.Find(kTimeStampTag);
  if (time != nullptr && time->item != nullptr) {
    const Value value = Decode(*time->item, time->value);
    if (value.isWhole && value.whole >= 0 && value.whole < kEndOfTime) seen.timeUs = static_cast<uint64_t>(value.whole);
  }
  seen.missionId = Text(message, kMissionIdTag);
  seen.sensorName = Text(message, 11);
  for (const uint32_t tag : {59U, 10U, 4U}) {
    if (seen.platformName.empty()) seen.platformName = Text(message, tag);
  }
  seen.platform = Place(message, 13, 14);
  if (seen.platform) {
    seen.platform->altitude = Number(message, 15);
    seen.platform->ellipsoidHeight = Number(message, 104, 75);
  }
  seen.heading = Number(message, 5);
  seen.course = Number(message, 112);
  seen.pitch = Number(message, 90, 6);
  seen.roll = Number(message, 91, 7);
  seen.groundSpeed = Number(message, 56);
  seen.horizontalView = Number(message, 16);
  seen.verticalView = Number(message, 17);
  seen.sensorAzimuth = Number(message, 18);
  seen.sensorElevation = Number(message, 19);
  seen.sensorRoll = Number(message, 20);
  seen.slantRange = Number(message, 21);
  seen.frameCenter = Place(message, 23, 24);
  if (seen.frameCenter) {
    seen.frameCenter->altitude = Number(message, 25);
    seen.frameCenter->ellipsoidHeight = Number(message, 78);
  }
  seen.target = Place(message, 40, 41);
  if (seen.target) seen.target->altitude = Number(message, 42);
  seen.corners = Corners(message, seen.frameCenter);
  return seen;
}

}  // namespace st0601
