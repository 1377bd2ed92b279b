// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Text       is escaped, checked and measured
//   Event      begins the datagram
//   Detail     ends it
//   Protobuf   becomes the same tree as XML
#include "cot_event.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <optional>
#include <pugixml.hpp>
#include <string_view>
#include <system_error>

#include "markup_text.h"

namespace cot {
namespace {

using Names = std::span<const std::string_view>;

// --- Text --------------------------------------------------------------------------------------------

std::string Attribute(std::string_view name, std::string_view value) {
  return " " + std::string(name) + "=\"" + markup_text::XmlText(value) + "\"";
}

std::optional<double> Number(std::string_view text) {
  const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(number)) return std::nullopt;
  return number;
}

// The shortest text that reads as the number, which the converter's fields have room for.
std::string NumberText(double number) {
  char text[40];
  const auto [end, error] = std::to_chars(text, std::end(text), number);
  return error == std::errc() ? std::string(text, end) : std::string("0");
}

// "2024-05-06T07:08:09", with or without what follows
bool IsTime(std::string_view text) {
  constexpr std::string_view kPattern = "0000-00-00T00:00:00";
  constexpr size_t kLongest = 40;
  if (text.size() < kPattern.size() || text.size() > kLongest) return false;
  for (size_t i = 0; i < kPattern.size(); ++i) {
    const bool isDigit = text[i] >= '0' && text[i] <= '9';
    if (kPattern[i] == '0' ? !isDigit : text[i] != kPattern[i]) return false;
  }
  const auto isFit = [](char c) { return (c >= '0' && c <= '9') || std::strchr(".:+-Z", c) != nullptr; };
  return std::all_of(text.begin() + kPattern.size(), text.end(), isFit);
}

bool IsType(std::string_view text) {
  const auto isFit = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_';
  };
  constexpr size_t kLongest = 64;  // of the converter's fields
  return !text.empty() && text.size() <= kLongest && std::all_of(text.begin(), text.end(), isFit);
}

