// What goes to the terminal. Lines go to the standard output, complaints to the standard error, and when that is a
// terminal a block of status lines stands below them and is redrawn around everything else.
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

  // One line each, without its line end. Any thread.
  void Line(const std::string& line);
  void Lines(const std::vector<std::string>& lines);
  void Complain(const std::string& line);

  // True when a status block can be shown.
  bool HasStatus() const { return m_hasStatus; }
  // Replaces the block; an empty one removes it. Lines are cut at the terminal's width. Any thread.
  void Status(std::vector<std::string> lines);

  // True after a write to the standard output failed.
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
