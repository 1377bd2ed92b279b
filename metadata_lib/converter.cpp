// SPDX-License-Identifier: Apache-2.0
// The Cursor-on-Target converter: pairs of aircraft and sensor-point events become UAS Local Set packets.
//
// Contents
//   1. Numbers             rounding, byte order
//   2. Packets             start, items, checksum, close
//   3. Geoid grid          load, interpolation
//   4. Aircraft events
//   5. Sensor-point events
//   6. Pending messages    list, matching
//   7. Conversion of an event
//   8. Instances and statistics
#include "converter.h"

#include <float.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/time.h>

#include "md_atomic.h"
#include "md_core.h"
#include "md_guard.h"
#include "md_mutex.h"
#include "md_number_reader.h"
#include "md_sensors.h"

#define MD_MODULE "converter"
#define MD_DEBUG_HANDLE g_hCoTConvDbg
#include "md_log.h"

// =====================================================================================================
// 1. Numbers. Any thread, no state.
// =====================================================================================================

// Returns the number of an attribute's value, 0 if the value is not a number.
static double _ToNumber(const CotSlice& value) {
  double number = 0;
  return _ReadDecimal(value.text, value.length, &number) ? number : _TextToDouble(CotText(value).Get());
}

static float _ToFloat(double value) {
  if (value > static_cast<double>(FLT_MAX)) return __builtin_inff();
  if (value < -static_cast<double>(FLT_MAX)) return -__builtin_inff();
  return static_cast<float>(value);
}

// Returns whether the value lies in the range; a NaN does not.
static bool _InRange(double value, double low, double high) {
  return value >= low && value <= high;
}

// Rounds half away from zero. The caller has bounded the value.
static int64_t _Round(double value) {
  return static_cast<int64_t>(value >= 0 ? value + 0.5 : value - 0.5);
}

static uint32_t _RoundU32(double value) {
  const int64_t rounded = _Round(value);
  return rounded > int64_t{UINT32_MAX} ? UINT32_MAX : static_cast<uint32_t>(rounded);
}

uint16_t SWAP16(uint16_t value) {
  return __builtin_bswap16(value);
}

uint32_t SWAP32(uint32_t value) {
  return __builtin_bswap32(value);
}

uint64_t SWAP64(uint64_t value) {
  return __builtin_bswap64(value);
}

// =====================================================================================================
// 2. Packets. Metadata thread. A packet grows in place in its message's buffer.
// =====================================================================================================

const BYTE klvLDS16BytesKeySet[kCvtKeySize] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01,
                                               0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};

bool _g_bAllItemsSupport = true;

// Tags of the local set that have a fixed place in the packet.
static constexpr uint8_t kTagChecksum = 1;
static constexpr uint8_t kTagTimeStamp = 2;

void cvt_resetVariables(CONVERTER_INSTANCE_DATA* instance) {
  instance->a_course = kCvtAngleNotSet;
  instance->a_roll = kCvtAngleNotSet;
  instance->a_pitch = kCvtAngleNotSet;
  instance->s_azimuth = kCvtAngleNotSet;
  instance->s_elevation = kCvtAngleNotSet;
  instance->s_roll = kCvtAngleNotSet;
}

CVT_COTKLV_STATUS cvt_initXmlMsg(CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message) {
  message->pBuffer = nullptr;
  if (!DoAllocBuffer(kCvtBufferSize, &message->pBuffer)) {
    message->pKlvPacket = nullptr;
    MD_LOG(3, "malloc() failed !\n");
    return CVT_COTKLV_STATUS_MALLOC_FAIL;
  }
  message->pBuffer->pcData += kCvtHeadroom;
  message->pKlvPacket = message->pBuffer->pcData;
  message->tmStampFlag = 0;
  message->freePktMemFlag = 1;
  memset(message->matchStr, '0', sizeof(message->matchStr));
  memcpy(message->pKlvPacket, klvLDS16BytesKeySet, kCvtKeySize);
  message->curKlvLen = kCvtFirstItemOffset;
  message->pNext = nullptr;
  // KEPT: only with the option; angles of an older pair must not be combined with this one's.
  if (_g_bAllItemsSupport) cvt_resetVariables(instance);
  return CVT_COTKLV_STATUS_OK;
}

