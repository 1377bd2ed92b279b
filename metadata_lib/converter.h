// SPDX-License-Identifier: Apache-2.0
// Private side of the CoT-to-KLV converter: its records, tables and the steps that the tests reach. Hidden from the
// encoder by the export map.
#ifndef CONVERTER_H
#define CONVERTER_H

#include <stddef.h>
#include <stdint.h>

#include "host.h"
#include "md_cot_text.h"
#include "md_sensors.h"
#include "metadata_lib.h"

// Kinds of events.
enum CVT_MSG_TYPE : uint32_t { CVT_MSG_TYPE_NONE = 0, CVT_MSG_TYPE_AIRCRAFT = 1, CVT_MSG_TYPE_SPI = 2 };

// --- Attributes and their items ----------------------------------------------------------------------

// The item an attribute becomes. The conversion reads klvKey; the rest documents the row.
struct cvtCotToKlv {
  int32_t mapId;
  char cotField[16];
  int32_t cotFormat;  // 0 CoT time, 1 number or text
  int32_t klvKey;     // MISB ST 0601 tag
  int32_t klvLen;     // value bytes; 64 for text, the most there may be
  int32_t sign;       // KEPT: 1 is unsigned and 0 signed, against the name
};

// Rows of the tables below, by name: mapId of an attribute, and the index of its item.
enum tagAIR_EVENT_ROW : int32_t { AIR_EVENT_TIME = 0, AIR_EVENT_START = 1, AIR_EVENT_UID = 2 };
enum tagAIR_TRACK_ROW : int32_t { AIR_TRACK_COURSE = 0, AIR_TRACK_SPEED = 1 };
enum tagAIR_ATTITUDE_ROW : int32_t { AIR_ATTITUDE_PITCH = 0, AIR_ATTITUDE_ROLL = 1 };
enum tagAIR_POINT_ROW : int32_t { AIR_POINT_LAT = 0, AIR_POINT_HAE = 1, AIR_POINT_LON = 2 };
enum tagSPI_EVENT_ROW : int32_t { SPI_EVENT_UID = 0, SPI_EVENT_TIME = 1 };
enum tagSPI_POINT_ROW : int32_t {
  SPI_POINT_LAT = 0,
  SPI_POINT_HAE = 1,
  SPI_POINT_LON = 2,
  SPI_POINT_LE = 3,
  SPI_POINT_CE = 4
};
enum tagSPI_SENSOR_ROW : int32_t {
  SPI_SENSOR_MODEL = 0,
  SPI_SENSOR_FOV = 1,
  SPI_SENSOR_VFOV = 2,
  SPI_SENSOR_AZIMUTH = 3,
  SPI_SENSOR_ELEVATION = 4,
  SPI_SENSOR_ROLL = 5,
  SPI_SENSOR_RANGE = 6
};

// Aircraft events.
inline constexpr cvtCotField cot_airEventTable[] = {
    {"time", "0", 0, 0, 0}, {"start", "1", 0, 1, 0}, {"uid", "2", 0, 2, 0}};
inline constexpr cvtCotField cot_airTrackTable[] = {{"course", "0", 0, 0, 0}, {"speed", "1", 0, 1, 0}};
inline constexpr cvtCotField cot_airAttitudeTable[] = {{"pitch", "0", 0, 0, 0}, {"roll", "1", 0, 1, 0}};
inline constexpr cvtCotField cot_airPointTable[] = {
    {"lat", "0", 0, 0, 0}, {"hae", "1", 0, 1, 0}, {"lon", "2", 0, 2, 0}};

inline constexpr cvtCotToKlv cotToKlv_airEventTable[] = {
    {0, "time", 0, 2, 8, 1},    // Precision Time Stamp
    {1, "start", 0, 72, 8, 1},  // Event Start Time UTC
    {2, "uid", 1, 10, 64, 1},   // Platform Designation
};
inline constexpr cvtCotToKlv cotToKlv_airTrackTable[] = {
    {0, "course", 1, 5, 2, 1},  // Platform Heading Angle
    {1, "speed", 1, 9, 1, 1},   // Platform Indicated Airspeed
};
inline constexpr cvtCotToKlv cotToKlv_airAttitudeTable[] = {
    {0, "pitch", 1, 6, 2, 0},  // Platform Pitch Angle
    {1, "roll", 1, 7, 2, 0},   // Platform Roll Angle
};
inline constexpr cvtCotToKlv cotToKlv_airPointTable[] = {
    {0, "lat", 1, 13, 4, 0},  // Sensor Latitude
    {1, "hae", 1, 15, 2, 1},  // Sensor True Altitude
    {2, "lon", 1, 14, 4, 0},  // Sensor Longitude
};

// Sensor-point events.
inline constexpr cvtCotField cot_spiEventTable[] = {{"uid", "0", 0, 0, 0}, {"time", "0", 0, 1, 0}};
inline constexpr cvtCotField cot_spiPointTable[] = {
    {"lat", "0", 0, 0, 0}, {"hae", "1", 0, 1, 0}, {"lon", "2", 0, 2, 0}, {"le", "2", 0, 3, 0}, {"ce", "2", 0, 4, 0}};
