// Debug log and assertions, written with spdlog. Lines of one call site are limited, so that a hostile sender cannot
// flood the log: a burst, then a steady trickle, with the number of lines left out.
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <stdarg.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "runtime.h"

namespace {

constexpr double kBurst = 200;      // lines of one call site at once
constexpr double kPerSecond = 100;  // and from then on

struct Module : tagDBG_MODULE {
  std::string name;
};

struct CallSite {
  double tokens = kBurst;
  std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
  unsigned long suppressed = 0;
};

// Everything behind one lock; modules stay for the life of the process, since handles may be read late.
struct LogState {
  std::mutex lock;
  HostRuntimeConfig config;
  std::map<std::string, std::unique_ptr<Module>> modules;
  std::map<std::pair<std::string, int>, CallSite> sites;
  std::shared_ptr<spdlog::logger> logger;
  std::function<void(const HostLogLine&)> callback;
  std::atomic<unsigned long> assertions{0};

  LogState() { Open(config); }

  void Open(const HostRuntimeConfig& wanted) {
    std::vector<spdlog::sink_ptr> sinks;
    if (wanted.console) sinks.push_back(std::make_shared<spdlog::sinks::stderr_sink_mt>());
    if (!wanted.logFile.empty()) sinks.push_back(std::make_shared<spdlog::sinks::basic_file_sink_mt>(wanted.logFile));
    auto fresh = std::make_shared<spdlog::logger>("host", sinks.begin(), sinks.end());
    fresh->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
    fresh->set_level(spdlog::level::trace);
    fresh->flush_on(spdlog::level::trace);
    logger = fresh;
  }
};

LogState& TheLog() {
  static LogState* log = new LogState;  // outlives every thread that may still write
  return *log;
}

int LevelOf(const HostRuntimeConfig& config, const std::string& module) {
  const auto found = config.moduleLevels.find(module);
  return found == config.moduleLevels.end() ? config.logLevel : found->second;
}

const char* LevelName(int level) {
  static const char* const kNames[] = {"ALWAYS", "?", "GRAVE", "ERROR", "WARNING", "NOTICE", "INFO", "TRACE", "DETAIL"};
  return level >= 0 && level <= 8 ? kNames[level] : "?";
}

std::string Format(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int size = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(size < 0 ? 0 : static_cast<size_t>(size) + 1, '\0');
  if (size >= 0) vsnprintf(text.data(), text.size(), format, arguments);
  while (!text.empty() && (text.back() == '\0' || text.back() == '\n')) text.pop_back();
  return text;
}

// Control characters of received text must not reach a terminal.
std::string Printable(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') c = '?';
  return text;
}

// FALSE leaves the line out. Under the lock.
bool MayWrite(LogState& log, const char* file, int line, std::string& note) {
  CallSite& site = log.sites[{file, line}];
  const auto now = std::chrono::steady_clock::now();
  site.tokens = std::min(kBurst, site.tokens + std::chrono::duration<double>(now - site.last).count() * kPerSecond);
  site.last = now;
  if (site.tokens < 1) {
    ++site.suppressed;
    return false;
  }
  site.tokens -= 1;
  if (site.suppressed != 0) note = " [" + std::to_string(site.suppressed) + " lines of this kind left out]";
  site.suppressed = 0;
  return true;
}

struct Origin {
  std::string module;
  int level;
  const char* function;
  const char* file;
  int line;
  bool assertion = false;
};

void Write(const Origin& origin, const std::string& raw) {
  LogState& log = TheLog();
  std::function<void(const HostLogLine&)> callback;
  const std::string text = Printable(raw);
  {
    std::lock_guard guard(log.lock);
    callback = log.callback;
    std::string note;
    if (MayWrite(log, origin.file, origin.line, note))
      log.logger->info("{} {} {}({}:{}): {}{}", origin.module, origin.assertion ? "ASSERTION" : LevelName(origin.level),
                       origin.function, origin.file, origin.line, text, note);
  }
  if (callback) callback({origin.module, origin.level, origin.function, text, origin.assertion});
}

}  // namespace

