// SPDX-License-Identifier: Apache-2.0
#include "cot_text.h"

#include <optional>
#include <string_view>

#include "markup_text.h"

namespace cot_text {
namespace {

using markup_text::Decimal;
using markup_text::XmlText;
using st0601::Observation;
using st0601::Position;

constexpr int kDegrees = 7;
constexpr int kAngle = 3;
constexpr int kMetres = 2;
constexpr char kUnknown[] = "9999999.0";
constexpr size_t kLongestName = 60;  // bytes: with its escapes an event fits into a datagram

// Cuts behind a whole character.
std::string Cut(std::string text) {
  if (text.size() <= kLongestName) return text;
  size_t end = kLongestName;
  while (end > 0 && (static_cast<uint8_t>(text[end]) & 0xC0) == 0x80) --end;
  text.resize(end);
  return text;
}

std::string Attribute(const char* name, std::string_view value) {
  std::string text = " ";
  return text.append(name).append("=\"").append(XmlText(value)).append("\"");
}

std::string Number(const char* name, const std::optional<double>& value, int digits) {
  return value ? Attribute(name, Decimal(*value, digits)) : "";
}

std::string Begin(const std::string& uid, const std::string& type, const Times& times) {
  const std::string now = markup_text::TimeText(times.nowUs);
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><event version=\"2.0\"" + Attribute("uid", uid) +
         Attribute("type", type) + " how=\"m-g\"" + Attribute("time", now) + Attribute("start", now) +
         Attribute("stale", markup_text::TimeText(times.staleUs)) + ">";
}

// The height above the ellipsoid, or the one above the sea if there is no other: at most 107 m apart.
std::string Point(const Position& position) {
  const auto height = position.ellipsoidHeight ? position.ellipsoidHeight : position.altitude;
  return "<point" + Number("lat", position.latitude, kDegrees) + Number("lon", position.longitude, kDegrees) +
         Attribute("hae", height ? Decimal(*height, kMetres) : kUnknown) + Attribute("ce", kUnknown) +
         Attribute("le", kUnknown) + "/>";
}

// The view, from which map clients draw a wedge.
std::string Sensor(const Observation& seen) {
  const std::string view = Number("azimuth", seen.TrueAzimuth(), kAngle) +
                           Number("elevation", seen.TrueElevation(), kAngle) + Number("roll", seen.sensorRoll, kAngle) +
                           Number("fov", seen.horizontalView, kAngle) + Number("vfov", seen.verticalView, kAngle) +
                           Number("range", seen.slantRange, kMetres);
  if (view.empty()) return {};
  return "<sensor" + view + Attribute("model", Cut(seen.sensorName)) + " type=\"r-e\" north=\"0\"/>";
}

}  // namespace

std::string PlatformEvent(const Observation& seen, const Names& names, const Times& times) {
  if (!seen.platform) return {};
  const std::string name = Cut(seen.platformName.empty() ? names.name : seen.platformName);
  std::string event = Begin(names.uid, names.type, times) + Point(*seen.platform) + "<detail><contact" +
                      Attribute("callsign", name) + "/>";
  const std::string track =
      Number("course", seen.course ? seen.course : seen.heading, kAngle) + Number("speed", seen.groundSpeed, kMetres);
  if (!track.empty()) event += "<track" + track + "/>";
  const std::string attitude =
      Number("pitch", seen.pitch, kAngle) + Number("roll", seen.roll, kAngle) + Number("yaw", seen.heading, kAngle);
  if (!attitude.empty()) event += "<attitude" + attitude + "/>";
  return event + Sensor(seen) + "</detail></event>";
}

std::string SensorPointEvent(const Observation& seen, const Names& names, const Times& times) {
  const auto& place = seen.frameCenter ? seen.frameCenter : seen.target;
  if (!place) return {};
  const std::string name = Cut(seen.platformName.empty() ? names.name : seen.platformName);
  return Begin(names.uid + "-SPI", "b-m-p-s-p-i", times) + Point(*place) + "<detail><contact" +
         Attribute("callsign", name + " SPI") + "/><link" + Attribute("uid", names.uid) +
         Attribute("type", names.type) + " relation=\"p-p\"/>" + Sensor(seen) + "</detail></event>";
}

}  // namespace cot_text
