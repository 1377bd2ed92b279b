// SPDX-License-Identifier: Apache-2.0
// The command line of mdfeed.
#ifndef MDFEED_COMMAND_LINE_H
#define MDFEED_COMMAND_LINE_H

#include <cstddef>
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
  // Input.
  bool simulate = false;
  std::string file;     // empty if simulated
  std::string index;    // of the file: its times; empty: the rate
  unsigned repeat = 1;  // number of rounds of the file; 0: without end
  size_t chunk = 0;     // bytes per piece; 0: whole messages
  uint32_t seed = 1;
  std::string start;      // time at the start of the flight; empty: now
  std::string geoidGrid;  // GTX file; empty: the usual one if it exists
  CotOptions cot;
  char channel = '1';
  std::vector<FrameDamage> damage;
  // Destination: one of these three.
  std::optional<UdpAddress> udp;
  std::string interface;
  std::string serial;
  int baud = 115'200;
  std::string pty;
  AncOptions anc;
  TsOptions ts;
  // Pace.
  SendOptions send;
};

// The result if there is nothing to send: text for standard output or standard error, and the exit code.
struct Answer {
  int exitCode;
  std::string text;
};

// Parses the command line. Returns an answer instead of arguments after --help and --version, and after a mistake, with
// exit code 2 and one line of text.
std::optional<Answer> ParseCommandLine(int argc, const char* const* argv, Arguments& arguments);

}  // namespace mdfeed

#endif  // MDFEED_COMMAND_LINE_H
