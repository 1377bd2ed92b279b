// SPDX-License-Identifier: Apache-2.0
// The parsing core: tags, lengths and items of KLV (SMPTE ST 336), the running sum of MISB ST 0601, CRC-16, bits.
//
// Contents
//   1. Tags
//   2. Lengths
//   3. Items
//   4. Sums and bits
//
// Any thread. The core keeps no state, allocates nothing, logs nothing and calls nothing but itself and memcpy. A function that
// parses gets the whole data as base and size, addresses it by position, reads nothing outside, and assigns all its
// outputs on every path. Callers own the data, and they own the limits that differ between them (how many length bytes
// they accept, how far a value may reach) and every log line.
//
// Tags, lengths and items are read inline: a caller that names its size codes gets only the code that these need.
//
// The core is written in the common subset of C99 and C++, with positions instead of moving pointers, so that analysers
// for C can read it unchanged.
#ifndef MD_CORE_H
#define MD_CORE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Size codes of tag and length fields, the values of KLV_FIELD_* in metadata_lib.h.
enum {
  kMdFieldOidTag = -1,        // tag: BER object identifier, seven bits a byte
  kMdFieldNoneOrBer = 0,      // tag: none; length: BER, short or long form
  kMdField1Byte = 1,          // the next three are big-endian numbers
  kMdField2Bytes = 2,         //
  kMdField4Bytes = 4,         //
  kMdFieldGlobalTag = 12,     // tag: up to 12 bytes, ended by a zero byte
  kMdFieldUniversalKey = 16,  // tag: 16-byte universal key
};

enum { kMdMostOidBytes = 4, kMdMostLengthBytes = 4 };  // longer fields have no value here

// How the reading of a field or an item ended.
typedef enum MdRead {
  kMdReadOk = 0,
  kMdReadTagCut,       // the data ends before the tag does
  kMdReadLengthCut,    // the data ends before the length field does
  kMdReadUnsupported,  // a BER long form of no bytes or of more than four
  kMdReadUnknownCode   // the size code of the length is not one of those above
} MdRead;

typedef struct MdTag {
  uint32_t key;  // 0 for global tags, universal keys, no tag, and object identifiers of more than four bytes
  size_t size;   // bytes of the field; 0 if there is no tag or it is truncated
} MdTag;

typedef struct MdLength {
  bool longForm;   // BER long form
  uint32_t count;  // bytes that hold the value: in the long form those after the first byte, else the whole field
  size_t size;     // bytes of the field; 0 if the data ends before its first byte
  uint32_t value;  // 0 unless the field was read
} MdLength;

typedef struct MdItem {
  MdTag tag;
  MdLength length;
  size_t valuePosition;  // where the value starts, or the end of the fields that were read if there is no value
  uint64_t end;          // position behind the value, which may lie outside the data
} MdItem;

// Returns whether count bytes at a position lie inside the data.
static inline bool _MdIsInside(size_t size, size_t position, size_t count) {
  return position <= size && count <= size - position;
}

// Returns the big-endian number of up to four bytes that lie inside the data.
static inline uint32_t _MdBigEndian(const uint8_t* base, size_t position, size_t count) {
  uint32_t value = 0;
  for (size_t i = 0; i < count; ++i) value = value << 8 | base[position + i];
  return value;
}

// =====================================================================================================
// 1. Tags. _MdReadTag zeroes the output before it calls the function for one kind of tag.
// =====================================================================================================

static inline bool _MdReadOidTag(const uint8_t* base, size_t size, size_t position, MdTag* tag) {
  uint32_t key = 0;
  for (size_t i = position; i < size; ++i) {
    key = key << 7 | (base[i] & 0x7Fu);
    if ((base[i] & 0x80u) == 0) {
      tag->size = i - position + 1;
      tag->key = tag->size <= kMdMostOidBytes ? key : 0;
      return true;
    }
  }
  return false;
}

static inline bool _MdReadGlobalTag(const uint8_t* base, size_t size, size_t position, MdTag* tag) {
  for (size_t i = 0; i < kMdFieldGlobalTag; ++i) {
    if (!_MdIsInside(size, position, i + 1)) return false;
    if (base[position + i] == 0 || i + 1 == kMdFieldGlobalTag) {
      tag->size = i + 1;
      return true;
    }
  }
  return false;
}

static inline bool _MdReadFixedTag(const uint8_t* base, size_t size, size_t position, size_t count, MdTag* tag) {
  if (!_MdIsInside(size, position, count)) return false;
  tag->size = count;
  if (count <= kMdField4Bytes) tag->key = _MdBigEndian(base, position, count);
  return true;
}

