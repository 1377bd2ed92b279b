// The Linux host runtime: everything of host/*.h for a process that loads the metadata library, and the few calls
// with which that process sets it up. A process that changes nothing gets warnings on standard error, the device
// and file names as the library gives them, and no video inputs. docs/host.md describes the INI file.
//
// All calls may come from any thread. None of them throws or ends the process (unless `abortOnAssert` asks for it).
#ifndef HOST_RUNTIME_H
#define HOST_RUNTIME_H

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

// --- configuration -----------------------------------------------------------------------------------

constexpr int kHostVideoInputs = 4;

// Where the KLV of one video input comes from.
struct HostCaptureConfig {
  enum class Kind {
    None,   // the input cannot be opened
    Media,  // a file or stream with a KLV track, played in real time
    Anc,    // an ancillary stream of RFC 8331 (SMPTE ST 2110-40) over UDP
    Socket  // datagrams on a local socket: 8 bytes of timestamp, big-endian, then the KLV
  };
  Kind kind = Kind::None;
  std::string path;     // kMedia: file or URL; kSocket: the socket's path, made by the runtime
  bool loop = false;    // kMedia: begin again at the end
  std::string address;  // kAnc: IPv4 group to join, or empty
  uint16_t port = 0;    // kAnc
};

// One key of an INI file that the library reads.
struct HostConfigKey {
  std::string file;
  std::string section;
  std::string key;
  auto operator<=>(const HostConfigKey&) const = default;
};

struct HostRuntimeConfig {
  // Log. Levels as in host_debug.h; a line is written when its level is at most the module's.
  int logLevel = 5;
  std::map<std::string, int> moduleLevels;  // by module name ("METADATALIB", "COTCONVERTER", "HOST", "KLVCAPTURE")
  std::string logFile;                      // also written here; empty for none. Turned over at 8 MiB, three kept
  bool console = true;                      // lines on standard error
  unsigned logBurst = 20;                   // lines of one call site let through at once; level 0 is not limited
  unsigned logRate = 10;                    // and per second after that; 0 turns the limit off
  bool abortOnAssert = false;               // for tests

  // Threads.
  bool realtimeThreads = true;  // ask for the real-time priority that a thread wants
  bool threadStates = false;    // let the library report where its threads are (costs a lock per report)

  // Names.
  std::map<std::string, std::string> serialDevices;     // path the library opens -> device or pseudo-terminal
  std::map<std::string, std::string> configFiles;       // INI file the library reads -> file read instead
  std::map<HostConfigKey, std::string> configDefaults;  // answers where that file has no such key

  std::string multicastInterface;  // interface that joins groups; empty leaves it to the routing table

  std::array<HostCaptureConfig, kHostVideoInputs> captures;  // by video input
};

// Reads a host INI file (docs/host.md) into config, over what it holds. False and one line in error (file, line, key,
// what is allowed) when the file cannot be read or says something unknown; config is then unchanged.
bool HostRuntime_Load(const std::string& path, HostRuntimeConfig& config, std::string& error);

// Puts a configuration into force. What is open stays as it is; levels change at once. False and one line in *error
// (which may be null) when the log file cannot be written: all the rest is then in force.
bool HostRuntime_Apply(const HostRuntimeConfig& config, std::string* error = nullptr);

// The configuration in force.
HostRuntimeConfig HostRuntime_Config();

// --- log ---------------------------------------------------------------------------------------------

// Changes a module's level while everything runs; also for modules that do not exist yet. An empty name means all.
void HostRuntime_SetLevel(const std::string& module, int level);

struct HostLogLine {
  std::string module;
  int level;  // 0 for an assertion
  std::string function;
  std::string file;  // source without ending
  int line;
  std::string text;  // without line end; what is not printable UTF-8 is escaped
  bool assertion;
};

// Called with every line that is written, on the thread that logs it: it may log itself, but must not wait for
// another thread that logs. An empty function removes it; a call on another thread may then still be running.
void HostRuntime_OnLog(std::function<void(const HostLogLine&)> callback);

// Assertions raised since the process started, also those that the log left out.
uint64_t HostRuntime_AssertionCount();

// --- threads -----------------------------------------------------------------------------------------

struct HostThreadState {
  std::string name;
  bool running = false;  // started and not yet returned
  bool paused = false;   // busy for long on purpose
  uint64_t iterations = 0;
  double secondsSinceSign = 0;  // since it last reported anything
  std::string function;         // last reported place; empty before the first report
  std::string file;
  int line = 0;
};

// The threads made through CreateThread that were not waited for yet.
std::vector<HostThreadState> HostRuntime_Threads();

// --- capture -----------------------------------------------------------------------------------------

// Counts of one video input since its capture was started last.
struct HostCaptureStats {
  uint64_t packets = 0;       // KLV packets queued for the library
  uint64_t bytes = 0;         // in them
  uint64_t taken = 0;         // packets handed to the library
  uint64_t overflows = 0;     // dropped: the queue was full
  uint64_t oversized = 0;     // dropped: larger than the room offered
  uint64_t damaged = 0;       // dropped: no readable KLV, RTP or ancillary packet
  uint64_t badChecksums = 0;  // ancillary packets with a wrong checksum
  uint64_t badParity = 0;     // ancillary packets with a wrong parity bit
  uint64_t lostPackets = 0;   // RTP packets that never came
  uint64_t reordered = 0;     // RTP packets that came out of order and were put right
  uint64_t late = 0;          // RTP packets dropped: repeated, or too late to be put right
  uint64_t incomplete = 0;    // KLV messages dropped because a part was missing
};

// All zero for an input that was never started.
HostCaptureStats HostRuntime_CaptureStats(int input);

#endif  // HOST_RUNTIME_H
