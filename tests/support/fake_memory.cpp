// SPDX-License-Identifier: Apache-2.0
// Wraps the allocator with the linker's --wrap: allocations can be made to fail by name, and every block that a test or
// the library allocates and does not free is a leak of that test. C++ containers allocate inside libstdc++, which is
// not wrapped.
#include <dlfcn.h>

#include <cstring>
#include <mutex>
#include <sstream>
#include <string>

#include "fake_impl.h"

// Counts the call only while a failure is requested, so that Host::Calls does not report allocations.
static bool IsRefused(const char* name) {
  if (!g_testUnderWay) return false;
  std::lock_guard guard(Fake().lock);
  Fake().Act(name);
  const auto found = Fake().failures.find(name);
  return found != Fake().failures.end() && !found->second.empty() && Fake().Fails(name);
}

static void* Track(void* block, size_t size, const void* caller) {
  if (!g_testUnderWay || block == nullptr) return block;
  std::lock_guard guard(Fake().blocksLock);
  Fake().blocks[block] = {size, caller};
  return block;
}

static void Untrack(const void* block) {
  if (!g_testUnderWay || block == nullptr) return;
  std::lock_guard guard(Fake().blocksLock);
  Fake().blocks.erase(block);
}

// Names the caller in the form that addr2line understands: "unit_utils+0x1a2b".
static std::string Place(const void* address) {
  Dl_info info = {};
  if (dladdr(address, &info) == 0) return "?";
  const char* slash = strrchr(info.dli_fname, '/');
  std::ostringstream text;
  text << (slash == nullptr ? info.dli_fname : slash + 1) << "+0x" << std::hex
       << static_cast<const char*>(address) - static_cast<const char*>(info.dli_fbase);
  return text.str();
}

std::string Host::Impl::DescribeBlocks() {
  std::lock_guard guard(blocksLock);
  std::ostringstream text;
  for (const auto& [block, allocation] : blocks)
    text << "  " << allocation.size << " bytes from " << Place(allocation.caller) << "\n";
  return text.str();
}

extern "C" {

void* __real_malloc(size_t);
void* __real_calloc(size_t, size_t);
void* __real_realloc(void*, size_t);
char* __real_strdup(const char*);
char* __real_strndup(const char*, size_t);
void __real_free(void*);

void* __wrap_malloc(size_t size) {
  if (IsRefused("malloc")) return nullptr;
  return Track(__real_malloc(size), size, __builtin_return_address(0));
}

void* __wrap_calloc(size_t count, size_t size) {
  if (IsRefused("calloc")) return nullptr;
  return Track(__real_calloc(count, size), count * size, __builtin_return_address(0));
}

void* __wrap_realloc(void* block, size_t size) {
  if (IsRefused("realloc")) return nullptr;
  Untrack(block);
  return Track(__real_realloc(block, size), size, __builtin_return_address(0));
}

char* __wrap_strdup(const char* text) {
  if (IsRefused("strdup")) return nullptr;
  char* copy = __real_strdup(text);
  Track(copy, strlen(text) + 1, __builtin_return_address(0));
  return copy;
}

char* __wrap_strndup(const char* text, size_t size) {
  if (IsRefused("strndup")) return nullptr;
  char* copy = __real_strndup(text, size);
  Track(copy, strnlen(text, size) + 1, __builtin_return_address(0));
  return copy;
}

void __wrap_free(void* block) {
  Untrack(block);
  __real_free(block);
}

}  // extern "C"
