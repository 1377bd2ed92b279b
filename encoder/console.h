// Output to the terminal. Lines go to the standard output and complaints to the standard error. If that is a terminal,
// a block of status lines stays below them and is redrawn after each of them.
#ifndef MDENCODER_CONSOLE_H
#define MDENCODER_CONSOLE_H

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "annotated_mutex.h"

namespace mdencoder {

class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Write lines, which have no line ends. Any thread may call them.
  void Line(const std::string& line);
  void Lines(const std::vector<std::string>& lines);
  void Complain(const std::string& line);

  // Returns true if a status block can be shown.
  bool HasStatus() const { return m_hasStatus; }
  // Replaces the block, or removes it if there are no lines. Lines are cut at the terminal's width. Any thread may call
  // it.
  void Status(std::vector<std::string> lines);

  // Returns true after a write to the standard output has failed.
  bool OutputFailed() const { return m_outputFailed.load(std::memory_order_relaxed); }

 private:
  void Erase() REQUIRES(m_mutex);
  void Draw() REQUIRES(m_mutex);

  const bool m_hasStatus;
  std::atomic<bool> m_outputFailed{false};
  common::Mutex m_mutex;                                  // leaf; also keeps the lines of both streams whole
  std::vector<std::string> m_status GUARDED_BY(m_mutex);  // the block
  size_t m_drawn GUARDED_BY(m_mutex) = 0;                 // its lines on the screen
};

}  // namespace mdencoder

#endif
