// SPDX-License-Identifier: Apache-2.0
// The standard error as the log's console, without waiting for its reader: the lines come from the metadata thread.
//
// Lines that do not fit into the terminal or the pipe wait in a small buffer until the next line or the end of the
// process. Those that do not fit there are left out, and one line says how many when there is room again.
#ifndef HOST_CONSOLE_LOG_H
#define HOST_CONSOLE_LOG_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "annotated_mutex.h"
#include "outlet.h"

namespace host_runtime {

class ConsoleLog {
 public:
  static constexpr size_t kMostWaiting = size_t{64} << 10;

  explicit ConsoleLog(int fd) : m_outlet(fd) {}

  // Takes text, whose lines may come in pieces. Any thread may call it.
  void Put(std::string_view text);
  // Gives the reader a moment for what waits.
  void Finish(int milliseconds);

 private:
  void PutLine(std::string_view line) REQUIRES(m_lock);
  void Drain() REQUIRES(m_lock);

  common::Mutex m_lock;  // leaf
  common::Outlet m_outlet GUARDED_BY(m_lock);
  std::string m_line GUARDED_BY(m_lock);     // the beginning of a line
  std::string m_waiting GUARDED_BY(m_lock);  // whole lines, the first of which may be partly written
  uint64_t m_leftOut GUARDED_BY(m_lock) = 0;
};

// Returns the standard error of the process as a stream, which lives as long as the process.
std::FILE* ConsoleLogStream();

}  // namespace host_runtime

#endif  // HOST_CONSOLE_LOG_H