inline constexpr cvtCotField cot_spiSensorTable[] = {
    {"model", "E", 0, 0, 0},     {"fov", "1", 0, 1, 0},  {"vfov", "2", 0, 2, 0},  {"azimuth", "3", 0, 3, 0},
    {"elevation", "2", 0, 4, 0}, {"roll", "3", 0, 5, 0}, {"range", "2", 0, 6, 0},
};

inline constexpr cvtCotToKlv cotToKlv_spiEventTable[] = {
    {0, "uid", 1, 11, 64, 1},  // Image Source Sensor
    {1, "time", 0, 2, 8, 1},   // Precision Time Stamp
};
inline constexpr cvtCotToKlv cotToKlv_spiPointTable[] = {
    {0, "lat", 1, 23, 4, 0},  // Frame Center Latitude
    {1, "hae", 1, 25, 2, 1},  // Frame Center Elevation
    {2, "lon", 1, 24, 4, 0},  // Frame Center Longitude
    {3, "le", 1, 46, 2, 1},   // Target Error Estimate - LE90
    {4, "ce", 1, 45, 2, 1},   // Target Error Estimate - CE90
};
inline constexpr cvtCotToKlv cotToKlv_spiSensorTable[] = {
    {0, "model", 1, 11, 64, 1},     // Image Source Sensor
    {1, "fov", 1, 16, 2, 1},        // Sensor Horizontal Field of View
    {2, "vfov", 1, 17, 2, 1},       // Sensor Vertical Field of View
    {3, "azimuth", 1, 18, 4, 1},    // Sensor Relative Azimuth Angle
    {4, "elevation", 1, 19, 4, 0},  // Sensor Relative Elevation Angle
    {5, "roll", 1, 20, 4, 1},       // Sensor Relative Roll Angle
    {6, "range", 1, 21, 4, 1},      // Slant Range
};

// Returns whether every attribute names its own row, and the item in that row is the one made from it.
template <size_t attributes, size_t items>
constexpr bool _MappingAgrees(const cvtCotField (&fields)[attributes], const cvtCotToKlv (&mapping)[items]) {
  if (attributes != items) return false;
  for (size_t row = 0; row < attributes; ++row) {
    const int32_t index = static_cast<int32_t>(row);
    if (fields[row].mapId != index || mapping[row].mapId != index) return false;
    for (size_t i = 0; i < sizeof(fields[row].name); ++i) {
      if (fields[row].name[i] != mapping[row].cotField[i]) return false;
    }
  }
  return true;
}

static_assert(_MappingAgrees(cot_airEventTable, cotToKlv_airEventTable));
static_assert(_MappingAgrees(cot_airTrackTable, cotToKlv_airTrackTable));
static_assert(_MappingAgrees(cot_airAttitudeTable, cotToKlv_airAttitudeTable));
static_assert(_MappingAgrees(cot_airPointTable, cotToKlv_airPointTable));
static_assert(_MappingAgrees(cot_spiEventTable, cotToKlv_spiEventTable));
static_assert(_MappingAgrees(cot_spiPointTable, cotToKlv_spiPointTable));
static_assert(_MappingAgrees(cot_spiSensorTable, cotToKlv_spiSensorTable));

// --- Packets -----------------------------------------------------------------------------------------

// The packet while it grows, from pKlvPacket:
//
//   offset size content
//        0   16 UAS Datalink Local Set key
//       16    1 BER short-form length, written when the packet is closed
//       17   10 Precision Time Stamp: 02 08 and 8 bytes, reserved
//       27      other items: tag, length, value
//      end    4 checksum: 01 02 and 2 bytes
inline constexpr int kCvtHeadroom = 5;  // in front of the key, for the stream header
inline constexpr int kCvtKeySize = 16;
inline constexpr int kCvtTimeStampOffset = 17;
inline constexpr int kCvtFirstItemOffset = 27;
inline constexpr int kCvtFullLength = 1023;     // no item is appended at this length or beyond
inline constexpr int kCvtMaxLongLength = 1023;  // largest value length of a long-form packet
// An item of 66 bytes accepted at 1022, three angle items of 6 bytes, the checksum item.
inline constexpr int kCvtPacketSize = kCvtFullLength - 1 + 66 + 18 + 4;
inline constexpr int kCvtBufferSize = kCvtHeadroom + kCvtPacketSize;
inline constexpr int kCvtLongBufferSize = kCvtHeadroom + kCvtKeySize + 3 + kCvtMaxLongLength;
static_assert(kCvtPacketSize == 1110);

extern const BYTE klvLDS16BytesKeySet[kCvtKeySize];

