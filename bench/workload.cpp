// SPDX-License-Identifier: Apache-2.0
#include "workload.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

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

HostRuntimeConfig& LibraryConfig() {
  static HostRuntimeConfig config = [] {
    HostRuntimeConfig made;
    made.console = false;
    made.logFile = "/tmp/metadata_bench." + std::to_string(getpid()) + ".log";
    made.realtimeThreads = false;
    return made;
  }();
  return config;
}

void UseLibrary(int logLevel) {
  [[maybe_unused]] static const bool kStarted = [] {
    std::string error;
    Require(HostRuntime_Apply(LibraryConfig(), &error), "the log file cannot be written");
    unlink(LibraryConfig().logFile.c_str());
    Require(METADATALIB_Init(METADATALIB_CAPS_COT_SUPPORT | METADATALIB_CAPS_IPV4_SUPPORT), "METADATALIB_Init failed");
    return true;
  }();
  HostRuntime_SetLevel("", logLevel);
}

}  // namespace bench
