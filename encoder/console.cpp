#include "console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

namespace mdencoder {
namespace {

size_t TerminalWidth() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

Console::Console() : hasStatus_(isatty(STDERR_FILENO) == 1) {}

Console::~Console() {
  Status({});
}

void Console::Line(const std::string& line) {
  Lines({line});
}

void Console::Lines(const std::vector<std::string>& lines) {
  const std::lock_guard lock(mutex_);
  Erase();
  for (const std::string& line : lines) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) outputFailed_.store(true, std::memory_order_relaxed);
  Draw();
}

void Console::Complain(const std::string& line) {
  const std::lock_guard lock(mutex_);
  Erase();
  std::fprintf(stderr, "%s\n", line.c_str());
  Draw();
}

void Console::Status(std::vector<std::string> lines) {
  if (!hasStatus_) return;
  const std::lock_guard lock(mutex_);
  Erase();
  status_ = std::move(lines);
  Draw();
}

/* The cursor stands behind the last line of the block: go up to the first one and clear to the end of the screen. */
void Console::Erase() {
  if (drawn_ == 0) return;
  if (drawn_ > 1) std::fprintf(stderr, "\033[%zuA", drawn_ - 1);
  std::fputs("\r\033[J", stderr);
  std::fflush(stderr);
  drawn_ = 0;
}

void Console::Draw() {
  if (!hasStatus_ || status_.empty()) return;
  const size_t width = TerminalWidth();
  for (size_t i = 0; i < status_.size(); ++i) {
    std::fprintf(stderr, "%s%.*s", i == 0 ? "" : "\n", static_cast<int>(width - 1), status_[i].c_str());
  }
  std::fflush(stderr);
  drawn_ = status_.size();
}

}  // namespace mdencoder
