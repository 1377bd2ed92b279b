// SPDX-License-Identifier: Apache-2.0
// Commands typed or piped into the standard input.
#ifndef MDENCODER_COMMANDS_H
#define MDENCODER_COMMANDS_H

#include <optional>
#include <string>
#include <vector>

namespace mdencoder {

struct Command {
  enum class Kind { Stats, Reset, Restore, Save, Quit, Help, Unknown } kind = Kind::Unknown;
  std::string name;  // name of a source, or empty for all; the whole line if Unknown
};

// Returns nothing for an empty line. The name "all" means the same as no name.
std::optional<Command> ParseCommand(const std::string& line);
extern const char kCommandHelp[];

// Cuts the standard input into lines and never waits for one.
class LineReader {
 public:
  // Returns the descriptor to poll, or -1 if the input has ended or is a terminal of another process group.
  int Descriptor() const;
  // Reads once and returns the lines that are complete. Call it when the descriptor is readable.
  std::vector<std::string> Read();

 private:
  bool m_ended = false;
  std::string m_pending;
};

}  // namespace mdencoder

#endif
