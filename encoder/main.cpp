// SPDX-License-Identifier: Apache-2.0
// mdencoder: reads the configuration, sets up the host, loads the library and runs. The exit code is 0 for success, 1
// for a failure, and 2 for a fault in the usage or the configuration.
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>

#include "config.h"
#include "console.h"
#include "host_runtime.h"
#include "library.h"
#include "options.h"
#include "session.h"

namespace mdencoder {
namespace {

HostRuntimeConfig HostConfig(const Config& config) {
  HostRuntimeConfig host;
  std::string error;
  const std::string& path = config.encoder.hostConfig;
  if (!path.empty() && !HostRuntime_Load(path, host, error)) {
    throw ConfigError(error.find(path) == std::string::npos ? path + ": " + error : error);
  }
  if (config.encoder.logLevel >= 0) host.logLevel = config.encoder.logLevel;
  for (const auto& [module, level] : config.encoder.moduleLevels) host.moduleLevels[module] = level;
  for (const SourceSettings& source : config.sources) {
    if (!source.device.empty()) host.serialDevices[kSerialDevice] = source.device;
  }
  host.configDefaults[{"/etc/hostos.ini", "UASLocalSet", "ExtendedTags"}] = config.encoder.extendedTags ? "Yes" : "No";
  return host;
}

// Returns "12:34:56.789 METADATALIB 5 MetaData_OpenSource: ...".
std::string LogText(const HostLogLine& line) {
  const auto now = std::chrono::system_clock::now();
  const time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  tm parts{};
  localtime_r(&seconds, &parts);
  char text[32];
  const size_t used = std::strftime(text, sizeof(text), "%H:%M:%S", &parts);
  std::snprintf(text + used, sizeof(text) - used, ".%03d ", static_cast<int>(milliseconds));
  const std::string level = line.assertion ? "ASSERTION" : std::to_string(line.level);
  return text + line.module + " " + level + " " + line.function + ": " + line.text;
}

// Sends log lines through the console while it has a status block, which they would damage otherwise.
class LogRoute {
 public:
  LogRoute(HostRuntimeConfig& host, Console& console) : m_routed(host.console && console.HasStatus()) {
    if (!m_routed) return;
    host.console = false;
    HostRuntime_OnLog([&console](const HostLogLine& line) { console.Complain(LogText(line)); });
  }
  ~LogRoute() {
    if (m_routed) HostRuntime_OnLog({});
  }
  LogRoute(const LogRoute&) = delete;
  LogRoute& operator=(const LogRoute&) = delete;

 private:
  const bool m_routed;
};

int Main(int argc, char** argv) {
  Session::BlockSignals();
  Options options;
  const int parsed = ParseOptions(argc, argv, options);
  if (parsed >= 0) return parsed;
  const Config config = LoadConfig(options.config, options.overrides);
  HostRuntimeConfig host = HostConfig(config);
  if (options.check) {
    std::printf("%s: OK, %zu source%s\n", options.config.c_str(), config.sources.size(),
                config.sources.size() == 1 ? "" : "s");
    return 0;
  }
  Console console;
  const LogRoute route(host, console);
  std::string error;
  if (!HostRuntime_Apply(host, &error)) throw std::runtime_error(error);
  const Library library = LoadLibrary(config.encoder.library);
  return Session(config, library, console).Run();
}

}  // namespace
}  // namespace mdencoder

int main(int argc, char** argv) {
  try {
    return mdencoder::Main(argc, argv);
  } catch (const mdencoder::ConfigError& error) {
    std::fprintf(stderr, "mdencoder: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mdencoder: %s\n", error.what());
    return 1;
  }
}
