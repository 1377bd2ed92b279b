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

#include <errno.h>
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
#include "md_number_reader.h"
#include "md_sensors.h"

#define MD_MODULE "converter"
#define MD_DEBUG_HANDLE g_hCoTConvDbg
#include "md_log.h"

// =====================================================================================================
// 1. Numbers. Any thread, no state.
// =====================================================================================================

static float _ToFloat(double value) {
  if (value > static_cast<double>(FLT_MAX)) return __builtin_inff();
  if (value < -static_cast<double>(FLT_MAX)) return -__builtin_inff();
  return static_cast<float>(value);
}

// Returns false for NaN too.
static bool _InRange(double value, double low, double high) {
  return value >= low && value <= high;
}

// Rounds half away from zero. The caller has bounded the value.
static int64_t _Round(double value) {
  return static_cast<int64_t>(value >= 0 ? value + 0.5 : value - 0.5);
}

static uint32_t _RoundU32(double value) {
  const int64_t nRounded = _Round(value);
  return nRounded > int64_t{UINT32_MAX} ? UINT32_MAX : static_cast<uint32_t>(nRounded);
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

BOOL _g_bAllItemsSupport = TRUE;

// Tags of the local set that the packet's own layout knows.
static constexpr uint8_t kTagChecksum = 1;
static constexpr uint8_t kTagTimeStamp = 2;

void cvt_resetVariables(CONVERTER_INSTANCE_DATA* pInstance) {
  pInstance->a_course = kCvtAngleNotSet;
  pInstance->a_roll = kCvtAngleNotSet;
  pInstance->a_pitch = kCvtAngleNotSet;
  pInstance->s_azimuth = kCvtAngleNotSet;
  pInstance->s_elevation = kCvtAngleNotSet;
  pInstance->s_roll = kCvtAngleNotSet;
}

CVT_COTKLV_STATUS cvt_initXmlMsg(CONVERTER_INSTANCE_DATA* pInstance, cvtXmlMsg* pXmlMsg) {
  pXmlMsg->pBuffer = nullptr;
  if (!DoAllocBuffer(kCvtBufferSize, &pXmlMsg->pBuffer)) {
    pXmlMsg->pKlvPacket = nullptr;
    MD_LOG(3, "malloc() failed !\n");
    return CVT_COTKLV_STATUS_MALLOC_FAIL;
  }
  pXmlMsg->pBuffer->pcData += kCvtHeadroom;
  pXmlMsg->pKlvPacket = pXmlMsg->pBuffer->pcData;
  pXmlMsg->tmStampFlag = 0;
  pXmlMsg->freePktMemFlag = 1;
  memset(pXmlMsg->matchStr, '0', sizeof(pXmlMsg->matchStr));
  memcpy(pXmlMsg->pKlvPacket, klvLDS16BytesKeySet, kCvtKeySize);
  pXmlMsg->curKlvLen = kCvtFirstItemOffset;
  pXmlMsg->pNext = nullptr;
  // KEPT: only with the option; angles of an older pair must not meet this one.
  if (_g_bAllItemsSupport) cvt_resetVariables(pInstance);
  return CVT_COTKLV_STATUS_OK;
}

// KEPT: only the current length is checked, not the item's; kCvtPacketSize has the room. Tags may repeat.
CVT_COTKLV_STATUS cvt_addKlvItem(const cvtKlvItem* pKlvItem, cvtXmlMsg* pXmlMsg) {
  if (pKlvItem == nullptr || pXmlMsg->pKlvPacket == nullptr) {
    MD_LOG(3, "invalid input !\n");
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  if (pXmlMsg->curKlvLen >= kCvtFullLength) {
    MD_LOG(3, "curKlvLen is too big: 0x%x !\n", static_cast<UINT>(pXmlMsg->curKlvLen));
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  const bool bTimeStamp = pKlvItem->key == kTagTimeStamp;
  BYTE* pcItem = pXmlMsg->pKlvPacket + (bTimeStamp ? kCvtTimeStampOffset : pXmlMsg->curKlvLen);
  pcItem[0] = pKlvItem->key;
  pcItem[1] = pKlvItem->length;
  memcpy(pcItem + 2, &pKlvItem->value, pKlvItem->length);
  if (bTimeStamp)
    pXmlMsg->tmStampFlag = 1;
  else
    pXmlMsg->curKlvLen += 2 + pKlvItem->length;
  return CVT_COTKLV_STATUS_OK;
}

uint16_t get_checksum_u16(const BYTE* pData, int nLength) {
  return nLength > 0 ? SWAP16(_MdRunningSum(pData, static_cast<size_t>(nLength))) : uint16_t{0};
}

static constexpr int kShortFormLimit = 127;

static void _StoreChecksum(BYTE* pcPacket, int nPacketLength) {
  const uint16_t nChecksum = get_checksum_u16(pcPacket, nPacketLength - 2);
  MD_LOG(7, "Checksum value = 0x%x, returned packetLen = 0x%x\n", nChecksum, static_cast<UINT>(nPacketLength));
  memcpy(pcPacket + nPacketLength - 2, &nChecksum, sizeof(nChecksum));
}

// Closes a packet whose length needs the long form: it is copied to a second buffer, behind a longer length field.
static int _CloseLongPacket(CONVERTER_INSTANCE_DATA* pInstance, const cvtXmlMsg* pXmlMsg, int nLength,
                            MDATA_BUFFER** ppBuffer) {
  MdBufferRef buffer;
  if (!DoAllocBuffer(kCvtLongBufferSize, buffer.Out())) {
    MD_LOG(0, "malloc() failed !\n");
    cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
    return CVT_COTKLV_STATUS_MALLOC_FAIL;  // KEPT: not -1; callers look at the buffer
  }
  buffer->pcData += kCvtHeadroom;
  BYTE* pcPacket = buffer->pcData;
  memcpy(pcPacket, klvLDS16BytesKeySet, kCvtKeySize);
  if (nLength > kCvtMaxLongLength) {
    MD_LOG(3, "KLV packet is too long %d!\n", nLength);
    cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
    return -1;
  }
  BYTE* pcLength = pcPacket + kCvtKeySize;
  const int nLengthBytes = nLength <= 255 ? 1 : 2;
  *pcLength++ = static_cast<BYTE>(0x80 | nLengthBytes);
  if (nLengthBytes == 2) *pcLength++ = static_cast<BYTE>(nLength >> 8);
  *pcLength++ = static_cast<BYTE>(nLength);
  memcpy(pcLength, pXmlMsg->pKlvPacket + kCvtKeySize + 1, static_cast<size_t>(nLength));
  const int nPacketLength = kCvtKeySize + 1 + nLengthBytes + nLength;
  _StoreChecksum(pcPacket, nPacketLength);
  buffer->nDataSize = nPacketLength;
  *ppBuffer = buffer.Take();
  cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
  MD_LOG(7, "return KLV with len = %d !\n", nPacketLength);
  return nPacketLength;
}

// Closes the packet and hands it to the caller, who looks at the buffer to see whether there is one. Nothing is pending
// afterwards. Returns the size of the packet.
static int _ClosePacket(CONVERTER_INSTANCE_DATA* pInstance, cvtXmlMsg* pXmlMsg, MDATA_BUFFER** ppBuffer) {
  BYTE* pcPacket = pXmlMsg->pKlvPacket;
  pcPacket[pXmlMsg->curKlvLen] = kTagChecksum;
  pcPacket[pXmlMsg->curKlvLen + 1] = 2;
  pXmlMsg->curKlvLen += 4;
  const int nPacketLength = pXmlMsg->curKlvLen;
  const int nLength = nPacketLength - kCvtKeySize - 1;
  if (nLength > kShortFormLimit) {
    if (_g_bAllItemsSupport) return _CloseLongPacket(pInstance, pXmlMsg, nLength, ppBuffer);
    MD_LOG(3, "long form length not implemented yet!\n");  // KEPT
    cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
    return -1;
  }
  pcPacket[kCvtKeySize] = static_cast<BYTE>(nLength);
  MD_LOG(7, "Len field = 0x%x\n", static_cast<UINT>(nLength));
  _StoreChecksum(pcPacket, nPacketLength);
  pXmlMsg->pBuffer->nDataSize = nPacketLength;
  pXmlMsg->freePktMemFlag = 0;
  *ppBuffer = pXmlMsg->pBuffer;
  MD_LOG(7, "return KLV with len = %d !\n", nPacketLength);
  cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
  return nPacketLength;
}

// =====================================================================================================
// 3. Geoid grid: EGM96, 15 minutes. Loaded and freed on the encoder's thread that starts and stops the library; the
//    metadata thread reads it in between.
// =====================================================================================================

float* _g_pGrid = nullptr;

static void _ReadAllItemsOption() {
  char szValue[40] = "";
  int nSize = sizeof(szValue);
  CfgFile_GetStringValue("/etc/hostos.ini", "CursorOnTarget", "AllItemsSupport", szValue, &nSize, "Yes");
  _g_bAllItemsSupport = strcasecmp(szValue, "Yes") == 0;
  if (_g_bAllItemsSupport)
    MD_LOG(5, "Support of additionnal CoT items enabled.\n");
  else
    MD_LOG(6, "Support of additionnal CoT items disabled.\n");
}

// Tells the host's thread watchdog that this thread is reading and does not hang.
static void _ReportProgress(UINT nPercent) {
  __SetThreadPausedState(FALSE);
  __SetThreadIterations(nPercent);
  __SetThreadPausedState(TRUE);
}

// Fills the grid. Returns the number of values read, fewer than all if the file ended early.
static int _ReadGrid(FILE* fp, float* pGrid, char* pMemory) {
  MdNumberReader reader(fp, pMemory);
  UINT nPercent = 0;
  int nNextReport = (kGridValues + 99) / 100;
  for (int nRead = 0; nRead < kGridValues;) {
    // KEPT: nothing is skipped, and text that is not a number goes unnoticed: its values stay 0.
    nRead += reader.Read(&pGrid[nRead], nNextReport - nRead);
    if (reader.IsAtEnd()) return nRead;
    if (nRead < nNextReport) continue;
    const UINT nNow = static_cast<UINT>(int64_t{nRead} * 100 / kGridValues);
    if (nNow != nPercent) _ReportProgress(nPercent = nNow);
    nNextReport = static_cast<int>((int64_t{nNow + 1} * kGridValues + 99) / 100);
  }
  return kGridValues;
}

static float* _LoadGrid(FILE* fp) {
  MD_LOG(7, "Allocating memory block of %d bytes for data grid.\n", static_cast<int>(kGridValues * sizeof(float)));
  float* pGrid = static_cast<float*>(calloc(kGridValues, sizeof(float)));
  // The reader's memory is on the heap: encoders start the library on threads with small stacks.
  char* pMemory = static_cast<char*>(malloc(MdNumberReader::kMemorySize));
  if (pGrid == nullptr || pMemory == nullptr) {
    MD_LOG(3, "malloc() failed !\n");
    free(pMemory);
    free(pGrid);
    return nullptr;
  }
  MD_LOG(7, "Memory allocated OK, reading grid data.\n");
  struct timeval Start = {};
  gettimeofday(&Start, nullptr);
  __SetThreadPausedState(TRUE);
  const int nRead = _ReadGrid(fp, pGrid, pMemory);
  __SetThreadPausedState(FALSE);
  free(pMemory);
  if (nRead < kGridValues) {
    MD_LOG(3, "fscanf %d number (unexpected finished earlier)!\n", nRead);
    free(pGrid);
    return nullptr;
  }
  struct timeval End = {};
  struct timeval Elapsed = {};
  gettimeofday(&End, nullptr);
  CalcTimeOfDayDiff(&Start, &End, &Elapsed);
  MD_LOG(6, "Grid init done (loaded in %d.%06d secs).\n", static_cast<int>(Elapsed.tv_sec),
         static_cast<int>(Elapsed.tv_usec));
  return pGrid;
}

int init_ww15mgh_grd(void) {
  _ReadAllItemsOption();
  free_ww15mgh_grd();
  MD_LOG(6, "Opening grid file \"%s\".\n", kGridPath);
  FILE* fp = fopen(kGridPath, "rb");
  if (fp == nullptr) {
    const int nError = errno;
    MD_LOG(2, "Failed to open \"%s\", errno=%d \"%s\"\n", kGridPath, nError, strerror(nError));
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
  const float* pUpper = _g_pGrid + r * kGridColumns + c;
  const float* pLower = pUpper + kGridColumns;
  const double sum = (1 - fy) * (1 - fx) * static_cast<double>(pUpper[0]) +
                     (1 - fy) * fx * static_cast<double>(pUpper[1]) + fy * (1 - fx) * static_cast<double>(pLower[0]) +
                     fy * fx * static_cast<double>(pLower[1]);
  *undulation = static_cast<float>(sum);
  return 0;
}

// =====================================================================================================
// 4. Aircraft events. Metadata thread. Items go into the pending message, angles into the instance.
// =====================================================================================================

static constexpr double kNotRead = -100000.0;

namespace {

// What becomes of a value outside the range of its item.
enum class Outside {
  kSkip,   // no item
  kMarker  // an item that holds the smallest signed number, which MISB ST 0601 gives to values out of range
};

// How a number becomes an item: accepted from low to high, the item holds round((value + before) * scale).
struct NumberItem {
  int32_t tag;
  int bytes;  // of the item's value: 1, 2 or 4
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
    {cotToKlv_airTrackTable[AIR_TRACK_COURSE].klvKey, 2, 0, 360, 0, 182.04166667, Outside::kSkip},  // 65535/360
    {cotToKlv_airTrackTable[AIR_TRACK_SPEED].klvKey, 1, 0, kLargestSpeed, 0, 1, Outside::kSkip},
};
// KEPT: angles up to 90 degrees either way are accepted, more than the items can hold; the excess wraps in 16 bits.
static constexpr NumberItem kAirAttitudeItems[] = {
    {cotToKlv_airAttitudeTable[AIR_ATTITUDE_PITCH].klvKey, 2, -90, 90, 0, 1638.35, Outside::kMarker},  // 32767/20
    {cotToKlv_airAttitudeTable[AIR_ATTITUDE_ROLL].klvKey, 2, -90, 90, 0, 655.34, Outside::kMarker},    // 32767/50
};

static constexpr NumberItem _LatitudeItem(int32_t tag) {
  return {tag, 4, -90, 90, 0, 23860929.41111111, Outside::kMarker};  // 4294967294/180
}

static constexpr NumberItem _LongitudeItem(int32_t tag) {
  return {tag, 4, -180, 180, 0, 11930464.70555556, Outside::kMarker};  // 4294967294/360
}

// Of a height above mean sea level in metres.
static constexpr NumberItem _AltitudeItem(int32_t tag) {
  return {tag, 2, -900, 19000, 900, 3.2932161, Outside::kSkip};  // 65535/19900
}

// Of an error bound in metres.
static constexpr NumberItem _ErrorItem(int32_t tag) {
  return {tag, 2, 0, 4095, 0, 16, Outside::kSkip};
}

// Of an angle in degrees.
static constexpr NumberItem _FieldOfViewItem(int32_t tag) {
  return {tag, 2, 0, 180, 0, 364.08333333, Outside::kSkip};  // 65535/180
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
    cotToKlv_spiSensorTable[SPI_SENSOR_RANGE].klvKey, 4, 0, 5000000, 0, 858.993495, Outside::kSkip};

// One-sigma errors become bounds that hold for 90 percent.
static constexpr double kSigmaToLE90 = 1.6448538;
static constexpr double kSigmaToCE90 = 2.145966025;

namespace {

// The conversion of one event.
struct Conversion {
  CONVERTER_INSTANCE_DATA* pInstance;
  cvtXmlMsg* pXmlMsg;
  CotSlice event;
  cvtKlvItem item;  // KEPT: one record serves the whole event, so an unparsable "start" repeats the time stamp
  double lat = kNotRead;
  double lon = kNotRead;
  double hae = kNotRead;
};

}  // namespace

static Conversion _StartConversion(CONVERTER_INSTANCE_DATA* pInstance, const char* pText, uint32_t nLength,
                                   cvtXmlMsg* pXmlMsg) {
  Conversion conversion;
  conversion.pInstance = pInstance;
  conversion.pXmlMsg = pXmlMsg;
  conversion.event = {pText, nLength};
  memset(&conversion.item, 0, sizeof(conversion.item));
  return conversion;
}

static void _Append(Conversion& conversion, int nKey, int nLength) {
  conversion.item.key = static_cast<uint8_t>(nKey);
  conversion.item.length = static_cast<uint8_t>(nLength);
  cvt_addKlvItem(&conversion.item, conversion.pXmlMsg);
}

static void _AddEventItem(Conversion& conversion, int nKey, int nLength) {
  MD_LOG(7, "Mapping KLV Item: key=%d (0x%x) length = 0x%x\n", nKey, static_cast<UINT>(nKey),
         static_cast<UINT>(nLength));
  _Append(conversion, nKey, nLength);
}

static void _AddItem(Conversion& conversion, int nKey, int nLength) {
  MD_LOG(7, "Mapping KLV Item: key=0x%x, length=0x%x\n", static_cast<UINT>(nKey), static_cast<UINT>(nLength));
  _Append(conversion, nKey, nLength);
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

// The item's integer for a value in its range. Only rounding can make the product exceed 32 bits.
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
  if (item.outside == Outside::kMarker) _AddInteger(conversion, item, int64_t{1} << (8 * item.bytes - 1));
  return false;
}

static void _SetText(Conversion& conversion, const cvtCotField& field) {
  memcpy(conversion.item.value.str, field.valueStr, static_cast<size_t>(field.valueLen));
}

// Adds the time stamp, which both kinds of events must have. Returns 0, or -1 if the event has none.
static int _AddTimeStamp(Conversion& conversion, const cvtCotField& field, bool bFound, int nKey) {
  if (!bFound) {
    MD_LOG(3, "failed to find timeStamp field !\n");
    return -1;
  }
  const CotText text(field.valueStr);
  if (cvt_getUSecsFromTimeStr(text.Get(), &conversion.item.value.ubyte8) != 0) {
    MD_LOG(3, "failed to get uSecs for tmStamp %s", text.Get());
    return -1;
  }
  _AddEventItem(conversion, nKey, 8);
  return 0;
}

static int _AddAirEventItem(Conversion& conversion, const cvtCotField& field, bool bFound) {
  const int nKey = cotToKlv_airEventTable[field.mapId].klvKey;
  if (!bFound) MD_LOG(3, "cotField \"%s\" not found\n", field.name);
  if (field.mapId == AIR_EVENT_TIME) return _AddTimeStamp(conversion, field, bFound, nKey);
  if (!bFound) return 0;
  const CotText text(field.valueStr);
  if (field.mapId == AIR_EVENT_START) {
    if (cvt_getUSecsFromTimeStr(text.Get(), &conversion.item.value.ubyte8) != 0)
      MD_LOG(3, "failed to get uSecs for start %s", text.Get());  // KEPT: added all the same
    _AddEventItem(conversion, nKey, 8);
  } else if (field.mapId == AIR_EVENT_UID) {
    MD_LOG(7, "aircraft uid=\"%s\"", text.Get());
    _SetText(conversion, field);
    _AddEventItem(conversion, nKey, field.valueLen);
  } else {
    MD_LOG(3, "unknown mapId !\n");
  }
  return 0;
}

static int _AddAirEvent(Conversion& conversion) {
  CotSlice slice;
  if (!_FindSlice(conversion.event, "<event", ">", &slice)) {
    MD_LOG(3, "not found <event> tag slice!\n");
    return -1;
  }
  MD_LOG(7, "Found <event> tag slice!\n");
  for (const cvtCotField& row : cot_airEventTable) {
    cvtCotField field;
    const bool bFound = _FindField(slice, row, &field);
    if (_AddAirEventItem(conversion, field, bFound) != 0) return -1;
  }
  return 0;
}

// Reads an attribute that is a number. Returns false, with a line in the log, if it is missing.
static bool _FindAirNumber(const CotSlice& slice, const cvtCotField& row, double* pValue) {
  cvtCotField field;
  if (!_FindField(slice, row, &field)) {
    MD_LOG(3, "cotField \"%s\" not found\n", field.name);
    return false;
  }
  *pValue = _TextToDouble(CotText(field.valueStr).Get());
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
      conversion.pInstance->a_course = _ToFloat(value);
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
    float& angle = row.mapId == AIR_ATTITUDE_PITCH ? conversion.pInstance->a_pitch : conversion.pInstance->a_roll;
    angle = inRange ? _ToFloat(value) : kCvtAngleOutOfRange;
  }
}

// Adds a latitude or longitude and keeps it for the undulation. Returns false, keeping nothing, if it is out of range.
static bool _AddCoordinate(Conversion& conversion, const NumberItem& item, double value, double* pKept) {
  if (!_AddNumber(conversion, item, value)) return false;
  *pKept = value;
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

static int _UndulationAt(const Conversion& conversion, float* pUndulation) {
  const double lon = conversion.lon < 0 ? conversion.lon + 360 : conversion.lon;
  return calcul_undulation(static_cast<float>(conversion.lat), static_cast<float>(lon), pUndulation);
}

// Height above mean sea level in metres.
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

int cvt_processAircraftMsg(CONVERTER_INSTANCE_DATA* pInstance, const char* pvInputData, uint32_t nInDataSize,
                           cvtXmlMsg* pXmlMsg) {
  Conversion conversion = _StartConversion(pInstance, pvInputData, nInDataSize, pXmlMsg);
  if (_AddAirEvent(conversion) != 0) return -1;
  _AddAirTrack(conversion);
  if (_g_bAllItemsSupport) _AddAirAttitude(conversion);
  _AddAirPoint(conversion);
  _AddAirAltitude(conversion);
  return 0;
}

// =====================================================================================================
// 5. Sensor-point events. Metadata thread.
// =====================================================================================================

static int _AddSpiEvent(Conversion& conversion) {
  CotSlice slice;
  if (!_FindSlice(conversion.event, "<event", ">", &slice)) {
    MD_LOG(3, "not found <event> tag slice!\n");
    return -1;
  }
  for (const cvtCotField& row : cot_spiEventTable) {
    const int nKey = cotToKlv_spiEventTable[row.mapId].klvKey;
    cvtCotField field;
    const bool bFound = _FindField(slice, row, &field);
    if (!bFound) MD_LOG(3, "cotField \"%s\" not found\n", field.name);
    if (row.mapId == SPI_EVENT_TIME) {
      if (_AddTimeStamp(conversion, field, bFound, nKey) != 0) return -1;
    } else if (bFound) {
      const CotText text(field.valueStr);
      MD_LOG(7, "SPI uid=\"%s\"", text.Get());
      // KEPT: accepted sensors are listed too.
      if (conversion.pInstance->bDiscoverSensors) AddDiscoveredSensor(conversion.pInstance, text.Get());
      _SetText(conversion, field);
      _AddEventItem(conversion, nKey, field.valueLen);
    }
  }
  return 0;
}

static void _LogSpiOutOfRange(int nKey) {
  MD_LOG(3, "out of range value detected for key=%d, value=(PROTECTED)\n", nKey);
}

// KEPT: the horizontal error's message speaks of LE as well.
static void _AddErrorEstimate(Conversion& conversion, const NumberItem& item, const char* szText, double value) {
  if (_AddNumber(conversion, item, value)) return;
  MD_LOG(3, "SPI_POINT_LE value of %s (%f) is out of 0 to 4095 range.\n", szText, value);
  _LogSpiOutOfRange(item.tag);
}

static void _AddSpiPointItem(Conversion& conversion, const cvtCotField& field) {
  const NumberItem& item = kSpiPointItems[field.mapId];
  const CotText text(field.valueStr);
  const double value = _TextToDouble(text.Get());
  switch (field.mapId) {
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
      _AddErrorEstimate(conversion, item, text.Get(), value * kSigmaToLE90);
      break;
    default:
      _AddErrorEstimate(conversion, item, text.Get(), value * kSigmaToCE90);
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
    cvtCotField field;
    if (_FindField(slice, row, &field))
      _AddSpiPointItem(conversion, field);
    else
      MD_LOG(3, "cotField \"%s\" not founded\n", field.name);
  }
  _AddFrameCentreElevation(conversion);
}

static void _AddFieldOfView(Conversion& conversion, const char* szText, double value) {
  if (_AddNumber(conversion, kFieldOfView, value)) return;
  MD_LOG(3, "SPI_SENSOR_FOV value of %s (%f) is out of 0 to 180 range.\n", szText, value);
  _LogSpiOutOfRange(kFieldOfView.tag);
}

static void _AddVerticalFieldOfView(Conversion& conversion, const char* szText, double value) {
  if (_AddNumber(conversion, kVerticalFieldOfView, value)) return;
  MD_LOG(3, "SPI_SENSOR_VFOV value of %s (%f) is out of 0 to 180 range.\n", szText, value);
  _LogSpiOutOfRange(kVerticalFieldOfView.tag);
}

static void _AddSlantRange(Conversion& conversion, const char* szText, double value) {
  if (_AddNumber(conversion, kSlantRange, value)) return;
  MD_LOG(3, "SPI_SENSOR_RANGE value of %s (%f) is out of 0 to 5000000 range.\n", szText, value);
  _LogSpiOutOfRange(kSlantRange.tag);
}

static void _AddSensorItem(Conversion& conversion, const cvtCotField& field) {
  const CotText text(field.valueStr);
  const double value = _TextToDouble(text.Get());
  switch (field.mapId) {
    case SPI_SENSOR_MODEL:  // KEPT: appends a second tag 11 after the one from uid
      _SetText(conversion, field);
      _AddItem(conversion, cotToKlv_spiSensorTable[SPI_SENSOR_MODEL].klvKey, field.valueLen);
      break;
    case SPI_SENSOR_FOV:
      _AddFieldOfView(conversion, text.Get(), value);
      break;
    case SPI_SENSOR_VFOV:
      _AddVerticalFieldOfView(conversion, text.Get(), value);
      break;
    case SPI_SENSOR_AZIMUTH:
      conversion.pInstance->s_azimuth = _ToFloat(value);
      break;
    case SPI_SENSOR_ELEVATION:
      conversion.pInstance->s_elevation = _ToFloat(value);
      break;
    case SPI_SENSOR_ROLL:
      conversion.pInstance->s_roll = _ToFloat(value);
      break;
    case SPI_SENSOR_RANGE:
      _AddSlantRange(conversion, text.Get(), value);
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
    cvtCotField field;
    if (_FindField(slice, row, &field))
      _AddSensorItem(conversion, field);
    else
      MD_LOG(3, "cotField \"%s\" not founded\n", field.name);
  }
}

int cvt_processSpiMsg(CONVERTER_INSTANCE_DATA* pInstance, const char* pvInputData, uint32_t nInDataSize,
                      cvtXmlMsg* pXmlMsg) {
  Conversion conversion = _StartConversion(pInstance, pvInputData, nInDataSize, pXmlMsg);
  if (_AddSpiEvent(conversion) != 0) return -1;
  _AddSpiPoint(conversion);
  if (_g_bAllItemsSupport) _AddSpiSensor(conversion);
  return 0;
}

// Appends straight to the packet, whatever its length: kCvtPacketSize has room for all three angles.
static void _AppendAngle(cvtXmlMsg* pXmlMsg, int nKey, uint32_t nValue) {
  BYTE* pcItem = pXmlMsg->pKlvPacket + pXmlMsg->curKlvLen;
  const uint32_t nSwapped = SWAP32(nValue);
  pcItem[0] = static_cast<BYTE>(nKey);
  pcItem[1] = 4;
  memcpy(pcItem + 2, &nSwapped, sizeof(nSwapped));
  pXmlMsg->curKlvLen += 6;
}

static constexpr double kScaleRelativeAngle = 11930464.70833333;      // 4294967295/360
static constexpr double kScaleRelativeElevation = 11930464.70555556;  // 4294967294/360
static constexpr uint32_t kElevationOutOfRange = 0x80000000;

// Returns false if the difference of two angles is 361 degrees or more, or NaN. KEPT: it loses its sign and its fraction.
static bool _WholeDegrees(float sensor, float aircraft, uint32_t* pnValue) {
  const float difference = sensor - aircraft;
  const float absolute = difference < 0 ? -difference : difference;
  if (!(absolute < 361)) return false;
  *pnValue = _RoundU32(static_cast<int>(absolute) * kScaleRelativeAngle);
  return true;
}

static void _AddRelativeAzimuth(const CONVERTER_INSTANCE_DATA* pInstance, cvtXmlMsg* pXmlMsg) {
  const float course = pInstance->a_course;
  const float azimuth = pInstance->s_azimuth;
  uint32_t nValue = 0;
  if (course == kCvtAngleNotSet || azimuth == kCvtAngleNotSet || !_WholeDegrees(azimuth, course, &nValue)) {
    MD_LOG(7, "no azimuth key will be added to KLV. cours = %f, azimuth = %f  \n", static_cast<double>(course),
           static_cast<double>(azimuth));
    return;
  }
  _AppendAngle(pXmlMsg, cotToKlv_spiSensorTable[SPI_SENSOR_AZIMUTH].klvKey, nValue);
  MD_LOG(7, "adding azimuth key (0x12): klv value = 0x%x \n", nValue);
}

static void _AddRelativeElevation(const CONVERTER_INSTANCE_DATA* pInstance, cvtXmlMsg* pXmlMsg) {
  if (pInstance->a_pitch == kCvtAngleNotSet || pInstance->s_elevation == kCvtAngleNotSet) {
    MD_LOG(7, "no spi elevation key will be added to KLV \n");
    return;
  }
  const float difference = pInstance->s_elevation - pInstance->a_pitch;
  uint32_t nValue = kElevationOutOfRange;
  if (pInstance->a_pitch != kCvtAngleOutOfRange && difference >= -180 && difference <= 180)
    nValue = static_cast<uint32_t>(_Round(static_cast<double>(difference) * kScaleRelativeElevation));
  _AppendAngle(pXmlMsg, cotToKlv_spiSensorTable[SPI_SENSOR_ELEVATION].klvKey, nValue);
  MD_LOG(7, "adding spi elevation key (0x13): klv value = 0x%x \n", nValue);
}

static void _AddRelativeRoll(const CONVERTER_INSTANCE_DATA* pInstance, cvtXmlMsg* pXmlMsg) {
  const float aircraft = pInstance->a_roll;
  const bool bSet =
      aircraft != kCvtAngleOutOfRange && aircraft != kCvtAngleNotSet && pInstance->s_roll != kCvtAngleNotSet;
  uint32_t nValue = 0;
  if (!bSet || !_WholeDegrees(pInstance->s_roll, aircraft, &nValue)) {
    MD_LOG(7, "no spi roll key will be added to KLV \n");
    return;
  }
  _AppendAngle(pXmlMsg, cotToKlv_spiSensorTable[SPI_SENSOR_ROLL].klvKey, nValue);
  MD_LOG(7, "adding spi roll key (0x14): klv value = 0x%x \n", nValue);
}

void cvt_addSPISensorItems(const CONVERTER_INSTANCE_DATA* pInstance, cvtXmlMsg* pXmlMsg) {
  _AddRelativeAzimuth(pInstance, pXmlMsg);
  _AddRelativeElevation(pInstance, pXmlMsg);
  _AddRelativeRoll(pInstance, pXmlMsg);
}

// =====================================================================================================
// 6. Pending messages. Metadata thread.
// =====================================================================================================

void cvt_freeMsgAndKlvPacket(cvtXmlMsg* pXmlMsg) {
  if (pXmlMsg->pKlvPacket != nullptr && pXmlMsg->freePktMemFlag == 1) DoReleaseBuffer(&pXmlMsg->pBuffer);
  free(pXmlMsg);
}

void cvt_freeAllMsgsAndNoReturnedKlvPackets(CONVERTER_INSTANCE_DATA* pInstance) {
  while (pInstance->pMsgListHeader != nullptr) {
    cvtXmlMsg* pXmlMsg = pInstance->pMsgListHeader;
    pInstance->pMsgListHeader = pXmlMsg->pNext;
    if (pXmlMsg->freePktMemFlag == 1 && pXmlMsg->pBuffer != nullptr) {
      DoReleaseBuffer(&pXmlMsg->pBuffer);
      MD_LOG(7, "Free All Msgs\n");
    }
    free(pXmlMsg);
  }
}

static bool _IsWithinDelta(const struct timeval& Diff, int32_t nMaxDelta) {
  const long nSeconds = nMaxDelta / 1000000;
  const long nMicroseconds = nMaxDelta % 1000000;
  const bool bWithin = Diff.tv_sec < nSeconds || (Diff.tv_sec == nSeconds && Diff.tv_usec <= nMicroseconds);
  const unsigned long nDiffSeconds = static_cast<unsigned long>(Diff.tv_sec);
  const unsigned long nDiffMicroseconds = static_cast<unsigned long>(Diff.tv_usec);
  if (bWithin)
    MD_LOG(7, "Delta of %lu sec %lu usec is within accepted range of %lu.%06lu.\n", nDiffSeconds, nDiffMicroseconds,
           static_cast<unsigned long>(nSeconds), static_cast<unsigned long>(nMicroseconds));
  else
    MD_LOG(5, "Delta of %lu sec %lu usec is NOT within accepted range of %lu.%06lu.\n", nDiffSeconds, nDiffMicroseconds,
           static_cast<unsigned long>(nSeconds), static_cast<unsigned long>(nMicroseconds));
  return bWithin;
}

cvtXmlMsg* cvt_findMsgFromList(const CONVERTER_INSTANCE_DATA* pInstance, const char* szTime) {
  for (cvtXmlMsg* pXmlMsg = pInstance->pMsgListHeader; pXmlMsg != nullptr; pXmlMsg = pXmlMsg->pNext) {
    if (strcmp(CotText(pXmlMsg->matchStr).Get(), szTime) == 0) return pXmlMsg;
  }
  struct timeval NewTime;
  ConvertTimeString(szTime, &NewTime);
  for (cvtXmlMsg* pXmlMsg = pInstance->pMsgListHeader; pXmlMsg != nullptr; pXmlMsg = pXmlMsg->pNext) {
    struct timeval Time;
    struct timeval Diff;
    ConvertTimeString(CotText(pXmlMsg->matchStr).Get(), &Time);
    CalcTimeOfDayAbsDiff(&NewTime, &Time, &Diff);
    if (_IsWithinDelta(Diff, pInstance->nMaxSPIAirCraftTimeDeltaInUS)) return pXmlMsg;
  }
  return nullptr;
}

static void _AppendToList(CONVERTER_INSTANCE_DATA* pInstance, cvtXmlMsg* pXmlMsg) {
  cvtXmlMsg** ppEnd = &pInstance->pMsgListHeader;
  while (*ppEnd != nullptr) ppEnd = &(*ppEnd)->pNext;
  *ppEnd = pXmlMsg;
}

// Replaces whatever is pending by a new message. Returns NULL if out of memory.
static cvtXmlMsg* _StartMessage(CONVERTER_INSTANCE_DATA* pInstance, const cvtCotField& time) {
  cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
  MD_LOG(7, "allocating a new msg since none found with time=\"%s\" !\n", CotText(time.valueStr).Get());
  cvtXmlMsg* pXmlMsg = static_cast<cvtXmlMsg*>(calloc(1, sizeof(cvtXmlMsg)));
  if (pXmlMsg == nullptr) {
    MD_LOG(3, "cvtXmlMsg malloc failed  !\n");
    return nullptr;
  }
  if (cvt_initXmlMsg(pInstance, pXmlMsg) != CVT_COTKLV_STATUS_OK) {
    MD_LOG(3, "failed to init mxl msg !\n");
    cvt_freeMsgAndKlvPacket(pXmlMsg);
    return nullptr;
  }
  memcpy(pXmlMsg->matchStr, time.valueStr, sizeof(pXmlMsg->matchStr));
  _AppendToList(pInstance, pXmlMsg);
  return pXmlMsg;
}

// =====================================================================================================
// 7. Conversion of an event. Metadata thread.
// =====================================================================================================

// Makes a terminated copy of the input: a datagram has no terminator, and the rest of an older one must not complete it.
// Returns false if out of memory.
static bool _CopyEvent(CONVERTER_INSTANCE_DATA* pInstance, const BYTE* pvInputData, int nInDataSize) {
  if (nInDataSize >= pInstance->nEventCapacity) {
    free(pInstance->szEvent);
    pInstance->nEventCapacity = 0;
    const size_t nCapacity = static_cast<size_t>(nInDataSize) + 1;
    pInstance->szEvent = static_cast<char*>(malloc(nCapacity));
    if (pInstance->szEvent == nullptr) {
      MD_LOG(3, "malloc() failed !\n");
      return false;
    }
    pInstance->nEventCapacity = nInDataSize + (nInDataSize < INT_MAX ? 1 : 0);
  }
  memcpy(pInstance->szEvent, pvInputData, static_cast<size_t>(nInDataSize));
  pInstance->szEvent[nInDataSize] = '\0';
  return true;
}

static bool _CutEvent(const CONVERTER_INSTANCE_DATA* pInstance, int nInDataSize, CotSlice* pEvent, CotSlice* pTag) {
  const CotSlice input = {pInstance->szEvent, static_cast<uint32_t>(nInDataSize)};
  if (!_FindSlice(input, "<event", "</event>", pEvent)) {
    MD_LOG(7, "not found whole msg!\n");
    return false;
  }
  MD_LOG(7, "found whole msg, pMsg = 0x%x, len = %d\n", static_cast<UINT>(reinterpret_cast<uintptr_t>(pEvent->pText)),
         static_cast<int>(pEvent->nLength));
  if (!_FindSlice(*pEvent, "<event", ">", pTag)) {
    MD_LOG(3, "not found <event> tag slice!\n");
    return false;
  }
  MD_LOG(7, "found <event> tag slice!\n");
  return true;
}

static bool _BeginsWith(const cvtCotField& field, const char* szPrefix) {
  const size_t nLength = strlen(szPrefix);
  return static_cast<size_t>(field.valueLen) >= nLength && memcmp(field.valueStr, szPrefix, nLength) == 0;
}

// Counts the event by its type. Returns CVT_MSG_TYPE_NONE if it is not for the converter.
static CVT_MSG_TYPE _ClassifyEvent(CONVERTER_INSTANCE_DATA* pInstance, const CotSlice& tag) {
  cvtCotField type;
  if (!_LookUp(tag, "type", &type)) {
    MD_LOG(3, "not found type field !\n");
    return CVT_MSG_TYPE_NONE;
  }
  if (_BeginsWith(type, "a-f-A")) {
    MdAdd(pInstance->Stats.nRxAirCraftMessages, 1);
    return CVT_MSG_TYPE_AIRCRAFT;
  }
  if (_BeginsWith(type, "b-m-p-s-p-i")) {
    MdAdd(pInstance->Stats.nRxSPIMessages, 1);
    return CVT_MSG_TYPE_SPI;
  }
  MD_LOG(3, "unknow msg event type %s, len = %d !\n", CotText(type.valueStr).Get(), type.valueLen);
  return CVT_MSG_TYPE_NONE;
}

static bool _PassesFilter(CONVERTER_INSTANCE_DATA* pInstance, const CotSlice& tag) {
  cvtCotField uid;
  if (!_LookUp(tag, "uid", &uid)) {
    MD_LOG(3, "xml_getCotFieldInTagSlice failed for UID retrieval.\n");
    return false;
  }
  const CotText text(uid.valueStr);
  if (strcmp(text.Get(), pInstance->szSpiUid) == 0) {
    MD_LOG(7, "SPI message accepted since UID \"%s\" matches filter \"%s\".\n", text.Get(), pInstance->szSpiUid);
    return true;
  }
  MD_LOG(7, "Discarding SPI message since UID \"%s\" is not \"%s\".\n", text.Get(), pInstance->szSpiUid);
  MdAdd(pInstance->Stats.nFilteredRxSPIMessages, 1);
  if (pInstance->bDiscoverSensors) AddDiscoveredSensor(pInstance, text.Get());
  return false;
}

// Reads the event's time, by which events are paired.
static bool _FindTime(const CotSlice& event, cvtCotField* pTime) {
  CotSlice tag;
  if (!_FindSlice(event, "<event", ">", &tag)) {
    MD_LOG(3, "not found <event> tag slice!\n");
    return false;
  }
  if (!_LookUp(tag, "time", pTime)) {
    MD_LOG(3, "not found type field !\n");  // KEPT: says type for time
    return false;
  }
  MD_LOG(7, "matchStr, time=\"%s\" !\n", CotText(pTime->valueStr).Get());
  return true;
}

// Returns the pending message that this event completes, or a new one, or NULL if there is neither.
static cvtXmlMsg* _FindOrStartMessage(CONVERTER_INSTANCE_DATA* pInstance, CVT_MSG_TYPE enType, const cvtCotField& time,
                                      bool* pbPaired) {
  const CotText text(time.valueStr);
  cvtXmlMsg* pXmlMsg = cvt_findMsgFromList(pInstance, text.Get());
  *pbPaired = pXmlMsg != nullptr;
  if (pXmlMsg == nullptr) return _StartMessage(pInstance, time);
  if (pXmlMsg->msgType == enType) {
    cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
    MD_LOG(4, "we got the same type msg twice !\n");
    return nullptr;
  }
  MD_LOG(7, "We have both SPI and AIRCRAFT events with time=\"%s\" !\n", text.Get());
  return pXmlMsg;
}

static int _ConvertEvent(CONVERTER_INSTANCE_DATA* pInstance, CVT_MSG_TYPE enType, const CotSlice& event,
                         cvtXmlMsg* pXmlMsg) {
  if (enType == CVT_MSG_TYPE_AIRCRAFT) {
    MD_LOG(7, "Got a aircraft msg!\n");
    return cvt_processAircraftMsg(pInstance, event.pText, event.nLength, pXmlMsg);
  }
  MD_LOG(7, "Got a SPI msg!\n");
  return cvt_processSpiMsg(pInstance, event.pText, event.nLength, pXmlMsg);
}

// Adds a classified event to its message, and closes the packet if the event was the second one.
static int _AddEvent(CONVERTER_INSTANCE_DATA* pInstance, CVT_MSG_TYPE enType, const CotSlice& event,
                     MDATA_BUFFER** ppBuffer) {
  cvtCotField time;
  if (!_FindTime(event, &time)) return -1;
  bool bPaired = false;
  cvtXmlMsg* pXmlMsg = _FindOrStartMessage(pInstance, enType, time, &bPaired);
  if (pXmlMsg == nullptr) return -1;
  if (_ConvertEvent(pInstance, enType, event, pXmlMsg) == -1) {
    cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
    return -1;
  }
  if (pXmlMsg->tmStampFlag != 1) {
    MD_LOG(3, "no timeStamp found in the message!\n");
    cvt_freeAllMsgsAndNoReturnedKlvPackets(pInstance);
    return 0;
  }
  if (!bPaired) {
    MD_LOG(7, "waiting for another message!\n");
    return 0;
  }
  if (_g_bAllItemsSupport) cvt_addSPISensorItems(pInstance, pXmlMsg);
  return _ClosePacket(pInstance, pXmlMsg, ppBuffer);
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
  const CVT_MSG_TYPE enType = _ClassifyEvent(hConv, tag);
  if (enType == CVT_MSG_TYPE_NONE) return -1;
  if (enType == CVT_MSG_TYPE_SPI && hConv->szSpiUid[0] != '\0' && !_PassesFilter(hConv, tag)) return -1;
  return _AddEvent(hConv, enType, event, ppBuffer);
}

void ReleaseConvertedData(MDATA_BUFFER* pBuffer) {
  DoReleaseBuffer(&pBuffer);
}

// =====================================================================================================
// 8. Instances and statistics. Opened and closed with their source; the statistics calls come from the encoder's
//     threads under the API lock, while the metadata thread converts.
// =====================================================================================================

BOOL AllocCoT2KLVConvert(HCONVERTER* phConvInstance, int32_t nMaxSPIAirCraftTimeDeltaInUS, const char* szSpiUid,
                         BOOL bEnableSPIDiscovery) {
  MD_ASSERT(phConvInstance != NULL);
  if (phConvInstance == nullptr) return FALSE;
  *phConvInstance = nullptr;
  CONVERTER_INSTANCE_DATA* pInstance =
      static_cast<CONVERTER_INSTANCE_DATA*>(calloc(1, sizeof(CONVERTER_INSTANCE_DATA)));
  if (pInstance == nullptr) return FALSE;
  cvt_resetVariables(pInstance);
  pInstance->nMaxSPIAirCraftTimeDeltaInUS = nMaxSPIAirCraftTimeDeltaInUS;
  if (szSpiUid != nullptr) CopyString(pInstance->szSpiUid, szSpiUid, sizeof(pInstance->szSpiUid));
  pInstance->bDiscoverSensors = bEnableSPIDiscovery;
  *phConvInstance = pInstance;
  return TRUE;
}

void FreeCoT2KLVConvert(HCONVERTER* phConvInstance) {
  MD_ASSERT(phConvInstance != NULL);
  if (phConvInstance == nullptr) return;
  MD_ASSERT(*phConvInstance != NULL);
  if (*phConvInstance == nullptr) return;
  cvt_freeAllMsgsAndNoReturnedKlvPackets(*phConvInstance);
  free((*phConvInstance)->szEvent);
  free(*phConvInstance);
  *phConvInstance = nullptr;
}

void AddDiscoveredSensor(CONVERTER_INSTANCE_DATA* pInstance, const char* szUID) {
  _NoteSensor(pInstance->KnownSensors, szUID);
}

void AgeCoT2KLVSensors(HCONVERTER hConv) {
  _AgeSensors(hConv->KnownSensors);
}

// Does not touch the two counters of packets, which belong to the caller.
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
