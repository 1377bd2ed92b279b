// The command line of mdfeed.
#ifndef MDFEED_COMMAND_LINE_H
#define MDFEED_COMMAND_LINE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "anc_stream.h"
#include "cot_flight.h"
#include "sender.h"
#include "traffic.h"
#include "ts_file.h"

namespace mdfeed {

enum class Command { Klv, Cot, Anc, Ts };

struct Arguments {
  Command command = Command::Klv;
  // What.
  bool simulate = false;
  std::string file;     // unless simulated
  unsigned repeat = 1;  // rounds of the file; 0: for ever
  size_t chunk = 0;     // bytes; 0: one message at a time
  uint32_t seed = 1;
  std::string start;      // of the flight; empty: now
  std::string geoidGrid;  // GTX file; empty: the usual one if it is there
  CotOptions cot;
  char channel = '1';
  std::vector<FrameDamage> damage;
  // Where to: one of three.
  std::optional<UdpAddress> udp;
  std::string interface;
  std::string serial;
  int baud = 115'200;
  std::string pty;
  AncOptions anc;
  TsOptions ts;
  // How.
  SendOptions send;
};

// What main() does when there is nothing to send: text for standard output or standard error, and the exit code.
struct Answer {
  int exitCode;
  std::string text;
};

// Reads the command line. An answer instead of arguments after --help and --version, and with exit code 2 and one line
// of text after a mistake.
std::optional<Answer> ParseCommandLine(int argc, const char* const* argv, Arguments& arguments);

}  // namespace mdfeed

#endif  // MDFEED_COMMAND_LINE_H
