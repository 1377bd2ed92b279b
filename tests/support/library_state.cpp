// The library's globals as a fresh process has them. library_state.ld gathers them, whichever module they belong to, in
// two ranges. Their contents are kept before main() and copied back before each test, when no thread of the library runs.
#include "fake_impl.h"

#ifdef METADATA_COVERAGE
extern "C" {
#include <gcov.h>
}
#endif

extern "C" BYTE library_data_begin[], library_data_end[], library_bss_begin[], library_bss_end[];

namespace {

// Byte by byte through a volatile pointer: between the globals stand the guard zones of the address sanitizer, and
// memcpy would be reported.
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
  // The counters stand among the globals: they are added to the files first.
  __gcov_dump();
#endif
  kEptData.Restore();
  kEptBss.Restore();
#ifdef METADATA_COVERAGE
  __gcov_reset();
#endif
}
