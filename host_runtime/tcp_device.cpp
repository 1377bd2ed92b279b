// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Terminal     is the pseudo-terminal that stands for the line
//   Connection   is made to the server
//   Line         carries the bytes, on its thread
//   Lines        are those that are open, by name
#define HOST_MODULE "tcp_device"

#include "tcp_device.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "address_list.h"
#include "annotated_mutex.h"
#include "nanoseconds.h"
#include "runtime_state.h"
#include "stream_url.h"

namespace host_runtime {
namespace {

using common::Lock;
using common::Mutex;
using common::OwnedFD;

constexpr int64_t kConnectRetry = kSecond;
constexpr int kLongestConnect = 5'000;   // ms
constexpr int64_t kLease = 5 * kSecond;  // a lost line that was not asked for in this time is given up
constexpr int64_t kLongestDrain = 5 * kSecond;
constexpr int kEmptyLooks = 5;
constexpr int kLook = 20;  // ms, between looks at what nothing wakes for

// --- Terminal ----------------------------------------------------------------------------------------

struct Terminal {
  OwnedFD master;
  OwnedFD slave;  // until it is handed out
  std::string path;
};

std::optional<Terminal> MakeTerminal() {
  Terminal made;
  made.master.Reset(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  std::array<char, 64> name{};
  if (!made.master.IsOpen() || grantpt(made.master.Get()) != 0 || unlockpt(made.master.Get()) != 0 ||
      ptsname_r(made.master.Get(), name.data(), name.size()) != 0) {
    return std::nullopt;
  }
  made.path = name.data();
  made.slave.Reset(open(name.data(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  termios settings{};
  if (!made.slave.IsOpen() || tcgetattr(made.slave.Get(), &settings) != 0) return std::nullopt;
  cfmakeraw(&settings);  // nothing comes back as an echo before the port is configured
  tcsetattr(made.slave.Get(), TCSANOW, &settings);
  return made;
}

// --- Connection --------------------------------------------------------------------------------------

bool ConnectTo(int fd, const addrinfo& to) {
  if (connect(fd, to.ai_addr, to.ai_addrlen) == 0) return true;
  if (errno != EINPROGRESS) return false;
  pollfd wait = {fd, POLLOUT, 0};
  if (poll(&wait, 1, kLongestConnect) != 1) {
    errno = ETIMEDOUT;
    return false;
  }
  int error = 0;
  socklen_t size = sizeof(error);
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
  errno = error;
  return error == 0;
}

// A server that is switched off does not say so.
void KeepAlive(int fd) {
  const std::array<std::pair<int, int>, 3> times = {{{TCP_KEEPIDLE, 10}, {TCP_KEEPINTVL, 5}, {TCP_KEEPCNT, 3}}};
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  for (const auto& [option, value] : times) setsockopt(fd, IPPROTO_TCP, option, &value, sizeof(value));
}

// Returns none with a fault.
OwnedFD Connect(const stream_url::HostAndPort& place, std::string* fault) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(place.host.c_str(), std::to_string(place.port).c_str(), &hints, &found);
  const common::AddressList list(found);
  *fault = result == 0 ? "there is no address" : gai_strerror(result);
  for (const addrinfo* each = list.get(); each != nullptr; each = each->ai_next) {
    OwnedFD fd(socket(each->ai_family, each->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, each->ai_protocol));
    if (fd.IsOpen() && ConnectTo(fd.Get(), *each)) {
      KeepAlive(fd.Get());
      return fd;
    }
    *fault = strerror(errno);
  }
  return OwnedFD();
}

// --- Line --------------------------------------------------------------------------------------------

class Line {
 public:
  Line(std::string name, stream_url::HostAndPort place, Terminal terminal)
      : m_name(std::move(name)), m_place(std::move(place)), m_terminal(std::move(terminal)) {}

  void Run();

  // For those who open it. A lost line gets another terminal with the next connection.
  bool IsOver() const { return HasEnded() || IsGivenUp(); }
  OwnedFD Take() {
    const Lock guard(m_lock);
    m_asked = MonotonicNs();
    errno = m_isLost ? ENOTCONN : EBUSY;
    return std::exchange(m_terminal.slave, OwnedFD());
  }

 private:
  struct Pipe {
    int from;
    int to;
    std::array<char, 4096> bytes;
    size_t size = 0;
    size_t sent = 0;
  };

  bool HasEnded() const {
    const Lock guard(m_lock);
    return m_isOver;
  }
  bool IsGivenUp() const;
  OwnedFD Reach();
  bool Renew();
  bool Carry(int server);
  static bool Move(Pipe& pipe, short fromEvents, short toEvents, bool* isOver);
  void Drain() const;
  void Lose();

  const std::string m_name;
  const stream_url::HostAndPort m_place;
  bool m_isTold = false;  // that the server cannot be reached
  mutable Mutex m_lock;   // leaf
  Terminal m_terminal GUARDED_BY(m_lock);
  bool m_isLost GUARDED_BY(m_lock) = false;
  bool m_isOver GUARDED_BY(m_lock) = false;
  int64_t m_asked GUARDED_BY(m_lock) = MonotonicNs();
};

// Returns whether nobody has the line open, or wants it again.
bool Line::IsGivenUp() const {
  const Lock guard(m_lock);
  if (m_isLost || m_terminal.slave.IsOpen()) return MonotonicNs() - m_asked > kLease;
  pollfd hangUp = {m_terminal.master.Get(), 0, 0};
  return poll(&hangUp, 1, 0) == 1 && (hangUp.revents & POLLHUP) != 0;
}

// Tries until the server can be reached. Returns none if the line is given up.
OwnedFD Line::Reach() {
  while (!IsGivenUp()) {
    std::string fault;
    OwnedFD server = Connect(m_place, &fault);
    if (server.IsOpen()) {
      HOST_LOG(5, "Serial device \"%s\" is connected.\n", m_name.c_str());
      m_isTold = false;
      return server;
    }
    if (!std::exchange(m_isTold, true)) {
      HOST_LOG(4, "Serial device \"%s\" cannot be reached: %s; trying again every second.\n", m_name.c_str(),
               fault.c_str());
    }
    for (const int64_t end = MonotonicNs() + kConnectRetry; MonotonicNs() < end && !IsGivenUp();)
      poll(nullptr, 0, kLook);
  }
  return OwnedFD();
}

// Makes a terminal for a line that was lost. Returns false if the system has none left.
bool Line::Renew() {
  const Lock guard(m_lock);
  if (!m_isLost) return true;
  auto fresh = MakeTerminal();
  if (!fresh) return false;
  m_terminal = std::move(*fresh);
  m_isLost = false;
  return true;
}

// Reads or writes what one end is ready for. Returns false when an end is closed; *isOver tells that it is the one that
// is read.
bool Line::Move(Pipe& pipe, short fromEvents, short toEvents, bool* isOver) {
  if (pipe.size == 0 && (fromEvents & (POLLIN | POLLHUP | POLLERR)) != 0) {
    const ssize_t got = read(pipe.from, pipe.bytes.data(), pipe.bytes.size());
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
      *isOver = true;
      return false;
    }
    pipe.size = got > 0 ? static_cast<size_t>(got) : 0;
    pipe.sent = 0;
    toEvents = POLLOUT;  // it mostly can, and is asked else
  }
  if (pipe.size == 0 || (toEvents & POLLOUT) == 0) return true;
  const ssize_t put = write(pipe.to, pipe.bytes.data() + pipe.sent, pipe.size - pipe.sent);
  if (put < 0 && errno != EAGAIN && errno != EINTR) return false;
  pipe.sent += put > 0 ? static_cast<size_t>(put) : 0;
  if (pipe.sent == pipe.size) pipe.size = 0;
  return true;
}

// Carries bytes until the connection breaks. Returns false if the line was closed or given up.
bool Line::Carry(int server) {
  int master = -1;
  {
    const Lock guard(m_lock);
    master = m_terminal.master.Get();  // only this thread replaces it
  }
  Pipe in = {server, master, {}};
  Pipe out = {master, server, {}};
  while (!IsGivenUp()) {
    const auto wanted = [](const Pipe& reads, const Pipe& writes) {
      return static_cast<short>((reads.size == 0 ? POLLIN : 0) | (writes.size != 0 ? POLLOUT : 0));
    };
    std::array<pollfd, 2> set = {{{server, wanted(in, out), 0}, {master, wanted(out, in), 0}}};
    // An end of which nothing is wanted would report again and again that it was closed.
    for (pollfd& each : set) each.fd = each.events != 0 ? each.fd : -1;
    if (poll(set.data(), set.size(), 10 * kLook) < 0 && errno != EINTR) return false;
    bool isServerOver = false;
    bool isTerminalOver = false;
    if (!Move(in, set[0].revents, set[1].revents, &isServerOver)) return isServerOver;
    if (!Move(out, set[1].revents, set[0].revents, &isTerminalOver)) return !isTerminalOver;
  }
  return false;
}

// What the terminal holds would be lost when it hangs up. The kernel hands on what was written a little later, so that
// the terminal must be empty for a while.
void Line::Drain() const {
  std::string path;
  {
    const Lock guard(m_lock);
    path = m_terminal.path;
  }
  const int64_t end = MonotonicNs() + kLongestDrain;
  for (int empty = 0; empty < kEmptyLooks && MonotonicNs() < end && !IsGivenUp();) {
    const OwnedFD slave(open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    int held = 0;
    if (!slave.IsOpen() || ioctl(slave.Get(), FIONREAD, &held) != 0) return;
    empty = held == 0 ? empty + 1 : 0;
    poll(nullptr, 0, kLook);
  }
}

void Line::Lose() {
  const Lock guard(m_lock);
  m_isLost = true;
  m_asked = MonotonicNs();
  m_terminal = Terminal();
}

void Line::Run() {
  bool isOpen = true;
  while (isOpen) {
    const OwnedFD server = Reach();
    isOpen = server.IsOpen() && Renew() && Carry(server.Get());
    if (!isOpen) break;
    Drain();
    Lose();
  }
  const Lock guard(m_lock);
  m_isOver = true;
  m_terminal = Terminal();
}

// --- Lines -------------------------------------------------------------------------------------------

struct Lines {
  Mutex lock;  // taken before a line's
  std::map<std::string, std::shared_ptr<Line>> byName GUARDED_BY(lock);
};

// Never destroyed: threads use it while the process ends.
Lines& AllLines() {
  static auto* const kLines = new Lines;
  return *kLines;
}

// Starts a thread without signals, as all of the runtime's.
void Start(const std::shared_ptr<Line>& line) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread([line] {
      pthread_setname_np(pthread_self(), "Serial over TCP");
      NoThrow([&line] { line->Run(); });
    }).detach();
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

bool IsTcpDevice(const std::string& device) {
  return stream_url::Scheme(device) == "tcp";
}

OwnedFD OpenTcpDevice(const std::string& device) {
  const auto place = stream_url::ParseHostAndPort(device.substr(device.find("://") + 3));
  if (!place || place->host.empty()) {
    errno = EINVAL;
    return OwnedFD();
  }
  Lines& lines = AllLines();
  const Lock guard(lines.lock);
  std::shared_ptr<Line>& line = lines.byName[device];
  if (line == nullptr || line->IsOver()) {
    auto terminal = MakeTerminal();
    if (!terminal) return OwnedFD();
    line = std::make_shared<Line>(device, *place, std::move(*terminal));
    Start(line);
  }
  return line->Take();
}

}  // namespace host_runtime
