// SPDX-License-Identifier: Apache-2.0
// Shared by the services: the configuration that applies, and the runtime's own log lines.
//
// HOST_LOG(level, format, ...) logs on the module "HOST". A source file defines HOST_MODULE, its name without
// extension, before it includes this header. It also defines HOST_DEBUG_MODULE if it logs on another module.
#ifndef HOST_RUNTIME_STATE_H
#define HOST_RUNTIME_STATE_H

#include <time.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "function_name.h"
#include "host.h"
#include "host_runtime.h"

namespace host_runtime {

// Returns the configuration that applies, as a snapshot that stays valid.
std::shared_ptr<const HostRuntimeConfig> Config();

// The runtime's own modules. They are opened at their first use and never closed.
HDBG HostModule();     // "HOST"
HDBG CaptureModule();  // "KLVCAPTURE"

// Applies a configuration to the log. Returns false, with *error set, if the log file cannot be opened.
bool ApplyLogConfig(const HostRuntimeConfig& config, std::string* error);

// What HostRuntime_TimeDifference returns on this thread, microseconds.
struct TimeDifference {
  bool isKnown;
  int64_t microseconds;
};
inline constinit thread_local TimeDifference g_timeDifference{};

// Forgets it. Called in front of each callback of a descriptor set.
inline void ForgetTimeDifference() {
  g_timeDifference.isKnown = false;
}

// Notes that the calling thread is alive, if CreateThread made it.
void NoteSign();

inline int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Runs the body of a service. Its callers are C, so an exception of the standard library (out of memory) becomes the
// failure result.
template <typename Result, typename Body>
Result NoThrow(Result failure, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    return failure;
  }
}

template <typename Body>
void NoThrow(Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
  } catch (...) {  // out of memory: nothing can be reported
  }
}

}  // namespace host_runtime

#ifndef HOST_DEBUG_MODULE
#define HOST_DEBUG_MODULE ::host_runtime::HostModule()
#endif

#define HOST_LOG(level, ...)                                                                                  \
  do {                                                                                                        \
    const HDBG hHostLog = HOST_DEBUG_MODULE;                                                                  \
    if (hHostLog != nullptr && __atomic_load_n(&hHostLog->nMaxLevel, __ATOMIC_RELAXED) >= (level))            \
      _DoDbgPrintEx(hHostLog, (level), ::host_runtime::FunctionName(__PRETTY_FUNCTION__).Text(), HOST_MODULE, \
                    __LINE__, __VA_ARGS__);                                                                   \
  } while (0)

#endif  // HOST_RUNTIME_STATE_H
