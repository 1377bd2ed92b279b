// SPDX-License-Identifier: Apache-2.0
// Random Cursor-on-Target events for comparisons of two forms: ordinary ones, and damaged ones of the kind that a hostile
// sender makes.
#ifndef RANDOM_EVENTS_H
#define RANDOM_EVENTS_H

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <random>
#include <string>

class RandomEvents {
 public:
  explicit RandomEvents(uint64_t seed) : m_random(seed) {}

  // Returns an aircraft or sensor-point event whose attributes are in any order, sometimes missing, twice, of other names
  // that contain theirs, or with values out of range or of other forms.
  std::string Ordinary() {
    const bool aircraft = Draw(2) == 0;
    std::string event = Draw(2) == 0 ? "<?xml version=\"1.0\"?>" : "";
    event += "<event" + Attributes({"version", "uid", "type", "time", "start", "stale", "how"}, aircraft) + ">";
    event += "<point" + Attributes({"lat", "lon", "hae", "ce", "le"}, aircraft) + "/><detail>";
    if (Draw(3) == 0) event += "<contact callsign=\"a <track b\"/>";
    if (Draw(8) != 0) event += "<track" + Attributes({"course", "speed", "slope"}, aircraft) + "/>";
    if (Draw(8) != 0) event += "<attitude" + Attributes({"roll", "pitch", "yaw"}, aircraft) + "/>";
    if (Draw(8) != 0)
      event += "<sensor" +
               Attributes({"fov", "vfov", "model", "type", "azimuth", "elevation", "roll", "range"}, aircraft) + "/>";
    return event + "</detail></event>";
  }

  // Returns an ordinary event, or one that is cut anywhere or in which characters and markers are changed, added or
  // missing. Ten events in a row are made of the same ordinary one.
  std::string Any() {
    if (m_calls++ % 10 == 0) m_ordinary = Ordinary();
    std::string event = m_ordinary;
    for (unsigned changes = Draw(4); changes > 0; --changes) Damage(&event);
    return event;
  }

 private:
  unsigned Draw(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

  void Damage(std::string* event) {
    static const std::string kPieces[] = {"\"",     "<",    ">",  "/>", "<event", "</event>",           "<point",
                                          "lat=\"", "time", "'",  "=",  " ",      std::string(1, '\0'), "\xFF",
                                          "-",      ".",    "e9", "2"};
    const size_t position = Draw(static_cast<unsigned>(event->size()) + 1);
    const std::string& piece = kPieces[Draw(static_cast<unsigned>(std::size(kPieces)))];
    switch (Draw(6)) {
      case 0:
        event->resize(position);
        break;
      case 1:
        event->erase(position, 1 + Draw(20));
        break;
      case 2:
        event->insert(position, *event, Draw(static_cast<unsigned>(event->size()) + 1), Draw(60));
        break;
      case 3:
        event->insert(position, piece);
        break;
      default:
        event->replace(position, piece.size(), piece);
        break;
    }
  }

  std::string Digits(unsigned most) {
    std::string digits;
    for (unsigned i = Draw(most + 1); i > 0; --i) digits += static_cast<char>('0' + Draw(10));
    return digits;
  }

  std::string Number() {
    static const char* const kOdd[] = {"",      "-",   "1e1",   " 5", "nan", "-inf",
                                       "0x1p3", "2,5", "4.5 m", "90", "180", "360"};
    if (Draw(10) == 0) return kOdd[Draw(static_cast<unsigned>(std::size(kOdd)))];
    std::string number = Draw(3) == 0 ? "-" : "";
    number += Digits(Draw(8) == 0 ? 18 : 3);
    return Draw(5) == 0 ? number : number + "." + Digits(9);
  }

  std::string Time() {
    static const char* const kEnds[] = {"Z", ".5Z", ".25Z", ".125Z", "", ".", "+01:00", "Z.5"};
    if (Draw(20) == 0) return Number();
    std::string time = "2024-05-0" + std::to_string(Draw(10)) + "T1" + std::to_string(Draw(10)) + ":0" +
                       std::to_string(Draw(3)) + ":" + std::to_string(10 + Draw(53));
    return time + kEnds[Draw(static_cast<unsigned>(std::size(kEnds)))];
  }

  std::string Value(const std::string& name, bool aircraft) {
    if (Draw(40) == 0) return std::string(60 + Draw(8), 'v');
    if (name == "type" && Draw(10) != 0) return aircraft ? "a-f-A-M-F-Q" : "b-m-p-s-p-i";
    if (name == "type" || name == "how" || name == "model") return Draw(5) == 0 ? "the roll time" : "EO" + Digits(3);
    if (name == "uid") return "SENSOR-" + std::to_string(Draw(40));
    if (name == "time" || name == "start" || name == "stale") return Time();
    return Number();
  }

  std::string Attributes(std::initializer_list<const char*> names, bool aircraft) {
    std::string text;
    for (const char* given : names) {
      const std::string name = given;
      if (Draw(20) == 0) continue;
      const std::string written = (Draw(30) == 0 ? "x" : "") + name + (Draw(30) == 0 ? " = " : "=");
      const std::string attribute = " " + written + "\"" + Value(name, aircraft) + "\"";
      text.insert(Draw(3) == 0 ? 0 : text.size(), attribute);
      if (Draw(30) == 0) text += attribute;
    }
    return text;
  }

  std::mt19937_64 m_random;
  std::string m_ordinary;
  unsigned m_calls = 0;
};

#endif  // RANDOM_EVENTS_H
