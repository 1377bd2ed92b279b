// SPDX-License-Identifier: Apache-2.0
// Stands for the rewriting of a UAS Local Set (MISB ST 0601): one walk that filters by tag and puts the mission identifier
// and the security set in place of the received ones or at the end, then length, key and checksum, in memory from malloc.
// It knows one-byte tags and lengths of one to three bytes, trusts that a replaced element does not occur twice, and sums a
// word at a time.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "floors.h"

enum { kKeySize = 16, kHeadRoom = 24, kTagChecksum = 1, kTagMission = 3, kTagSecurity = 48 };

// Reads a BER length of up to two bytes. Returns the size of the field, 0 if it is cut or longer.
static size_t ReadLength(const uint8_t* data, size_t size, size_t* value) {
  if (size == 0) return 0;
  if (data[0] < 0x80) {
    *value = data[0];
    return 1;
  }
  if (data[0] == 0x81 && size >= 2) {
    *value = data[1];
    return 2;
  }
  if (data[0] == 0x82 && size >= 3) {
    *value = (size_t)data[1] << 8 | data[2];
    return 3;
  }
  return 0;
}

static uint8_t* Append(uint8_t* to, const uint8_t* data, size_t size) {
  memcpy(to, data, size);
  return to + size;
}

// Puts the length field and the key in front of a body. Returns where the message starts.
static uint8_t* PutHead(uint8_t* body, size_t size, const uint8_t* key) {
  uint8_t* start = body;
  *--start = (uint8_t)size;
  if (size > 255) {
    *--start = (uint8_t)(size >> 8);
    *--start = 0x82;
  } else if (size > 127) {
    *--start = 0x81;
  }
  start -= kKeySize;
  memcpy(start, key, kKeySize);
  return start;
}

// Writes the kept and the replaced elements. Returns the end, or null for a broken message.
static uint8_t* Walk(const FloorRules* rules, const uint8_t* at, const uint8_t* end, uint8_t* to, int* mission,
                     int* security) {
  while (end - at > 2) {
    const unsigned tag = at[0];
    size_t length = 0;
    const size_t lengthSize = ReadLength(at + 1, (size_t)(end - at) - 1, &length);
    const size_t total = 1 + lengthSize + length;
    if (lengthSize == 0 || total > (size_t)(end - at)) return NULL;
    if (tag == kTagMission && rules->missionId != NULL) {
      to = Append(to, rules->missionId, rules->missionIdSize);
      *mission = 1;
    } else if (tag == kTagSecurity && rules->securitySet != NULL) {
      to = Append(to, rules->securitySet, rules->securitySetSize);
      *security = 1;
    } else if (tag != kTagChecksum && tag < 128 && (rules->keep[tag / 32] >> (tag % 32) & 1u) != 0) {
      to = Append(to, at, total);
    }
    at += total;
  }
  return to;
}

FloorMessage FloorRewrite(const FloorRules* rules, const uint8_t* message, size_t size) {
  FloorMessage rewritten = {NULL, NULL, 0};
  if (size <= kKeySize) return rewritten;
  size_t bodySize = 0;
  const size_t lengthSize = ReadLength(message + kKeySize, size - kKeySize, &bodySize);
  if (lengthSize == 0 || kKeySize + lengthSize + bodySize > size) return rewritten;
  uint8_t* const block = malloc(kHeadRoom + size + rules->missionIdSize + rules->securitySetSize + 4);
  if (block == NULL) return rewritten;
  uint8_t* const body = block + kHeadRoom;
  const uint8_t* const first = message + kKeySize + lengthSize;
  int mission = 0;
  int security = 0;
  uint8_t* to = Walk(rules, first, first + bodySize, body, &mission, &security);
  if (to == NULL) {
    free(block);
    return rewritten;
  }
  if (!mission && rules->missionId != NULL) to = Append(to, rules->missionId, rules->missionIdSize);
  if (!security && rules->securitySet != NULL) to = Append(to, rules->securitySet, rules->securitySetSize);
  static const uint8_t kChecksum[4] = {kTagChecksum, 2, 0, 0};
  to = Append(to, kChecksum, sizeof kChecksum);
  rewritten.block = block;
  rewritten.data = PutHead(body, (size_t)(to - body), message);
  rewritten.size = (size_t)(to - rewritten.data);
  const uint16_t sum = FloorWordSum(rewritten.data, rewritten.size);
  to[-2] = (uint8_t)(sum >> 8);
  to[-1] = (uint8_t)sum;
  return rewritten;
}
