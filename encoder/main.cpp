// SPDX-License-Identifier: Apache-2.0
// mdencoder: reads the configuration, sets up the host, loads the library and runs. The exit code is 0 for success, 1
// for a failure, and 2 for a fault in the usage or the configuration.
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "annotated_mutex.h"
#include "check.h"
#include "config.h"
#include "console.h"
#include "geoid_grid.h"
#include "host_runtime.h"
#include "http/settings.h"
#include "library.h"
#include "options.h"
#include "quick_look.h"
#include "reload.h"
#include "service.h"
#include "session.h"
#include "stable_file.h"

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

void CheckGeoidGrid(const std::string& path, const Config& config) try {
  RequireGeoidGrid(config);
} catch (const ConfigError& error) {
  throw ConfigError(path + ": " + error.what());
}

void CheckHttpFiles(const std::string& path, const Config& config) try {
  RequireHttpFiles(config.encoder.http);
} catch (const ConfigError& error) {
  throw ConfigError(path + ": [encoder] " + error.what());
}

// What the start, a reload and every check look at.
CheckedConfig Prepare(const Options& options, std::chrono::milliseconds quiet) {
  CheckedConfig checked;
  checked.config = LoadConfig(options.config, options.overrides, quiet);
  checked.host = HostConfig(checked.config);
  if (options.check == Check::Text) return checked;
  CheckGeoidGrid(options.config, checked.config);
  CheckHttpFiles(options.config, checked.config);
  return checked;
}

// A pause of the program that writes the file must not be taken for its end.
constexpr std::chrono::milliseconds kQuiet(100);

CheckedConfig PrepareAgain(const Options& options) {
  if (options.config == "-") {
    throw ConfigError("the configuration came from the standard input, which cannot be read again");
  }
  if (!IsRegularFile(options.config)) throw ConfigError(options.config + ": is not a regular file");
  return Prepare(options, kQuiet);
}

std::optional<int64_t> PairClock() {
  int64_t microseconds = 0;
  return HostRuntime_TimeDifference(&microseconds) ? std::optional(microseconds) : std::nullopt;
}

// Returns when the metadata thread gave its last sign, in seconds before now.
std::optional<double> SecondsSinceSign() {
  for (const HostThreadState& thread : HostRuntime_Threads()) {
    if (thread.name == "MetaData" && thread.running) return thread.secondsSinceSign;
  }
  return std::nullopt;
}

// Returns "12:34:56.789 METADATALIB 5 MetaData_OpenSource: ...". The journal has its own times and priorities.
std::string LogText(const HostLogLine& line) {
  const std::string level = line.assertion ? "ASSERTION" : std::to_string(line.level);
  const std::string said = line.module + " " + level + " " + line.function + ": " + line.text;
  const std::string prefix = PriorityPrefix(PriorityOfLevel(line.level, line.assertion));
  if (!prefix.empty()) return prefix + said;
  const auto now = std::chrono::system_clock::now();
  const time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  tm parts{};
  localtime_r(&seconds, &parts);
  char text[32];
  const size_t used = std::strftime(text, sizeof(text), "%H:%M:%S", &parts);
  std::snprintf(text + used, sizeof(text) - used, ".%03d ", static_cast<int>(milliseconds));
  return text + said;
}

// Passes log lines on: to a listener, if there is one, and through the console while it has a status block, which they
// would damage otherwise, and to the journal.
class LogRoute {
 public:
  LogRoute(const HostRuntimeConfig& host, Console& console)
      : m_console(console), m_routed(host.console && (console.HasStatus() || IsJournal(STDERR_FILENO))) {
    if (m_routed) HostRuntime_OnLog([this](const HostLogLine& line) { Pass(line); });
  }
  ~LogRoute() { HostRuntime_OnLog({}); }
  LogRoute(const LogRoute&) = delete;
  LogRoute& operator=(const LogRoute&) = delete;

  // Applies a configuration of the host, except where its lines go.
  bool Apply(HostRuntimeConfig host, std::string* error) const {
    if (m_routed) host.console = false;
    return HostRuntime_Apply(host, error);
  }

  // Waits for a call of the former listener that is still running.
  void Listen(std::function<void(const HostLogLine&)> listener) {
    const bool isOn = listener != nullptr;
    {
      const common::Lock lock(m_mutex);
      m_listener = std::move(listener);
    }
    if (!m_routed) HostRuntime_OnLog(isOn ? [this](const HostLogLine& line) { Pass(line); } : Function());
  }

 private:
  using Function = std::function<void(const HostLogLine&)>;

  void Pass(const HostLogLine& line) {
    if (m_routed) m_console.Complain(LogText(line));
    const common::Lock lock(m_mutex);
    if (m_listener) m_listener(line);
  }

  Console& m_console;
  const bool m_routed;
  common::Mutex m_mutex;
  Function m_listener GUARDED_BY(m_mutex);
};

int Main(int argc, char** argv) {
  if (const auto code = RunQuickLook(argc, argv)) return *code;
  Session::BlockSignals();
  Options options;
  const int parsed = ParseOptions(argc, argv, options);
  if (parsed >= 0) return parsed;
  const CheckedConfig checked = Prepare(options, {});
  if (options.check != Check::None) {
    if (options.check == Check::All) {
      CheckEverything({checked.config, options.config, checked.host, HostRuntime_MediaFault});
    }
    std::printf("%s: OK, %zu source%s\n", options.config.c_str(), checked.config.sources.size(),
                checked.config.sources.size() == 1 ? "" : "s");
    return 0;
  }
  Console console;
  LogRoute route(checked.host, console);
  try {
    std::string error;
    if (!route.Apply(checked.host, &error)) throw std::runtime_error(error);
    const Library library = LoadLibrary(checked.config.encoder.library);
    Surroundings around;
    around.host = checked.host;
    around.prepare = [&options] { return PrepareAgain(options); };
    around.applyHost = [&route](const HostRuntimeConfig& host) { route.Apply(host, nullptr); };
    around.secondsSinceSign = SecondsSinceSign;
    around.setReception = HostRuntime_SetReception;
    around.captureStats = HostRuntime_CaptureStats;
    around.captures.set = [](int input, const HostCaptureConfig& capture) { HostRuntime_SetCapture(input, capture); };
    around.captures.state = HostRuntime_CaptureState;
    around.captures.open = [](const HostCaptureConfig& capture, const std::string& name) {
      return HostRuntime_OpenStream(capture, name, kLongestDatagram);
    };
    around.onRoom = HostRuntime_OnRoom;
    around.onLog = [&route](std::function<void(const HostLogLine&)> listener) { route.Listen(std::move(listener)); };
    Session session(checked.config, library, console, std::move(around));
    session.SetPairClock(PairClock);
    return session.Run();
  } catch (const std::exception& error) {
    // Never waits for the reader of the standard error.
    console.Complain(PriorityPrefix(Priority::Error) + "mdencoder: " + error.what());
    return 1;
  }
}

void Complain(const std::exception& error) {
  std::fprintf(stderr, "%smdencoder: %s\n", PriorityPrefix(Priority::Error).c_str(), error.what());
}

}  // namespace
}  // namespace mdencoder

int main(int argc, char** argv) {
  try {
    return mdencoder::Main(argc, argv);
  } catch (const mdencoder::ConfigError& error) {
    mdencoder::Complain(error);
    return 2;
  } catch (const std::exception& error) {
    mdencoder::Complain(error);
    return 1;
  }
}
