// SPDX-License-Identifier: Apache-2.0
// Stands for the conversion of a pair of Cursor-on-Target events: a general parser (pugixml) reads both and gives the fields
// from which the packet is made, numbers as numbers, times and names as texts. No packet is made.
#include "events.h"

#include <cstring>
#include <initializer_list>
#include <pugixml.hpp>

namespace {

void AddText(FloorFields& fields, pugi::xml_node node, const char* name) {
  fields.textBytes += std::strlen(node.attribute(name).as_string());
}

void AddNumbers(FloorFields& fields, pugi::xml_node node, std::initializer_list<const char*> names) {
  for (const char* name : names) fields.numbers += node.attribute(name).as_double();
}

pugi::xml_node Find(pugi::xml_node event, const char* name) {
  return event.find_node([name](pugi::xml_node node) { return std::strcmp(node.name(), name) == 0; });
}

}  // namespace

FloorFields FloorEvents(std::string_view aircraft, std::string_view sensorPoint) {
  FloorFields fields;
  pugi::xml_document document;
  document.load_buffer(aircraft.data(), aircraft.size());
  pugi::xml_node event = document.child("event");
  for (const char* name : {"type", "time", "start", "uid"}) AddText(fields, event, name);
  AddNumbers(fields, event.child("point"), {"lat", "hae", "lon"});
  AddNumbers(fields, event.child("detail").child("track"), {"course", "speed"});
  AddNumbers(fields, Find(event.child("detail"), "attitude"), {"pitch", "roll"});
  document.load_buffer(sensorPoint.data(), sensorPoint.size());
  event = document.child("event");
  for (const char* name : {"type", "time", "uid"}) AddText(fields, event, name);
  AddNumbers(fields, event.child("point"), {"lat", "hae", "lon", "le", "ce"});
  const pugi::xml_node sensor = event.child("detail").child("sensor");
  AddText(fields, sensor, "model");
  AddNumbers(fields, sensor, {"fov", "vfov", "azimuth", "elevation", "roll", "range"});
  return fields;
}