bool IsAmong(std::string_view name, Names names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// --- Event -------------------------------------------------------------------------------------------

// The errors of which items 45 and 46 hold 4095 m, in the numbers of the event.
constexpr double kLargestCe = 1908.2;
constexpr double kLargestLe = 2489.5;
constexpr char kUnknownHeight[] = "9999999.0";

std::string ErrorText(std::string_view text, double largest) {
  const auto error = Number(text);
  return NumberText(error && *error >= 0 && *error <= largest ? *error : largest);
}

// Returns nothing without a position that can be read.
std::optional<std::string> PointText(const pugi::xml_node& point) {
  const auto lat = Number(point.attribute("lat").value());
  const auto lon = Number(point.attribute("lon").value());
  if (!lat || !lon || std::fabs(*lat) > 90 || std::fabs(*lon) > 180) return std::nullopt;
  const auto hae = Number(point.attribute("hae").value());
  return "<point" + Attribute("lat", NumberText(*lat)) + Attribute("lon", NumberText(*lon)) +
         Attribute("hae", hae ? NumberText(*hae) : kUnknownHeight) +
         Attribute("ce", ErrorText(point.attribute("ce").value(), kLargestCe)) +
         Attribute("le", ErrorText(point.attribute("le").value(), kLargestLe)) + "/>";
}

constexpr std::string_view kEventNames[] = {"type", "time", "start", "uid", "stale", "how", "version"};

std::string StartTag(const pugi::xml_node& event) {
  const std::string_view time = event.attribute("time").value();
  const std::string_view start = event.attribute("start").value();
  std::string text = "<event" + Attribute("type", event.attribute("type").value()) + Attribute("time", time) +
                     Attribute("start", IsTime(start) ? start : time) +
                     Attribute("uid", event.attribute("uid").value());
  for (const char* const name : {"stale", "how", "version"}) {
    if (const auto attribute = event.attribute(name)) text += Attribute(name, attribute.value());
  }
  for (const pugi::xml_attribute attribute : event.attributes()) {
    if (!IsAmong(attribute.name(), kEventNames)) text += Attribute(attribute.name(), attribute.value());
  }
  return text + ">";
}

// --- Detail ------------------------------------------------------------------------------------------

constexpr std::string_view kTrackNames[] = {"course", "speed"};
constexpr std::string_view kAttitudeNames[] = {"pitch", "roll"};
constexpr std::string_view kSensorNames[] = {"fov", "vfov", "azimuth", "elevation", "roll", "range", "model"};
struct Known {
  const char* name;
  const char* marker;  // the text that the converter looks for
  Names attributes;    // none behind one that contains its name, and texts last
};
constexpr Known kKnown[] = {
    {"track", "<track", kTrackNames}, {"attitude", "<attitude", kAttitudeNames}, {"sensor", "<sensor", kSensorNames}};

// Returns whether the converter would find one of the names that are absent in this attribute.
bool Misleads(const std::string& attribute, const pugi::xml_node& element, const Known& known) {
  return std::any_of(known.attributes.begin(), known.attributes.end(), [&](std::string_view name) {
    return !element.attribute(std::string(name).c_str()) && attribute.find(name) != std::string::npos;
  });
}

// An attribute of the converter's that is no number reads as 0 there, and is left out here. `all` adds what it does not
// read.
std::string KnownText(const pugi::xml_node& element, const Known& known, bool all) {
  std::string text = std::string("<") + known.name;
  for (const std::string_view name : known.attributes) {
    const pugi::xml_attribute attribute = element.attribute(std::string(name).c_str());
    if (!attribute) continue;
    const auto number = Number(attribute.value());
    if (name != "model" && !number) continue;
    const std::string piece = Attribute(name, number && name != "model" ? NumberText(*number) : attribute.value());
    if (!Misleads(piece, element, known)) text += piece;
  }
  for (const pugi::xml_attribute attribute : element.attributes()) {
    const std::string_view name = attribute.name();
    if (!all || IsAmong(name, known.attributes)) continue;
    const std::string piece = Attribute(name, attribute.value());
    if (!Misleads(piece, element, known)) text += piece;
  }
  return text + "/>";
}

struct StringWriter : pugi::xml_writer {
  std::string text;
  void write(const void* data, size_t size) override { text.append(static_cast<const char*>(data), size); }
};

std::string Raw(const pugi::xml_node& node) {
  StringWriter writer;
  node.print(writer, "", pugi::format_raw, pugi::encoding_utf8);
  return writer.text;
}

const Known* FindKnown(const pugi::xml_node& node) {
  const auto found = std::find_if(std::begin(kKnown), std::end(kKnown),
                                  [&](const Known& known) { return std::strcmp(known.name, node.name()) == 0; });
  return found == std::end(kKnown) ? nullptr : found;
}

constexpr char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
constexpr char kEnd[] = "</detail></event>";

// Puts the datagram together, with as much of the other elements as fits.
void Assemble(const std::string& begin, const pugi::xml_node& detail, Prepared& prepared) {
  std::string known;
  std::string shortest;
  std::string absent[std::size(kKnown)];
  for (size_t i = 0; i < std::size(kKnown); ++i) {
    if (const pugi::xml_node element = detail.child(kKnown[i].name)) {
      known += KnownText(element, kKnown[i], true);
      shortest += KnownText(element, kKnown[i], false);
    } else {
      absent[i] = kKnown[i].marker;
    }
  }
  const size_t fixed = std::strlen(kDeclaration) + begin.size() + std::strlen("<detail>") + std::strlen(kEnd);
  if (fixed + known.size() > kLargestDatagram) known = shortest;
  if (fixed + known.size() > kLargestDatagram) {
    prepared.verdict = Verdict::TooLong;
    return;
  }
  std::string text = kDeclaration + begin + "<detail>" + known;
  for (const pugi::xml_node child : detail.children()) {
    const Known* const element = FindKnown(child);
    if (element != nullptr && child == detail.child(element->name)) continue;
    const std::string piece = Raw(child);
    const bool misleads = std::any_of(std::begin(absent), std::end(absent), [&](const std::string& marker) {
      return !marker.empty() && piece.find(marker) != std::string::npos;
    });
    if (misleads || text.size() + piece.size() + std::strlen(kEnd) > kLargestDatagram) {
      ++prepared.leftOut;
    } else {
      text += piece;
    }
  }
  prepared.verdict = Verdict::Ready;
  prepared.datagram = text + kEnd;
}

Prepared PrepareTree(const pugi::xml_node& event) {
  Prepared prepared;
  const std::string_view type = event.attribute("type").value();
  prepared.uid = event.attribute("uid").value();
  if (!IsType(type)) return prepared;
  prepared.isAircraft = type.starts_with("a-f-A");
  if (!prepared.isAircraft && !type.starts_with("b-m-p-s-p-i")) {
    prepared.verdict = Verdict::OtherKind;
    return prepared;
  }
  const auto point = PointText(event.child("point"));
  if (!point || !IsTime(event.attribute("time").value())) return prepared;
  if (prepared.uid.empty() || markup_text::XmlText(prepared.uid).size() > kLongestUid) return prepared;
  Assemble(StartTag(event) + *point, event.child("detail"), prepared);
  return prepared;
}

// --- Protobuf ----------------------------------------------------------------------------------------

// A time of zero is one that the message does not have.
void SetTime(pugi::xml_node& event, const char* name, uint64_t milliseconds) {
  constexpr uint64_t kEndOf9999 = 253402300800;
  if (milliseconds == 0 || milliseconds / 1000 >= kEndOf9999) return;
  const auto seconds = static_cast<time_t>(milliseconds / 1000);
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[64];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
                parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(milliseconds % 1000));
  event.append_attribute(name) = text;
}

