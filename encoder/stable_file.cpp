// SPDX-License-Identifier: Apache-2.0
#include "stable_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "owned_fd.h"

namespace mdencoder {
namespace {

using namespace std::chrono_literals;
constexpr auto kLongestUnrest = 2s;
constexpr auto kPause = 10ms;

[[noreturn]] void Fail() {
  throw std::runtime_error("cannot be read");
}

struct stat StateOf(int fd) {
  struct stat state;
  if (fstat(fd, &state) != 0) Fail();
  return state;
}

std::string ReadToEnd(int fd) {
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) Fail();
    if (got == 0) return text;
    text.append(buffer, static_cast<size_t>(got));
  }
}

bool IsSame(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Returns how long ago the file was written, on the coarse clock that stamps files.
std::chrono::nanoseconds Age(const struct stat& state) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return std::chrono::seconds(now.tv_sec - state.st_mtim.tv_sec) +
         std::chrono::nanoseconds(now.tv_nsec - state.st_mtim.tv_nsec);
}

// Returns nothing if the file was changing.
std::optional<std::string> TryRead(const std::string& path, std::chrono::milliseconds quiet) {
  const common::OwnedFD fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.IsOpen()) Fail();
  const struct stat before = StateOf(fd.Get());
  std::string text = ReadToEnd(fd.Get());
  if (!S_ISREG(before.st_mode)) return text;
  const struct stat after = StateOf(fd.Get());
  const bool isWhole = before.st_size == after.st_size && IsSame(before.st_mtim, after.st_mtim) &&
                       static_cast<uint64_t>(after.st_size) == text.size();
  // A time in the future, after the clock was set back, says nothing.
  const auto age = Age(after);
  const bool isQuiet = quiet == 0ms || age >= quiet || age < -1s;
  return isWhole && isQuiet ? std::optional(std::move(text)) : std::nullopt;
}

}  // namespace

std::string ReadStable(const std::string& path, std::chrono::milliseconds quiet) {
  const auto end = std::chrono::steady_clock::now() + kLongestUnrest;
  for (;;) {
    if (auto text = TryRead(path, quiet)) return *std::move(text);
    if (std::chrono::steady_clock::now() >= end) throw std::runtime_error("is being written all the time");
    std::this_thread::sleep_for(kPause);
  }
}

bool IsRegularFile(const std::string& path) {
  struct stat state;
  return stat(path.c_str(), &state) == 0 && S_ISREG(state.st_mode);
}

}  // namespace mdencoder
