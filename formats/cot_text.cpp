// SPDX-License-Identifier: Apache-2.0
#include "cot_text.h"

#include <optional>
#include <string_view>
#include <vector>

#include "markup_text.h"
#include "tak_protocol.h"

namespace cot_text {
namespace {

using markup_text::Decimal;
using markup_text::XmlText;
using st0601::Observation;
using st0601::Position;

constexpr int kDegrees = 7;
constexpr int kAngle = 3;
constexpr int kMetres = 2;
constexpr char kHow[] = "m-g";  // made by a machine, from satellites
constexpr char kUnknown[] = "9999999.0";
constexpr double kUnknownNumber = 9999999;
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

struct Event {
  std::string uid;
  std::string type;
  Position position;
  std::vector<tak::DetailElement> fields;  // children of <detail> that have fields of their own in the TAK protocol
  std::string detail;                      // further ones
};

// The height above the ellipsoid, or the one above the sea if there is no other: at most 107 m apart.
std::optional<double> Height(const Position& position) {
  return position.ellipsoidHeight ? position.ellipsoidHeight : position.altitude;
}

std::string Elements(const std::vector<tak::DetailElement>& elements) {
  std::string text;
  for (const tak::DetailElement& element : elements) {
    text += "<" + element.name;
    for (const auto& [name, value] : element.attributes) text += Attribute(name.c_str(), value);
    text += "/>";
  }
  return text;
}

std::string Xml(const Event& event, const Times& times) {
  const std::string now = markup_text::TimeText(times.nowUs);
  const auto height = Height(event.position);
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><event version=\"2.0\"" + Attribute("uid", event.uid) +
         Attribute("type", event.type) + Attribute("how", kHow) + Attribute("time", now) + Attribute("start", now) +
         Attribute("stale", markup_text::TimeText(times.staleUs)) + "><point" +
         Number("lat", event.position.latitude, kDegrees) + Number("lon", event.position.longitude, kDegrees) +
         Attribute("hae", height ? Decimal(*height, kMetres) : kUnknown) + Attribute("ce", kUnknown) +
         Attribute("le", kUnknown) + "/><detail>" + Elements(event.fields) + event.detail + "</detail></event>";
}

std::string Tak(const Event& event, const Times& times) {
  tak::Event message;
  message.type = event.type;
  message.uid = event.uid;
  message.how = kHow;
  message.sendTime = message.startTime = times.nowUs / 1000;
  message.staleTime = times.staleUs / 1000;
  message.lat = event.position.latitude;
  message.lon = event.position.longitude;
  message.hae = Height(event.position).value_or(kUnknownNumber);
  message.ce = message.le = kUnknownNumber;
  message.elements = event.fields;
  message.xmlDetail = event.detail;
  const std::vector<uint8_t> datagram = tak::FormatDatagram(message);
  return {datagram.begin(), datagram.end()};
}

std::string Write(const Event& event, const Times& times, Form form) {
  return form == Form::Xml ? Xml(event, times) : Tak(event, times);
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

std::string PlatformEvent(const Observation& seen, const Names& names, const Times& times, Form form) {
  if (!seen.platform) return {};
  const std::string name = Cut(seen.platformName.empty() ? names.name : seen.platformName);
  Event event = {names.uid, names.type, *seen.platform, {{"contact", {{"callsign", name}}}}, ""};
  const auto course = seen.course ? seen.course : seen.heading;
  if (course && seen.groundSpeed) {
    event.fields.push_back(
        {"track", {{"course", Decimal(*course, kAngle)}, {"speed", Decimal(*seen.groundSpeed, kMetres)}}});
  } else if (course || seen.groundSpeed) {  // the field would have a 0 for the other one
    event.detail += "<track" + Number("course", course, kAngle) + Number("speed", seen.groundSpeed, kMetres) + "/>";
  }
  const std::string attitude =
      Number("pitch", seen.pitch, kAngle) + Number("roll", seen.roll, kAngle) + Number("yaw", seen.heading, kAngle);
  if (!attitude.empty()) event.detail += "<attitude" + attitude + "/>";
  event.detail += Sensor(seen);
  return Write(event, times, form);
}

std::string SensorPointEvent(const Observation& seen, const Names& names, const Times& times, Form form) {
  const auto& place = seen.frameCenter ? seen.frameCenter : seen.target;
  if (!place) return {};
  const std::string name = Cut(seen.platformName.empty() ? names.name : seen.platformName);
  const std::string link =
      "<link" + Attribute("uid", names.uid) + Attribute("type", names.type) + " relation=\"p-p\"/>";
  return Write(
      {names.uid + "-SPI", "b-m-p-s-p-i", *place, {{"contact", {{"callsign", name + " SPI"}}}}, link + Sensor(seen)},
      times, form);
}

}  // namespace cot_text