void SetNumber(pugi::xml_node& node, const char* name, double number) {
  if (std::isfinite(number)) node.append_attribute(name) = NumberText(number).c_str();
}

void SetText(pugi::xml_node& node, const char* name, const std::string& text) {
  if (!text.empty()) node.append_attribute(name) = text.c_str();
}

// An element that the XML part has, too, stands there whole.
void AddElements(const tak::Event& event, pugi::xml_node& detail) {
  for (const tak::DetailElement& element : event.elements) {
    if (detail.child(element.name.c_str())) continue;
    pugi::xml_node child = detail.append_child(element.name.c_str());
    for (const auto& [name, value] : element.attributes) child.append_attribute(name.c_str()) = value.c_str();
  }
}

}  // namespace

Prepared Prepare(std::span<const uint8_t> xml) {
  pugi::xml_document document;
  if (!document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8)) return {};
  const pugi::xml_node event = document.document_element();
  return std::strcmp(event.name(), "event") == 0 ? PrepareTree(event) : Prepared{};
}

Prepared Prepare(const tak::Event& from) {
  pugi::xml_document document;
  pugi::xml_node event = document.append_child("event");
  event.append_attribute("version") = "2.0";
  SetText(event, "type", from.type);
  SetText(event, "uid", from.uid);
  SetText(event, "how", from.how);
  SetText(event, "access", from.access);
  SetText(event, "qos", from.qos);
  SetText(event, "opex", from.opex);
  SetTime(event, "time", from.sendTime);
  SetTime(event, "start", from.startTime);
  SetTime(event, "stale", from.staleTime);
  pugi::xml_node point = event.append_child("point");
  SetNumber(point, "lat", from.lat);
  SetNumber(point, "lon", from.lon);
  SetNumber(point, "hae", from.hae);
  SetNumber(point, "ce", from.ce);
  SetNumber(point, "le", from.le);
  pugi::xml_node detail = event.append_child("detail");
  if (!from.xmlDetail.empty() &&
      !detail.append_buffer(from.xmlDetail.data(), from.xmlDetail.size(), pugi::parse_default | pugi::parse_fragment,
                            pugi::encoding_utf8)) {
    return {};
  }
  AddElements(from, detail);
  return PrepareTree(event);
}

}  // namespace cot
