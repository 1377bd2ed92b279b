// SPDX-License-Identifier: Apache-2.0
#include "loss.h"

#include <charconv>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

namespace mdencoder {
namespace {

namespace fs = std::filesystem;

// Returns the inodes of the sockets that this process has open.
std::set<uint64_t> OwnSockets() {
  std::set<uint64_t> inodes;
  std::error_code error;
  for (fs::directory_iterator it("/proc/self/fd", error), end; !error && it != end; it.increment(error)) {
    std::error_code ignored;  // the descriptor may be closed by now
    const std::string target = fs::read_symlink(it->path(), ignored).string();
    constexpr std::string_view kSocket = "socket:[";
    if (!target.starts_with(kSocket)) continue;
    uint64_t inode = 0;
    std::from_chars(target.data() + kSocket.size(), target.data() + target.size(), inode);
    inodes.insert(inode);
  }
  return inodes;
}

template <typename Number>
bool Parse(std::string_view text, Number& number, int base = 10) {
  return std::from_chars(text.data(), text.data() + text.size(), number, base).ec == std::errc();
}

std::string OneDecimal(double number) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", number);
  return text;
}

}  // namespace

void KernelDrops::Update() {
  const std::set<uint64_t> inodes = OwnSockets();
  for (const char* name : {"/proc/net/udp", "/proc/net/udp6"}) {
    std::ifstream file(name);
    Update(std::string{std::istreambuf_iterator<char>(file), {}}, inodes);
  }
}

// sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout inode ref pointer drops
void KernelDrops::Update(std::string_view table, const std::set<uint64_t>& inodes) {
  constexpr size_t kLocal = 1;
  constexpr size_t kInode = 9;
  constexpr size_t kDrops = 12;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
    if (fields.size() <= kDrops) continue;
    const size_t colon = fields[kLocal].rfind(':');
    uint16_t port = 0;
    uint64_t inode = 0;
    uint64_t drops = 0;
    if (colon == std::string::npos || !Parse(std::string_view(fields[kLocal]).substr(colon + 1), port, 16)) continue;
    if (!Parse(fields[kInode], inode) || !Parse(fields[kDrops], drops) || !inodes.contains(inode)) continue;
    m_drops[port][inode] = drops;
  }
}

uint64_t KernelDrops::Of(uint16_t port) const {
  uint64_t sum = 0;
  const auto found = m_drops.find(port);
  if (found == m_drops.end()) return sum;
  for (const auto& [inode, drops] : found->second) sum += drops;
  return sum;
}

void SilenceWatch::Look(const std::string& name, double seconds, bool isOpen, uint64_t count, Clock::time_point now) {
  const auto [it, isNew] = m_seen.try_emplace(name, Seen{count, now, false});
  Seen& seen = it->second;
  const double silent = std::chrono::duration<double>(now - seen.since).count();
  if (seen.count != count) {
    if (seen.isSilent) m_say(false, "source " + name + " delivers again, after " + OneDecimal(silent) + " s");
    seen = {count, now, false};
  } else if (!isOpen && !seen.isSilent) {
    seen.since = now;
  } else if (seconds > 0 && silent > seconds && !seen.isSilent) {
    seen.isSilent = true;
    m_say(true, "source " + name + " has been silent for " + OneDecimal(silent) + " s");
  }
}

}  // namespace mdencoder
