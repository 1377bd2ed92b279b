#include "workload.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "host_runtime.h"
#include "metadata_lib.h"

namespace bench {

std::vector<Side>& Sides() {
  static std::vector<Side> sides;
  return sides;
}

bool Add(const std::string& name, std::function<Work()> make) {
  Sides().push_back({name, std::move(make)});
  return true;
}

void Fail(const std::string& reason) {
  std::fprintf(stderr, "bench: %s\n", reason.c_str());
  std::_Exit(1);
}

void UseLibrary(int logLevel) {
  [[maybe_unused]] static const bool kStarted = [] {
    HostRuntimeConfig config;
    // Lines go to a file, as a daemon's do, and are limited as by default.
    config.console = false;
    // Both sides run with the same priority.
    config.realtimeThreads = false;
    config.logFile = "/tmp/metadata_bench." + std::to_string(getpid()) + ".log";
    std::string error;
    Require(HostRuntime_Apply(config, &error), "the log file cannot be written");
    unlink(config.logFile.c_str());
    Require(METADATALIB_Init(METADATALIB_CAPS_COT_SUPPORT | METADATALIB_CAPS_IPV4_SUPPORT), "METADATALIB_Init failed");
    return true;
  }();
  HostRuntime_SetLevel("", logLevel);
}

}  // namespace bench
