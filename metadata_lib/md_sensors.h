// SPDX-License-Identifier: Apache-2.0
// The sensors that a CoT source has discovered, with the time since each was last seen.
//
// The metadata thread is the only writer of a table. It writes under a leaf lock of this pair, and the statistics calls
// of the encoder's threads copy the texts under it; no other lock is taken while it is held. The age, which only the
// metadata thread uses, is not under the lock. Log lines carry the converter's name.
#ifndef MD_SENSORS_H
#define MD_SENSORS_H

#include <stdint.h>

#include "md_mutex.h"
#include "metadata_lib.h"

inline constexpr int kCvtSensorLifetime = 10;  // ageing steps an unseen sensor lives through

extern MdMutex _g_SensorLock;

struct SENSOR_ENTRY {
  BOOL bInUse MD_GUARDED_BY(_g_SensorLock);
  int32_t nAgeInSeconds;  // metadata thread only
  char szUID[MDATA_SENSOR_UID_SIZE] MD_GUARDED_BY(_g_SensorLock);
};

// Part of a source's record; all zero when it starts.
using SensorTable = SENSOR_ENTRY[MDATA_MAX_DISCOVERED_SENSORS];

// Notes that a sensor was seen. In a full table it replaces another one.
void _NoteSensor(SensorTable& sensors, const char* uid) MD_REQUIRES(kMetadataThread);
// Makes every sensor one second older and removes those that were not seen within their lifetime.
void _AgeSensors(SensorTable& sensors) MD_REQUIRES(kMetadataThread);
// Copies the UIDs in the order of the table. Returns their number. Any thread.
int _CopySensors(const SensorTable& sensors, char (&uids)[MDATA_MAX_DISCOVERED_SENSORS][MDATA_SENSOR_UID_SIZE]);

#endif  // MD_SENSORS_H
