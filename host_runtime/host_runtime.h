// The Linux host runtime: implements every service declared in host/ for a process that loads the library. This header
// is the runtime's own side, for the program that owns the process (the services themselves are in host.h).
//
// The program links the runtime whole and exports its symbols (the CMake target does both), so that the library finds
// the services. Configure before METADATALIB_Init; levels may change at any time.
#ifndef HOST_RUNTIME_H
#define HOST_RUNTIME_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>

// Where the KLV of one video input comes from.
struct HostCaptureConfig {
  enum class Kind {
    kNone,
    kMedia,   // a file or stream with a KLV track, played in real time
    kAnc,     // an RFC 8331 ancillary stream over UDP
    kSocket,  // datagrams on a local socket: 8 bytes of big-endian timestamp, then the KLV
  };
  Kind kind = Kind::kNone;
  std::string path;        // kMedia: file or URL; kSocket: the socket's path, made by the runtime
  bool loop = false;       // kMedia: start again at the end
  std::string address;     // kAnc: group to join, or empty
  std::uint16_t port = 0;  // kAnc
};

struct HostRuntimeConfig {
  std::map<std::string, std::string> serialDevices;  // path asked for -> device to open instead
  std::map<std::string, std::string> configFiles;    // INI file asked for -> file to read instead
  int logLevel = 5;                                  // of modules without their own
  std::map<std::string, int> moduleLevels;           // by module name
  bool console = true;                               // log to standard error
  std::string logFile;                               // and to this file, when named
  HostCaptureConfig captures[4];                     // by video input
};

// Reads an INI file (docs/host.md). FALSE and one line in 'error' that names the key, the value and what is allowed.
bool HostRuntime_Load(const std::string& path, HostRuntimeConfig& config, std::string& error);
// Takes the configuration over. FALSE and one line in 'error' when the log file cannot be opened.
bool HostRuntime_Apply(const HostRuntimeConfig& config, std::string* error = nullptr);
// Sets the level of a module, open or not; an empty name sets all.
void HostRuntime_SetLevel(const std::string& module, int level);
// Assertions raised so far.
unsigned long HostRuntime_AssertionCount();

struct HostLogLine {
  std::string module;
  int level;  // 0 for an assertion
  std::string function;
  std::string text;  // without the line's end
  bool assertion;
};
// Called with every line that is written, on the thread that wrote it. An empty function ends that.
void HostRuntime_OnLog(std::function<void(const HostLogLine&)> callback);

// What the runtime knows of a thread it made.
struct HostThreadState {
  unsigned iterations;
  bool paused;
  std::string where;  // "function (file:line)" of the last saved state
};
std::map<std::string, HostThreadState> HostRuntime_Threads();

// Per video input: what its capture did. All zero while stopped for the first time.
struct HostCaptureStats {
  std::uint64_t packets;      // handed to the queue
  std::uint64_t dropped;      // queue full, or larger than the room offered
  std::uint64_t lost;         // RTP packets missing
  std::uint64_t reordered;    // RTP packets that came late
  std::uint64_t badChecksum;  // ancillary packets with a wrong checksum or parity
};
HostCaptureStats HostRuntime_CaptureStats(int input);

#endif  // HOST_RUNTIME_H
