// SPDX-License-Identifier: Apache-2.0
// Stands for the serial Cursor-on-Target decoder: find the header, take the data bits out of the code words in steps of up to
// eight bytes, check the CRC with a table, hand the event over. The first length is believed.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "floors.h"

enum { kHeadSize = 17, kSyncSize = 5, kCodeBits = 155, kDataBits = 105, kArqHead = 3, kSlack = 32 };

static uint16_t g_table[256];

static void FillTable(void) {
  for (unsigned i = 0; i < 256; ++i) {
    const uint8_t byte = (uint8_t)i;
    g_table[i] = FloorCrc(&byte, 1);
  }
}

static uint64_t Load(const uint8_t* data) {
  uint64_t word = 0;
  memcpy(&word, data, sizeof word);
  return __builtin_bswap64(word);
}

// Up to 56 bits from a bit position, at the top of the word.
static uint64_t Bits(const uint8_t* data, size_t bit, unsigned count) {
  return Load(data + bit / 8) << bit % 8 & ~(uint64_t)0 << (64 - count);
}

static void Put(uint8_t* data, size_t bit, uint64_t bits) {
  const uint64_t word = __builtin_bswap64(Load(data + bit / 8) | bits >> bit % 8);
  memcpy(data + bit / 8, &word, sizeof word);
}

// The payload is followed by at least eight bytes that may be read.
static void Unpack(const uint8_t* payload, size_t words, uint8_t* block) {
  for (size_t i = 0; i < words; ++i) {
    const size_t from = i * kCodeBits;
    const size_t to = i * kDataBits;
    Put(block, to, Bits(payload, from, 56));
    Put(block, to + 56, Bits(payload, from + 56, kDataBits - 56));
  }
}

// Delivers the event of a frame's payload if its CRC is right. Returns 0 without memory.
static int Deliver(const uint8_t* payload, size_t size, FloorDeliver deliver, void* user) {
  const size_t words = size * 8 / kCodeBits;
  const size_t blockSize = words * kDataBits / 8;
  uint8_t* block = calloc(1, blockSize + kSlack);
  if (block == NULL) return 0;
  Unpack(payload, words, block);
  const size_t length = block[0] | (size_t)block[1] << 8;
  unsigned crc = 0;
  if (length >= 2 + kArqHead && length + 2 <= blockSize) {
    for (size_t i = 2; i < length; ++i) crc = crc >> 8 ^ g_table[(crc ^ block[i]) & 0xFF];
    if (crc == ((unsigned)block[length] << 8 | block[length + 1])) {
      deliver(block + 2 + kArqHead, length - 2 - kArqHead, user);
    }
  }
  free(block);
  return 1;
}

size_t FloorCotStream(const uint8_t* stream, size_t size, FloorDeliver deliver, void* user) {
  if (g_table[1] == 0) FillTable();
  size_t at = 0;
  while (size - at >= kHeadSize) {
    if (memcmp(stream + at, "oHeY!", kSyncSize) != 0) {
      ++at;
      continue;
    }
    const size_t payloadSize = stream[at + 5] | (size_t)stream[at + 6] << 8;
    if (payloadSize > size - at - kHeadSize) break;
    if (!Deliver(stream + at + kHeadSize, payloadSize, deliver, user)) break;
    at += kHeadSize + payloadSize;
  }
  return at;
}