// One pending conversion. Metadata thread only.
struct cvtXmlMsg {
  MDATA_BUFFER* pBuffer;
  BYTE* pKlvPacket;              // first key byte, kCvtHeadroom bytes into the buffer
  int32_t curKlvLen;             // packet bytes so far
  int32_t tmStampFlag;           // 1 once the time stamp is stored
  uint32_t msgType;              // CVT_MSG_TYPE. KEPT: never assigned, so that a pair may be of one type
  char matchStr[kCotValueSize];  // time text of the first event; terminated only when shorter
  int32_t freePktMemFlag;        // 1 while this record owns pBuffer
  cvtXmlMsg* pNext;
};

// One item to append; numbers are stored big-endian.
struct cvtKlvItem {
  uint8_t key;
  uint8_t length;  // value bytes, up to 64
  union {
    uint8_t ubyte1;
    int8_t byte1;
    uint16_t ubyte2;
    int16_t byte2;
    uint32_t ubyte4;
    int32_t byte4;
    uint64_t ubyte8;
    int64_t byte8;
    char str[kCotValueSize];
  } value;
};

// --- Instance ----------------------------------------------------------------------------------------

inline constexpr float kCvtAngleNotSet = -100000.0f;
inline constexpr float kCvtAngleOutOfRange = 32768.0f;  // pitch and roll

// One per CoT source, behind HCONVERTER. Only the metadata thread uses it, with two exceptions for the statistics
// calls: the counters of Stats are atomic, and md_sensors copies KnownSensors.
struct tagCONVERTER_INSTANCE_DATA {
  int32_t nMaxSPIAirCraftTimeDeltaInUS;  // microseconds, inclusive; negative if configured above 2147483 ms
  cvtXmlMsg* pMsgListHeader;             // at most one message
  float a_course, a_roll, a_pitch;       // degrees, or one of the two marks above
  float s_azimuth, s_elevation, s_roll;
  char szSpiUid[MDATA_SENSOR_UID_SIZE];  // accepted sensor; empty for all
  MDATA_COT_STATS Stats;                 // only the three reception counters
  BOOL bDiscoverSensors;
  SensorTable KnownSensors;
  char* szEvent;  // terminated copy of the event being converted; grows with the largest one
  int32_t nEventCapacity;
};
typedef struct tagCONVERTER_INSTANCE_DATA CONVERTER_INSTANCE_DATA;

// Relative angles, angle reset per message, long-form packets. Read-only after start.
extern bool _g_bAllItemsSupport;

// --- Geoid grid --------------------------------------------------------------------------------------

inline constexpr int kGridRows = 721;      // 90 N to 90 S, 0.25 degrees apart
inline constexpr int kGridColumns = 1441;  // 0 to 360 E; the last repeats the first
inline constexpr int kGridValues = kGridRows * kGridColumns;
inline constexpr char kGridPath[] = "/usr/share/vendor/data/ww15mgh.grd";

// Metres above the ellipsoid, row after row; NULL while not loaded. Read-only after start.
extern float* _g_pGrid;

// Stores the height of the geoid at inLat (-90 to 90) and inLon (0 to 360) degrees. Returns 0, or -1 outside these
// ranges or if no grid is loaded.
int calcul_undulation(float inLat, float inLon, float* undulation);

// --- Packet steps ------------------------------------------------------------------------------------

CVT_COTKLV_STATUS cvt_initXmlMsg(CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message);
CVT_COTKLV_STATUS cvt_addKlvItem(const cvtKlvItem* klvItem, cvtXmlMsg* message);
// Returns the MISB ST 0601 checksum with its bytes swapped, so that storing it as it is writes it big-endian; 0 if the
// length is not positive.
uint16_t get_checksum_u16(const BYTE* data, int length);
uint16_t SWAP16(uint16_t value);
uint32_t SWAP32(uint32_t value);
uint64_t SWAP64(uint64_t value);

// --- Events ------------------------------------------------------------------------------------------

// Append the event's items. Return 0, or -1 if the event must be dropped.
int cvt_processAircraftMsg(CONVERTER_INSTANCE_DATA* instance, const char* pvInputData, uint32_t nInDataSize,
                           cvtXmlMsg* message);
int cvt_processSpiMsg(CONVERTER_INSTANCE_DATA* instance, const char* pvInputData, uint32_t nInDataSize,
                      cvtXmlMsg* message);
void cvt_addSPISensorItems(const CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message);
void cvt_resetVariables(CONVERTER_INSTANCE_DATA* instance);
// Returns the pending message within the delta of a time text, or NULL.
cvtXmlMsg* cvt_findMsgFromList(const CONVERTER_INSTANCE_DATA* instance, const char* timeText);
void cvt_freeMsgAndKlvPacket(cvtXmlMsg* message);
void cvt_freeAllMsgsAndNoReturnedKlvPackets(CONVERTER_INSTANCE_DATA* instance);
void AddDiscoveredSensor(CONVERTER_INSTANCE_DATA* instance, const char* uid);

#endif  // CONVERTER_H
