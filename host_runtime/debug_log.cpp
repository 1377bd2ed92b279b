// SPDX-License-Identifier: Apache-2.0
// Debug modules, log lines, hex dumps and assertions, written through spdlog.
//
// CONTENTS
//   Text       is formatted and escaped
//   State      holds modules, sinks, limiter and observer, with their lock
//   Writing    limits a line and hands it to sinks and observer
//   Services   are called by the library and the runtime
#define HOST_MODULE "debug_log"

#include <dlfcn.h>
#include <fcntl.h>
#include <spdlog/details/console_globals.h>
#include <spdlog/details/os.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "annotated_mutex.h"
#include "console_log.h"
#include "log_limiter.h"
#include "metadata_lib.h"
#include "printable_text.h"
#include "runtime_state.h"

namespace host_runtime {
namespace {

using common::Lock;
using common::Mutex;

constexpr size_t kLogFileSize = size_t{8} << 20;
constexpr size_t kLogFilesKept = 3;
constexpr int kDumpWidth = 16;      // bytes per line
constexpr int kDumpLimit = 65'536;  // bytes of a dump that are written

// --- Text --------------------------------------------------------------------------------------------
// Pure functions for any thread.

std::string FormatText(const char* format, va_list arguments) {
  std::array<char, 512> small;
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(small.data(), small.size(), format, arguments);
  std::string text;
  if (length < 0) {
    text = format;
  } else if (static_cast<size_t>(length) < small.size()) {
    text.assign(small.data(), static_cast<size_t>(length));
  } else {
    text.resize(static_cast<size_t>(length) + 1);
    vsnprintf(text.data(), text.size(), format, again);
    text.pop_back();
  }
  va_end(again);
  return text;
}

// Makes one line of any text: removes the line end of the format and escapes everything but printable UTF-8, so that no
// sender can forge a line or control a terminal.
std::string OneLine(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  return PrintableText(text);
}

// Returns "0010  06 0E 2B ... 34  ..+." with kDumpWidth bytes.
std::string DumpLine(const BYTE* data, int offset, int size) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::array<char, 12> head;
  snprintf(head.data(), head.size(), "%04X ", static_cast<unsigned>(offset));
  std::string line = head.data();
  std::string text;
  for (int i = 0; i < kDumpWidth; ++i) {
    line += ' ';
    if (offset + i < size) {
      const BYTE byte = data[offset + i];
      line += kDigits[byte >> 4];
      line += kDigits[byte & 15];
      text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    } else {
      line += "  ";
    }
  }
  return line + "  " + text;
}

const char* LevelName(int level) {
  static constexpr const char* kNames[] = {"always", "fatal", "grave", "error", "warning",
                                           "notice", "info",  "trace", "dump"};
  return level >= 0 && level <= 8 ? kNames[level] : "?";
}

spdlog::level::level_enum SpdlogLevel(int level) {
  if (level <= 2) return spdlog::level::critical;
  if (level == 3) return spdlog::level::err;
  if (level == 4) return spdlog::level::warn;
  if (level <= 6) return spdlog::level::info;
  return level == 7 ? spdlog::level::debug : spdlog::level::trace;
}

// --- State -------------------------------------------------------------------------------------------
// The only instance is never destroyed, because threads may log while the process ends.

struct DebugModule : tagDBG_MODULE {
  std::string name;
};

using Observer = std::function<void(const HostLogLine&)>;

// Keeps the log file closed in programs that the process starts, also after a rotation.
spdlog::file_event_handlers KeptFromChildren() {
  spdlog::file_event_handlers handlers;
  handlers.after_open = [](const spdlog::filename_t&, std::FILE* file) { fcntl(fileno(file), F_SETFD, FD_CLOEXEC); };
  return handlers;
}

// Writes to the standard error, in colours if that is a terminal, and never waits for its reader.
using ConsoleSink = spdlog::sinks::ansicolor_sink<spdlog::details::console_mutex>;

std::shared_ptr<ConsoleSink> MakeConsoleSink() {
  const bool colours = isatty(STDERR_FILENO) == 1 && spdlog::details::os::is_color_terminal();
  return std::make_shared<ConsoleSink>(ConsoleLogStream(),
                                       colours ? spdlog::color_mode::always : spdlog::color_mode::never);
}

// A logger without sinks drops its lines. Errors of the sinks, such as a full disk, are ignored.
std::shared_ptr<spdlog::logger> MakeLogger(bool console, const std::string& file) {
  auto logger = std::make_shared<spdlog::logger>("host");
  if (console) logger->sinks().push_back(MakeConsoleSink());
  if (!file.empty()) {
    logger->sinks().push_back(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
        file, kLogFileSize, kLogFilesKept - 1, false, KeptFromChildren()));
  }
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%v%$");
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);
  logger->set_error_handler([](const std::string&) {});
  return logger;
}

