// SPDX-License-Identifier: Apache-2.0
// Writes lines and rows to one stream, on a thread of its own, so that nobody else ever waits for the stream's reader.
//
// Both wait in a queue with a limit in bytes. Rows that do not fit are dropped and counted, and so are lines, whose
// limit is another one: a reader that misses rows still gets the statistics. On a terminal a block of status lines stays
// below the text and is drawn again after it.
#ifndef MDENCODER_PRINTER_H
#define MDENCODER_PRINTER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "receiver.h"

namespace mdencoder {

class Printer {
 public:
  static constexpr size_t kMostRowBytes = size_t{8} << 20;   // of the messages, which become text later
  static constexpr size_t kMostLineBytes = size_t{1} << 20;  // of the text

  // Makes a row of a message, without a line end. Runs on the printer's thread, which may keep it for a moment longer
  // than this object lives.
  using Render = std::function<std::string(const Received& received)>;

  // With `announces`, one line among the others says how many lines had to be left out before it.
  Printer(int fd, bool announces);
  // Gives up what is not written.
  ~Printer();
  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;

  // Any thread may call these; none of them waits for the reader.
  void PutLines(const std::vector<std::string>& lines);         // without line ends
  void PutRow(const Received& received, const Render& render);  // copies the message
  void Status(std::vector<std::string> lines);  // replaces the block; lines are cut at the terminal's width

  // How long to wait for the reader.
  struct Limit {
    std::chrono::milliseconds most{1000};
    bool asLongAsItMoves = false;  // `most` is the longest time without a write
    std::function<bool()> hurry;   // asked now and then if it moves; after true there is a second left
  };
  // Waits until everything is written, or to the limit.
  void Drain(const Limit& limit);
  // Drops the rows that are not written and all later ones.
  void DropRows();
  // Ends the thread; what is not written is given up.
  void Finish();

  // Returns whether more rows fit than half of the memory for them, or none is kept any more. Any thread may call it.
  bool HasRowRoom() const;
  uint64_t RowsDropped() const;
  uint64_t LinesDropped() const;
  // A write failed; nothing is written any more. The descriptor becomes readable then, and stays so.
  bool HasFailed() const;
  int FailureDescriptor() const;

 private:
  class Core;
  const std::shared_ptr<Core> m_core;  // shared with the thread, which may outlive this object inside a write
  std::thread m_thread;
};

}  // namespace mdencoder

#endif
