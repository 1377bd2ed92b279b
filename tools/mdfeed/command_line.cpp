// SPDX-License-Identifier: Apache-2.0
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <cstddef>
#include <stdexcept>

#include "error.h"
#include "geoid.h"

namespace mdfeed {
namespace {

constexpr const char* kVersion = "mdfeed " MDFEED_VERSION;
constexpr double kMaxRate = 100'000;
constexpr size_t kMaxChunk = 65'507;  // the largest datagram

// Options whose text is parsed once the whole command line is valid.
struct Texts {
  std::string udp;
  std::string ttl;
  std::string tos;
  std::vector<std::string> damage;
};

void AddFlight(CLI::App& app, Arguments& args) {
  app.add_option("--seed", args.seed, "another flight for every number")->group("Flight")->capture_default_str();
  app.add_option("--start", args.start, "UTC time of the flight's begin, 2024-05-01T12:00:00Z (default: now)")
      ->group("Flight");
  app.add_option("--geoid", args.geoidGrid,
                 std::string("geoid grid in GTX format, for heights above mean sea level (default: ") +
                     kDefaultGeoidGrid + " if it is there, else mean sea level is the ellipsoid)")
      ->group("Flight");
}

void AddFile(CLI::App& app, Arguments& args, const char* what) {
  auto* file = app.add_option("--file", args.file, what)->group("Input")->type_name("FILE");
  app.add_flag("--simulate", args.simulate, "send the simulated flight")->group("Input")->excludes(file);
  app.add_option("--repeat", args.repeat, "send the file so many times, 0 for ever")
      ->group("Input")
      ->needs(file)
      ->capture_default_str();
}

void AddNetwork(CLI::App& app, Arguments& args, Texts& texts, CLI::Option* udp) {
  app.add_option("--interface", args.interface, "network interface for multicast")->group("Network")->needs(udp);
  app.add_option("--ttl", texts.ttl,
                 "TTL or hop limit, 1 to 255; it may change while running: 32,64@2 is 64 from 2 s on")
      ->group("Network")
      ->needs(udp);
  app.add_option("--tos", texts.tos, "TOS or traffic class, 0 to 255 or 0x00 to 0xff; it may change like --ttl")
      ->group("Network")
      ->needs(udp);
}

void AddDestination(CLI::App& app, Arguments& args, Texts& texts) {
  auto* where = app.add_option_group("Destination", "one of");
  auto* udp =
      where->add_option("--udp", texts.udp, "UDP address; a group address sends multicast")->type_name("HOST:PORT");
  where->add_option("--serial", args.serial, "serial device, or a pseudo-terminal that exists")->type_name("PATH");
  where->add_option("--pty", args.pty, "make a pseudo-terminal with this link to it, and wait for a reader first")
      ->type_name("LINK");
  where->require_option(1);
  app.add_option("--baud", args.baud, "speed of a serial device")->group("Line")->capture_default_str();
  AddNetwork(app, args, texts, udp);
}

void AddPace(CLI::App& app, Arguments& args, const char* unit) {
  app.add_option("--rate", args.send.rate, std::string(unit) + " per second, 0 for as fast as it goes")
      ->group("Pace")
      ->capture_default_str()
      ->check(CLI::Range(0.0, kMaxRate));
  app.add_option("--count", args.send.count, std::string("stop after so many ") + unit + ", 0 for no limit")
      ->group("Pace")
      ->capture_default_str();
  app.add_option("--duration", args.send.duration, "stop after so many seconds, 0 for no limit")
      ->group("Pace")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e7));
}

void AddKlv(CLI::App& app, Arguments& args, Texts& texts) {
  AddFile(app, args, "a recorded KLV stream, sent message by message");
  auto* chunk =
      app.add_option("--chunk", args.chunk, "send pieces of at most so many bytes instead, whatever is in them")
          ->group("Input")
          ->check(CLI::Range(size_t{1}, kMaxChunk));
  app.add_option("--index", args.index, "send a recording of mdencoder as it arrived, by the times of its index")
      ->group("Input")
      ->type_name("FILE")
      ->needs(app.get_option("--file"))
      ->excludes(chunk);
  AddFlight(app, args);
  AddDestination(app, args, texts);
  AddPace(app, args, "messages (or pieces of a file)");
}

