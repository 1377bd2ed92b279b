// SPDX-License-Identifier: Apache-2.0
// Discovered sensors. See the header for threads and the lock.
#include "md_sensors.h"

#include <string.h>

#include "host_util.h"

#define MD_MODULE "converter"
#define MD_DEBUG_HANDLE g_hCoTConvDbg
#include "md_log.h"

constinit MdMutex _g_SensorLock;

static void _StoreSensor(SENSOR_ENTRY* entry, const char* uid) {
  MdLock lock(_g_SensorLock);
  CopyString(entry->szUID, uid, sizeof(entry->szUID));
  entry->nAgeInSeconds = 0;
  entry->bInUse = TRUE;
}

static void _ClearSensor(SENSOR_ENTRY* entry) {
  MdLock lock(_g_SensorLock);
  entry->bInUse = FALSE;
  memset(entry->szUID, 0, sizeof(entry->szUID));
}

void _NoteSensor(SensorTable& sensors, const char* uid) {
  _g_SensorLock.AssumeOnlyWriter();
  MD_LOG(7, "Adding SPI \"%s\".\n", uid);
  int freeIndex = -1;
  int oldestAge = -1;
  for (int i = 0; i < MDATA_MAX_DISCOVERED_SENSORS; ++i) {
    SENSOR_ENTRY& entry = sensors[i];
    if (!entry.bInUse) {
      if (freeIndex >= 0) continue;
      freeIndex = i;
      MD_LOG(7, "Located first free index at %d.\n", i);
    } else if (strcmp(entry.szUID, uid) == 0) {
      entry.nAgeInSeconds = 0;
      MD_LOG(7, "Located existing entry for \"%s\" at offset %d.\n", uid, i);
      return;
    } else if (entry.nAgeInSeconds > oldestAge) {
      oldestAge = entry.nAgeInSeconds;
      MD_LOG(7, "Oldest existing record is \"%s\" at offset %d, %d seconds old.\n", entry.szUID, i, oldestAge);
    }
  }
  if (freeIndex >= 0) {
    _StoreSensor(&sensors[freeIndex], uid);
    MD_LOG(7, "Storing entry for \"%s\" at free offset %d.\n", uid, freeIndex);
    return;
  }
  // KEPT: the oldest age, 0 to 10, serves as the index of the entry that is replaced.
  _StoreSensor(&sensors[oldestAge], uid);
  MD_LOG(7, "Storing entry for \"%s\" at oldest offset %d.\n", uid, oldestAge);
}

void _AgeSensors(SensorTable& sensors) {
  _g_SensorLock.AssumeOnlyWriter();
  for (SENSOR_ENTRY& entry : sensors) {
    if (!entry.bInUse || ++entry.nAgeInSeconds <= kCvtSensorLifetime) continue;
    MD_LOG(7, "Entry for \"%s\" has been aged out.\n", entry.szUID);
    _ClearSensor(&entry);
  }
}

int _CopySensors(const SensorTable& sensors, char (&uids)[MDATA_MAX_DISCOVERED_SENSORS][MDATA_SENSOR_UID_SIZE]) {
  int count = 0;
  MdLock lock(_g_SensorLock);
  for (const SENSOR_ENTRY& entry : sensors) {
    if (entry.bInUse) CopyString(uids[count++], entry.szUID, MDATA_SENSOR_UID_SIZE);
  }
  return count;
}
