// SPDX-License-Identifier: Apache-2.0
// Sends the UDP datagrams of a capture file to a source of this program, as far apart as they were captured. They take
// the way of all others, over the loopback interface and through the library's socket.
//
// A thread of its own reads the file. It waits while the source's socket holds datagrams or the program has no room, so
// that nothing of the file is lost at any speed.
#ifndef MDENCODER_REPLAY_H
#define MDENCODER_REPLAY_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "config.h"
#include "loopback.h"
#include "owned_fd.h"

struct pcap;

namespace mdencoder {

class Replay {
 public:
  struct Surroundings {
    std::function<size_t()> room;  // messages that the program can take now; called on the replay's thread
    // Says a line: a warning or a notice. Called on the replay's thread.
    std::function<void(bool isWarning, const std::string&)> say;
  };
  // `name` is the source's. It begins when it has a port.
  Replay(std::string name, ReplaySettings settings, Surroundings around);
  ~Replay();  // stops
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  // Sets the port of this machine that the datagrams are sent to; 0 makes it wait.
  void SendTo(uint16_t port) { m_port.store(port); }
  // Returns whether every datagram was sent and taken.
  bool HasEnded() const { return m_hasEnded.load(); }

 private:
  struct Counts {
    uint64_t sent = 0;
    uint64_t fragments = 0;
    uint64_t cut = 0;
    uint64_t unsent = 0;  // the kernel refused them
  };

  void Run();
  bool PlayOnce();
  bool PlayFrom(pcap* file);
  bool WaitUntil(std::chrono::steady_clock::time_point due);
  bool WaitForTime(std::chrono::nanoseconds time);
  bool WaitForTurn();
  bool WaitUntilTaken();
  void Send(const void* data, size_t size, uint8_t ttl, uint8_t tos);
  void Report(const std::string& fault) const;

  const std::string m_name;
  const ReplaySettings m_settings;
  const Surroundings m_around;
  std::atomic<uint16_t> m_port{0};
  std::atomic<bool> m_hasEnded{false};
  common::OwnedFD m_socket;
  common::OwnedFD m_stop;  // eventfd, set once
  // State of the thread.
  Counts m_counts;
  Turns m_turns;
  bool m_hasTime = false;
  std::chrono::nanoseconds m_last{};    // time of the last datagram in the file
  std::chrono::nanoseconds m_anchor{};  // the file's clock shows it at m_anchorAt
  std::chrono::steady_clock::time_point m_anchorAt{};
  std::thread m_thread;
};

// Returns "", or why the file cannot be replayed. Reads only its beginning.
std::string ReplayFault(const ReplaySettings& settings);
// Returns "", or why a filter is none.
std::string FilterFault(const std::string& filter);

}  // namespace mdencoder

#endif  // MDENCODER_REPLAY_H
