// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <CLI/CLI.hpp>

namespace mdencoder {
namespace {

constexpr char kDescription[] =
    "mdencoder - a stand-in encoder: loads the metadata library, opens the sources of an INI file and shows, counts\n"
    "and keeps what arrives.";

constexpr char kFooter[] =
    "\nThe configuration has an [encoder] section, whose keys are the long options with '_' for '-' (an option wins\n"
    "over its key), and one section per source. mdencoder.example.ini shows every key. Names of files in it are\n"
    "relative to its own folder.\n"
    "\nCommands on the standard input: stats [NAME], reset [NAME], restore [NAME], save, quit, help.\n"
    "Signals: SIGINT and SIGTERM end the run (twice: at once), SIGHUP reloads the configuration, SIGUSR1 resets and\n"
    "SIGUSR2 restores the statistics of every source.\n"
    "\n'mdencoder inspect FILE|URL' tells what is in a file or a live source, 'mdencoder decode FILE|URL' prints it;\n"
    "both need no configuration and have a --help of their own.\n"
    "\nExit codes: 0 the run ended as asked; 1 it failed (library, source, file, output); 2 usage or configuration.\n"
    "\nExamples:\n"
    "  mdencoder demo.ini                                   table on the terminal until Ctrl-C\n"
    "  mdencoder demo.ini --format json --duration 10 | jq  ten seconds as JSON lines\n"
    "  mdencoder demo.ini --format none --live              only the statistics, in place\n"
    "  mdencoder inspect flight.ts                          what is in there\n"
    "  mdencoder demo.ini --check                           check the configuration and what it needs of this machine";

struct Definition {
  const char* key;
  const char* value;
  const char* group;
  const char* help;
};

constexpr char kOutput[] = "Output";
constexpr char kEnd[] = "End of the run";
constexpr char kStatistics[] = "Statistics";
constexpr char kPage[] = "Live page";
constexpr char kSetUp[] = "Library and host";

constexpr Definition kOptions[] = {
    {"format", "table|json|csv|none", kOutput, "How messages are printed: rows, JSON lines, CSV, not at all (table)"},
    {"columns", "LIST", kOutput, "Columns of the table: arrival, source, sequence, length, checksum, items (a dozen)"},
    {"items", "LIST", kOutput, "Items of JSON lines (all) and CSV (two dozen): names, tags, ranges, all"},
    {"output_dir", "DIR", kOutput, "Write the received stream of each source to DIR/<name>.klv"},
    {"rotate_size", "SIZE", kOutput, "Begin a new file after SIZE bytes (k, M, G), 0 for no limit (0)"},
    {"rotate_time", "S", kOutput, "Begin a new file every S seconds of UTC, 0 for no limit (0)"},
    {"track_dir", "DIR", kOutput, "Write the track of each source to DIR/<name>.<format>, for maps"},
    {"track_format", "geojson|kml|gpx", kOutput, "Format of these files (geojson)"},
    {"track_interval", "S", kOutput, "Least seconds between two samples of a track (1)"},
    {"status_interval", "S", kOutput, "Seconds between updates of the status line on a terminal, 0 for none (1)"},
    {"duration", "S", kEnd, "End after S seconds"},
    {"messages", "N", kEnd, "End after N messages in total; later ones are refused"},
    {"messages_each", "N", kEnd, "End when every source has delivered N messages"},
    {"stats_interval", "S", kStatistics, "Print the statistics every S seconds, 0 for the end only (0)"},
    {"silence", "S", kStatistics, "Report a source that is silent for longer than S seconds, 0 for none (0)"},
    {"stats_json", "FILE", kStatistics, "Write the statistics to FILE as JSON lines, at the interval and at the end"},
    {"stats_file", "FILE", kStatistics, "Keep the statistics over a restart: loaded at the start, saved at the end"},
    {"summary", "FILE", kStatistics, "Write a summary of the run to FILE as JSON"},
    {"http", "ADDRESS:PORT", kPage, "Serve the live page, its API, events and metrics, as 127.0.0.1:8080"},
    {"http_token", "FILE", kPage, "Ask clients for the token in FILE; needed for an address that others reach"},
    {"http_cert", "FILE", kPage, "Serve over TLS with the certificates in FILE (PEM)"},
    {"http_key", "FILE", kPage, "The certificate's key (in the file of the certificate)"},
    {"http_host", "LIST", kPage, "Names of this machine by which clients may call it, beside its addresses"},
    {"tiles", "URL", kPage, "Tiles of your own map server, as https://host/{z}/{x}/{y}.png"},
    {"tiles_attribution", "TEXT", kPage, "What the map says about where the tiles come from"},
    {"retry", "yes|no", kSetUp, "Wait for ports, devices, interfaces and routes that are not there (yes)"},
    {"library", "FILE", kSetUp, "The library (libmetadata_lib.so.1 beside the program or on its run path)"},
    {"host_config", "FILE", kSetUp, "The host's INI file: device mapping, video inputs, log"},
    {"capabilities", "LIST", kSetUp, "Of cot, ipv4, ipv6 (both IP families, cot when a source needs it)"},
    {"extended_tags", "yes|no", kSetUp, "Two-byte tags of ST 0601 (items from 128 on) are read right (yes)"},
    {"heights", "required|optional", kSetUp, "Whether Cursor-on-Target sources need the geoid grid (required)"},
    {"log_level", "0..8", kSetUp, "Highest level of log lines of every module"},
    {"log_levels", "LIST", kSetUp, "MODULE:LEVEL,... for single modules, for example METADATALIB:7"},
    {"queue", "N", kSetUp, "Messages kept for the recorder before new ones are refused (4096)"},
};

std::string OptionName(const std::string& key) {
  std::string name = "--" + key;
  for (char& character : name) character = character == '_' ? '-' : character;
  return name;
}

}  // namespace

int ParseOptions(int argc, const char* const* argv, Options& options) {
  CLI::App app(kDescription, "mdencoder");
  app.footer(kFooter);
  app.set_version_flag("--version", "mdencoder " MDENCODER_VERSION);
  app.add_option("config", options.config, "INI file with the sources, '-' for the standard input")
      ->type_name("CONFIG")
      ->required();
  app.add_flag_callback(
      "--check", [&options] { options.check = Check::All; },
      "Check the configuration, and what it needs of this machine, and exit");
  app.add_flag_callback(
      "--check-text", [&options] { options.check = Check::Text; },
      "Check what the configuration says, and exit; for one whose ports and devices are in use");
  for (const Definition& option : kOptions) {
    const std::string key = option.key;
    app.add_option_function<std::string>(
           OptionName(key), [&options, key](const std::string& value) { options.overrides.emplace_back(key, value); },
           option.help)
        ->type_name(option.value)
        ->group(option.group);
  }
  const auto flag = [&](const char* key, const char* group, const char* help) {
    app.add_flag_callback(
           OptionName(key), [&options, key] { options.overrides.emplace_back(key, "yes"); }, help)
        ->group(group);
  };
  flag("stream_header", kOutput, "Write the 5-byte stream header in front of each message");
  flag("wide", kOutput, "Do not fit the table to the terminal; without --columns, show every item");
  flag("live", kStatistics, "Show the statistics table in place of the status line");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  return -1;
}

}  // namespace mdencoder