namespace runtime {

HostRuntimeConfig Config() {
  LogState& log = TheLog();
  std::lock_guard guard(log.lock);
  return log.config;
}

void Log(int level, const char* function, const char* format, ...) {
  {
    LogState& log = TheLog();
    std::lock_guard guard(log.lock);
    if (LevelOf(log.config, "HOST") < level) return;
  }
  va_list arguments;
  va_start(arguments, format);
  const std::string text = Format(format, arguments);
  va_end(arguments);
  Write({"HOST", level, function, function, level}, text);
}

std::string ErrorText(int error) {
  char buffer[128];
  return std::string(strerror_r(error, buffer, sizeof buffer)) + " (" + std::to_string(error) + ")";
}

}  // namespace runtime

bool HostRuntime_Apply(const HostRuntimeConfig& config, std::string* error) {
  LogState& log = TheLog();
  std::lock_guard guard(log.lock);
  try {
    log.Open(config);
  } catch (const spdlog::spdlog_ex& failure) {
    if (error != nullptr) *error = failure.what();
    return false;
  }
  log.config = config;
  for (auto& [name, module] : log.modules)
    __atomic_store_n(&module->nMaxLevel, LevelOf(config, name), __ATOMIC_RELAXED);
  return true;
}

void HostRuntime_SetLevel(const std::string& module, int level) {
  LogState& log = TheLog();
  std::lock_guard guard(log.lock);
  if (module.empty()) {
    log.config.logLevel = level;
    log.config.moduleLevels.clear();
  } else {
    log.config.moduleLevels[module] = level;
  }
  for (auto& [name, known] : log.modules)
    if (module.empty() || name == module) __atomic_store_n(&known->nMaxLevel, level, __ATOMIC_RELAXED);
}

unsigned long HostRuntime_AssertionCount() {
  return TheLog().assertions;
}

void HostRuntime_OnLog(std::function<void(const HostLogLine&)> callback) {
  LogState& log = TheLog();
  std::lock_guard guard(log.lock);
  log.callback = std::move(callback);
}

extern "C" {

BOOL _DoDbgInit(const char* szName, HDBG* phDbg) {
  LogState& log = TheLog();
  std::lock_guard guard(log.lock);
  std::unique_ptr<Module>& module = log.modules[szName];
  if (!module) {
    module = std::make_unique<Module>();
    module->name = szName;
  }
  __atomic_store_n(&module->nMaxLevel, LevelOf(log.config, szName), __ATOMIC_RELAXED);
  *phDbg = module.get();
  return TRUE;
}

void _DoDbgUninitEx(HDBG* phDbg) {
  *phDbg = nullptr;
}

void _DoDbgPrintEx(HDBG hDbg, int nLevel, const char* szFunction, const char* szFile, int nLine, const char* szFormat,
                   ...) {
  if (hDbg == nullptr) return;
  va_list arguments;
  va_start(arguments, szFormat);
  const std::string text = Format(szFormat, arguments);
  va_end(arguments);
  Write({static_cast<Module*>(hDbg)->name, nLevel, szFunction, szFile, nLine}, text);
}

void _DoDbgPrintBuffer(HDBG hDbg, int nLevel, const char* szFunction, const char* szFile, int nLine,
                       const char* szTitle, const void* pvData, int nSize) {
  if (hDbg == nullptr) return;
  const BYTE* data = static_cast<const BYTE*>(pvData);
  std::string text = std::string(szTitle) + ", " + std::to_string(nSize) + " bytes:";
  for (int i = 0; i < nSize; ++i) {
    char piece[16];
    if (i % 16 == 0)
      snprintf(piece, sizeof piece, "\n  %04x %02x", static_cast<unsigned>(i), data[i]);
    else
      snprintf(piece, sizeof piece, " %02x", data[i]);
    text += piece;
  }
  Write({static_cast<Module*>(hDbg)->name, nLevel, szFunction, szFile, nLine}, text);
}

void _DoAssert(const char* szExpression, const char* szFunction, const char* szFile, int nLine) {
  ++TheLog().assertions;
  Write({"ASSERT", 0, szFunction, szFile, nLine, true}, szExpression);
}

void _DoTextAssert(const char* szFunction, const char* szFile, int nLine, const char* szFormat, ...) {
  va_list arguments;
  va_start(arguments, szFormat);
  const std::string text = Format(szFormat, arguments);
  va_end(arguments);
  ++TheLog().assertions;
  Write({"ASSERT", 0, szFunction, szFile, nLine, true}, text);
}

}  // extern "C"
