// SPDX-License-Identifier: Apache-2.0
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#include "command_line.h"
#include "error.h"
#include "geoid.h"
#include "sender.h"

namespace mdfeed {
namespace {

int64_t Now() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return int64_t{now.tv_sec} * 1'000'000 + now.tv_usec;
}

FlightOptions MakeFlightOptions(const Arguments& args) {
  FlightOptions flight;
  flight.seed = args.seed;
  flight.startsNow = args.start.empty();
  flight.startUs = flight.startsNow ? Now() : ParseTime(args.start);
  if (!args.geoidGrid.empty()) {
    flight.undulation = LoadGeoid(args.geoidGrid);
  } else if (access(kDefaultGeoidGrid, R_OK) == 0) {
    flight.undulation = LoadGeoid(kDefaultGeoidGrid);
  }
  return flight;
}

// Without a rate limit the flight still has ten states per second of its own time.
int64_t FlightInterval(const Arguments& args) {
  const double rate = args.send.rate > 0 ? args.send.rate : 10.0;
  return std::llround(1e6 / rate);
}

std::unique_ptr<Traffic> MakeTimedTraffic(const Arguments& args, const Bytes& stream) {
  size_t skipped = 0;
  auto messages = SplitIndexed(stream, ReadFile(args.index), &skipped);
  if (messages.empty()) throw RunError(args.index + " names no message of " + args.file);
  if (skipped != 0) {
    std::fprintf(stderr, "mdfeed: %s: %zu lines name no message of %s\n", args.index.c_str(), skipped,
                 args.file.c_str());
  }
  return MakeTimed(std::move(messages), args.repeat);
}

std::unique_ptr<Traffic> MakeKlvTraffic(const Arguments& args) {
  if (args.simulate) {
    auto flight = MakeKlvFlight(MakeFlightOptions(args), FlightInterval(args));
    return args.chunk == 0 ? std::move(flight) : MakeChunked(std::move(flight), args.chunk);
  }
  const Bytes stream = ReadFile(args.file);
  if (!args.index.empty()) return MakeTimedTraffic(args, stream);
  if (args.chunk != 0) return MakeRecorded(SplitChunks(stream, args.chunk), args.repeat);
  size_t skipped = 0;
  auto messages = SplitKlv(stream, &skipped);
  if (messages.empty()) throw RunError(args.file + " holds no KLV message");
  if (skipped != 0) {
    std::fprintf(stderr, "mdfeed: %s: %zu bytes outside of whole messages are not sent\n", args.file.c_str(), skipped);
  }
  return MakeRecorded(std::move(messages), args.repeat);
}

std::unique_ptr<Traffic> MakeCotTraffic(const Arguments& args) {
  std::unique_ptr<Traffic> events;
  if (args.simulate) {
    events = MakeCotFlight(MakeFlightOptions(args), args.cot, FlightInterval(args));
  } else {
    auto recorded = SplitEvents(ReadFile(args.file));
    if (recorded.empty()) throw RunError(args.file + " holds no event");
    events = MakeRecorded(std::move(recorded), args.repeat);
  }
  return args.udp ? std::move(events) : MakeFramed(std::move(events), args.channel, args.damage, args.seed);
}

std::unique_ptr<Traffic> MakeAncTraffic(const Arguments& args) {
  AncOptions anc = args.anc;
  anc.seed = args.seed;
  anc.startUs = args.start.empty() ? Now() : ParseTime(args.start);
  anc.rate = args.send.rate > 0 ? args.send.rate : 10.0;
  return MakeAncStream(MakeKlvTraffic(args), anc);
}

std::unique_ptr<Traffic> MakeTraffic(const Arguments& args) {
  if (args.command == Command::Cot) return MakeCotTraffic(args);
  if (args.command == Command::Anc) return MakeAncTraffic(args);
  return MakeKlvTraffic(args);
}

const char* Name(Command command) {
  if (command == Command::Cot) return "CoT events";
  return command == Command::Anc ? "RTP packets" : "KLV messages";
}

std::unique_ptr<Output> OpenOutput(const Arguments& args) {
  if (args.udp) return OpenUdp(*args.udp, args.interface);
  if (!args.serial.empty()) return OpenSerial(args.serial, args.baud);
  return OpenPty(args.pty);
}

void RunTs(const Arguments& args) {
  Progress progress("KLV messages");
  progress.Finish(WriteTsFile(MakeFlightOptions(args), args.ts, progress));
}

void Run(const Arguments& args) {
  CatchStopSignals();
  if (args.command == Command::Ts) return RunTs(args);
  const auto traffic = MakeTraffic(args);
  const auto output = OpenOutput(args);
  Progress progress(Name(args.command));
  if (!args.pty.empty()) progress.Waiting(("a reader of " + args.pty).c_str());
  if (!output->WaitForReader()) return;
  const SendResult result = SendTraffic(*traffic, *output, args.send, progress);
  output->Finish();
  progress.Finish(result);
}

}  // namespace
}  // namespace mdfeed

int main(int argc, char** argv) {
  mdfeed::Arguments args;
  if (const auto answer = mdfeed::ParseCommandLine(argc, argv, args)) {
    std::fputs(answer->text.c_str(), answer->exitCode == 0 ? stdout : stderr);
    return answer->exitCode;
  }
  try {
    mdfeed::Run(args);
  } catch (const mdfeed::UsageError& error) {
    std::fprintf(stderr, "mdfeed: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mdfeed: %s\n", error.what());
    return 1;
  }
  return 0;
}
