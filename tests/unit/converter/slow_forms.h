// SPDX-License-Identifier: Apache-2.0
// The plain form of the conversion of one event: every search starts at the slice's begin and copies what it finds, and
// the C library reads every number and time. See converter.h for what it promises. It logs the same lines.
#ifndef CONVERTER_SLOW_FORMS_H
#define CONVERTER_SLOW_FORMS_H

#include <float.h>
#include <stdint.h>
#include <string.h>

#include <cstdint>

#include "../md_cot_text/slow_forms.h"
#include "../md_number_reader/slow_forms.h"
#include "converter.h"

namespace slow {

inline bool SlowFindSlice(const CotSlice& whole, const char* start, const char* end, CotSlice* slice) {
  return SlowGetTagSlice(whole.text, whole.length, start, end, &slice->text, &slice->length) == CVT_COTKLV_STATUS_OK;
}

inline float ToFloat(double value) {
  if (value > static_cast<double>(FLT_MAX)) return __builtin_inff();
  if (value < -static_cast<double>(FLT_MAX)) return -__builtin_inff();
  return static_cast<float>(value);
}

// Returns whether the value lies in the range; a NaN does not.
inline bool InRange(double value, double low, double high) {
  return value >= low && value <= high;
}

// Rounds half away from zero. The caller has bounded the value.
inline int64_t Round(double value) {
  return static_cast<int64_t>(value >= 0 ? value + 0.5 : value - 0.5);
}

inline constexpr double kNotRead = -100000.0;

// Treatment of a value outside the range of its item.
enum class Outside {
  Skip,   // no item
  Marker  // an item that holds the smallest signed number, which MISB ST 0601 gives to values out of range
};

// Conversion of a number to an item: a value from low to high is accepted, and the item holds
// round((value + before) * scale).
struct NumberItem {
  int32_t tag;
  int bytes;  // size of the item's value: 1, 2 or 4
  double low;
  double high;
  double before;
  double scale;
  Outside outside;
};

// The scales are MISB ST 0601's quotients of integer range and value range, truncated. truncated, so that the
// output stays bit-identical. The speed's upper limit is the largest number that rounds to 255.
inline constexpr double kLargestSpeed = 255.49999999999997;
static_assert(kLargestSpeed < 255.5);
inline constexpr NumberItem kAirTrackItems[] = {
    {cotToKlv_airTrackTable[AIR_TRACK_COURSE].klvKey, 2, 0, 360, 0, 182.04166667, Outside::Skip},  // 65535/360
    {cotToKlv_airTrackTable[AIR_TRACK_SPEED].klvKey, 1, 0, kLargestSpeed, 0, 1, Outside::Skip},
};
// angles up to 90 degrees in both directions are accepted, more than the items can hold; the excess wraps in 16
// bits.
inline constexpr NumberItem kAirAttitudeItems[] = {
    {cotToKlv_airAttitudeTable[AIR_ATTITUDE_PITCH].klvKey, 2, -90, 90, 0, 1638.35, Outside::Marker},  // 32767/20
    {cotToKlv_airAttitudeTable[AIR_ATTITUDE_ROLL].klvKey, 2, -90, 90, 0, 655.34, Outside::Marker},    // 32767/50
};

constexpr NumberItem LatitudeItem(int32_t tag) {
  return {tag, 4, -90, 90, 0, 23860929.41111111, Outside::Marker};  // 4294967294/180
}

constexpr NumberItem LongitudeItem(int32_t tag) {
  return {tag, 4, -180, 180, 0, 11930464.70555556, Outside::Marker};  // 4294967294/360
}

// Item of a height above mean sea level in metres.
constexpr NumberItem AltitudeItem(int32_t tag) {
  return {tag, 2, -900, 19000, 900, 3.2932161, Outside::Skip};  // 65535/19900
}

// Item of an error bound in metres.
constexpr NumberItem ErrorItem(int32_t tag) {
  return {tag, 2, 0, 4095, 0, 16, Outside::Skip};
}

// Item of an angle in degrees.
constexpr NumberItem FieldOfViewItem(int32_t tag) {
  return {tag, 2, 0, 180, 0, 364.08333333, Outside::Skip};  // 65535/180
}

inline constexpr NumberItem kAirPointItems[] = {
    LatitudeItem(cotToKlv_airPointTable[AIR_POINT_LAT].klvKey),
    AltitudeItem(cotToKlv_airPointTable[AIR_POINT_HAE].klvKey),
    LongitudeItem(cotToKlv_airPointTable[AIR_POINT_LON].klvKey),
};
inline constexpr NumberItem kSpiPointItems[] = {
    LatitudeItem(cotToKlv_spiPointTable[SPI_POINT_LAT].klvKey),
    AltitudeItem(cotToKlv_spiPointTable[SPI_POINT_HAE].klvKey),
    LongitudeItem(cotToKlv_spiPointTable[SPI_POINT_LON].klvKey),
    ErrorItem(cotToKlv_spiPointTable[SPI_POINT_LE].klvKey),
    ErrorItem(cotToKlv_spiPointTable[SPI_POINT_CE].klvKey),
};
inline constexpr NumberItem kFieldOfView = FieldOfViewItem(cotToKlv_spiSensorTable[SPI_SENSOR_FOV].klvKey);
inline constexpr NumberItem kVerticalFieldOfView = FieldOfViewItem(cotToKlv_spiSensorTable[SPI_SENSOR_VFOV].klvKey);
inline constexpr NumberItem kSlantRange = {  // 4294967295/5000000, in metres
    cotToKlv_spiSensorTable[SPI_SENSOR_RANGE].klvKey, 4, 0, 5000000, 0, 858.993495, Outside::Skip};

// Factors from a one-sigma error to the bound that holds in 90 percent of all cases.
inline constexpr double kSigmaToLE90 = 1.6448538;
inline constexpr double kSigmaToCE90 = 2.145966025;

// The conversion of one event.
struct Conversion {
  CONVERTER_INSTANCE_DATA* instance;
  cvtXmlMsg* message;
  CotSlice event;
  cvtKlvItem item;  // one record serves the whole event, so an unparsable "start" repeats the time stamp
  double lat = kNotRead;
  double lon = kNotRead;
  double hae = kNotRead;
};

inline Conversion StartConversion(CONVERTER_INSTANCE_DATA* instance, const char* text, uint32_t length,
                                  cvtXmlMsg* message) {
  Conversion conversion;
  conversion.instance = instance;
  conversion.message = message;
  conversion.event = {text, length};
  memset(&conversion.item, 0, sizeof(conversion.item));
  return conversion;
}

inline void Append(Conversion& conversion, int key, int length) {
  conversion.item.key = static_cast<uint8_t>(key);
  conversion.item.length = static_cast<uint8_t>(length);
  cvt_addKlvItem(&conversion.item, conversion.message);
}

inline void AddEventItem(Conversion& conversion, int key, int length) {
  MD_LOG(7, "Mapping KLV Item: key=%d (0x%x) length = 0x%x\n", key, static_cast<UINT>(key), static_cast<UINT>(length));
  Append(conversion, key, length);
}

inline void AddItem(Conversion& conversion, int key, int length) {
  MD_LOG(7, "Mapping KLV Item: key=0x%x, length=0x%x\n", static_cast<UINT>(key), static_cast<UINT>(length));
  Append(conversion, key, length);
}

inline void AddInteger(Conversion& conversion, const NumberItem& item, int64_t value) {
  switch (item.bytes) {
    case 1:
      conversion.item.value.ubyte1 = static_cast<uint8_t>(value);
      break;
    case 2:
      conversion.item.value.ubyte2 = SWAP16(static_cast<uint16_t>(value));
      break;
    default:
      conversion.item.value.ubyte4 = SWAP32(static_cast<uint32_t>(value));
      break;
  }
  AddItem(conversion, item.tag, item.bytes);
}

// Returns the item's integer for a value in its range. Only rounding can make the product exceed 32 bits.
inline int64_t Scale(const NumberItem& item, double value) {
  const int64_t scaled = Round((value + item.before) * item.scale);
  return scaled > int64_t{UINT32_MAX} ? int64_t{UINT32_MAX} : scaled;
}

// Adds the item of a number. Returns false if the value is outside the item's range.
inline bool AddNumber(Conversion& conversion, const NumberItem& item, double value) {
  if (InRange(value, item.low, item.high)) {
    AddInteger(conversion, item, Scale(item, value));
    return true;
  }
  if (item.outside == Outside::Marker) AddInteger(conversion, item, int64_t{1} << (8 * item.bytes - 1));
  return false;
}

inline void SetText(Conversion& conversion, const cvtCotField& field) {
  memcpy(conversion.item.value.str, field.valueStr, static_cast<size_t>(field.valueLen));
}

// Adds the time stamp, which both kinds of events must have. Returns 0, or -1 if the event has none.
inline int AddTimeStamp(Conversion& conversion, const cvtCotField& field, bool found, int key) {
  if (!found) {
    MD_LOG(3, "failed to find timeStamp field !\n");
    return -1;
  }
  const CotText text(field.valueStr);
  if (SlowGetUSecs(text.Get(), &conversion.item.value.ubyte8) != 0) {
    MD_LOG(3, "failed to get uSecs for tmStamp %s", text.Get());
    return -1;
  }
  AddEventItem(conversion, key, 8);
  return 0;
}

inline int AddAirEventItem(Conversion& conversion, const cvtCotField& field, bool found) {
  const int key = cotToKlv_airEventTable[field.mapId].klvKey;
  if (!found) MD_LOG(3, "cotField \"%s\" not found\n", field.name);
  if (field.mapId == AIR_EVENT_TIME) return AddTimeStamp(conversion, field, found, key);
  if (!found) return 0;
  const CotText text(field.valueStr);
  if (field.mapId == AIR_EVENT_START) {
    if (SlowGetUSecs(text.Get(), &conversion.item.value.ubyte8) != 0)
      MD_LOG(3, "failed to get uSecs for start %s", text.Get());  // the item is added nevertheless
    AddEventItem(conversion, key, 8);
  } else if (field.mapId == AIR_EVENT_UID) {
    MD_LOG(7, "aircraft uid=\"%s\"", text.Get());
    SetText(conversion, field);
    AddEventItem(conversion, key, field.valueLen);
  } else {
    MD_LOG(3, "unknown mapId !\n");
  }
  return 0;
}

inline int AddAirEvent(Conversion& conversion) {
  CotSlice slice;
  if (!SlowFindSlice(conversion.event, "<event", ">", &slice)) {
    MD_LOG(3, "not found <event> tag slice!\n");
    return -1;
  }
  MD_LOG(7, "Found <event> tag slice!\n");
  for (const cvtCotField& row : cot_airEventTable) {
    cvtCotField field;
    const bool found = SlowFindField(slice, row, &field);
    if (AddAirEventItem(conversion, field, found) != 0) return -1;
  }
  return 0;
}

// Reads an attribute that is a number. Logs it and returns false if it is missing.
inline bool FindAirNumber(const CotSlice& slice, const cvtCotField& row, double* value) {
  cvtCotField field;
  if (!SlowFindField(slice, row, &field)) {
    MD_LOG(3, "cotField \"%s\" not found\n", field.name);
    return false;
  }
  *value = SlowTextToDouble(CotText(field.valueStr).Get());
  return true;
}

inline void AddAirTrack(Conversion& conversion) {
  CotSlice slice;
  if (!SlowFindSlice(conversion.event, "<track", "/>", &slice)) {
    MD_LOG(3, "not found <track> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_airTrackTable) {
    const NumberItem& item = kAirTrackItems[row.mapId];
    double value = 0;
    if (!FindAirNumber(slice, row, &value)) continue;
    if (!AddNumber(conversion, item, value))
      MD_LOG(3, "_cvt_processAirMsg():out of range value detected for key=%d value=(PROTECTED)\n", item.tag);
    else if (row.mapId == AIR_TRACK_COURSE && _g_bAllItemsSupport)
      conversion.instance->a_course = ToFloat(value);
  }
}

inline void AddAirAttitude(Conversion& conversion) {
  CotSlice slice;
  if (!SlowFindSlice(conversion.event, "<attitude", "/>", &slice)) {
    MD_LOG(3, "not found <attitude> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_airAttitudeTable) {
    double value = 0;
    if (!FindAirNumber(slice, row, &value)) continue;
    const bool inRange = AddNumber(conversion, kAirAttitudeItems[row.mapId], value);
    float& angle = row.mapId == AIR_ATTITUDE_PITCH ? conversion.instance->a_pitch : conversion.instance->a_roll;
    angle = inRange ? ToFloat(value) : kCvtAngleOutOfRange;
  }
}

// Adds a latitude or longitude and keeps it for the undulation. Returns false, keeping nothing, if it is out of range.
inline bool AddCoordinate(Conversion& conversion, const NumberItem& item, double value, double* kept) {
  if (!AddNumber(conversion, item, value)) return false;
  *kept = value;
  return true;
}

inline void AddAirPoint(Conversion& conversion) {
  CotSlice slice;
  if (!SlowFindSlice(conversion.event, "<point", "/>", &slice)) {
    MD_LOG(3, "not found <point> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_airPointTable) {
    double value = 0;
    if (!FindAirNumber(slice, row, &value)) continue;
    if (row.mapId == AIR_POINT_HAE)
      conversion.hae = value;
    else
      AddCoordinate(conversion, kAirPointItems[row.mapId], value,
                    row.mapId == AIR_POINT_LAT ? &conversion.lat : &conversion.lon);
  }
}

inline bool HasPosition(const Conversion& conversion) {
  return conversion.lat != kNotRead && conversion.lon != kNotRead && conversion.hae != kNotRead;
}

inline int UndulationAt(const Conversion& conversion, float* undulation) {
  const double lon = conversion.lon < 0 ? conversion.lon + 360 : conversion.lon;
  return calcul_undulation(static_cast<float>(conversion.lat), static_cast<float>(lon), undulation);
}

// Returns the height above mean sea level in metres.
inline double Height(const Conversion& conversion, float undulation) {
  return conversion.hae - static_cast<double>(undulation);
}

inline void AddAirAltitude(Conversion& conversion) {
  float undulation = 0;
  if (!HasPosition(conversion) || UndulationAt(conversion, &undulation) != 0) return;
  const NumberItem& item = kAirPointItems[AIR_POINT_HAE];
  const double height = Height(conversion, undulation);
  if (!InRange(height, item.low, item.high)) return;
  MD_LOG(7, "add airCraft hae. undulation = %f\n", static_cast<double>(undulation));
  AddNumber(conversion, item, height);
}

inline int SlowProcessAircraft(CONVERTER_INSTANCE_DATA* instance, const char* pvInputData, uint32_t nInDataSize,
                               cvtXmlMsg* message) {
  Conversion conversion = StartConversion(instance, pvInputData, nInDataSize, message);
  if (AddAirEvent(conversion) != 0) return -1;
  AddAirTrack(conversion);
  if (_g_bAllItemsSupport) AddAirAttitude(conversion);
  AddAirPoint(conversion);
  AddAirAltitude(conversion);
  return 0;
}

inline int AddSpiEvent(Conversion& conversion) {
  CotSlice slice;
  if (!SlowFindSlice(conversion.event, "<event", ">", &slice)) {
    MD_LOG(3, "not found <event> tag slice!\n");
    return -1;
  }
  for (const cvtCotField& row : cot_spiEventTable) {
    const int key = cotToKlv_spiEventTable[row.mapId].klvKey;
    cvtCotField field;
    const bool found = SlowFindField(slice, row, &field);
    if (!found) MD_LOG(3, "cotField \"%s\" not found\n", field.name);
    if (row.mapId == SPI_EVENT_TIME) {
      if (AddTimeStamp(conversion, field, found, key) != 0) return -1;
    } else if (found) {
      const CotText text(field.valueStr);
      MD_LOG(7, "SPI uid=\"%s\"", text.Get());
      // accepted sensors are listed too.
      if (conversion.instance->bDiscoverSensors) AddDiscoveredSensor(conversion.instance, text.Get());
      SetText(conversion, field);
      AddEventItem(conversion, key, field.valueLen);
    }
  }
  return 0;
}

inline void LogSpiOutOfRange(int key) {
  MD_LOG(3, "out of range value detected for key=%d, value=(PROTECTED)\n", key);
}

// the horizontal error's message names LE as well.
inline void AddErrorEstimate(Conversion& conversion, const NumberItem& item, const char* text, double value) {
  if (AddNumber(conversion, item, value)) return;
  MD_LOG(3, "SPI_POINT_LE value of %s (%f) is out of 0 to 4095 range.\n", text, value);
  LogSpiOutOfRange(item.tag);
}

inline void AddSpiPointItem(Conversion& conversion, const cvtCotField& field) {
  const NumberItem& item = kSpiPointItems[field.mapId];
  const CotText text(field.valueStr);
  const double value = SlowTextToDouble(text.Get());
  switch (field.mapId) {
    case SPI_POINT_LAT:
      if (!AddCoordinate(conversion, item, value, &conversion.lat))
        MD_LOG(3, "SPI_POINT_LAT value of %f is out of -90 to 90 range.\n", value);
      break;
    case SPI_POINT_HAE:
      conversion.hae = value;
      break;
    case SPI_POINT_LON:
      if (!AddCoordinate(conversion, item, value, &conversion.lon))
        MD_LOG(3, "SPI_POINT_LON value of %f is out of -180 to 180 range.\n", value);
      break;
    case SPI_POINT_LE:
      AddErrorEstimate(conversion, item, text.Get(), value * kSigmaToLE90);
      break;
    default:
      AddErrorEstimate(conversion, item, text.Get(), value * kSigmaToCE90);
      break;
  }
}

inline void AddFrameCentreElevation(Conversion& conversion) {
  if (!HasPosition(conversion)) {
    MD_LOG(3, "miss info to calcul undulation of hae\n");
    return;
  }
  const NumberItem& item = kSpiPointItems[SPI_POINT_HAE];
  float undulation = 0;
  if (UndulationAt(conversion, &undulation) != 0) {
    MD_LOG(3, "failed to calcul_undulation!\n");
    return;
  }
  const double height = Height(conversion, undulation);
  if (!InRange(height, item.low, item.high)) {
    LogSpiOutOfRange(item.tag);
    return;
  }
  MD_LOG(7, "add spi hae. undulation = %f\n", static_cast<double>(undulation));
  AddNumber(conversion, item, height);
}

inline void AddSpiPoint(Conversion& conversion) {
  CotSlice slice;
  if (!SlowFindSlice(conversion.event, "<point", "/>", &slice)) {
    MD_LOG(3, "not found <point> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_spiPointTable) {
    cvtCotField field;
    if (SlowFindField(slice, row, &field))
      AddSpiPointItem(conversion, field);
    else
      MD_LOG(3, "cotField \"%s\" not founded\n", field.name);
  }
  AddFrameCentreElevation(conversion);
}

inline void AddFieldOfView(Conversion& conversion, const char* text, double value) {
  if (AddNumber(conversion, kFieldOfView, value)) return;
  MD_LOG(3, "SPI_SENSOR_FOV value of %s (%f) is out of 0 to 180 range.\n", text, value);
  LogSpiOutOfRange(kFieldOfView.tag);
}

inline void AddVerticalFieldOfView(Conversion& conversion, const char* text, double value) {
  if (AddNumber(conversion, kVerticalFieldOfView, value)) return;
  MD_LOG(3, "SPI_SENSOR_VFOV value of %s (%f) is out of 0 to 180 range.\n", text, value);
  LogSpiOutOfRange(kVerticalFieldOfView.tag);
}

inline void AddSlantRange(Conversion& conversion, const char* text, double value) {
  if (AddNumber(conversion, kSlantRange, value)) return;
  MD_LOG(3, "SPI_SENSOR_RANGE value of %s (%f) is out of 0 to 5000000 range.\n", text, value);
  LogSpiOutOfRange(kSlantRange.tag);
}

inline void AddSensorItem(Conversion& conversion, const cvtCotField& field) {
  const CotText text(field.valueStr);
  const double value = SlowTextToDouble(text.Get());
  switch (field.mapId) {
    case SPI_SENSOR_MODEL:  // appends a second tag 11 after the one from uid
      SetText(conversion, field);
      AddItem(conversion, cotToKlv_spiSensorTable[SPI_SENSOR_MODEL].klvKey, field.valueLen);
      break;
    case SPI_SENSOR_FOV:
      AddFieldOfView(conversion, text.Get(), value);
      break;
    case SPI_SENSOR_VFOV:
      AddVerticalFieldOfView(conversion, text.Get(), value);
      break;
    case SPI_SENSOR_AZIMUTH:
      conversion.instance->s_azimuth = ToFloat(value);
      break;
    case SPI_SENSOR_ELEVATION:
      conversion.instance->s_elevation = ToFloat(value);
      break;
    case SPI_SENSOR_ROLL:
      conversion.instance->s_roll = ToFloat(value);
      break;
    case SPI_SENSOR_RANGE:
      AddSlantRange(conversion, text.Get(), value);
      break;
    default:
      MD_LOG(3, "Unknown mapId !\n");
      break;
  }
}

inline void AddSpiSensor(Conversion& conversion) {
  CotSlice slice;
  if (!SlowFindSlice(conversion.event, "<sensor", "/>", &slice)) {
    MD_LOG(3, "not found <sensor> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_spiSensorTable) {
    cvtCotField field;
    if (SlowFindField(slice, row, &field))
      AddSensorItem(conversion, field);
    else
      MD_LOG(3, "cotField \"%s\" not founded\n", field.name);
  }
}

inline int SlowProcessSpi(CONVERTER_INSTANCE_DATA* instance, const char* pvInputData, uint32_t nInDataSize,
                          cvtXmlMsg* message) {
  Conversion conversion = StartConversion(instance, pvInputData, nInDataSize, message);
  if (AddSpiEvent(conversion) != 0) return -1;
  AddSpiPoint(conversion);
  if (_g_bAllItemsSupport) AddSpiSensor(conversion);
  return 0;
}

}  // namespace slow

#endif  // CONVERTER_SLOW_FORMS_H
