// SPDX-License-Identifier: Apache-2.0
// Plain forms of the core's sums and bits; see md_core.h for what each promises.
#ifndef SLOW_FORMS_H
#define SLOW_FORMS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

uint16_t SlowRunningSum(const uint8_t* base, size_t size);
uint16_t SlowRunningSumWithout(const uint8_t* base, size_t size, size_t position);
uint16_t SlowCrc16(const uint8_t* base, size_t size);
int SlowCopyBits(const uint8_t* input, size_t inputBit, uint8_t* output, size_t outputBit, size_t count);

#ifdef __cplusplus
}
#endif

#endif  // SLOW_FORMS_H
