// SPDX-License-Identifier: Apache-2.0
// The program as a service: what it tells the service manager over the datagram socket of NOTIFY_SOCKET (the protocol of
// sd_notify(3)), and log lines with the priority that the journal reads (sd-daemon(3)).
#ifndef MDENCODER_SERVICE_H
#define MDENCODER_SERVICE_H

#include <chrono>
#include <optional>
#include <string>

#include "owned_fd.h"

namespace mdencoder {

class ServiceManager {
 public:
  using Clock = std::chrono::steady_clock;

  // Reads the environment. Without NOTIFY_SOCKET nothing is sent.
  ServiceManager();

  void Ready(const std::string& status);  // also after a reload
  void Reloading();
  void Stopping();
  // Sends the status if it is not the one sent last.
  void Status(const std::string& status);

  // Returns how long the manager waits for a sign of life; nothing if it does not ask for any (WATCHDOG_USEC).
  std::optional<std::chrono::microseconds> WatchdogTime() const { return m_watchdog; }
  // Sends a sign of life.
  void Beat();

 private:
  void Send(const std::string& text);

  std::string m_address;  // of the manager's socket, as in NOTIFY_SOCKET
  common::OwnedFD m_socket;
  std::optional<std::chrono::microseconds> m_watchdog;
  std::string m_status;
};

// Tells whether this descriptor is connected to the journal (JOURNAL_STREAM).
bool IsJournal(int fd);

// Priorities of syslog.
enum class Priority { Critical = 2, Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };
// Returns "<4>" for a warning if the standard error is the journal, and "" otherwise.
std::string PriorityPrefix(Priority priority);
// Returns the priority of a line of the host's log.
Priority PriorityOfLevel(int level, bool isAssertion);

}  // namespace mdencoder

#endif  // MDENCODER_SERVICE_H
