#include "commands.h"

#include <unistd.h>

#include <cerrno>
#include <sstream>

namespace mdencoder {

const char kCommandHelp[] =
    "commands: stats [NAME], reset [NAME], restore [NAME] (from the statistics file), save, quit, help";

std::optional<Command> ParseCommand(const std::string& line) {
  std::istringstream words(line);
  std::string verb;
  std::string name;
  std::string rest;
  if (!(words >> verb)) return std::nullopt;
  words >> name >> rest;
  const Command unknown{Command::Kind::kUnknown, line};
  if (!rest.empty()) return unknown;
  if (name == "all") name.clear();
  using Kind = Command::Kind;
  struct Verb {
    const char* word;
    Kind kind;
    bool takesName;
  };
  static constexpr Verb kVerbs[] = {{"stats", Kind::kStats, true},     {"reset", Kind::kReset, true},
                                    {"restore", Kind::kRestore, true}, {"save", Kind::kSave, false},
                                    {"quit", Kind::kQuit, false},      {"help", Kind::kHelp, false}};
  for (const Verb& known : kVerbs) {
    if (verb == known.word) return known.takesName || name.empty() ? Command{known.kind, name} : unknown;
  }
  return unknown;
}

int LineReader::Descriptor() const {
  if (ended_) return -1;
  // Reading a terminal from the background would stop the process.
  if (isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) != getpgrp()) return -1;
  return STDIN_FILENO;
}

std::vector<std::string> LineReader::Read() {
  char buffer[512];
  const ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return {};
  if (got <= 0) {
    ended_ = true;
    pending_ += '\n';
  } else {
    pending_.append(buffer, static_cast<size_t>(got));
  }
  std::vector<std::string> lines;
  for (size_t end = pending_.find('\n'); end != std::string::npos; end = pending_.find('\n')) {
    lines.push_back(pending_.substr(0, end));
    pending_.erase(0, end + 1);
  }
  return lines;
}

}  // namespace mdencoder