void AddCot(CLI::App& app, Arguments& args, Texts& texts) {
  AddFile(app, args, "XML text with events");
  AddFlight(app, args);
  app.add_option("--uid", args.cot.uid, "UID of the aircraft; its sensors are UID.S1, UID.S2, ...")
      ->group("Events")
      ->capture_default_str();
  app.add_option("--sensors", args.cot.sensors, "number of sensors, which take turns")
      ->group("Events")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_option("--jitter", args.cot.jitterMs, "milliseconds between the two times of a pair, at most")
      ->group("Events")
      ->capture_default_str()
      ->check(CLI::Range(0, 60'000));
  app.add_option("--channel", args.channel, "ARQ channel of the serial frames")
      ->group("Serial frames")
      ->capture_default_str();
  app.add_option(
         "--damage", texts.damage,
         "damage a field of the serial frames, or of so many percent of them; FIELD is one of " + FrameFieldNames())
      ->group("Serial frames")
      ->type_name("FIELD[:PERCENT]");
  AddDestination(app, args, texts);
  AddPace(app, args, "pairs (or events of a file)");
}

void AddAnc(CLI::App& app, Arguments& args, Texts& texts) {
  AddFile(app, args, "a recorded KLV stream, one message per tick");
  AddFlight(app, args);
  app.add_option("--payload-type", args.anc.payloadType, "RTP payload type")
      ->group("Stream")
      ->capture_default_str()
      ->check(CLI::Range(96, 127));
  const auto addPercent = [&](const char* name, double& value, const char* what) {
    app.add_option(name, value, what)->group("Stream")->capture_default_str()->check(CLI::Range(0.0, 100.0));
  };
  addPercent("--loss", args.anc.loss, "percent of RTP packets that get lost");
  addPercent("--reorder", args.anc.reorder, "percent of RTP packets that change places with the next one");
  addPercent("--bad-checksum", args.anc.badChecksum, "percent of ancillary packets with a wrong checksum");
  auto* udp = app.add_option("--udp", texts.udp, "UDP address; a group address sends multicast")
                  ->type_name("HOST:PORT")
                  ->required();
  AddNetwork(app, args, texts, udp);
  AddPace(app, args, "messages");
}

void AddTs(CLI::App& app, Arguments& args) {
  AddFlight(app, args);
  app.add_option("--output", args.ts.output, "the file to write")->group("File")->type_name("FILE")->required();
  app.add_option("--duration", args.ts.duration, "seconds")
      ->group("File")
      ->capture_default_str()
      ->check(CLI::Range(0.04, 86'400.0));
  app.add_option("--rate", args.ts.rate, "timestamps of the KLV track per second")
      ->group("File")
      ->capture_default_str()
      ->check(CLI::Range(0.01, static_cast<double>(kTsFrameRate)));
  app.add_option("--messages", args.ts.messagesPerTime, "messages with the same timestamp")
      ->group("File")
      ->capture_default_str()
      ->check(CLI::Range(1, 4));
}

// Parses the text of an option. If the parser throws std::invalid_argument, it throws UsageError with the option's name.
template <typename Parse>
auto Read(const char* option, const std::string& text, Parse parse) {
  try {
    return parse(text);
  } catch (const std::invalid_argument& error) {
    throw UsageError(std::string(option) + ": " + error.what());
  }
}

Schedule ReadSchedule(const char* option, const std::string& text, int min) {
  if (text.empty()) return {};
  return Read(option, text, [min](const std::string& t) { return Schedule::Parse(t, min, 255); });
}

void ReadTexts(const Texts& texts, Arguments& args) {
  if (!texts.udp.empty()) args.udp = Read("--udp", texts.udp, ParseUdpAddress);
  if (!args.serial.empty()) BaudCode(args.baud);
  if (!args.start.empty()) Read("--start", args.start, ParseTime);
  args.send.ttl = ReadSchedule("--ttl", texts.ttl, 1);
  args.send.tos = ReadSchedule("--tos", texts.tos, 0);
  for (const std::string& text : texts.damage) args.damage.push_back(Read("--damage", text, ParseFrameDamage));
  if (args.udp && !args.damage.empty()) throw UsageError("--damage: only frames of a serial line can be damaged");
  if (args.command != Command::Ts && !args.simulate && args.file.empty())
    throw UsageError("one of --file and --simulate is required");
  args.cot.seed = args.seed;
}

// Returns the first line of a message.
std::string OneLine(const std::string& text) {
  return "mdfeed: " + text.substr(0, text.find('\n')) + "\n";
}

}  // namespace

std::optional<Answer> ParseCommandLine(int argc, const char* const* argv, Arguments& args) {
  Texts texts;
  CLI::App app("Sends metadata traffic: KLV and Cursor-on-Target, recorded or from a simulated flight.", "mdfeed");
  app.set_version_flag("--version", kVersion);
  app.require_subcommand(1);
  auto* klv = app.add_subcommand("klv", "KLV messages (MISB ST 0601)");
  auto* cot = app.add_subcommand("cot", "Cursor-on-Target events, plain over UDP, framed over a serial line");
  auto* anc = app.add_subcommand("anc", "KLV in the ancillary data of a video (RFC 8331 over UDP)");
  auto* ts = app.add_subcommand("ts", "write the simulated flight to a transport stream file with a KLV track");
  AddKlv(*klv, args, texts);
  AddCot(*cot, args, texts);
  AddAnc(*anc, args, texts);
  AddTs(*ts, args);
  try {
    app.parse(argc, argv);
    args.command = klv->parsed() ? Command::Klv : Command::Cot;
    if (anc->parsed()) args.command = Command::Anc;
    if (ts->parsed()) args.command = Command::Ts;
    ReadTexts(texts, args);
  } catch (const CLI::CallForHelp&) {
    const auto chosen = app.get_subcommands();
    return Answer{0, chosen.empty() ? app.help() : chosen.front()->help("mdfeed")};
  } catch (const CLI::CallForVersion&) {
    return Answer{0, std::string(kVersion) + "\n"};
  } catch (const CLI::ParseError& error) {
    return Answer{2, OneLine(error.what())};
  } catch (const UsageError& error) {
    return Answer{2, OneLine(error.what())};
  }
  return std::nullopt;
}

}  // namespace mdfeed