// KEPT: only the current length is checked, not the item's, for which kCvtPacketSize has room. Tags may repeat.
CVT_COTKLV_STATUS cvt_addKlvItem(const cvtKlvItem* klvItem, cvtXmlMsg* message) {
  if (klvItem == nullptr || message->pKlvPacket == nullptr) {
    MD_LOG(3, "invalid input !\n");
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  if (message->curKlvLen >= kCvtFullLength) {
    MD_LOG(3, "curKlvLen is too big: 0x%x !\n", static_cast<UINT>(message->curKlvLen));
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  const bool timeStamp = klvItem->key == kTagTimeStamp;
  BYTE* out = message->pKlvPacket + (timeStamp ? kCvtTimeStampOffset : message->curKlvLen);
  out[0] = klvItem->key;
  out[1] = klvItem->length;
  memcpy(out + 2, &klvItem->value, klvItem->length);
  if (timeStamp)
    message->tmStampFlag = 1;
  else
    message->curKlvLen += 2 + klvItem->length;
  return CVT_COTKLV_STATUS_OK;
}

uint16_t get_checksum_u16(const BYTE* data, int length) {
  return length > 0 ? SWAP16(_MdRunningSum(data, static_cast<size_t>(length))) : uint16_t{0};
}

static constexpr int kShortFormLimit = 127;

static void _StoreChecksum(BYTE* packet, int packetLength) {
  const uint16_t checksum = get_checksum_u16(packet, packetLength - 2);
  MD_LOG(7, "Checksum value = 0x%x, returned packetLen = 0x%x\n", checksum, static_cast<UINT>(packetLength));
  memcpy(packet + packetLength - 2, &checksum, sizeof(checksum));
}

// Closes a packet whose length needs the long form: copies it to a second buffer, behind a longer length field.
static int _CloseLongPacket(CONVERTER_INSTANCE_DATA* instance, const cvtXmlMsg* message, int length,
                            MDATA_BUFFER** out) {
  MdBufferRef buffer;
  if (!DoAllocBuffer(kCvtLongBufferSize, buffer.Out())) {
    MD_LOG(0, "malloc() failed !\n");
    cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
    return CVT_COTKLV_STATUS_MALLOC_FAIL;  // KEPT: not -1; callers test the buffer
  }
  buffer->pcData += kCvtHeadroom;
  BYTE* packet = buffer->pcData;
  memcpy(packet, klvLDS16BytesKeySet, kCvtKeySize);
  if (length > kCvtMaxLongLength) {
    MD_LOG(3, "KLV packet is too long %d!\n", length);
    cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
    return -1;
  }
  BYTE* lengthField = packet + kCvtKeySize;
  const int lengthBytes = length <= 255 ? 1 : 2;
  *lengthField++ = static_cast<BYTE>(0x80 | lengthBytes);
  if (lengthBytes == 2) *lengthField++ = static_cast<BYTE>(length >> 8);
  *lengthField++ = static_cast<BYTE>(length);
  memcpy(lengthField, message->pKlvPacket + kCvtKeySize + 1, static_cast<size_t>(length));
  const int packetLength = kCvtKeySize + 1 + lengthBytes + length;
  _StoreChecksum(packet, packetLength);
  buffer->nDataSize = packetLength;
  *out = buffer.Release();
  cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
  MD_LOG(7, "return KLV with len = %d !\n", packetLength);
  return packetLength;
}

// Closes the packet and passes it to the caller, who tests the buffer. No message is pending afterwards. Returns the
// size of the packet.
static int _ClosePacket(CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message, MDATA_BUFFER** out) {
  BYTE* packet = message->pKlvPacket;
  packet[message->curKlvLen] = kTagChecksum;
  packet[message->curKlvLen + 1] = 2;
  message->curKlvLen += 4;
  const int packetLength = message->curKlvLen;
  const int length = packetLength - kCvtKeySize - 1;
  if (length > kShortFormLimit) {
    if (_g_bAllItemsSupport) return _CloseLongPacket(instance, message, length, out);
    MD_LOG(3, "long form length not implemented yet!\n");  // KEPT
    cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
    return -1;
  }
  packet[kCvtKeySize] = static_cast<BYTE>(length);
  MD_LOG(7, "Len field = 0x%x\n", static_cast<UINT>(length));
  _StoreChecksum(packet, packetLength);
  message->pBuffer->nDataSize = packetLength;
  message->freePktMemFlag = 0;
  *out = message->pBuffer;
  MD_LOG(7, "return KLV with len = %d !\n", packetLength);
  cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
  return packetLength;
}

// =====================================================================================================
// 3. Geoid grid: EGM96, 15 minutes. The encoder's thread that starts and stops the library loads and frees it; the
//    metadata thread reads it in between.
// =====================================================================================================

float* _g_pGrid = nullptr;

static void _ReadAllItemsOption() {
  char value[40] = "";
  int size = sizeof(value);
  CfgFile_GetStringValue("/etc/hostos.ini", "CursorOnTarget", "AllItemsSupport", value, &size, "Yes");
  _g_bAllItemsSupport = strcasecmp(value, "Yes") == 0;
  if (_g_bAllItemsSupport)
    MD_LOG(5, "Support of additionnal CoT items enabled.\n");
  else
    MD_LOG(6, "Support of additionnal CoT items disabled.\n");
}

// Reports to the host's thread watchdog that this thread is reading and does not hang.
static void _ReportProgress(UINT percent) {
  __SetThreadPausedState(FALSE);
  __SetThreadIterations(percent);
  __SetThreadPausedState(TRUE);
}

// Fills the grid. Returns the number of values read, fewer than all if the file ended early.
static int _ReadGrid(FILE* fp, float* grid, char* memory) {
  MdNumberReader reader(fp, memory);
  UINT percent = 0;
  int nextReport = (kGridValues + 99) / 100;
  for (int count = 0; count < kGridValues;) {
    // KEPT: text that is not a number is neither skipped nor reported: its values stay 0.
    count += reader.Read(&grid[count], nextReport - count);
    if (reader.IsAtEnd()) return count;
    if (count < nextReport) continue;
    const UINT now = static_cast<UINT>(int64_t{count} * 100 / kGridValues);
    if (now != percent) _ReportProgress(percent = now);
    nextReport = static_cast<int>((int64_t{now + 1} * kGridValues + 99) / 100);
  }
  return kGridValues;
}

static float* _LoadGrid(FILE* fp) {
  MD_LOG(7, "Allocating memory block of %d bytes for data grid.\n", static_cast<int>(kGridValues * sizeof(float)));
  float* grid = static_cast<float*>(calloc(kGridValues, sizeof(float)));
  // The reader's memory is on the heap: encoders start the library on threads with small stacks.
  char* memory = static_cast<char*>(malloc(MdNumberReader::kMemorySize));
  if (grid == nullptr || memory == nullptr) {
    MD_LOG(3, "malloc() failed !\n");
    free(memory);
    free(grid);
    return nullptr;
  }
  MD_LOG(7, "Memory allocated OK, reading grid data.\n");
  struct timeval start = {};
  gettimeofday(&start, nullptr);
  __SetThreadPausedState(TRUE);
  const int count = _ReadGrid(fp, grid, memory);
  __SetThreadPausedState(FALSE);
  free(memory);
  if (count < kGridValues) {
    MD_LOG(3, "fscanf %d number (unexpected finished earlier)!\n", count);
    free(grid);
    return nullptr;
  }
  struct timeval end = {};
  struct timeval elapsed = {};
  gettimeofday(&end, nullptr);
  CalcTimeOfDayDiff(&start, &end, &elapsed);
  MD_LOG(6, "Grid init done (loaded in %d.%06d secs).\n", static_cast<int>(elapsed.tv_sec),
         static_cast<int>(elapsed.tv_usec));
  return grid;
}

int init_ww15mgh_grd(void) {
  _ReadAllItemsOption();
  free_ww15mgh_grd();
  MD_LOG(6, "Opening grid file \"%s\".\n", kGridPath);
  FILE* fp = fopen(kGridPath, "rb");
  if (fp == nullptr) {
    MD_LOG_ERRNO(2, "Failed to open \"%s\", errno=%d \"%s\"\n", kGridPath);
    return -1;
  }
  MD_LOG(7, "File \"%s\" opened.\n", kGridPath);
  _g_pGrid = _LoadGrid(fp);
  fclose(fp);
  return _g_pGrid != nullptr ? 0 : -1;
}

void free_ww15mgh_grd(void) {
  free(_g_pGrid);
  _g_pGrid = nullptr;
}

int calcul_undulation(float inLat, float inLon, float* undulation) {
  if (!(inLat >= -90 && inLat <= 90) || !(inLon >= 0 && inLon <= 360) || undulation == nullptr) {
    MD_LOG(3, "invalid input argument!\n");
    return -1;
  }
  if (_g_pGrid == nullptr) return -1;
  const float y = (90.0f - inLat) / 0.25f;
  const float x = inLon / 0.25f;
  int r = static_cast<int>(y);
  int c = static_cast<int>(x);
  if (r > kGridRows - 2) r = kGridRows - 2;        // the South Pole: the last row from above
  if (c > kGridColumns - 2) c = kGridColumns - 2;  // 360 E: the last column from the west
  const double fy = static_cast<double>(y - static_cast<float>(r));
  const double fx = static_cast<double>(x - static_cast<float>(c));
  const float* upper = _g_pGrid + r * kGridColumns + c;
  const float* lower = upper + kGridColumns;
  const double sum = (1 - fy) * (1 - fx) * static_cast<double>(upper[0]) +
                     (1 - fy) * fx * static_cast<double>(upper[1]) + fy * (1 - fx) * static_cast<double>(lower[0]) +
                     fy * fx * static_cast<double>(lower[1]);
  *undulation = static_cast<float>(sum);
  return 0;
}

// =====================================================================================================
// 4. Aircraft events. Metadata thread. Items go into the pending message, angles into the instance.
// =====================================================================================================

static constexpr double kNotRead = -100000.0;

namespace {

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

}  // namespace

// The scales are MISB ST 0601's quotients of integer range and value range, truncated. KEPT: truncated, so that the
// output stays bit-identical. The speed's upper limit is the largest number that rounds to 255.
static constexpr double kLargestSpeed = 255.49999999999997;
static_assert(kLargestSpeed < 255.5);
static constexpr NumberItem kAirTrackItems[] = {
    {cotToKlv_airTrackTable[AIR_TRACK_COURSE].klvKey, 2, 0, 360, 0, 182.04166667, Outside::Skip},  // 65535/360
    {cotToKlv_airTrackTable[AIR_TRACK_SPEED].klvKey, 1, 0, kLargestSpeed, 0, 1, Outside::Skip},
};
// KEPT: angles up to 90 degrees in both directions are accepted, more than the items can hold; the excess wraps in 16
// bits.
static constexpr NumberItem kAirAttitudeItems[] = {
    {cotToKlv_airAttitudeTable[AIR_ATTITUDE_PITCH].klvKey, 2, -90, 90, 0, 1638.35, Outside::Marker},  // 32767/20
    {cotToKlv_airAttitudeTable[AIR_ATTITUDE_ROLL].klvKey, 2, -90, 90, 0, 655.34, Outside::Marker},    // 32767/50
};

static constexpr NumberItem _LatitudeItem(int32_t tag) {
  return {tag, 4, -90, 90, 0, 23860929.41111111, Outside::Marker};  // 4294967294/180
}

static constexpr NumberItem _LongitudeItem(int32_t tag) {
  return {tag, 4, -180, 180, 0, 11930464.70555556, Outside::Marker};  // 4294967294/360
}

// Item of a height above mean sea level in metres.
static constexpr NumberItem _AltitudeItem(int32_t tag) {
  return {tag, 2, -900, 19000, 900, 3.2932161, Outside::Skip};  // 65535/19900
}

// Item of an error bound in metres.
static constexpr NumberItem _ErrorItem(int32_t tag) {
  return {tag, 2, 0, 4095, 0, 16, Outside::Skip};
}

// Item of an angle in degrees.
static constexpr NumberItem _FieldOfViewItem(int32_t tag) {
  return {tag, 2, 0, 180, 0, 364.08333333, Outside::Skip};  // 65535/180
}

static constexpr NumberItem kAirPointItems[] = {
    _LatitudeItem(cotToKlv_airPointTable[AIR_POINT_LAT].klvKey),
    _AltitudeItem(cotToKlv_airPointTable[AIR_POINT_HAE].klvKey),
    _LongitudeItem(cotToKlv_airPointTable[AIR_POINT_LON].klvKey),
};
static constexpr NumberItem kSpiPointItems[] = {
    _LatitudeItem(cotToKlv_spiPointTable[SPI_POINT_LAT].klvKey),
    _AltitudeItem(cotToKlv_spiPointTable[SPI_POINT_HAE].klvKey),
    _LongitudeItem(cotToKlv_spiPointTable[SPI_POINT_LON].klvKey),
    _ErrorItem(cotToKlv_spiPointTable[SPI_POINT_LE].klvKey),
    _ErrorItem(cotToKlv_spiPointTable[SPI_POINT_CE].klvKey),
};
static constexpr NumberItem kFieldOfView = _FieldOfViewItem(cotToKlv_spiSensorTable[SPI_SENSOR_FOV].klvKey);
static constexpr NumberItem kVerticalFieldOfView = _FieldOfViewItem(cotToKlv_spiSensorTable[SPI_SENSOR_VFOV].klvKey);
static constexpr NumberItem kSlantRange = {  // 4294967295/5000000, in metres
    cotToKlv_spiSensorTable[SPI_SENSOR_RANGE].klvKey, 4, 0, 5000000, 0, 858.993495, Outside::Skip};

// Factors from a one-sigma error to the bound that holds in 90 percent of all cases.
static constexpr double kSigmaToLE90 = 1.6448538;
static constexpr double kSigmaToCE90 = 2.145966025;

namespace {

// The conversion of one event.
struct Conversion {
  CONVERTER_INSTANCE_DATA* instance;
  cvtXmlMsg* message;
  CotSlice event;
  CotSlice tag;     // the start tag of <event>
  cvtKlvItem item;  // KEPT: one record serves the whole event, so an unparsable "start" repeats the time stamp
  double lat = kNotRead;
  double lon = kNotRead;
  double hae = kNotRead;
};

}  // namespace

static Conversion _StartConversion(CONVERTER_INSTANCE_DATA* instance, const char* text, uint32_t length,
                                   cvtXmlMsg* message) {
  Conversion conversion;
  conversion.instance = instance;
  conversion.message = message;
  conversion.event = {text, length};
  memset(&conversion.item, 0, sizeof(conversion.item));
  return conversion;
}

// Finds the start tag of <event>.
static bool _FindTag(const CotSlice& event, CotSlice* tag) {
  if (_FindSlice(event, "<event", ">", tag)) return true;
  MD_LOG(3, "not found <event> tag slice!\n");
  return false;
}

static void _Append(Conversion& conversion, int key, int length) {
  conversion.item.key = static_cast<uint8_t>(key);
  conversion.item.length = static_cast<uint8_t>(length);
  cvt_addKlvItem(&conversion.item, conversion.message);
}

static void _AddEventItem(Conversion& conversion, int key, int length) {
  MD_LOG(7, "Mapping KLV Item: key=%d (0x%x) length = 0x%x\n", key, static_cast<UINT>(key), static_cast<UINT>(length));
  _Append(conversion, key, length);
}

static void _AddItem(Conversion& conversion, int key, int length) {
  MD_LOG(7, "Mapping KLV Item: key=0x%x, length=0x%x\n", static_cast<UINT>(key), static_cast<UINT>(length));
  _Append(conversion, key, length);
}

static void _AddInteger(Conversion& conversion, const NumberItem& item, int64_t value) {
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
  _AddItem(conversion, item.tag, item.bytes);
}

// Returns the item's integer for a value in its range. Only rounding can make the product exceed 32 bits.
static int64_t _Scale(const NumberItem& item, double value) {
  const int64_t scaled = _Round((value + item.before) * item.scale);
  return scaled > int64_t{UINT32_MAX} ? int64_t{UINT32_MAX} : scaled;
}

// Adds the item of a number. Returns false if the value is outside the item's range.
static bool _AddNumber(Conversion& conversion, const NumberItem& item, double value) {
  if (_InRange(value, item.low, item.high)) {
    _AddInteger(conversion, item, _Scale(item, value));
    return true;
  }
  if (item.outside == Outside::Marker) _AddInteger(conversion, item, int64_t{1} << (8 * item.bytes - 1));
  return false;
}

static void _SetText(Conversion& conversion, const CotSlice& value) {
  memcpy(conversion.item.value.str, value.text, value.length);
}

// Adds the time stamp, which both kinds of events must have. Returns 0, or -1 if the event has none.
static int _AddTimeStamp(Conversion& conversion, const CotSlice& value, bool found, int key) {
  if (!found) {
    MD_LOG(3, "failed to find timeStamp field !\n");
    return -1;
  }
  const CotText text(value);
  if (cvt_getUSecsFromTimeStr(text.Get(), &conversion.item.value.ubyte8) != 0) {
    MD_LOG(3, "failed to get uSecs for tmStamp %s", text.Get());
    return -1;
  }
  _AddEventItem(conversion, key, 8);
  return 0;
}

static int _AddAirEventItem(Conversion& conversion, const cvtCotField& row, const CotSlice& value, bool found) {
  const int key = cotToKlv_airEventTable[row.mapId].klvKey;
  if (!found) MD_LOG(3, "cotField \"%s\" not found\n", row.name);
  if (row.mapId == AIR_EVENT_TIME) return _AddTimeStamp(conversion, value, found, key);
  if (!found) return 0;
  const CotText text(value);
  if (row.mapId == AIR_EVENT_START) {
    if (cvt_getUSecsFromTimeStr(text.Get(), &conversion.item.value.ubyte8) != 0)
      MD_LOG(3, "failed to get uSecs for start %s", text.Get());  // KEPT: the item is added nevertheless
    _AddEventItem(conversion, key, 8);
  } else if (row.mapId == AIR_EVENT_UID) {
    MD_LOG(7, "aircraft uid=\"%s\"", text.Get());
    _SetText(conversion, value);
    _AddEventItem(conversion, key, static_cast<int>(value.length));
  } else {
    MD_LOG(3, "unknown mapId !\n");
  }
  return 0;
}

static int _AddAirEvent(Conversion& conversion) {
  MD_LOG(7, "Found <event> tag slice!\n");
  for (const cvtCotField& row : cot_airEventTable) {
    CotSlice value;
    const bool found = _FindField(conversion.tag, row, &value);
    if (_AddAirEventItem(conversion, row, value, found) != 0) return -1;
  }
  return 0;
}

// Reads an attribute that is a number. Logs it and returns false if it is missing.
static bool _FindAirNumber(const CotSlice& slice, const cvtCotField& row, double* value) {
  CotSlice text;
  if (!_FindField(slice, row, &text)) {
    MD_LOG(3, "cotField \"%s\" not found\n", row.name);
    return false;
  }
  *value = _ToNumber(text);
  return true;
}

static void _AddAirTrack(Conversion& conversion) {
  CotSlice slice;
  if (!_FindSlice(conversion.event, "<track", "/>", &slice)) {
    MD_LOG(3, "not found <track> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_airTrackTable) {
    const NumberItem& item = kAirTrackItems[row.mapId];
    double value = 0;
    if (!_FindAirNumber(slice, row, &value)) continue;
    if (!_AddNumber(conversion, item, value))
      MD_LOG(3, "_cvt_processAirMsg():out of range value detected for key=%d value=(PROTECTED)\n", item.tag);
    else if (row.mapId == AIR_TRACK_COURSE && _g_bAllItemsSupport)
      conversion.instance->a_course = _ToFloat(value);
  }
}

static void _AddAirAttitude(Conversion& conversion) {
  CotSlice slice;
  if (!_FindSlice(conversion.event, "<attitude", "/>", &slice)) {
    MD_LOG(3, "not found <attitude> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_airAttitudeTable) {
    double value = 0;
    if (!_FindAirNumber(slice, row, &value)) continue;
    const bool inRange = _AddNumber(conversion, kAirAttitudeItems[row.mapId], value);
    float& angle = row.mapId == AIR_ATTITUDE_PITCH ? conversion.instance->a_pitch : conversion.instance->a_roll;
    angle = inRange ? _ToFloat(value) : kCvtAngleOutOfRange;
  }
}

// Adds a latitude or longitude and keeps it for the undulation. Returns false, keeping nothing, if it is out of range.
static bool _AddCoordinate(Conversion& conversion, const NumberItem& item, double value, double* kept) {
  if (!_AddNumber(conversion, item, value)) return false;
  *kept = value;
  return true;
}

static void _AddAirPoint(Conversion& conversion) {
  CotSlice slice;
  if (!_FindSlice(conversion.event, "<point", "/>", &slice)) {
    MD_LOG(3, "not found <point> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_airPointTable) {
    double value = 0;
    if (!_FindAirNumber(slice, row, &value)) continue;
    if (row.mapId == AIR_POINT_HAE)
      conversion.hae = value;
    else
      _AddCoordinate(conversion, kAirPointItems[row.mapId], value,
                     row.mapId == AIR_POINT_LAT ? &conversion.lat : &conversion.lon);
  }
}

static bool _HasPosition(const Conversion& conversion) {
  return conversion.lat != kNotRead && conversion.lon != kNotRead && conversion.hae != kNotRead;
}

static int _UndulationAt(const Conversion& conversion, float* undulation) {
  const double lon = conversion.lon < 0 ? conversion.lon + 360 : conversion.lon;
  return calcul_undulation(static_cast<float>(conversion.lat), static_cast<float>(lon), undulation);
}

// Returns the height above mean sea level in metres.
static double _Height(const Conversion& conversion, float undulation) {
  return conversion.hae - static_cast<double>(undulation);
}

static void _AddAirAltitude(Conversion& conversion) {
  float undulation = 0;
  if (!_HasPosition(conversion) || _UndulationAt(conversion, &undulation) != 0) return;
  const NumberItem& item = kAirPointItems[AIR_POINT_HAE];
  const double height = _Height(conversion, undulation);
  if (!_InRange(height, item.low, item.high)) return;
  MD_LOG(7, "add airCraft hae. undulation = %f\n", static_cast<double>(undulation));
  _AddNumber(conversion, item, height);
}

static int _ConvertAircraft(Conversion& conversion) {
  if (_AddAirEvent(conversion) != 0) return -1;
  _AddAirTrack(conversion);
  if (_g_bAllItemsSupport) _AddAirAttitude(conversion);
  _AddAirPoint(conversion);
  _AddAirAltitude(conversion);
  return 0;
}

int cvt_processAircraftMsg(CONVERTER_INSTANCE_DATA* instance, const char* pvInputData, uint32_t nInDataSize,
                           cvtXmlMsg* message) {
  Conversion conversion = _StartConversion(instance, pvInputData, nInDataSize, message);
  return _FindTag(conversion.event, &conversion.tag) ? _ConvertAircraft(conversion) : -1;
}

// =====================================================================================================
// 5. Sensor-point events. Metadata thread.
// =====================================================================================================

static int _AddSpiEvent(Conversion& conversion) {
  for (const cvtCotField& row : cot_spiEventTable) {
    const int key = cotToKlv_spiEventTable[row.mapId].klvKey;
    CotSlice value;
    const bool found = _FindField(conversion.tag, row, &value);
    if (!found) MD_LOG(3, "cotField \"%s\" not found\n", row.name);
    if (row.mapId == SPI_EVENT_TIME) {
      if (_AddTimeStamp(conversion, value, found, key) != 0) return -1;
    } else if (found) {
      const CotText text(value);
      MD_LOG(7, "SPI uid=\"%s\"", text.Get());
      // KEPT: accepted sensors are listed too.
      if (conversion.instance->bDiscoverSensors) AddDiscoveredSensor(conversion.instance, text.Get());
      _SetText(conversion, value);
      _AddEventItem(conversion, key, static_cast<int>(value.length));
    }
  }
  return 0;
}

static void _LogSpiOutOfRange(int key) {
  MD_LOG(3, "out of range value detected for key=%d, value=(PROTECTED)\n", key);
}

// KEPT: the horizontal error's message names LE as well.
static void _AddErrorEstimate(Conversion& conversion, const NumberItem& item, const CotSlice& text, double value) {
  if (_AddNumber(conversion, item, value)) return;
  MD_LOG(3, "SPI_POINT_LE value of %s (%f) is out of 0 to 4095 range.\n", CotText(text).Get(), value);
  _LogSpiOutOfRange(item.tag);
}

static void _AddSpiPointItem(Conversion& conversion, const cvtCotField& row, const CotSlice& text) {
  const NumberItem& item = kSpiPointItems[row.mapId];
  const double value = _ToNumber(text);
  switch (row.mapId) {
    case SPI_POINT_LAT:
      if (!_AddCoordinate(conversion, item, value, &conversion.lat))
        MD_LOG(3, "SPI_POINT_LAT value of %f is out of -90 to 90 range.\n", value);
      break;
    case SPI_POINT_HAE:
      conversion.hae = value;
      break;
    case SPI_POINT_LON:
      if (!_AddCoordinate(conversion, item, value, &conversion.lon))
        MD_LOG(3, "SPI_POINT_LON value of %f is out of -180 to 180 range.\n", value);
      break;
    case SPI_POINT_LE:
      _AddErrorEstimate(conversion, item, text, value * kSigmaToLE90);
      break;
    default:
      _AddErrorEstimate(conversion, item, text, value * kSigmaToCE90);
      break;
  }
}

static void _AddFrameCentreElevation(Conversion& conversion) {
  if (!_HasPosition(conversion)) {
    MD_LOG(3, "miss info to calcul undulation of hae\n");
    return;
  }
  const NumberItem& item = kSpiPointItems[SPI_POINT_HAE];
  float undulation = 0;
  if (_UndulationAt(conversion, &undulation) != 0) {
    MD_LOG(3, "failed to calcul_undulation!\n");
    return;
  }
  const double height = _Height(conversion, undulation);
  if (!_InRange(height, item.low, item.high)) {
    _LogSpiOutOfRange(item.tag);
    return;
  }
  MD_LOG(7, "add spi hae. undulation = %f\n", static_cast<double>(undulation));
  _AddNumber(conversion, item, height);
}

static void _AddSpiPoint(Conversion& conversion) {
  CotSlice slice;
  if (!_FindSlice(conversion.event, "<point", "/>", &slice)) {
    MD_LOG(3, "not found <point> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_spiPointTable) {
    CotSlice text;
    if (_FindField(slice, row, &text))
      _AddSpiPointItem(conversion, row, text);
    else
      MD_LOG(3, "cotField \"%s\" not founded\n", row.name);
  }
  _AddFrameCentreElevation(conversion);
}

static void _AddFieldOfView(Conversion& conversion, const CotSlice& text, double value) {
  if (_AddNumber(conversion, kFieldOfView, value)) return;
  MD_LOG(3, "SPI_SENSOR_FOV value of %s (%f) is out of 0 to 180 range.\n", CotText(text).Get(), value);
  _LogSpiOutOfRange(kFieldOfView.tag);
}

static void _AddVerticalFieldOfView(Conversion& conversion, const CotSlice& text, double value) {
  if (_AddNumber(conversion, kVerticalFieldOfView, value)) return;
  MD_LOG(3, "SPI_SENSOR_VFOV value of %s (%f) is out of 0 to 180 range.\n", CotText(text).Get(), value);
  _LogSpiOutOfRange(kVerticalFieldOfView.tag);
}

static void _AddSlantRange(Conversion& conversion, const CotSlice& text, double value) {
  if (_AddNumber(conversion, kSlantRange, value)) return;
  MD_LOG(3, "SPI_SENSOR_RANGE value of %s (%f) is out of 0 to 5000000 range.\n", CotText(text).Get(), value);
  _LogSpiOutOfRange(kSlantRange.tag);
}

static void _AddSensorItem(Conversion& conversion, const cvtCotField& row, const CotSlice& text) {
  const double value = _ToNumber(text);
  switch (row.mapId) {
    case SPI_SENSOR_MODEL:  // KEPT: appends a second tag 11 after the one from uid
      _SetText(conversion, text);
      _AddItem(conversion, cotToKlv_spiSensorTable[SPI_SENSOR_MODEL].klvKey, static_cast<int>(text.length));
      break;
    case SPI_SENSOR_FOV:
      _AddFieldOfView(conversion, text, value);
      break;
    case SPI_SENSOR_VFOV:
      _AddVerticalFieldOfView(conversion, text, value);
      break;
    case SPI_SENSOR_AZIMUTH:
      conversion.instance->s_azimuth = _ToFloat(value);
      break;
    case SPI_SENSOR_ELEVATION:
      conversion.instance->s_elevation = _ToFloat(value);
      break;
    case SPI_SENSOR_ROLL:
      conversion.instance->s_roll = _ToFloat(value);
      break;
    case SPI_SENSOR_RANGE:
      _AddSlantRange(conversion, text, value);
      break;
    default:
      MD_LOG(3, "Unknown mapId !\n");
      break;
  }
}

static void _AddSpiSensor(Conversion& conversion) {
  CotSlice slice;
  if (!_FindSlice(conversion.event, "<sensor", "/>", &slice)) {
    MD_LOG(3, "not found <sensor> tag slice!\n");
    return;
  }
  for (const cvtCotField& row : cot_spiSensorTable) {
    CotSlice text;
    if (_FindField(slice, row, &text))
      _AddSensorItem(conversion, row, text);
    else
      MD_LOG(3, "cotField \"%s\" not founded\n", row.name);
  }
}

static int _ConvertSpi(Conversion& conversion) {
  if (_AddSpiEvent(conversion) != 0) return -1;
  _AddSpiPoint(conversion);
  if (_g_bAllItemsSupport) _AddSpiSensor(conversion);
  return 0;
}

int cvt_processSpiMsg(CONVERTER_INSTANCE_DATA* instance, const char* pvInputData, uint32_t nInDataSize,
                      cvtXmlMsg* message) {
  Conversion conversion = _StartConversion(instance, pvInputData, nInDataSize, message);
  return _FindTag(conversion.event, &conversion.tag) ? _ConvertSpi(conversion) : -1;
}

// Appends to the packet without checking its length: kCvtPacketSize has room for all three angles.
static void _AppendAngle(cvtXmlMsg* message, int key, uint32_t value) {
  BYTE* out = message->pKlvPacket + message->curKlvLen;
  const uint32_t swapped = SWAP32(value);
  out[0] = static_cast<BYTE>(key);
  out[1] = 4;
  memcpy(out + 2, &swapped, sizeof(swapped));
  message->curKlvLen += 6;
}

static constexpr double kScaleRelativeAngle = 11930464.70833333;      // 4294967295/360
static constexpr double kScaleRelativeElevation = 11930464.70555556;  // 4294967294/360
static constexpr uint32_t kElevationOutOfRange = 0x80000000;

// Stores the item's integer for the difference of two angles. Returns false if that is 361 degrees or more, or NaN.
// KEPT: the difference loses its sign and its fraction.
static bool _WholeDegrees(float sensor, float aircraft, uint32_t* value) {
  const float difference = sensor - aircraft;
  const float absolute = difference < 0 ? -difference : difference;
  if (!(absolute < 361)) return false;
  *value = _RoundU32(static_cast<int>(absolute) * kScaleRelativeAngle);
  return true;
}

static void _AddRelativeAzimuth(const CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message) {
  const float course = instance->a_course;
  const float azimuth = instance->s_azimuth;
  uint32_t value = 0;
  if (course == kCvtAngleNotSet || azimuth == kCvtAngleNotSet || !_WholeDegrees(azimuth, course, &value)) {
    MD_LOG(7, "no azimuth key will be added to KLV. cours = %f, azimuth = %f  \n", static_cast<double>(course),
           static_cast<double>(azimuth));
    return;
  }
  _AppendAngle(message, cotToKlv_spiSensorTable[SPI_SENSOR_AZIMUTH].klvKey, value);
  MD_LOG(7, "adding azimuth key (0x12): klv value = 0x%x \n", value);
}

static void _AddRelativeElevation(const CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message) {
  if (instance->a_pitch == kCvtAngleNotSet || instance->s_elevation == kCvtAngleNotSet) {
    MD_LOG(7, "no spi elevation key will be added to KLV \n");
    return;
  }
  const float difference = instance->s_elevation - instance->a_pitch;
  uint32_t value = kElevationOutOfRange;
  if (instance->a_pitch != kCvtAngleOutOfRange && difference >= -180 && difference <= 180)
    value = static_cast<uint32_t>(_Round(static_cast<double>(difference) * kScaleRelativeElevation));
  _AppendAngle(message, cotToKlv_spiSensorTable[SPI_SENSOR_ELEVATION].klvKey, value);
  MD_LOG(7, "adding spi elevation key (0x13): klv value = 0x%x \n", value);
}

static void _AddRelativeRoll(const CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message) {
  const float aircraft = instance->a_roll;
  const bool isSet =
      aircraft != kCvtAngleOutOfRange && aircraft != kCvtAngleNotSet && instance->s_roll != kCvtAngleNotSet;
  uint32_t value = 0;
  if (!isSet || !_WholeDegrees(instance->s_roll, aircraft, &value)) {
    MD_LOG(7, "no spi roll key will be added to KLV \n");
    return;
  }
  _AppendAngle(message, cotToKlv_spiSensorTable[SPI_SENSOR_ROLL].klvKey, value);
  MD_LOG(7, "adding spi roll key (0x14): klv value = 0x%x \n", value);
}

void cvt_addSPISensorItems(const CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message) {
  _AddRelativeAzimuth(instance, message);
  _AddRelativeElevation(instance, message);
  _AddRelativeRoll(instance, message);
}

// =====================================================================================================
// 6. Pending messages. Metadata thread.
// =====================================================================================================

void cvt_freeMsgAndKlvPacket(cvtXmlMsg* message) {
  if (message->pKlvPacket != nullptr && message->freePktMemFlag == 1) DoReleaseBuffer(&message->pBuffer);
  free(message);
}

void cvt_freeAllMsgsAndNoReturnedKlvPackets(CONVERTER_INSTANCE_DATA* instance) {
  while (instance->pMsgListHeader != nullptr) {
    cvtXmlMsg* message = instance->pMsgListHeader;
    instance->pMsgListHeader = message->pNext;
    if (message->freePktMemFlag == 1 && message->pBuffer != nullptr) {
      DoReleaseBuffer(&message->pBuffer);
      MD_LOG(7, "Free All Msgs\n");
    }
    free(message);
  }
}

static bool _IsWithinDelta(const struct timeval& diff, int32_t maxDelta) {
  const long seconds = maxDelta / 1000000;
  const long microseconds = maxDelta % 1000000;
  const bool within = diff.tv_sec < seconds || (diff.tv_sec == seconds && diff.tv_usec <= microseconds);
  const unsigned long diffSeconds = static_cast<unsigned long>(diff.tv_sec);
  const unsigned long diffMicroseconds = static_cast<unsigned long>(diff.tv_usec);
  if (within)
    MD_LOG(7, "Delta of %lu sec %lu usec is within accepted range of %lu.%06lu.\n", diffSeconds, diffMicroseconds,
           static_cast<unsigned long>(seconds), static_cast<unsigned long>(microseconds));
  else
    MD_LOG(5, "Delta of %lu sec %lu usec is NOT within accepted range of %lu.%06lu.\n", diffSeconds, diffMicroseconds,
           static_cast<unsigned long>(seconds), static_cast<unsigned long>(microseconds));
  return within;
}

cvtXmlMsg* cvt_findMsgFromList(const CONVERTER_INSTANCE_DATA* instance, const char* timeText) {
  for (cvtXmlMsg* message = instance->pMsgListHeader; message != nullptr; message = message->pNext) {
    if (strcmp(CotText(message->matchStr).Get(), timeText) == 0) return message;
  }
  kMetadataThread.Assume();
  struct timeval newTime;
  _OrderTime(timeText, &newTime);
  for (cvtXmlMsg* message = instance->pMsgListHeader; message != nullptr; message = message->pNext) {
    struct timeval time;
    struct timeval diff;
    _OrderTime(CotText(message->matchStr).Get(), &time);
    CalcTimeOfDayAbsDiff(&newTime, &time, &diff);
    if (_IsWithinDelta(diff, instance->nMaxSPIAirCraftTimeDeltaInUS)) return message;
  }
  return nullptr;
}

static void _AppendToList(CONVERTER_INSTANCE_DATA* instance, cvtXmlMsg* message) {
  cvtXmlMsg** end = &instance->pMsgListHeader;
  while (*end != nullptr) end = &(*end)->pNext;
  *end = message;
}

// Replaces all pending messages by a new one. Returns NULL if out of memory.
static cvtXmlMsg* _StartMessage(CONVERTER_INSTANCE_DATA* instance, const CotSlice& time) {
  cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
  MD_LOG(7, "allocating a new msg since none found with time=\"%s\" !\n", CotText(time).Get());
  cvtXmlMsg* message = static_cast<cvtXmlMsg*>(calloc(1, sizeof(cvtXmlMsg)));
  if (message == nullptr) {
    MD_LOG(3, "cvtXmlMsg malloc failed  !\n");
    return nullptr;
  }
  if (cvt_initXmlMsg(instance, message) != CVT_COTKLV_STATUS_OK) {
    MD_LOG(3, "failed to init mxl msg !\n");
    cvt_freeMsgAndKlvPacket(message);
    return nullptr;
  }
  memcpy(message->matchStr, time.text, time.length);
  if (time.length < sizeof(message->matchStr)) message->matchStr[time.length] = '\0';
  _AppendToList(instance, message);
  return message;
}

// =====================================================================================================
// 7. Conversion of an event. Metadata thread.
// =====================================================================================================

// Makes a terminated copy of the input: a datagram has no terminator, and the rest of an older one must not complete
// it. Returns false if out of memory.
static bool _CopyEvent(CONVERTER_INSTANCE_DATA* instance, const BYTE* inputData, int inputSize) {
  if (inputSize >= instance->nEventCapacity) {
    free(instance->szEvent);
    instance->nEventCapacity = 0;
    const size_t capacity = static_cast<size_t>(inputSize) + 1;
    instance->szEvent = static_cast<char*>(malloc(capacity));
    if (instance->szEvent == nullptr) {
      MD_LOG(3, "malloc() failed !\n");
      return false;
    }
    instance->nEventCapacity = inputSize + (inputSize < INT_MAX ? 1 : 0);
  }
  memcpy(instance->szEvent, inputData, static_cast<size_t>(inputSize));
  instance->szEvent[inputSize] = '\0';
  return true;
}

static bool _CutEvent(const CONVERTER_INSTANCE_DATA* instance, int inputSize, CotSlice* event, CotSlice* tag) {
  const CotSlice input = {instance->szEvent, static_cast<uint32_t>(inputSize)};
  if (!_FindSlice(input, "<event", "</event>", event)) {
    MD_LOG(7, "not found whole msg!\n");
    return false;
  }
  MD_LOG(7, "found whole msg, pMsg = 0x%x, len = %d\n", static_cast<UINT>(reinterpret_cast<uintptr_t>(event->text)),
         static_cast<int>(event->length));
  if (!_FindTag(*event, tag)) return false;
  MD_LOG(7, "found <event> tag slice!\n");
  return true;
}

static bool _BeginsWith(const CotSlice& value, const char* prefix) {
  const size_t length = strlen(prefix);
  return value.length >= length && memcmp(value.text, prefix, length) == 0;
}

// Counts the event by its type. Returns CVT_MSG_TYPE_NONE if it is not for the converter.
static CVT_MSG_TYPE _ClassifyEvent(CONVERTER_INSTANCE_DATA* instance, const CotSlice& tag) {
  CotSlice type;
  if (!_LookUp(tag, "type", &type)) {
    MD_LOG(3, "not found type field !\n");
    return CVT_MSG_TYPE_NONE;
  }
  if (_BeginsWith(type, "a-f-A")) {
    MdAddFetch(instance->Stats.nRxAirCraftMessages, 1);
    return CVT_MSG_TYPE_AIRCRAFT;
  }
  if (_BeginsWith(type, "b-m-p-s-p-i")) {
    MdAddFetch(instance->Stats.nRxSPIMessages, 1);
    return CVT_MSG_TYPE_SPI;
  }
  MD_LOG(3, "unknow msg event type %s, len = %d !\n", CotText(type).Get(), static_cast<int>(type.length));
  return CVT_MSG_TYPE_NONE;
}

static bool _PassesFilter(CONVERTER_INSTANCE_DATA* instance, const CotSlice& tag) {
  CotSlice uid;
  if (!_LookUp(tag, "uid", &uid)) {
    MD_LOG(3, "xml_getCotFieldInTagSlice failed for UID retrieval.\n");
    return false;
  }
  const CotText text(uid);
  if (strcmp(text.Get(), instance->szSpiUid) == 0) {
    MD_LOG(7, "SPI message accepted since UID \"%s\" matches filter \"%s\".\n", text.Get(), instance->szSpiUid);
    return true;
  }
  MD_LOG(7, "Discarding SPI message since UID \"%s\" is not \"%s\".\n", text.Get(), instance->szSpiUid);
  MdAddFetch(instance->Stats.nFilteredRxSPIMessages, 1);
  if (instance->bDiscoverSensors) AddDiscoveredSensor(instance, text.Get());
  return false;
}

// Reads the event's time, by which events are paired.
static bool _FindTime(const CotSlice& tag, CotSlice* time) {
  _LogFoundSlice(tag);
  if (!_LookUp(tag, "time", time)) {
    MD_LOG(3, "not found type field !\n");  // KEPT: the text names the type instead of the time
    return false;
  }
  MD_LOG(7, "matchStr, time=\"%s\" !\n", CotText(*time).Get());
  return true;
}

// Returns the pending message that this event completes, or a new one, or NULL if there is neither.
static cvtXmlMsg* _FindOrStartMessage(CONVERTER_INSTANCE_DATA* instance, CVT_MSG_TYPE type, const CotSlice& time,
                                      bool* paired) {
  const CotText text(time);
  cvtXmlMsg* message = cvt_findMsgFromList(instance, text.Get());
  *paired = message != nullptr;
  if (message == nullptr) return _StartMessage(instance, time);
  if (message->msgType == type) {
    cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
    MD_LOG(4, "we got the same type msg twice !\n");
    return nullptr;
  }
  MD_LOG(7, "We have both SPI and AIRCRAFT events with time=\"%s\" !\n", text.Get());
  return message;
}

static int _ConvertEvent(CONVERTER_INSTANCE_DATA* instance, CVT_MSG_TYPE type, const CotSlice& event,
                         const CotSlice& tag, cvtXmlMsg* message) {
  Conversion conversion = _StartConversion(instance, event.text, event.length, message);
  conversion.tag = tag;
  if (type == CVT_MSG_TYPE_AIRCRAFT) {
    MD_LOG(7, "Got a aircraft msg!\n");
    _LogFoundSlice(tag);
    return _ConvertAircraft(conversion);
  }
  MD_LOG(7, "Got a SPI msg!\n");
  _LogFoundSlice(tag);
  return _ConvertSpi(conversion);
}

// Adds a classified event to its message, and closes the packet if the event was the second one.
static int _AddEvent(CONVERTER_INSTANCE_DATA* instance, CVT_MSG_TYPE type, const CotSlice& event, const CotSlice& tag,
                     MDATA_BUFFER** out) {
  CotSlice time;
  if (!_FindTime(tag, &time)) return -1;
  bool paired = false;
  cvtXmlMsg* message = _FindOrStartMessage(instance, type, time, &paired);
  if (message == nullptr) return -1;
  if (_ConvertEvent(instance, type, event, tag, message) == -1) {
    cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
    return -1;
  }
  if (message->tmStampFlag != 1) {
    MD_LOG(3, "no timeStamp found in the message!\n");
    cvt_freeAllMsgsAndNoReturnedKlvPackets(instance);
    return 0;
  }
  if (!paired) {
    MD_LOG(7, "waiting for another message!\n");
    return 0;
  }
  if (_g_bAllItemsSupport) cvt_addSPISensorItems(instance, message);
  return _ClosePacket(instance, message, out);
}

int ConvertCoT2KLV(HCONVERTER hConv, const BYTE* pvInputData, int nInDataSize, MDATA_BUFFER** ppBuffer) {
  *ppBuffer = nullptr;
  if (pvInputData == nullptr || static_cast<UINT>(nInDataSize) < kShortestText) {
    MD_LOG(3, "invalid input, pvInputData=%p, nInDataSize=%u!\n", static_cast<const void*>(pvInputData),
           static_cast<UINT>(nInDataSize));
    return -1;
  }
  if (nInDataSize < static_cast<int>(kShortestText)) {
    MD_LOG(3, "input size %d shorter than minumum!\n", nInDataSize);
    return -1;
  }
  CotSlice event;
  CotSlice tag;
  if (!_CopyEvent(hConv, pvInputData, nInDataSize) || !_CutEvent(hConv, nInDataSize, &event, &tag)) return -1;
  const CVT_MSG_TYPE type = _ClassifyEvent(hConv, tag);
  if (type == CVT_MSG_TYPE_NONE) return -1;
  if (type == CVT_MSG_TYPE_SPI && hConv->szSpiUid[0] != '\0' && !_PassesFilter(hConv, tag)) return -1;
  return _AddEvent(hConv, type, event, tag, ppBuffer);
}

void ReleaseConvertedData(MDATA_BUFFER* pBuffer) {
  DoReleaseBuffer(&pBuffer);
}

// =====================================================================================================
// 8. Instances and statistics. Opened and closed with their source; the statistics calls come from the encoder's
//    threads under the API lock, while the metadata thread converts.
// =====================================================================================================

BOOL AllocCoT2KLVConvert(HCONVERTER* phConvInstance, int32_t nMaxSPIAirCraftTimeDeltaInUS, const char* szSpiUid,
                         BOOL bEnableSPIDiscovery) {
  MD_ASSERT_OR_RETURN(phConvInstance != NULL, FALSE);
  *phConvInstance = nullptr;
  CONVERTER_INSTANCE_DATA* instance = static_cast<CONVERTER_INSTANCE_DATA*>(calloc(1, sizeof(CONVERTER_INSTANCE_DATA)));
  if (instance == nullptr) return FALSE;
  cvt_resetVariables(instance);
  instance->nMaxSPIAirCraftTimeDeltaInUS = nMaxSPIAirCraftTimeDeltaInUS;
  if (szSpiUid != nullptr) CopyString(instance->szSpiUid, szSpiUid, sizeof(instance->szSpiUid));
  instance->bDiscoverSensors = bEnableSPIDiscovery;
  *phConvInstance = instance;
  return TRUE;
}

void FreeCoT2KLVConvert(HCONVERTER* phConvInstance) {
  MD_ASSERT_OR_RETURN(phConvInstance != NULL, );
  MD_ASSERT_OR_RETURN(*phConvInstance != NULL, );
  cvt_freeAllMsgsAndNoReturnedKlvPackets(*phConvInstance);
  free((*phConvInstance)->szEvent);
  free(*phConvInstance);
  *phConvInstance = nullptr;
}

void AddDiscoveredSensor(CONVERTER_INSTANCE_DATA* instance, const char* uid) {
  kMetadataThread.Assume();
  _NoteSensor(instance->KnownSensors, uid);
}

void AgeCoT2KLVSensors(HCONVERTER hConv) {
  kMetadataThread.Assume();
  _AgeSensors(hConv->KnownSensors);
}

// Does not change the two counters of packets, which belong to the caller.
void GetCoT2KLVConvertStats(HCONVERTER hConv, MDATA_COT_STATS* pStats) {
  pStats->nRxSPIMessages = MdLoad(hConv->Stats.nRxSPIMessages);
  pStats->nRxAirCraftMessages = MdLoad(hConv->Stats.nRxAirCraftMessages);
  pStats->nFilteredRxSPIMessages = MdLoad(hConv->Stats.nFilteredRxSPIMessages);
  pStats->nDiscoveredSensorsCount = _CopySensors(hConv->KnownSensors, pStats->aszSensorUIDs);
}

void ResetCoT2KLVConvertStats(HCONVERTER hConv) {
  MdStore(hConv->Stats.nRxSPIMessages, 0);
  MdStore(hConv->Stats.nRxAirCraftMessages, 0);
  MdStore(hConv->Stats.nFilteredRxSPIMessages, 0);
}

void SetCoT2KLVConvertStats(HCONVERTER hConv, const MDATA_COT_STATS* pStats) {
  MdStore(hConv->Stats.nRxSPIMessages, pStats->nRxSPIMessages);
  MdStore(hConv->Stats.nRxAirCraftMessages, pStats->nRxAirCraftMessages);
  MdStore(hConv->Stats.nFilteredRxSPIMessages, pStats->nFilteredRxSPIMessages);
}
