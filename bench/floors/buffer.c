// SPDX-License-Identifier: Apache-2.0
// Stands for a message buffer that two threads may hold: memory, a copy, a reference that is taken and given back atomically,
// and the end of the memory.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "floors.h"

typedef struct Buffer {
  int references;
  size_t size;
  uint8_t data[];
} Buffer;

void FloorBuffer(const uint8_t* data, size_t size) {
  Buffer* buffer = malloc(sizeof *buffer + size);
  if (buffer == NULL) return;
  __atomic_store_n(&buffer->references, 0, __ATOMIC_RELAXED);
  __atomic_add_fetch(&buffer->references, 1, __ATOMIC_ACQ_REL);
  buffer->size = size;
  memcpy(buffer->data, data, size);
  __asm__ volatile("" : : "r"(buffer) : "memory");
  if (__atomic_sub_fetch(&buffer->references, 1, __ATOMIC_ACQ_REL) == 0) free(buffer);
}