struct LogState {
  Mutex lock;  // leaf
  // Modules keep their address and live as long as the process, so that a late line of a closed one is harmless.
  std::map<std::string, std::unique_ptr<DebugModule>> modules GUARDED_BY(lock);
  int defaultLevel GUARDED_BY(lock) = HostRuntimeConfig{}.logLevel;
  std::map<std::string, int> levels GUARDED_BY(lock);
  std::string file GUARDED_BY(lock);
  bool console GUARDED_BY(lock) = true;
  std::shared_ptr<spdlog::logger> logger GUARDED_BY(lock) = MakeLogger(true, "");
  std::shared_ptr<const Observer> observer GUARDED_BY(lock);
  LogLimiter limiter GUARDED_BY(lock);

  std::atomic<uint64_t> assertions{0};
  std::atomic<bool> abortOnAssert{false};
};

LogState& State() {
  static auto* const kState = new LogState;
  return *kState;
}

int LevelOf(const LogState& state, const std::string& name) REQUIRES(state.lock) {
  const auto found = state.levels.find(name);
  return found == state.levels.end() ? state.defaultLevel : found->second;
}

void UpdateLevels(LogState& state) REQUIRES(state.lock) {
  for (auto& [name, module] : state.modules) {
    __atomic_store_n(&module->nMaxLevel, LevelOf(state, name), __ATOMIC_RELAXED);
  }
}

DebugModule* OpenModule(const std::string& name) {
  LogState& state = State();
  const Lock guard(state.lock);
  std::unique_ptr<DebugModule>& module = state.modules[name];
  if (module == nullptr) {
    auto fresh = std::make_unique<DebugModule>();
    fresh->name = name;
    fresh->nMaxLevel = LevelOf(state, name);
    module = std::move(fresh);
  }
  return module.get();
}

// --- Writing -----------------------------------------------------------------------------------------
// Any thread. Sinks have their own lock; the observer runs without a lock.

struct Place {
  std::string_view module;
  int level;
  std::string_view function;
  std::string_view file;
  int line;
  bool assertion = false;
};

void Write(const std::shared_ptr<spdlog::logger>& logger, const std::shared_ptr<const Observer>& observer,
           const Place& place, const std::string& text) {
  std::string out;
  out.reserve(text.size() + 96);
  out.append(place.module).append(" ").append(std::to_string(place.level)).append("/").append(LevelName(place.level));
  out.append(" ").append(place.function).append(" (").append(place.file).append(":");
  out.append(std::to_string(place.line)).append("): ").append(text);
  logger->log(SpdlogLevel(place.level), spdlog::string_view_t(out.data(), out.size()));
  if (observer != nullptr && *observer) {
    (*observer)({std::string(place.module), place.level, std::string(place.function), std::string(place.file),
                 place.line, text, place.assertion});
  }
}

std::string LeftOutText(uint64_t count) {
  return std::to_string(count) + " more lines from this place were left out";
}

