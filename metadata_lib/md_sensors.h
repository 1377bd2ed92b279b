// The sensors that a CoT source has discovered, with the time since each was last seen.
//
// The metadata thread is the only writer of a table. It writes under a leaf lock of this pair, and the statistics calls
// of the encoder's threads read under it: texts are copied while it is held, no other lock is taken. What the metadata
// thread alone uses, the age, is not under the lock. Lines are logged as the converter's.
#ifndef MD_SENSORS_H
#define MD_SENSORS_H

#include <stdint.h>

#include "metadata_lib.h"

inline constexpr int kCvtSensorLifetime = 10;  // ageing steps an unseen sensor lives through

struct SENSOR_ENTRY {
  BOOL bInUse;
  int32_t nAgeInSeconds;
  char szUID[MDATA_SENSOR_UID_SIZE];
};

// Part of a source's record; all zero when it starts.
using SensorTable = SENSOR_ENTRY[MDATA_MAX_DISCOVERED_SENSORS];

// Notes that a sensor was seen. In a full table it takes the place of another one.
void _NoteSensor(SensorTable& sensors, const char* uid);
// Makes every sensor one second older, and forgets those that were not seen for longer than their lifetime.
void _AgeSensors(SensorTable& sensors);
// Copies the UIDs, in the order of the table. Returns how many there are. Any thread.
int _CopySensors(const SensorTable& sensors, char (&uids)[MDATA_MAX_DISCOVERED_SENSORS][MDATA_SENSOR_UID_SIZE]);

#endif  // MD_SENSORS_H
