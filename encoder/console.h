// SPDX-License-Identifier: Apache-2.0
// Output to the terminal. Lines and rows go to the standard output and complaints to the standard error. If that is a
// terminal, a block of status lines stays below them and is redrawn after each of them.
//
// Nobody waits for a reader: the text is written by threads of its own (Printer), one for each of the two, or one for
// both if they are the same file, so that their lines stay whole.
#ifndef MDENCODER_CONSOLE_H
#define MDENCODER_CONSOLE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "printer.h"
#include "receiver.h"

namespace mdencoder {

class Console {
 public:
  Console();
  // Gives the readers a moment for what is left.
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Write lines, which have no line ends. Any thread may call them.
  void Line(const std::string& line);
  void Lines(const std::vector<std::string>& lines);
  void Complain(const std::string& line);
  // Writes a row, or drops and counts it. Any thread may call it.
  void Row(const Received& received, const Printer::Render& render);

  // Returns whether many rows can be taken without dropping any. Any thread may call it.
  bool HasRowRoom() const { return m_output->HasRowRoom(); }

  // Returns true if a status block can be shown.
  bool HasStatus() const { return m_hasStatus; }
  // Replaces the block, or removes it if there are no lines. Lines are cut at the terminal's width. Any thread may call
  // it.
  void Status(std::vector<std::string> lines);

  // Waits for the reader of the rows, drops those that are left, and returns how many rows of the run were dropped. Call
  // it once, after the last row.
  uint64_t FinishRows(const Printer::Limit& limit);

  // Returns true after a write to the standard output has failed. The descriptor becomes readable then.
  bool OutputFailed() const { return m_output->HasFailed(); }
  int FailureDescriptor() const { return m_output->FailureDescriptor(); }

 private:
  Printer& Errors() { return m_errors ? *m_errors : *m_output; }

  const bool m_hasStatus;
  std::unique_ptr<Printer> m_output;
  std::unique_ptr<Printer> m_errors;  // none if both are the same file
};

}  // namespace mdencoder

#endif
