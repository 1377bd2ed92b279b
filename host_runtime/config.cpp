// SPDX-License-Identifier: Apache-2.0
// The host's configuration: its INI file, and the copy that applies.
//
// CONTENTS
//   Values     read numbers and switches, with errors that say what is allowed
//   Sections   have one function each
//   Snapshot   is the configuration that the services read
#define HOST_MODULE "config"

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "annotated_mutex.h"
#include "ini_text.h"
#include "runtime_state.h"
#include "text_file.h"
#include "value_text.h"

namespace host_runtime {
namespace {

using common::Lock;
using common::Mutex;

// --- Values ------------------------------------------------------------------------------------------
// Each returns "", or one line that names the key, the value and what is allowed.

template <typename Number>
std::string ReadNumber(const std::string& key, const std::string& value, Number lowest, Number highest,
                       Number* number) {
  const auto parsed = value_text::ParseWholeNumber(value, lowest, highest);
  if (!parsed) return value_text::Refusal(key, value, value_text::WholeNumberRange(lowest, highest));
  *number = static_cast<Number>(*parsed);
  return {};
}

std::string ReadSwitch(const std::string& key, const std::string& value, bool* isOn) {
  const auto parsed = value_text::ParseSwitch(value);
  if (!parsed) return value_text::Refusal(key, value, value_text::kSwitchValues);
  *isOn = *parsed;
  return {};
}

std::string UnknownKey(const std::string& section, const std::string& key, const std::string& allowed) {
  return "[" + section + "] has no key " + key + "; allowed: " + allowed;
}

// --- Sections ----------------------------------------------------------------------------------------

struct Loader {
  const std::string& file;
  HostRuntimeConfig config;

  std::string Log(const std::string& key, const std::string& value) {
    if (key == "level") return ReadNumber(key, value, 0, 8, &config.logLevel);
    if (key == "file") {
      config.logFile = ini::Beside(file, value);
      return {};
    }
    if (key == "console") return ReadSwitch(key, value, &config.console);
    if (key == "burst") return ReadNumber(key, value, 1u, 1'000'000u, &config.logBurst);
    if (key == "rate") return ReadNumber(key, value, 0u, 1'000'000u, &config.logRate);
    if (key.starts_with("level.")) return ReadNumber(key, value, 0, 8, &config.moduleLevels[key.substr(6)]);
    return UnknownKey("log", key, "level, level.MODULE, file, console, burst, rate");
  }

  std::string Threads(const std::string& key, const std::string& value) {
    if (key == "realtime") return ReadSwitch(key, value, &config.realtimeThreads);
    if (key == "states") return ReadSwitch(key, value, &config.threadStates);
    return UnknownKey("threads", key, "realtime, states");
  }

  std::string Network(const std::string& key, const std::string& value) {
    if (key != "multicast interface") return UnknownKey("network", key, "multicast interface");
    config.multicastInterface = value;
    return {};
  }

  std::string Capture(const std::string& section, const std::string& key, const std::string& value) {
    HostCaptureConfig& capture = config.captures[static_cast<size_t>(section.back() - '0')];
    if (key == "kind") {
      using Kind = HostCaptureConfig::Kind;
      static const std::map<std::string, Kind> kKinds = {
          {"none", Kind::None}, {"media", Kind::Media}, {"anc", Kind::Anc}, {"socket", Kind::Socket}};
      const auto kind = kKinds.find(value);
      if (kind == kKinds.end()) return value_text::Refusal(key, value, "one of none, media, anc, socket");
      capture.kind = kind->second;
      return {};
    }
    if (key == "path") {
      capture.path = ini::Beside(file, value);
      return {};
    }
    if (key == "loop") return ReadSwitch(key, value, &capture.loop);
    if (key == "speed") {
      const auto speed = value_text::ParseReal(value, 0, 1000);
      if (!speed) return value_text::Refusal(key, value, value_text::RealRange(0, 1000));
      capture.speed = *speed;
      return {};
    }
    if (key == "port") return ReadNumber(key, value, uint16_t{1}, uint16_t{65535}, &capture.port);
    if (key == "address") {
      in_addr address{};
      if (inet_pton(AF_INET, value.c_str(), &address) != 1) return value_text::Refusal(key, value, "an IPv4 address");
      capture.address = value;
      return {};
    }
    return UnknownKey(section, key, "kind, path, loop, speed, address, port");
  }