// Returns the sinks and the observer for a line that may be written, or null ones. Reports how many lines were left
// out.
struct Permit {
  std::shared_ptr<spdlog::logger> logger;
  std::shared_ptr<const Observer> observer;
};
Permit Ask(const Place& place, bool limited) {
  LogState& state = State();
  const int64_t now = MonotonicNs();
  Permit permit;
  bool allowed = true;
  uint64_t left = 0;
  std::vector<LogLimiter::Suppressed> silent;
  {
    const Lock guard(state.lock);
    permit = {state.logger, state.observer};
    if (limited) {
      allowed = state.limiter.Allow(place.module, place.file, place.line, place.function, place.level, now, &left);
    }
    silent = state.limiter.PopSilent(now);
  }
  for (const auto& gone : silent) {
    Write(permit.logger, permit.observer, {gone.site.module, gone.level, gone.function, gone.site.file, gone.site.line},
          LeftOutText(gone.count));
  }
  if (!allowed) return {};
  if (left != 0) Write(permit.logger, permit.observer, place, LeftOutText(left));
  return permit;
}

const char* Text(const char* text) {
  return text == nullptr ? "?" : text;
}

void Assertion(const char* function, const char* file, int line, const std::string& text) {
  LogState& state = State();
  state.assertions.fetch_add(1, std::memory_order_relaxed);
  const Place place = {"ASSERT", 0, Text(function), Text(file), line, true};
  const Permit permit = Ask(place, true);
  if (permit.logger != nullptr) Write(permit.logger, permit.observer, place, "ASSERTION failed: " + OneLine(text));
  if (state.abortOnAssert.load(std::memory_order_relaxed)) abort();
}

}  // namespace

HDBG HostModule() {
  static const HDBG kModule = NoThrow<HDBG>(nullptr, [] { return OpenModule("HOST"); });
  return kModule;
}

HDBG CaptureModule() {
  static const HDBG kModule = NoThrow<HDBG>(nullptr, [] { return OpenModule("KLVCAPTURE"); });
  return kModule;
}

bool ApplyLogConfig(const HostRuntimeConfig& config, std::string* error) {
  LogState& state = State();
  state.abortOnAssert.store(config.abortOnAssert, std::memory_order_relaxed);
  const Lock guard(state.lock);
  state.defaultLevel = config.logLevel;
  state.levels = config.moduleLevels;
  UpdateLevels(state);
  state.limiter.SetLimit(config.logBurst, config.logRate);
  if (config.console == state.console && config.logFile == state.file) return true;
  try {
    state.logger = MakeLogger(config.console, config.logFile);
    state.file = config.logFile;
    state.console = config.console;
    return true;
  } catch (const std::exception& problem) {
    *error = "cannot write the log file \"" + config.logFile + "\": " + problem.what();
    state.logger = MakeLogger(config.console, "");
    state.file.clear();
    state.console = config.console;
    return false;
  }
}

}  // namespace host_runtime

// --- Services ----------------------------------------------------------------------------------------
// Any thread.

using namespace host_runtime;
using common::Lock;

void HostRuntime_SetLevel(const std::string& module, int level) {
  NoThrow([&] {
    LogState& state = State();
    const Lock guard(state.lock);
    if (module.empty()) {
      state.defaultLevel = level;
      state.levels.clear();
    } else {
      state.levels[module] = level;
    }
    UpdateLevels(state);
  });
}

void HostRuntime_OnLog(std::function<void(const HostLogLine&)> callback) {
  NoThrow([&] {
    auto observer = callback ? std::make_shared<const Observer>(std::move(callback)) : nullptr;
    LogState& state = State();
    const Lock guard(state.lock);
    state.observer.swap(observer);
  });
}

uint64_t HostRuntime_AssertionCount() {
  return State().assertions.load(std::memory_order_relaxed);
}

