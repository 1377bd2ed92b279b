// SPDX-License-Identifier: Apache-2.0
// Conversion of pairs of Cursor-on-Target events, and the grid that it looks heights up in.
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "converter.h"
#include "floors/events.h"
#include "floors/floors.h"
#include "geoid_grid.h"
#include "traffic.h"
#include "workload.h"

namespace bench {
namespace {

volatile double g_sum = 0;

constexpr int kPairDeltaUs = 100'000;  // half the distance of two pairs

void SetZone(const char* zone) {
  if (zone != nullptr) {
    setenv("TZ", zone, 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

// The packet, if the event completes one.
MDATA_BUFFER* Convert(HCONVERTER converter, const std::string& event) {
  MDATA_BUFFER* packet = nullptr;
  ConvertCoT2KLV(converter, reinterpret_cast<const BYTE*>(event.data()), static_cast<int>(event.size()), &packet);
  return packet;
}

void ConvertPair(HCONVERTER converter, const EventPair& pair) {
  Require(Convert(converter, pair.sensorPoint) == nullptr, "an event made a packet alone");
  MDATA_BUFFER* packet = Convert(converter, pair.aircraft);
  Require(packet != nullptr, "no packet was made");
  ReleaseConvertedData(packet);
}

Work ConvertOurs(const std::vector<EventPair>& pairs, const char* zone) {
  SetZone(zone);
  UseLibrary(kDefaultLogLevel);
  std::shared_ptr<HCONVERTER> converter(new HCONVERTER(nullptr), [](HCONVERTER* made) {
    FreeCoT2KLVConvert(made);
    delete made;
  });
  Require(AllocCoT2KLVConvert(converter.get(), kPairDeltaUs, "", TRUE), "no converter");
  return {[=, &pairs] {
            for (const EventPair& pair : pairs) ConvertPair(*converter, pair);
          },
          static_cast<double>(pairs.size()), 2};
}

Work ConvertFloor(const std::vector<EventPair>& pairs, const char* zone) {
  SetZone(zone);
  UseLibrary(kDefaultLogLevel);
  return {[&pairs] {
            double sum = 0;
            for (const EventPair& pair : pairs) {
              const FloorFields fields = FloorEvents(pair.aircraft, pair.sensorPoint);
              sum += fields.numbers + static_cast<double>(fields.textBytes);
            }
            g_sum = sum;
          },
          static_cast<double>(pairs.size()), 2};
}

bool AddConvert(const std::string& name, std::size_t eventSize, const char* zone) {
  Add(name + "/ours", [=] { return ConvertOurs(EventPairs(eventSize), zone); });
  return Add(name + "/floor", [=] { return ConvertFloor(EventPairs(eventSize), zone); });
}

// --- Hostile events ------------------------------------------------------------------------------------

constexpr std::size_t kLargestEvent = 44'000;  // what a frame of the serial link can hold
constexpr int kLevelOfErrors = 2;              // a field that is missing is logged at 3

std::size_t Size(const std::vector<EventPair>& pairs) {
  std::size_t size = 0;
  for (const EventPair& pair : pairs) size += pair.aircraft.size() + pair.sensorPoint.size();
  return size;
}

// A sensor point event whose tags are as long as can be and lack what is looked for.
std::string LongTags(const std::string& filler) {
  std::string event = EventPairs(0)[0].sensorPoint;
  event.resize(event.find(" <point"));
  const std::size_t most = kLargestEvent - event.size();
  for (const char* tag : {"point", "sensor"}) {
    event += std::string("<") + tag + ' ';
    for (const std::size_t end = event.size() + most / 2 - 20; event.size() < end;) event += filler;
    event += "/>";
  }
  return event + "</event>";
}

Work ConvertHostile(const std::string& filler) {
  SetZone("UTC");
  UseLibrary(kLevelOfErrors);
  const std::string event = LongTags(filler);
  return {[event] {
            HCONVERTER converter = nullptr;
            Require(AllocCoT2KLVConvert(&converter, kPairDeltaUs, "", TRUE), "no converter");
            Require(Convert(converter, event) == nullptr, "an event made a packet alone");
            FreeCoT2KLVConvert(&converter);
          },
          static_cast<double>(event.size())};
}

Work ConvertOrdinary() {
  Work work = ConvertOurs(EventPairs(0), "UTC");
  UseLibrary(kLevelOfErrors);
  work.units = static_cast<double>(Size(EventPairs(0)));
  return work;
}

bool AddHostileEvent(const std::string& name, const std::string& filler) {
  Add(name + "/hostile", [=] { return ConvertHostile(filler); });
  return Add(name + "/ordinary", ConvertOrdinary);
}

// --- The grid ----------------------------------------------------------------------------------------

// The grid as it is installed, made from PROJ's data for the run. It has no name in the file system, so nothing is left
// however the process ends.
class GridFile {
 public:
  explicit GridFile(const std::string& text) : m_descriptor(memfd_create("geoid grid", MFD_CLOEXEC)) {
    Require(write(m_descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "no memory for a grid");
    snprintf(m_path, sizeof m_path, "/proc/self/fd/%d", m_descriptor);
  }
  ~GridFile() { close(m_descriptor); }
  GridFile(const GridFile&) = delete;
  GridFile& operator=(const GridFile&) = delete;
  const char* Path() const { return m_path; }

 private:
  int m_descriptor;
  char m_path[32];
};

const geoid::Grid& Grid() {
  static const geoid::Grid kGrid = geoid::ParseGrid(geoid::ReadWholeFile("/usr/share/proj/egm96_15.gtx"));
  return kGrid;
}

const GridFile& PlainFile() {
  static const GridFile kFile(geoid::FormatGrid(Grid()));
  return kFile;
}

// The same numbers with an exponent, in which no short way of reading applies.
const GridFile& ExponentFile() {
  static const GridFile kFile([] {
    std::string text;
    char number[32];
    for (const float value : Grid().values) {
      snprintf(number, sizeof number, "%.8e\n", static_cast<double>(value));
      text += number;
    }
    return text;
  }());
  return kFile;
}

const char* g_gridPath = nullptr;  // the file that stands for the installed one

Work LoadOurs(const GridFile& (*file)()) {
  UseLibrary(kDefaultLogLevel);
  const char* path = file().Path();
  return {[path] {
            g_gridPath = path;
            Require(init_ww15mgh_grd() == 0, "the grid was not loaded");
          },
          kGridValues, 1};
}

using Read = int (*)(const char*, float*, std::size_t);

// A loop that loses its way is fast: it has to read what a scan reads.
void RequireTheScansValues(Read read, const char* path) {
  std::vector<float> values(kGridValues);
  std::vector<float> scanned(kGridValues);
  Require(read(path, values.data(), values.size()) == 0, "the grid was not read");
  Require(FloorGridScan(path, scanned.data(), scanned.size()) == 0, "the grid was not scanned");
  Require(values == scanned, "the floor reads other values");
}

Work LoadFloor(Read read, const GridFile& (*file)()) {
  UseLibrary(kDefaultLogLevel);
  const char* path = file().Path();
  RequireTheScansValues(read, path);
  return {[=] {
            auto* values = static_cast<float*>(malloc(kGridValues * sizeof(float)));
            Require(values != nullptr && read(path, values, kGridValues) == 0, "the grid was not read");
            g_sum = static_cast<double>(values[kGridValues - 1]);
            free(values);
          },
          kGridValues, 1};
}

bool AddLoad(const std::string& name, Read read, const GridFile& (*file)()) {
  Add(name + "/ours", [=] { return LoadOurs(file); });
  return Add(name + "/floor", [=] { return LoadFloor(read, file); });
}

const bool kConvertAdded[] = {
    AddConvert("convert_pair", 0, nullptr),
    AddConvert("convert_pair_tz", 0, "UTC"),
    AddConvert("convert_pair_16k", 16'000, nullptr),
    AddConvert("convert_pair_60k", 60'000, nullptr),
    AddHostileEvent("event_fields_missing", "x"),
    AddHostileEvent("event_many_fields", "a=\"1\" "),
    AddHostileEvent("event_beginnings", "elevatio=\"1\" l a s m o "),
    AddLoad("grid_fixed_point", FloorGridFixedPoint, PlainFile),
    AddLoad("grid_scan", FloorGridScan, PlainFile),
    AddLoad("grid_exponents", FloorGridScan, ExponentFile),
};

}  // namespace
}  // namespace bench

// Every open of the installed grid's path goes to the temporary file: the linker wraps fopen.
extern "C" FILE* __real_fopen(const char* path, const char* mode);
extern "C" FILE* __wrap_fopen(const char* path, const char* mode) {
  if (strcmp(path, kGridPath) != 0) return __real_fopen(path, mode);
  return __real_fopen(bench::g_gridPath != nullptr ? bench::g_gridPath : bench::PlainFile().Path(), mode);
}
