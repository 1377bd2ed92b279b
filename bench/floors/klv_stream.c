// SPDX-License-Identifier: Apache-2.0
// Stands for the serial KLV decoder: find the key, read the length, walk the items, sum a word at a time, copy the message
// into memory of its own, hand it over, free it. A message that is not good is only skipped.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "floors.h"

enum { kKeySize = 16, kSyncSize = 5, kHeaderSpace = 53 };

static const uint8_t kKey[kKeySize] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01,
                                       0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};

// Returns the header's size, 0 if there is none.
static size_t ReadHead(const uint8_t* message, size_t* bodySize) {
  const uint8_t first = message[kKeySize];
  if (first < 0x80) {
    *bodySize = first;
    return kKeySize + 1;
  }
  if (first == 0x81) {
    *bodySize = message[kKeySize + 1];
    return kKeySize + 2;
  }
  *bodySize = (size_t)message[kKeySize + 1] << 8 | message[kKeySize + 2];
  return first == 0x82 ? kKeySize + 3 : 0;
}

// Walks the items and checks the sum in the last one. Returns 0 if the message is not good.
static int IsGood(const uint8_t* message, size_t at, size_t size) {
  while (at + 1 < size) {
    const size_t item = at;
    while ((message[at] & 0x80) != 0 && at + 2 < size) ++at;
    size_t length = message[at + 1];
    at += 2;
    if (length >= 0x80) {
      size_t count = length & 0x7F;
      for (length = 0; count > 0 && at < size; --count) length = length << 8 | message[at++];
    }
    at += length;
    if (message[item] == 1 && at == size)
      return FloorWordSum(message, size - 2) == (message[size - 2] << 8 | message[size - 1]);
  }
  return at == size;
}

size_t FloorKlvStream(const uint8_t* stream, size_t size, FloorDeliver deliver, void* user) {
  size_t at = 0;
  while (size - at >= kKeySize + 3) {
    if (memcmp(stream + at, kKey, kSyncSize) != 0) {
      const uint8_t* next = memchr(stream + at + 1, kKey[0], size - at - 1);
      if (next == NULL) return size;
      at = (size_t)(next - stream);
      continue;
    }
    size_t bodySize = 0;
    const size_t headSize = ReadHead(stream + at, &bodySize);
    const size_t messageSize = headSize + bodySize;
    if (headSize != 0 && messageSize > size - at) break;
    if (headSize == 0 || !IsGood(stream + at, headSize, messageSize)) {
      at += kSyncSize;
      continue;
    }
    uint8_t* message = malloc(kHeaderSpace + messageSize);
    if (message == NULL) break;
    memcpy(message + kHeaderSpace, stream + at, messageSize);
    deliver(message + kHeaderSpace, messageSize, user);
    free(message);
    at += messageSize;
  }
  return at;
}
