// SPDX-License-Identifier: Apache-2.0
// Checks that the public header and the host declarations compile on their own as C++17.
#include "host.h"
#include "metadata_lib.h"

int abi_header_cxx17();
int abi_header_cxx17() {
  return static_cast<int>(sizeof(MDATA_SRC_STATS));
}
