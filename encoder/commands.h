// Commands typed or piped into the standard input.
#ifndef MDENCODER_COMMANDS_H
#define MDENCODER_COMMANDS_H

#include <optional>
#include <string>
#include <vector>

namespace mdencoder {

struct Command {
  enum class Kind { Stats, Reset, Restore, Save, Quit, Help, Unknown } kind = Kind::Unknown;
  std::string name;  // a source, or empty for all; of kUnknown the line itself
};

// Nothing for an empty line. "all" as a name means the same as none.
std::optional<Command> ParseCommand(const std::string& line);
extern const char kCommandHelp[];

// Cuts the standard input into lines without ever waiting for one.
class LineReader {
 public:
  // The descriptor to poll, or -1: closed, at its end, or a terminal that belongs to another process group.
  int Descriptor() const;
  // After poll said that it is readable: the complete lines that have come.
  std::vector<std::string> Read();

 private:
  bool m_ended = false;
  std::string m_pending;
};

}  // namespace mdencoder

#endif
