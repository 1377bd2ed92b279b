// SPDX-License-Identifier: Apache-2.0
// The configuration: one record for the encoder, and one per source.
#ifndef MDENCODER_CONFIG_H
#define MDENCODER_CONFIG_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "columns.h"
#include "host_runtime.h"
#include "http/settings.h"
#include "ini_file.h"
#include "metadata_lib.h"
#include "stream_settings.h"
#include "tak_settings.h"
#include "tls.h"
#include "track_text.h"

namespace mdencoder {

struct EncoderSettings {
  bool operator==(const EncoderSettings&) const = default;

  DWORD capabilities = 0;  // METADATALIB_CAPS_*
  std::string library;     // empty: beside the program, then on its run path
  std::string hostConfig;  // the host's INI file; empty: none
  std::string outputDir;   // empty: the received streams are not written
  bool streamHeader = false;
  std::string trackDir;  // empty: no tracks but those that a source has of its own
  track_text::Format trackFormat = track_text::Format::GeoJson;
  double trackInterval = 1;      // least seconds between two samples
  uint64_t rotateSize = 0;       // bytes of a recording's file; 0 for no limit
  uint64_t rotateTime = 0;       // seconds, likewise
  double silence = 0;            // seconds without a message that are reported; 0 for none
  bool extendedTags = true;      // the library reads two-byte tags, unless its INI file has the key
  bool heightsOptional = false;  // Cursor-on-Target is converted without a geoid grid too
  PresentationSettings presentation;
  int logLevel = -1;  // -1: as the host has it
  std::vector<std::pair<std::string, int>> moduleLevels;
  bool live = false;          // show the statistics table instead of the status line
  double statusInterval = 1;  // seconds; 0 for no status line
  double statsInterval = 0;   // seconds; 0 for the end only
  std::string statsJson;      // file for statistics as JSON lines
  std::string statsFile;      // file that keeps the statistics over a restart
  std::string summary;        // file for the summary of the run as JSON
  double duration = 0;        // seconds; 0 for no limit
  uint64_t messages = 0;      // in total; 0 for no limit
  uint64_t messagesEach = 0;  // of every source; 0 for no limit
  size_t queue = 4096;        // messages that may wait for the recorder
  bool retry = true;          // of the sources that do not have the key
  HttpSettings http;
};

// The serial device that the library asks the host to open.
constexpr char kSerialDevice[] = "/dev/ttyPS0";

// A capture file whose datagrams are sent to the source again.
struct ReplaySettings {
  bool operator==(const ReplaySettings&) const = default;

  std::string path;
  std::string filter;  // as of tcpdump; empty for every UDP datagram
  double speed = 1;    // the capture's own time times this; 0 for as fast as they are taken
  bool loop = false;
};

struct SourceSettings {
  std::string name;
  std::string input;   // "serial", "udp", "video", "tak", "url"
  std::string data;    // "klv", "cot"
  std::string output;  // file of the received stream; empty: <output_dir>/<name>.klv, if that is set
  std::string track;   // file of the track; empty: <track_dir>/<name>.<format>, if that is set
  std::string cotOut;  // where events of Cursor-on-Target go; empty: nowhere
  double cotOutRate = 1;
  std::string cotOutUid;  // empty: the name of the machine and that of the source
  std::string cotOutType;
  TlsSettings cotOutTls;
  std::optional<uint64_t> rotateSize;  // as in the encoder's settings, which apply without it
  std::optional<uint64_t> rotateTime;
  std::optional<double> silence;
  std::string device;  // serial: path that the host opens instead of kSerialDevice; empty: as the host has it
  std::optional<HostCaptureConfig>
      capture;                           // video: what the key url names; without it the host's own is used. udp: IsFed
  HostReception reception;               // udp: what the library's sockets receive
  std::optional<ReplaySettings> replay;  // udp: the capture file that the key url names; the port is found later
  std::optional<TakSettings> tak;        // udp: the TAK network that the key url names; the port is found later
  bool hasAddress = false;               // the key address is given
  std::vector<std::string> relayKeys;    // the keys of record.Relays
  std::vector<std::string> relayHosts;   // names of hosts whose addresses record.Relays lacks; empty: it has one
  bool hasRetry = false;                 // it has the key
  bool retry = true;                     // wait for what the source needs, and open it again
  MDATA_SRC_CFG record{};                // complete except for the callback and its parameters
};

// Returns whether the source's url has no video input, so that the program feeds it to a UDP source of the library. The
// port is found later.
bool IsFed(const SourceSettings& settings);

// Gives the sources with a url the video inputs that no key `interface` names. They stay as they are among the running
// sources; of the others those with a decimation come first, then the order of the file counts. Those that are left are
// fed. Throws ConfigError for one that cannot be.
void GiveInputs(std::vector<SourceSettings>& sources, const std::vector<SourceSettings>& running = {});

// Returns the origin of a source's video input, or of one that is fed.
const HostCaptureConfig& CaptureOf(const SourceSettings& settings, const HostRuntimeConfig& host);

// Returns "HOST:PORT" of one of the record's relays, with its name if it has one.
std::string RelayText(const SourceSettings& settings, size_t relay);

struct Config {
  EncoderSettings encoder;
  std::vector<SourceSettings> sources;
  std::vector<StreamSettings> streams;
};

// Both throw ConfigError. LoadConfig also looks at this machine's addresses, to refuse relays that come back. Relative
// names of files are relative to the folder of `iniPath`.
Config MakeConfig(const std::vector<IniSection>& sections, const std::string& iniPath);
// `overrides` are keys of the [encoder] section that the command line gives; they replace those of the file. Their
// relative names of files are relative to the working directory, as are those of the standard input ("-"). `quiet` is
// how long the file must not have been written.
Config LoadConfig(const std::string& path, const std::vector<std::pair<std::string, std::string>>& overrides = {},
                  std::chrono::milliseconds quiet = {});

}  // namespace mdencoder

#endif
