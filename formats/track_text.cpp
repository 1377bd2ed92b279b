// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Places     cut at the antimeridian
//   Members    of optional values
//   GeoJSON    features
//   KML        placemarks
//   GPX        points of one track
//   Writer     puts them together
#include "track_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <vector>

#include "markup_text.h"

namespace track_text {
namespace {

using markup_text::Decimal;
using markup_text::JsonText;
using markup_text::TimeText;
using markup_text::XmlText;
using st0601::Observation;
using st0601::Position;

// --- Places --------------------------------------------------------------------------------------------

bool LeadsOverAntimeridian(const Position& from, const Position& to) {
  return std::fabs(to.longitude - from.longitude) > 180;
}

std::optional<double> Between(const std::optional<double>& from, const std::optional<double>& to, double part) {
  return from && to ? std::optional(*from + part * (*to - *from)) : std::nullopt;
}

// Returns the place on the way, but for its longitude.
Position Between(const Position& from, const Position& to, double part) {
  Position place;
  place.latitude = from.latitude + part * (to.latitude - from.latitude);
  place.altitude = Between(from.altitude, to.altitude, part);
  place.ellipsoidHeight = Between(from.ellipsoidHeight, to.ellipsoidHeight, part);
  return place;
}

using Ring = std::vector<Position>;  // corners of an area, each once

// Returns the corners without jumps of 360 degrees between neighbours; nothing for an area around a pole.
Ring Unrolled(Ring corners) {
  for (size_t i = 1; i < corners.size(); ++i) {
    const double from = corners[i - 1].longitude;
    corners[i].longitude = from + std::remainder(corners[i].longitude - from, 360);
  }
  return LeadsOverAntimeridian(corners.back(), corners.front()) ? Ring() : corners;
}

// Returns the part of the area on one side of a meridian: west of it if side is -1, east of it if it is 1.
Ring Side(const Ring& corners, double meridian, int side) {
  Ring part;
  const auto isInside = [&](const Position& corner) { return (corner.longitude - meridian) * side >= 0; };
  for (size_t i = 0; i < corners.size(); ++i) {
    const Position& from = corners[i];
    const Position& to = corners[(i + 1) % corners.size()];
    if (isInside(from)) part.push_back(from);
    if (isInside(from) == isInside(to)) continue;
    part.push_back(Between(from, to, (meridian - from.longitude) / (to.longitude - from.longitude)));
    part.back().longitude = meridian;
  }
  return part;
}

// Returns the area, in two parts if it lies on both sides of the antimeridian, and none if it lies around a pole.
std::vector<Ring> Parts(const Ring& corners) {
  if (corners.empty()) return {};
  const Ring whole = Unrolled(corners);
  if (whole.empty()) return {};
  const auto isOutside = [](const Position& corner) { return std::fabs(corner.longitude) > 180; };
  const auto outside = std::find_if(whole.begin(), whole.end(), isOutside);
  if (outside == whole.end()) return {corners};
  const double edge = outside->longitude < 0 ? -180 : 180;
  std::vector<Ring> parts = {Side(whole, edge, edge < 0 ? 1 : -1), Side(whole, edge, edge < 0 ? -1 : 1)};
  for (Position& corner : parts[1]) corner.longitude -= 2 * edge;
  return parts;
}

// --- Members -------------------------------------------------------------------------------------------

// The value of an optional number as a member ',"name":1.5', or as nothing.
std::string Member(const char* name, const std::optional<double>& value, int digits) {
  return value ? std::string(",\"") + name + "\":" + Decimal(*value, digits) : "";
}
std::string Member(const char* name, const std::string& text) {
  return text.empty() ? "" : std::string(",\"") + name + "\":" + JsonText(text);
}

constexpr int kDegrees = 7;  // digits: a centimetre
constexpr int kMetres = 1;
constexpr int kAngle = 3;

// --- GeoJSON -----------------------------------------------------------------------------------------

// RFC 7946 has heights above the ellipsoid; those above the sea are properties.
std::string JsonPoint(const Position& position) {
  std::string text = "[" + Decimal(position.longitude, kDegrees) + "," + Decimal(position.latitude, kDegrees);
  if (position.ellipsoidHeight) text += "," + Decimal(*position.ellipsoidHeight, kMetres);
  return text + "]";
}

std::string JsonRing(const Ring& corners) {
  std::string text = "[[";
  for (const Position& corner : corners) text += JsonPoint(corner) + ",";
  return text + JsonPoint(corners.front()) + "]]";
}

std::string JsonArea(const std::vector<Ring>& parts) {
  if (parts.size() == 1) return "\"type\":\"Polygon\",\"coordinates\":" + JsonRing(parts[0]);
  return "\"type\":\"MultiPolygon\",\"coordinates\":[" + JsonRing(parts[0]) + "," + JsonRing(parts[1]) + "]";
}

// --- KML ---------------------------------------------------------------------------------------------

std::string KmlPoint(const Position& position) {
  return Decimal(position.longitude, kDegrees) + "," + Decimal(position.latitude, kDegrees) + "," +
         Decimal(position.altitude.value_or(0), kMetres);
}

std::string KmlPointElement(const Position& position) {
  const char* const mode = position.altitude ? "absolute" : "clampToGround";
  return std::string("<Point><altitudeMode>") + mode + "</altitudeMode><coordinates>" + KmlPoint(position) +
         "</coordinates></Point>";
}

std::string KmlArea(const std::vector<Ring>& parts) {
  std::string text;
  for (const Ring& part : parts) {
    text += "<Polygon><outerBoundaryIs><LinearRing><coordinates>";
    for (const Position& corner : part) text += KmlPoint(corner) + " ";
    text += KmlPoint(part.front()) + "</coordinates></LinearRing></outerBoundaryIs></Polygon>";
  }
  return parts.size() == 1 ? text : "<MultiGeometry>" + text + "</MultiGeometry>";
}

constexpr char kKmlStyles[] =
    "<Style id=\"platform\"><IconStyle><scale>0.5</scale></IconStyle><LabelStyle><scale>0</scale></LabelStyle></Style>\n"
    "<Style id=\"path\"><LineStyle><color>ff00a5ff</color><width>2</width></LineStyle></Style>\n"
    "<Style id=\"footprint\"><LineStyle><color>ffff0000</color></LineStyle><PolyStyle><color>20ff0000</color></PolyStyle>"
    "</Style>\n"
    "<Style id=\"frame_center\"><IconStyle><scale>0.3</scale></IconStyle></Style>\n"
    "<Style id=\"target\"><IconStyle><color>ff0000ff</color></IconStyle></Style>\n";

std::string KmlData(const char* name, const std::optional<double>& value, int digits) {
  if (!value) return {};
  return std::string("<Data name=\"") + name + "\"><value>" + Decimal(*value, digits) + "</value></Data>";
}

// --- GPX ---------------------------------------------------------------------------------------------

std::string GpxPlace(const char* element, const Position& position) {
  std::string text = std::string("<") + element + " lat=\"" + Decimal(position.latitude, kDegrees) + "\" lon=\"" +
                     Decimal(position.longitude, kDegrees) + "\"";
  if (position.altitude) text += " ele=\"" + Decimal(*position.altitude, kMetres) + "\"";
  return text + "/>";
}

std::string GpxNumber(const char* element, const std::optional<double>& value, int digits) {
  if (!value) return {};
  return std::string("<") + element + ">" + Decimal(*value, digits) + "</" + element + ">";
}

}  // namespace

// --- Writer ------------------------------------------------------------------------------------------

std::optional<Format> FormatOf(std::string_view path) {
  for (const Format format : {Format::GeoJson, Format::Kml, Format::Gpx}) {
    if (path.ends_with(Suffix(format))) return format;
  }
  return std::nullopt;
}

const char* Suffix(Format format) {
  constexpr std::array<const char*, 3> kSuffixes = {".geojson", ".kml", ".gpx"};
  return kSuffixes.at(static_cast<size_t>(format));
}

std::string Writer::Begin() const {
  const std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  switch (m_format) {
    case Format::GeoJson:
      return "{\"type\":\"FeatureCollection\",\"features\":[\n";
    case Format::Kml:
      return xml + "<kml xmlns=\"http://www.opengis.net/kml/2.2\">\n<Document><name>" + XmlText(m_name) + "</name>\n" +
             kKmlStyles;
    default:
      return xml +
             "<gpx version=\"1.1\" creator=\"mdencoder\" xmlns=\"http://www.topografix.com/GPX/1/1\" "
             "xmlns:md=\"urn:metadata-lib:track\">\n<trk><name>" +
             XmlText(m_name) + "</name><trkseg>\n";
  }
}

std::string Writer::End() const {
  switch (m_format) {
    case Format::GeoJson:
      return "]}\n";
    case Format::Kml:
      return "</Document>\n</kml>\n";
    default:
      return "</trkseg></trk>\n</gpx>\n";
  }
}

bool Writer::Add(const Observation& seen, uint64_t arrivalUs) {
  if (!seen.platform) return false;
  const std::string time = TimeText(seen.timeUs.value_or(arrivalUs));
  switch (m_format) {
    case Format::GeoJson:
      AddGeoJson(seen, time);
      break;
    case Format::Kml:
      AddKml(seen, time);
      break;
    default:
      AddGpx(seen, time);
  }
  return true;
}

void Writer::AddFeature(const std::string& geometry, const std::string& kind, const std::string& more) {
  m_chunk += m_hasFeature ? ",\n" : "";
  m_hasFeature = true;
  m_chunk += "{\"type\":\"Feature\",\"geometry\":{" + geometry + "},\"properties\":{\"source\":" + JsonText(m_name) +
             ",\"kind\":\"" + kind + "\"" + more + "}}";
}

void Writer::AddGeoJson(const Observation& seen, const std::string& time) {
  const std::string when = Member("time", time);
  const auto add = [&](const char* kind, const std::optional<Position>& place, const std::string& more) {
    if (!place) return;
    AddFeature("\"type\":\"Point\",\"coordinates\":" + JsonPoint(*place), kind,
               when + Member("altitude", place->altitude, kMetres) + more);
  };
  add("platform", seen.platform,
      Member("name", seen.platformName) + Member("mission", seen.missionId) + Member("sensor", seen.sensorName) +
          Member("heading", seen.heading, kAngle) + Member("pitch", seen.pitch, kAngle) +
          Member("roll", seen.roll, kAngle) + Member("sensor_azimuth", seen.TrueAzimuth(), kAngle) +
          Member("sensor_elevation", seen.TrueElevation(), kAngle) + Member("hfov", seen.horizontalView, kAngle) +
          Member("vfov", seen.verticalView, kAngle) + Member("slant_range", seen.slantRange, kMetres));
  add("frame_center", seen.frameCenter, "");
  add("target", seen.target, "");
  const std::vector<Ring> footprint = Parts(seen.corners);
  if (!footprint.empty()) AddFeature(JsonArea(footprint), "footprint", when);
  AddToPath(*seen.platform);
}

void Writer::AddPlacemark(const char* style, const std::string& title, const std::string& time,
                          const std::string& body) {
  m_chunk += "<Placemark><name>" + XmlText(title) + "</name>";
  if (!time.empty()) m_chunk += "<TimeStamp><when>" + time + "</when></TimeStamp>";
  m_chunk += std::string("<styleUrl>#") + style + "</styleUrl>" + body + "</Placemark>\n";
}

void Writer::AddKml(const Observation& seen, const std::string& time) {
  const std::string data = KmlData("heading", seen.heading, kAngle) + KmlData("pitch", seen.pitch, kAngle) +
                           KmlData("roll", seen.roll, kAngle) + KmlData("sensor_azimuth", seen.TrueAzimuth(), kAngle) +
                           KmlData("sensor_elevation", seen.TrueElevation(), kAngle) +
                           KmlData("slant_range", seen.slantRange, kMetres);
  const std::string extended = data.empty() ? "" : "<ExtendedData>" + data + "</ExtendedData>";
  AddPlacemark("platform", seen.platformName.empty() ? m_name : seen.platformName, time,
               extended + KmlPointElement(*seen.platform));
  if (seen.frameCenter) AddPlacemark("frame_center", "", time, KmlPointElement(*seen.frameCenter));
  if (seen.target) AddPlacemark("target", "target", time, KmlPointElement(*seen.target));
  const std::vector<Ring> footprint = Parts(seen.corners);
  if (!footprint.empty()) AddPlacemark("footprint", "footprint", time, KmlArea(footprint));
  AddToPath(*seen.platform);
}

// A point of GPX has a place of its own only; the others are in its extensions.
void Writer::AddGpx(const Observation& seen, const std::string& time) {
  Position platform = *seen.platform;
  if (m_last && LeadsOverAntimeridian(*m_last, platform)) m_chunk += "</trkseg>\n<trkseg>\n";
  m_last = platform;
  if (platform.longitude == 180) platform.longitude = -180;  // which GPX has in its place
  m_chunk += "<trkpt lat=\"" + Decimal(platform.latitude, kDegrees) + "\" lon=\"" +
             Decimal(platform.longitude, kDegrees) + "\">" + GpxNumber("ele", platform.altitude, kMetres) + "<time>" +
             time + "</time>";
  std::string more = GpxNumber("md:heading", seen.heading, kAngle);
  if (seen.frameCenter) more += GpxPlace("md:frame_center", *seen.frameCenter);
  if (seen.target) more += GpxPlace("md:target", *seen.target);
  for (const Position& corner : seen.corners) more += GpxPlace("md:corner", corner);
  if (!more.empty()) m_chunk += "<extensions>" + more + "</extensions>";
  m_chunk += "</trkpt>\n";
}

std::string Writer::PathPoint(const Position& position) const {
  return m_format == Format::GeoJson ? JsonPoint(position) : KmlPoint(position);
}

void Writer::AddPathPoint(const Position& position) {
  if (m_pathPoints != 0) m_path += m_format == Format::GeoJson ? "," : " ";
  m_path += PathPoint(position);
  ++m_pathPoints;
  m_last = position;
}

void Writer::AddToPath(const Position& position) {
  if (m_last && LeadsOverAntimeridian(*m_last, position)) CutPath(position);
  AddPathPoint(position);
}

// Ends the line at the antimeridian, and begins the next one on its other side. A line that led over it would go around
// the world.
void Writer::CutPath(const Position& position) {
  const Position last = *m_last;
  const double edge = last.longitude < 0 ? -180 : 180;
  const double part = (edge - last.longitude) / (position.longitude + 2 * edge - last.longitude);
  Position cut = Between(last, position, part);
  cut.longitude = edge;
  if (last.longitude != edge) AddPathPoint(cut);
  EndPath();
  m_path.clear();
  m_pathPoints = 0;
  cut.longitude = -edge;
  if (position.longitude != -edge) AddPathPoint(cut);
}

// Adds the line, and begins the next one with its last point.
void Writer::EndPath() {
  if (m_pathPoints < 2) return;
  if (m_format == Format::GeoJson) {
    AddFeature("\"type\":\"LineString\",\"coordinates\":[" + m_path + "]", "path", "");
  } else {
    AddPlacemark(
        "path", "path", "",
        "<LineString><altitudeMode>absolute</altitudeMode><coordinates>" + m_path + "</coordinates></LineString>");
  }
  m_path = PathPoint(*m_last);
  m_pathPoints = 1;
}

std::string Writer::TakeChunk() {
  EndPath();
  std::string chunk;
  chunk.swap(m_chunk);
  return chunk;
}

}  // namespace track_text
