/*
 * What goes to the terminal. Lines go to the standard output, complaints to the standard error, and when that is a
 * terminal a block of status lines stands below them and is redrawn around everything else.
 */
#ifndef MDENCODER_CONSOLE_H
#define MDENCODER_CONSOLE_H

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace mdencoder {

class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /* One line each, without its line end. Any thread. */
  void Line(const std::string& line);
  void Lines(const std::vector<std::string>& lines);
  void Complain(const std::string& line);

  /* True when a status block can be shown. */
  bool HasStatus() const { return m_hasStatus; }
  /* Replaces the block; an empty one removes it. Lines are cut at the terminal's width. Any thread. */
  void Status(std::vector<std::string> lines);

  /* True after a write to the standard output failed. */
  bool OutputFailed() const { return m_outputFailed.load(std::memory_order_relaxed); }

 private:
  void Erase();  // with mutex_ held
  void Draw();   // with mutex_ held

  const bool m_hasStatus;
  std::atomic<bool> m_outputFailed{false};
  std::mutex m_mutex;                 // guards both streams and the rest
  std::vector<std::string> m_status;  // the block
  size_t m_drawn = 0;                 // its lines on the screen
};

}  // namespace mdencoder

#endif