// Reads the tag at a position. Returns false if the data ends before the tag does. With a size code that is not listed
// above no tag is read.
static inline bool _MdReadTag(const uint8_t* base, size_t size, size_t position, int tagField, MdTag* tag) {
  tag->key = 0;
  tag->size = 0;
  switch (tagField) {
    case kMdFieldOidTag:
      return _MdReadOidTag(base, size, position, tag);
    case kMdField1Byte:
    case kMdField2Bytes:
    case kMdField4Bytes:
    case kMdFieldUniversalKey:
      return _MdReadFixedTag(base, size, position, (size_t)tagField, tag);
    case kMdFieldGlobalTag:
      return _MdReadGlobalTag(base, size, position, tag);
    default:
      return true;
  }
}

// =====================================================================================================
// 2. Lengths. _MdReadLength zeroes the output, and checks that the first byte lies inside the data, before it calls the
//    function for one kind of length.
// =====================================================================================================

static inline MdRead _MdReadBerLength(const uint8_t* base, size_t size, size_t position, MdLength* length) {
  const uint8_t first = base[position];
  if (first < 0x80) {
    length->count = 1;
    length->size = 1;
    length->value = first;
    return kMdReadOk;
  }
  length->longForm = true;
  length->count = first & 0x7Fu;
  length->size = 1 + (size_t)length->count;
  if (!_MdIsInside(size, position, length->size)) return kMdReadLengthCut;
  if (length->count == 0 || length->count > kMdMostLengthBytes) return kMdReadUnsupported;
  length->value = _MdBigEndian(base, position + 1, length->count);
  return kMdReadOk;
}

static inline MdRead _MdReadFixedLength(const uint8_t* base, size_t size, size_t position, uint32_t count,
                                        MdLength* length) {
  length->count = count;
  length->size = count;
  if (!_MdIsInside(size, position, count)) return kMdReadLengthCut;
  length->value = _MdBigEndian(base, position, count);
  return kMdReadOk;
}

// Reads the length field at a position. Form and number of bytes are reported even if the field is truncated.
static inline MdRead _MdReadLength(const uint8_t* base, size_t size, size_t position, int lengthField,
                                   MdLength* length) {
  length->longForm = false;
  length->count = 0;
  length->size = 0;
  length->value = 0;
  if (position >= size) return kMdReadLengthCut;
  switch (lengthField) {
    case kMdFieldNoneOrBer:
      return _MdReadBerLength(base, size, position, length);
    case kMdField1Byte:
    case kMdField2Bytes:
    case kMdField4Bytes:
      return _MdReadFixedLength(base, size, position, (uint32_t)lengthField, length);
    default:
      return kMdReadUnknownCode;
  }
}

// =====================================================================================================
// 3. Items
// =====================================================================================================

// Returns the position behind an item's value. In 64 bits no length can wrap it to an earlier position.
static inline uint64_t _MdItemEnd(uint64_t valuePosition, uint32_t length) {
  return valuePosition + length;
}

// Reads tag and length of the item at a position, but not its value. A walk over a set's items continues at item->end
// as long as that lies inside the data.
static inline MdRead _MdReadItem(const uint8_t* base, size_t size, size_t position, int tagField, int lengthField,
                                 MdItem* item) {
  const bool tagRead = _MdReadTag(base, size, position, tagField, &item->tag);
  // After a truncated tag the length is read at the end of the data, where no byte is left.
  const size_t lengthPosition = tagRead ? position + item->tag.size : size;
  const MdRead result = _MdReadLength(base, size, lengthPosition, lengthField, &item->length);
  item->valuePosition = lengthPosition;
  if (result == kMdReadOk) item->valuePosition += item->length.size;
  item->end = _MdItemEnd(item->valuePosition, item->length.value);
  return tagRead ? result : kMdReadTagCut;
}

// =====================================================================================================
// 4. Sums and bits. In md_core.c.
// =====================================================================================================

// Returns the 16-bit sum of MISB ST 0601: bytes at even positions count as high bytes, the others as low bytes.
uint16_t _MdRunningSum(const uint8_t* base, size_t size);
// Returns the same sum with the two bytes at a position counted as zero, as bytes behind the end are anyway.
uint16_t _MdRunningSumWithout(const uint8_t* base, size_t size, size_t position);

// Stores the sums of the bytes at even and at odd positions, modulo 2^32.
void _MdSumParts(const uint8_t* base, size_t size, uint32_t* even, uint32_t* odd);

// Returns the CRC-16/ARC.
uint16_t _MdCrc16(const uint8_t* base, size_t size);

// ORs count bits of the input, from the bit inputBit on, into the output from the bit outputBit on. Bit 0 is the most
// significant bit of the first byte. Both arrays hold these bits, and the caller has zeroed the output. Returns the
// sum, over the steps of the copy, of the bits from the input bit to the end of its byte.
int _MdCopyBits(const uint8_t* input, size_t inputBit, uint8_t* output, size_t outputBit, size_t count);

#ifdef __cplusplus
}
#endif

#endif  // MD_CORE_H
