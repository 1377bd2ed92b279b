// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "error.h"
#include "output.h"
#include "owned_fd.h"
#include "stop.h"

namespace mdfeed {
namespace {

using std::chrono::milliseconds;

// A terminal line in raw mode.
class LineOutput : public Output {
 public:
  void Send(std::span<const uint8_t> data) override {
    while (!data.empty() && !StopRequested()) {
      const ssize_t written = write(m_fd.Get(), data.data(), data.size());
      if (written > 0) {
        data = data.subspan(static_cast<size_t>(written));
        continue;
      }
      if (written < 0 && errno != EINTR && errno != EAGAIN) ThrowErrno("cannot write to " + m_name);
      pollfd ready = {m_fd.Get(), POLLOUT, 0};
      poll(&ready, 1, 100);
    }
  }

 protected:
  void MakeRaw(unsigned baudCode) {
    termios settings{};
    if (tcgetattr(m_fd.Get(), &settings) != 0) ThrowErrno(m_name + " is not a serial line");
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL;
    if (baudCode != 0) cfsetspeed(&settings, baudCode);
    if (tcsetattr(m_fd.Get(), TCSANOW, &settings) != 0) ThrowErrno("cannot set up " + m_name);
  }

  std::string m_name;
  common::OwnedFD m_fd;
};

class SerialOutput : public LineOutput {
 public:
  SerialOutput(const std::string& path, int baud) {
    m_name = path;
    m_fd.Reset(open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!m_fd.IsOpen()) ThrowErrno("cannot open " + path);
    MakeRaw(BaudCode(baud));
  }

  void Finish() override { tcdrain(m_fd.Get()); }
};

class PtyOutput : public LineOutput {
 public:
  explicit PtyOutput(const std::string& link) : m_link(link) {
    m_name = "the pseudo-terminal " + link;
    m_fd.Reset(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!m_fd.IsOpen() || grantpt(m_fd.Get()) != 0 || unlockpt(m_fd.Get()) != 0)
      ThrowErrno("cannot make a pseudo-terminal");
    std::array<char, 128> name{};
    if (ptsname_r(m_fd.Get(), name.data(), name.size()) != 0) ThrowErrno("cannot name the pseudo-terminal");
    m_otherEnd = name.data();
    // Once the other end has been opened and closed, poll() reports on the master whether somebody has it open.
    OpenOtherEnd().Reset();
    MakeRaw(0);
    MakeLink();
  }
  PtyOutput(const PtyOutput&) = delete;
  PtyOutput& operator=(const PtyOutput&) = delete;
  ~PtyOutput() override { unlink(m_link.c_str()); }

  bool WaitForReader() override {
    while (!HasReader()) {
      if (StopRequested()) return false;
      SleepUntil(Clock::now() + milliseconds(20));
    }
    // The reader configures the line just after opening it; until then the line may echo.
    SleepUntil(Clock::now() + milliseconds(200));
    MakeRaw(0);
    return !StopRequested();
  }

  void Finish() override {
    const common::OwnedFD other = OpenOtherEnd();
    if (!other.IsOpen()) return;
    const auto limit = Clock::now() + std::chrono::seconds(5);
    int empty = 0;  // consecutive polls without waiting bytes; the last bytes may still be in transit
    while (empty < 3 && Clock::now() < limit && !StopRequested()) {
      int waiting = 0;
      ioctl(other.Get(), FIONREAD, &waiting);
      empty = waiting == 0 ? empty + 1 : 0;
      SleepUntil(Clock::now() + milliseconds(50));
    }
  }

 private:
  common::OwnedFD OpenOtherEnd() const {
    return common::OwnedFD(open(m_otherEnd.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  }

  bool HasReader() const {
    pollfd state = {m_fd.Get(), 0, 0};
    return poll(&state, 1, 0) >= 0 && (state.revents & POLLHUP) == 0;
  }

  // Replaces a link that an earlier run left behind, and no other file.
  void MakeLink() const {
    struct stat info {};
    if (lstat(m_link.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) unlink(m_link.c_str());
    if (symlink(m_otherEnd.c_str(), m_link.c_str()) != 0) ThrowErrno("cannot make the link " + m_link);
  }

  std::string m_link;
  std::string m_otherEnd;
};

constexpr std::array<std::pair<int, unsigned>, 13> kBaudRates = {{{1200, B1200},
                                                                  {2400, B2400},
                                                                  {4800, B4800},
                                                                  {9600, B9600},
                                                                  {19200, B19200},
                                                                  {38400, B38400},
                                                                  {57600, B57600},
                                                                  {115200, B115200},
                                                                  {230400, B230400},
                                                                  {460800, B460800},
                                                                  {921600, B921600},
                                                                  {1000000, B1000000},
                                                                  {2000000, B2000000}}};

}  // namespace

unsigned BaudCode(int baud) {
  const auto* found =
      std::find_if(kBaudRates.begin(), kBaudRates.end(), [&](auto& rate) { return rate.first == baud; });
  if (found != kBaudRates.end()) return found->second;
  std::string allowed;
  for (const auto& rate : kBaudRates) allowed += (allowed.empty() ? "" : ", ") + std::to_string(rate.first);
  throw UsageError("--baud: " + std::to_string(baud) + " is not one of " + allowed);
}

std::unique_ptr<Output> OpenSerial(const std::string& path, int baud) {
  return std::make_unique<SerialOutput>(path, baud);
}

std::unique_ptr<Output> OpenPty(const std::string& link) {
  return std::make_unique<PtyOutput>(link);
}

}  // namespace mdfeed
