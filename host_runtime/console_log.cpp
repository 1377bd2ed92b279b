// SPDX-License-Identifier: Apache-2.0
#include "console_log.h"

#include <poll.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace host_runtime {

using common::Lock;

void ConsoleLog::Put(std::string_view text) {
  const Lock guard(m_lock);
  for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    m_line.append(text.substr(0, end + 1));
    PutLine(m_line);
    m_line.clear();
    text.remove_prefix(end + 1);
  }
  m_line.append(text);
}

void ConsoleLog::PutLine(std::string_view line) {
  Drain();
  if (m_leftOut != 0 && m_waiting.empty()) {
    m_waiting = std::to_string(m_leftOut) + " lines of the log were left out, because nobody read the standard error\n";
    m_leftOut = 0;
    Drain();
  }
  if (m_waiting.size() + line.size() > kMostWaiting) {
    ++m_leftOut;
    return;
  }
  m_waiting.append(line);
  Drain();
}

// A failure, such as a reader that has gone, loses what waits: there is nobody to tell.
void ConsoleLog::Drain() {
  if (m_waiting.empty()) return;
  const ssize_t written = m_outlet.Write(m_waiting.data(), m_waiting.size());
  m_waiting.erase(0, written < 0 ? m_waiting.size() : static_cast<size_t>(written));
}

void ConsoleLog::Finish(int milliseconds) {
  const Lock guard(m_lock);
  Drain();
  while (!m_waiting.empty()) {
    pollfd ready = {m_outlet.Descriptor(), POLLOUT, 0};
    if (poll(&ready, 1, milliseconds) <= 0) return;
    Drain();
  }
}

namespace {

constexpr int kFarewellMs = 100;

// Never destroyed, because threads may log while the process ends.
ConsoleLog& StandardError() {
  static auto* const kLog = new ConsoleLog(STDERR_FILENO);
  return *kLog;
}

ssize_t WriteToLog(void*, const char* data, size_t size) {
  const int nError = errno;
  try {
    StandardError().Put({data, size});
  } catch (...) {  // out of memory: the line is lost
  }
  errno = nError;
  return static_cast<ssize_t>(size);
}

}  // namespace

std::FILE* ConsoleLogStream() {
  static std::FILE* const kStream = [] {
    std::FILE* stream = fopencookie(nullptr, "w", {nullptr, WriteToLog, nullptr, nullptr});
    if (stream != nullptr) std::atexit([] { StandardError().Finish(kFarewellMs); });
    return stream == nullptr ? stderr : stream;
  }();
  return kStream;
}

}  // namespace host_runtime
