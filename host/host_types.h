// SPDX-License-Identifier: Apache-2.0
// Types shared by the host service declarations. The integer types and MDATA_SERIAL_SRC_CFG come from the
// public header, so that the installed header stands alone.
#ifndef HOST_TYPES_H
#define HOST_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "metadata_lib.h"

#if defined(__GNUC__)
#define HOST_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#else
#define HOST_PRINTF(format_index, first_argument)
#endif

#endif  // HOST_TYPES_H
