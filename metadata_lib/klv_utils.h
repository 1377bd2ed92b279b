// SPDX-License-Identifier: Apache-2.0
// Private side of the KLV element parser: the registry designator table.
#ifndef KLV_UTILS_H
#define KLV_UTILS_H

#include <stdint.h>

#include "metadata_lib.h"

// How the items of a message are coded, by the sixth byte of its universal key.
typedef struct tagREG_DESIGNATOR_ENTRY {
  BYTE RegistryDesignator;
  int32_t nLengthFieldSize;  // size code
  int32_t nTagFieldSize;     // size code
} REG_DESIGNATOR_ENTRY;

inline constexpr int kKnownRegistryDesignators = 26;
extern const REG_DESIGNATOR_ENTRY _KnownRegistryDesignators[kKnownRegistryDesignators];

#endif  // KLV_UTILS_H
