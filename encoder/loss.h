// SPDX-License-Identifier: Apache-2.0
// What is lost before the library, or stays away: datagrams that the kernel dropped, and sources that fell silent.
#ifndef MDENCODER_LOSS_H
#define MDENCODER_LOSS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace mdencoder {

// Adds up what the kernel dropped at the UDP sockets of this process, by local port. A socket that was closed keeps its
// share. One thread.
class KernelDrops {
 public:
  // Reads the tables in /proc.
  void Update();
  // Takes one table, of which only sockets with these inodes count.
  void Update(std::string_view table, const std::set<uint64_t>& inodes);
  uint64_t Of(uint16_t port) const;

 private:
  std::map<uint16_t, std::map<uint64_t, uint64_t>> m_drops;  // by port and inode
};

// Tells that a source has been silent for longer than it may, and that it delivers again; each once. One thread.
class SilenceWatch {
 public:
  using Clock = std::chrono::steady_clock;
  // Says a line: a warning, or a notice that all is well again.
  using Say = std::function<void(bool isWarning, const std::string& line)>;

  explicit SilenceWatch(Say say) : m_say(std::move(say)) {}
  // Looks at one source. `count` changes with every message. The time counts while the source is open, and with
  // seconds = 0 not at all.
  void Look(const std::string& name, double seconds, bool isOpen, uint64_t count, Clock::time_point now);

 private:
  struct Seen {
    uint64_t count;
    Clock::time_point since;
    bool isSilent = false;
  };

  const Say m_say;
  std::map<std::string, Seen> m_seen;
};

}  // namespace mdencoder

#endif  // MDENCODER_LOSS_H
