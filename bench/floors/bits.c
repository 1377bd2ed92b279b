// SPDX-License-Identifier: Apache-2.0
// Stands for the copying of a bit field in steps that end at byte borders: each takes the bits up to the next border of the
// input, of the output, or of the field, whichever comes first.
#include <stdint.h>

#include "floors.h"

int FloorExtractBits(const uint8_t* input, int* inputBit, uint8_t* output, int* outputBit, int count) {
  int result = 0;
  const uint8_t* from = input + *inputBit / 8;
  uint8_t* to = output + *outputBit / 8;
  int fromBit = *inputBit % 8;
  int toBit = *outputBit % 8;
  while (count > 0) {
    int step = 8 - fromBit;
    result += step;
    if (step > count) step = count;
    if (step > 8 - toBit) step = 8 - toBit;
    const unsigned bits = (unsigned)*from >> (8 - fromBit - step) & ((1u << step) - 1u);
    *to = (uint8_t)(*to | bits << (8 - toBit - step));
    *inputBit += step;
    *outputBit += step;
    count -= step;
    fromBit += step;
    toBit += step;
    if (fromBit > 7) {
      fromBit = 0;
      ++from;
    }
    if (toBit > 7) {
      toBit = 0;
      ++to;
    }
  }
  return result;
}
