/* SPDX-License-Identifier: Apache-2.0 */
/* The public header and the host declarations stand alone as C11; the layouts are asserted in the header itself. */
#include "host.h"
#include "metadata_lib.h"

int abi_header_c(void);
int abi_header_c(void) {
  return (int)sizeof(MDATA_SRC_CFG);
}