  std::string Key(const std::string& section, const std::string& key, const std::string& value) {
    if (section == "log") return Log(key, value);
    if (section == "threads") return Threads(key, value);
    if (section == "network") return Network(key, value);
    if (section == "serial") {
      config.serialDevices[key] = ini::Beside(file, value);
      return {};
    }
    if (section == "files") {
      config.configFiles[key] = ini::Beside(file, value);
      return {};
    }
    if (section.size() == 8 && section.starts_with("capture") && section.back() >= '0' && section.back() <= '3') {
      return Capture(section, key, value);
    }
    return "unknown section [" + section + "]; allowed: log, threads, network, serial, files, capture0 to capture3";
  }

  // Finds faults that involve more than one key.
  std::string CheckTogether() const {
    for (size_t i = 0; i < config.captures.size(); ++i) {
      const HostCaptureConfig& capture = config.captures[i];
      using Kind = HostCaptureConfig::Kind;
      const std::string section = "[capture" + std::to_string(i) + "]";
      if (capture.kind == Kind::Media && capture.path.empty()) return section + " kind = media needs the key path";
      if (capture.kind == Kind::Socket && capture.path.empty()) return section + " kind = socket needs the key path";
      if (capture.kind == Kind::Anc && capture.port == 0) return section + " kind = anc needs the key port";
    }
    return {};
  }

  std::string Load(const std::string& text) {
    const auto at = [this](int line, const std::string& problem) {
      return file + ":" + std::to_string(line) + ": " + problem;
    };
    if (const auto fault = ini::FindZeroByte(text)) return at(fault->line, fault->text);
    const ini::Contents contents = ini::Parse(text);
    if (contents.fault) return at(contents.fault->line, contents.fault->text);
    for (const ini::Entry& entry : contents.entries) {
      const std::string problem = Key(entry.section, entry.key, entry.value);
      if (!problem.empty()) return at(entry.line, problem);
    }
    const std::string problem = CheckTogether();
    return problem.empty() ? problem : file + ": " + problem;
  }
};

// --- Snapshot ----------------------------------------------------------------------------------------
// Any thread may read it. It is never destroyed, because threads may read it while the process ends.

struct Snapshot {
  Mutex lock;  // leaf
  std::shared_ptr<const HostRuntimeConfig> config GUARDED_BY(lock) = std::make_shared<HostRuntimeConfig>();
};

void SetSnapshot(Snapshot& state, const HostRuntimeConfig& config) {
  auto fresh = std::make_shared<const HostRuntimeConfig>(config);
  __atomic_store_n(&g_bThreadStateDebuggingEnabled, config.threadStates ? TRUE : FALSE, __ATOMIC_RELAXED);
  const Lock guard(state.lock);
  state.config.swap(fresh);
}

Snapshot& CurrentSnapshot() {
  static Snapshot* const kState = [] {
    auto* fresh = new Snapshot;
    const char* path = secure_getenv("METADATA_HOST_INI");
    if (path == nullptr || *path == '\0') return fresh;
    HostRuntimeConfig config;
    std::string error;
    bool good = HostRuntime_Load(path, config, error);
    if (good) {
      SetSnapshot(*fresh, config);
      good = ApplyLogConfig(config, &error);
    }
    if (!good) HOST_LOG(3, "METADATA_HOST_INI: %s.\n", error.c_str());
    return fresh;
  }();
  return *kState;
}

}  // namespace

std::shared_ptr<const HostRuntimeConfig> Config() {
  Snapshot& state = CurrentSnapshot();
  const Lock guard(state.lock);
  return state.config;
}

}  // namespace host_runtime

using namespace host_runtime;

bool HostRuntime_Load(const std::string& path, HostRuntimeConfig& config, std::string& error) {
  return NoThrow(false, [&] {
    std::string text;
    error = ReadTextFile(path, &text);
    if (!error.empty()) return false;
    Loader loader{path, config};
    error = loader.Load(text);
    if (!error.empty()) return false;
    config = std::move(loader.config);
    return true;
  });
}

bool HostRuntime_Apply(const HostRuntimeConfig& config, std::string* error) {
  return NoThrow(false, [&] {
    SetSnapshot(CurrentSnapshot(), config);
    std::string problem;
    if (ApplyLogConfig(config, &problem)) return true;
    HOST_LOG(3, "%s.\n", problem.c_str());
    if (error != nullptr) *error = problem;
    return false;
  });
}

bool HostRuntime_SetCapture(int input, const HostCaptureConfig& config) {
  if (input < 0 || input >= kHostVideoInputs) return false;
  return NoThrow(false, [&] {
    Snapshot& state = CurrentSnapshot();
    auto fresh = std::make_shared<HostRuntimeConfig>(*Config());
    fresh->captures[static_cast<size_t>(input)] = config;
    const Lock guard(state.lock);
    state.config = std::move(fresh);
    return true;
  });
}

HostRuntimeConfig HostRuntime_Config() {
  return *Config();
}
