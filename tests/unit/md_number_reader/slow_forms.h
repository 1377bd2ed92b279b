// SPDX-License-Identifier: Apache-2.0
// The plain form of the reading of one number; see md_number_reader.h for what it promises.
#ifndef NUMBER_READER_SLOW_FORMS_H
#define NUMBER_READER_SLOW_FORMS_H

#include <stdlib.h>

// In a process whose locale is "C".
inline double SlowTextToDouble(const char* text) {
  return strtod(text, nullptr);
}

#endif  // NUMBER_READER_SLOW_FORMS_H
