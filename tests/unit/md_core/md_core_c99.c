/* SPDX-License-Identifier: Apache-2.0 */
/* The parsing core as a C99 program sees it: compiled, with every warning, and never run. */
#include "md_core.c" /* NOLINT(bugprone-suspicious-include): compiled again on purpose */

int md_core_c99(const unsigned char* data, size_t size);

int md_core_c99(const unsigned char* data, size_t size) {
  MdItem item;
  return _MdReadItem(data, size, 0, kMdFieldOidTag, kMdFieldNoneOrBer, &item) == kMdReadOk && item.end <= size;
}