extern "C" {

// Logs which library opens its module, once it is open. The caller's file says so: its name ends with the version, if
// the caller is a shared library of its own.
static void LogLibrary(const char* module, const void* caller) {
  NoThrow([&] {
    Dl_info info{};
    if (dladdr(caller, &info) == 0 || info.dli_fname == nullptr) return;
    const std::unique_ptr<char, decltype(&free)> path(realpath(info.dli_fname, nullptr), free);
    if (path == nullptr) return;
    const std::string_view name(path.get());
    const std::size_t suffix = name.rfind(".so.");
    if (suffix == std::string_view::npos) return;
    HOST_LOG(5, "%s %s is %s; host runtime %s.\n", module, path.get() + suffix + 4, path.get(), METADATALIB_VERSION);
  });
}

BOOL _DoDbgInit(const char* szName, HDBG* phDbg) {
  if (phDbg == nullptr) return FALSE;
  *phDbg = nullptr;
  if (szName == nullptr || *szName == '\0') return FALSE;
  Config();  // loads the configuration that the environment names, which may set this module's level
  *phDbg = NoThrow<HDBG>(nullptr, [&] { return OpenModule(szName); });
  if (*phDbg != nullptr && std::string_view(szName) == "METADATALIB") LogLibrary(szName, __builtin_return_address(0));
  return *phDbg != nullptr ? TRUE : FALSE;
}

void _DoDbgUninitEx(HDBG* phDbg) {
  if (phDbg == nullptr || *phDbg == nullptr) return;
  const auto* module = static_cast<DebugModule*>(*phDbg);
  *phDbg = nullptr;
  NoThrow([&] {
    LogState& state = State();
    std::vector<LogLimiter::Suppressed> left;
    Permit permit;
    {
      const Lock guard(state.lock);
      left = state.limiter.PopModule(module->name);
      permit = {state.logger, state.observer};
    }
    for (const auto& gone : left) {
      Write(permit.logger, permit.observer,
            {gone.site.module, gone.level, gone.function, gone.site.file, gone.site.line}, LeftOutText(gone.count));
    }
  });
}

void _DoDbgPrintEx(HDBG hDbg, int nLevel, const char* szFunction, const char* szFile, int nLine, const char* szFormat,
                   ...) {
  if (hDbg == nullptr || szFormat == nullptr) return;
  const int nError = errno;  // a log line between a failed call and its report must not change errno
  va_list arguments;
  va_start(arguments, szFormat);
  NoThrow([&] {
    const Place place = {static_cast<DebugModule*>(hDbg)->name, nLevel, Text(szFunction), Text(szFile), nLine};
    const Permit permit = Ask(place, nLevel > 0);
    if (permit.logger == nullptr) return;
    Write(permit.logger, permit.observer, place, OneLine(FormatText(szFormat, arguments)));
  });
  va_end(arguments);
  errno = nError;
}

void _DoDbgPrintBuffer(HDBG hDbg, int nLevel, const char* szFunction, const char* szFile, int nLine,
                       const char* szTitle, const void* pvData, int nSize) {
  if (hDbg == nullptr) return;
  const int nError = errno;
  NoThrow([&] {
    const Place place = {static_cast<DebugModule*>(hDbg)->name, nLevel, Text(szFunction), Text(szFile), nLine};
    const Permit permit = Ask(place, nLevel > 0);
    if (permit.logger == nullptr) return;
    const int size = pvData == nullptr || nSize < 0 ? 0 : nSize;
    Write(permit.logger, permit.observer, place, OneLine(Text(szTitle)) + " (" + std::to_string(size) + " bytes)");
    const int shown = std::min(size, kDumpLimit);
    for (int offset = 0; offset < shown; offset += kDumpWidth) {
      Write(permit.logger, permit.observer, place, DumpLine(static_cast<const BYTE*>(pvData), offset, shown));
    }
  });
  errno = nError;
}

void _DoAssert(const char* szExpression, const char* szFunction, const char* szFile, int nLine) {
  const int nError = errno;
  NoThrow([&] { Assertion(szFunction, szFile, nLine, Text(szExpression)); });
  errno = nError;
}

void _DoTextAssert(const char* szFunction, const char* szFile, int nLine, const char* szFormat, ...) {
  const int nError = errno;
  va_list arguments;
  va_start(arguments, szFormat);
  NoThrow([&] { Assertion(szFunction, szFile, nLine, FormatText(Text(szFormat), arguments)); });
  va_end(arguments);
  errno = nError;
}

}  // extern "C"
