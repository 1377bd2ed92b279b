// SPDX-License-Identifier: Apache-2.0
#include "service.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include "value_text.h"

namespace mdencoder {
namespace {

std::string Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::optional<int64_t> Number(const char* name) {
  return value_text::ParseWholeNumber(Environment(name), 1, std::numeric_limits<int64_t>::max());
}

}  // namespace

ServiceManager::ServiceManager() : m_address(Environment("NOTIFY_SOCKET")) {
  if (m_address.size() < 2 || m_address.size() >= sizeof(sockaddr_un::sun_path) ||
      (m_address[0] != '/' && m_address[0] != '@')) {
    return;
  }
  m_socket.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto process = Number("WATCHDOG_PID");
  const auto time = Number("WATCHDOG_USEC");
  if (time && (!process || *process == getpid())) m_watchdog = std::chrono::microseconds(*time);
}

void ServiceManager::Send(const std::string& text) {
  if (!m_socket.IsOpen()) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  m_address.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (m_address[0] == '@') address.sun_path[0] = '\0';  // of the abstract name space
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_address.size());
  // A manager that does not read must not hold up the program.
  sendto(m_socket.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
         reinterpret_cast<const sockaddr*>(&address), size);
}

void ServiceManager::Ready(const std::string& status) {
  m_status = status;
  Send("READY=1\nSTATUS=" + status);
}

void ServiceManager::Reloading() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto us = static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
  Send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(us));
}

void ServiceManager::Stopping() {
  Send("STOPPING=1");
}

void ServiceManager::Status(const std::string& status) {
  if (status == m_status) return;
  m_status = status;
  Send("STATUS=" + status);
}

void ServiceManager::Beat() {
  Send("WATCHDOG=1");
}

bool IsJournal(int fd) {
  const std::string stream = Environment("JOURNAL_STREAM");
  unsigned long device = 0;
  unsigned long node = 0;
  struct stat state;
  return std::sscanf(stream.c_str(), "%lu:%lu", &device, &node) == 2 && fstat(fd, &state) == 0 &&
         state.st_dev == device && state.st_ino == node;
}

std::string PriorityPrefix(Priority priority) {
  static const bool kIsJournal = IsJournal(STDERR_FILENO);
  return kIsJournal ? "<" + std::to_string(static_cast<int>(priority)) + ">" : "";
}

Priority PriorityOfLevel(int level, bool isAssertion) {
  if (isAssertion) return Priority::Critical;
  if (level <= 0) return Priority::Info;  // always written, whatever it says
  return static_cast<Priority>(
      std::clamp(level, static_cast<int>(Priority::Critical), static_cast<int>(Priority::Debug)));
}

}  // namespace mdencoder
