// SPDX-License-Identifier: Apache-2.0
#include "console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace mdencoder {
namespace {

size_t TerminalWidth() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

Console::Console() : m_hasStatus(isatty(STDERR_FILENO) == 1) {}

Console::~Console() {
  Status({});
}

void Console::Line(const std::string& line) {
  Lines({line});
}

void Console::Lines(const std::vector<std::string>& lines) {
  const common::Lock lock(m_mutex);
  Erase();
  for (const std::string& line : lines) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) m_outputFailed.store(true, std::memory_order_relaxed);
  Draw();
}

void Console::Complain(const std::string& line) {
  const common::Lock lock(m_mutex);
  Erase();
  std::fprintf(stderr, "%s\n", line.c_str());
  Draw();
}

void Console::Status(std::vector<std::string> lines) {
  if (!m_hasStatus) return;
  const common::Lock lock(m_mutex);
  Erase();
  m_status = std::move(lines);
  Draw();
}

// The cursor is at the end of the block: moves it up to the first line and clears to the end of the screen.
void Console::Erase() {
  if (m_drawn == 0) return;
  if (m_drawn > 1) std::fprintf(stderr, "\033[%zuA", m_drawn - 1);
  std::fputs("\r\033[J", stderr);
  std::fflush(stderr);
  m_drawn = 0;
}

void Console::Draw() {
  if (!m_hasStatus || m_status.empty()) return;
  const size_t width = TerminalWidth();
  for (size_t i = 0; i < m_status.size(); ++i) {
    std::fprintf(stderr, "%s%.*s", i == 0 ? "" : "\n", static_cast<int>(width - 1), m_status[i].c_str());
  }
  std::fflush(stderr);
  m_drawn = m_status.size();
}

}  // namespace mdencoder
