// SPDX-License-Identifier: Apache-2.0
// Resets the library's globals to the values of a fresh process. library_state.ld collects the globals of all modules
// in two ranges. Their contents are saved before main() and copied back before each test, when no thread of the library
// runs.
#include "fake_impl.h"

#ifdef METADATA_COVERAGE
extern "C" {
#include <gcov.h>
}
#endif

extern "C" BYTE library_data_begin[], library_data_end[], library_bss_begin[], library_bss_end[];

namespace {

// Copies byte by byte through a volatile pointer: the guard zones of the address sanitizer lie between the globals, and
// it would report memcpy.
__attribute__((no_sanitize("all"))) void CopyBytes(const volatile BYTE* from, size_t size, volatile BYTE* to) {
  for (size_t i = 0; i < size; ++i) to[i] = from[i];
}

class KeptRange {
 public:
  KeptRange(BYTE* begin, BYTE* end) : m_begin(begin), m_bytes(static_cast<size_t>(end - begin)) {
    CopyBytes(m_begin, m_bytes.size(), m_bytes.data());
  }
  void Restore() const { CopyBytes(m_bytes.data(), m_bytes.size(), m_begin); }

 private:
  BYTE* m_begin;
  Bytes m_bytes;
};

const KeptRange kEptData(library_data_begin, library_data_end);
const KeptRange kEptBss(library_bss_begin, library_bss_end);

}  // namespace

void ResetLibrary() {
#ifdef METADATA_COVERAGE
  // The coverage counters are among the globals, so they are written to the files first.
  __gcov_dump();
#endif
  kEptData.Restore();
  kEptBss.Restore();
#ifdef METADATA_COVERAGE
  __gcov_reset();
#endif
}
