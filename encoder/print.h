// SPDX-License-Identifier: Apache-2.0
// Text as printf writes it.
#ifndef MDENCODER_PRINT_H
#define MDENCODER_PRINT_H

#include <cstdio>
#include <string>

namespace mdencoder {

// Returns no more than 511 characters.
template <typename... Arguments>
std::string Print(const char* format, Arguments... arguments) {
  char text[512];
  std::snprintf(text, sizeof(text), format, arguments...);
  return text;
}

}  // namespace mdencoder

#endif  // MDENCODER_PRINT_H
