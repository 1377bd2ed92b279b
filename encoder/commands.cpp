// SPDX-License-Identifier: Apache-2.0
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
  const Command unknown{Command::Kind::Unknown, line};
  if (!rest.empty()) return unknown;
  if (name == "all") name.clear();
  using Kind = Command::Kind;
  struct Verb {
    const char* word;
    Kind kind;
    bool takesName;
  };
  static constexpr Verb kVerbs[] = {{"stats", Kind::Stats, true},     {"reset", Kind::Reset, true},
                                    {"restore", Kind::Restore, true}, {"save", Kind::Save, false},
                                    {"quit", Kind::Quit, false},      {"help", Kind::Help, false}};
  for (const Verb& known : kVerbs) {
    if (verb == known.word) return known.takesName || name.empty() ? Command{known.kind, name} : unknown;
  }
  return unknown;
}

int LineReader::Descriptor() const {
  if (m_ended) return -1;
  // Reading a terminal from the background would stop the process.
  if (isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) != getpgrp()) return -1;
  return STDIN_FILENO;
}

std::vector<std::string> LineReader::Read() {
  char buffer[512];
  const ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return {};
  if (got <= 0) {
    m_ended = true;
    m_pending += '\n';
  } else {
    m_pending.append(buffer, static_cast<size_t>(got));
  }
  std::vector<std::string> lines;
  for (size_t end = m_pending.find('\n'); end != std::string::npos; end = m_pending.find('\n')) {
    lines.push_back(m_pending.substr(0, end));
    m_pending.erase(0, end + 1);
  }
  return lines;
}

}  // namespace mdencoder
