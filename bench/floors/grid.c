// SPDX-License-Identifier: Apache-2.0
// Stands for the loading of the geoid grid, twice: a loop over the file that knows nothing but decimals ("-12.345") and
// leaves the few numbers with an exponent to the C library, and a scan per number as the C library has it.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "floors.h"

// The whole file with a zero byte behind it, or null.
static char* ReadFile(const char* path) {
  FILE* file = fopen(path, "rb");
  if (file == NULL) return NULL;
  fseek(file, 0, SEEK_END);
  const long size = ftell(file);
  rewind(file);
  char* text = size < 0 ? NULL : malloc((size_t)size + 1);
  if (text != NULL) text[fread(text, 1, (size_t)size, file)] = 0;
  fclose(file);
  return text;
}

int FloorGridFixedPoint(const char* path, float* values, size_t count) {
  static const double kScales[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  char* const text = ReadFile(path);
  if (text == NULL) return -1;
  char* at = text;
  for (size_t i = 0; i < count; ++i) {
    while (*at == ' ' || *at == '\n' || *at == '\r' || *at == '\t') ++at;
    char* const start = at;
    const int negative = *at == '-';
    if (negative) ++at;
    int64_t digits = 0;
    int decimals = 0;
    while (*at >= '0' && *at <= '9') digits = digits * 10 + (*at++ - '0');
    if (*at == '.') {
      ++at;
      for (; *at >= '0' && *at <= '9' && decimals < 15; ++decimals) digits = digits * 10 + (*at++ - '0');
    }
    const double value = (double)digits / kScales[decimals];
    values[i] = (float)(negative ? -value : value);
    if (*at == 'e') values[i] = strtof(start, &at);
  }
  free(text);
  return 0;
}

int FloorGridScan(const char* path, float* values, size_t count) {
  FILE* file = fopen(path, "rb");
  if (file == NULL) return -1;
  size_t read = 0;
  while (read < count && fscanf(file, "%f", &values[read]) == 1) ++read;
  fclose(file);
  return read == count ? 0 : -1;
}
