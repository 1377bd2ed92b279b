// SPDX-License-Identifier: Apache-2.0
// A value that changes while the program runs: "32,64@2,10@5.5" is 32 at first, 64 after 2 s and 10 after 5.5 s.
#ifndef MDFEED_SCHEDULE_H
#define MDFEED_SCHEDULE_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace mdfeed {

class Schedule {
 public:
  struct Entry {
    std::chrono::milliseconds after;
    int value;
  };

  Schedule() = default;
  // Numbers are decimal, or hexadecimal behind 0x. A time may end in "s", only the first entry may have none, and times
  // must increase. Throws std::invalid_argument, which says what is wrong and what is allowed.
  static Schedule Parse(const std::string& text, int lowest, int highest);
  // Returns the value that has become due since the last call, or nothing.
  std::optional<int> PopDue(std::chrono::milliseconds elapsed);
  const std::vector<Entry>& Entries() const { return m_entries; }

 private:
  std::vector<Entry> m_entries;
  size_t m_taken = 0;
};

}  // namespace mdfeed

#endif  // MDFEED_SCHEDULE_H
