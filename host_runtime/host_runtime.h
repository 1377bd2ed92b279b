// SPDX-License-Identifier: Apache-2.0
// The Linux host runtime: the services of host/*.h for a process that loads the metadata library, and the few calls
// that configure them. Without configuration it writes lines up to level 5 to standard error, opens devices and files
// under the names that the library gives, and has no video inputs. docs/host.md describes the INI file.
//
// Any thread may call these functions. None of them throws, and none ends the process unless `abortOnAssert` is set.
#ifndef HOST_RUNTIME_H
#define HOST_RUNTIME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

// --- configuration -----------------------------------------------------------------------------------

constexpr int kHostVideoInputs = 4;

// The origin of the KLV of one video input.
struct HostCaptureConfig {
  enum class Kind {
    None,   // the input cannot be opened
    Media,  // a file of KLV, or a file or stream with a KLV track
    Anc,    // an ancillary stream of RFC 8331 (SMPTE ST 2110-40) over UDP
    Socket  // datagrams on a local socket: a big-endian timestamp of 8 bytes, then the KLV
  };
  Kind kind = Kind::None;
  std::string path;     // Media: file or URL; Socket: path of the socket, which the runtime makes
  bool loop = false;    // Media: begin a file again at its end
  std::string address;  // Anc: IPv4 group to join, or empty
  uint16_t port = 0;    // Anc
  double speed = 1;     // Media: a file's own time times this; 0 for as fast as its messages are taken
  // Media, https: file of the authorities (PEM) that may have signed the server's certificate; empty: those of the system.
  std::string authorities;

  bool operator==(const HostCaptureConfig& other) const {
    return std::tie(kind, path, loop, address, port, speed, authorities) ==
           std::tie(other.kind, other.path, other.loop, other.address, other.port, other.speed, other.authorities);
  }
};

// One key of an INI file that the library reads.
struct HostConfigKey {
  std::string file;
  std::string section;
  std::string key;
  bool operator<(const HostConfigKey& other) const {
    return std::tie(file, section, key) < std::tie(other.file, other.section, other.key);
  }
};

struct HostRuntimeConfig {
  // Log. Levels are those of host_debug.h. A line is written if its level is at most that of its module.
  int logLevel = 5;
  std::map<std::string, int> moduleLevels;  // by module name ("METADATALIB", "COTCONVERTER", "HOST", "KLVCAPTURE")
  std::string logFile;                      // file for the lines, or empty. Rotated at 8 MiB, three files kept
  bool console = true;                      // write lines to standard error
  unsigned logBurst = 20;                   // lines that a call site may write at once; level 0 is not limited
  unsigned logRate = 10;                    // lines per second after that; 0 turns the limit off
  bool abortOnAssert = false;               // for tests

  // Threads.
  bool realtimeThreads = true;  // give a thread the real-time priority that it asks for
  bool threadStates = false;    // let the library report where its threads are; each report takes a lock

  // Names.
  std::map<std::string, std::string> serialDevices;     // path that the library opens -> device or pseudo-terminal
  std::map<std::string, std::string> configFiles;       // INI file that the library reads -> file to read instead
  std::map<HostConfigKey, std::string> configDefaults;  // values of keys that the file does not hold

  std::string multicastInterface;  // interface for joining groups; empty: the routing table decides

  std::array<HostCaptureConfig, kHostVideoInputs> captures;  // by video input
};

// Reads a host INI file (docs/host.md) into config; keys that the file does not hold keep their values. Returns false,
// with one line in error (file, line, key and allowed values) and config unchanged, if the file cannot be read or is
// faulty.
bool HostRuntime_Load(const std::string& path, HostRuntimeConfig& config, std::string& error);

// Applies a configuration. Open devices, sockets and captures keep their settings; log levels change at once. Returns
// false, with one line in *error (which may be null), if the log file cannot be written; the rest applies all the same.
bool HostRuntime_Apply(const HostRuntimeConfig& config, std::string* error = nullptr);

// Returns the configuration that applies.
HostRuntimeConfig HostRuntime_Config();

// --- reception ---------------------------------------------------------------------------------------

// What the UDP sockets of a source receive, and over which interface it relays, beyond what the library can ask for.
struct HostReception {
  struct Group {
    int family = 0;                     // AF_INET or AF_INET6
    std::array<uint8_t, 16> address{};  // IPv4 in the first four bytes
    std::string interface;              // on which it is joined; empty: that of the source

    bool operator==(const Group& other) const {
      return std::tie(family, address, interface) == std::tie(other.family, other.address, other.interface);
    }
  };
  std::vector<Group> groups;  // joined in place of the address that the library gives
  Group sender;               // the only sender of the groups of its family (source-specific multicast), if it has one
  std::string interface;      // for groups; without groups, the only interface that is received from. Empty: any
  bool onlyLoopback = false;  // receives from programs of this machine only
  // Bound in place of the port that the library gives, unless it is 0. The library refuses a second source on a port;
  // sources of different groups on one port are opened with numbers that nobody else has.
  uint16_t port = 0;
  // Answers the library's question for "eth0", the interface of relays to link-local addresses of IPv6. Empty: eth0.
  std::string relayInterface;

  bool operator==(const HostReception& other) const {
    return std::tie(groups, sender, interface, onlyLoopback, port, relayInterface) ==
           std::tie(other.groups, other.sender, other.interface, other.onlyLoopback, other.port, other.relayInterface);
  }
};

// Holds for the sockets that the calling thread creates, through the library, until the next call.
void HostRuntime_SetReception(const HostReception& reception);

// --- log ---------------------------------------------------------------------------------------------

// Changes a module's level at run time. The module need not exist yet; an empty name means all modules.
void HostRuntime_SetLevel(const std::string& module, int level);

struct HostLogLine {
  std::string module;
  int level;  // 0 for an assertion
  std::string function;
  std::string file;  // source file without extension
  int line;
  std::string text;  // without line end; everything but printable UTF-8 is escaped
  bool assertion;
};

// Sets a function that is called with every line that is written, on the thread that logs it. The function may log, but
// must not wait for another thread that logs. An empty function removes it; a call on another thread may still be
// running.
void HostRuntime_OnLog(std::function<void(const HostLogLine&)> callback);

// Returns the number of assertions since the process started, including those that the log suppressed.
uint64_t HostRuntime_AssertionCount();

// --- threads -----------------------------------------------------------------------------------------

struct HostThreadState {
  std::string name;
  bool running = false;  // its routine has started and has not returned
  bool paused = false;   // it announced a long operation
  uint64_t iterations = 0;
  // Time since its last report. A thread that waits in a descriptor set gives a sign every second.
  double secondsSinceSign = 0;
  std::string function;  // place of the last report; empty before the first one
  std::string file;
  int line = 0;
};

// Returns the threads that CreateThread made and WaitForThread has not ended yet.
std::vector<HostThreadState> HostRuntime_Threads();

// --- times of events ---------------------------------------------------------------------------------

// Stores the difference of two times, in microseconds, that the running callback of a descriptor set had calculated last
// (CalcTimeOfDayAbsDiff), or returns false if there is none. Called inside the ready callback of a Cursor-on-Target source,
// it tells how far apart the two events of the packet are: the converter asks for the difference unless both have the same
// text as their time.
bool HostRuntime_TimeDifference(int64_t* microseconds);

// --- capture -----------------------------------------------------------------------------------------

// Returns "", or what keeps `path`, the file or URL of a capture of kind Media, from being played. A file is opened and
// read; of a URL only the protocol and, of udp:// and rtp://, the address are looked at.
std::string HostRuntime_MediaFault(const std::string& path);

// Sets the origin of one video input; an open capture keeps its own. Returns false if there is no such input.
bool HostRuntime_SetCapture(int input, const HostCaptureConfig& config);

// Sets what tells how many messages the program can take at the moment. Files wait for that, so that nothing of them is
// lost however fast they are played. It is called on the threads of the captures and must not wait. Without it the
// queues of the captures are the limit. Each capture asks for itself, and may have 48 packets under way when the answer
// becomes 0: the program keeps room for them.
void HostRuntime_OnRoom(std::function<size_t()> room);

struct HostCaptureState {
  enum class Phase {
    Stopped,
    Running,
    Ended  // the last message of a file was taken
  };
  Phase phase = Phase::Stopped;
  std::string fault;  // of a running stream: why nothing can come, until the next attempt succeeds
};
HostCaptureState HostRuntime_CaptureState(int input);

// Counts of one video input since the last capture start.
struct HostCaptureStats {
  uint64_t packets = 0;       // KLV packets queued for the library
  uint64_t bytes = 0;         // bytes in these packets
  uint64_t taken = 0;         // packets handed to the library
  uint64_t overflows = 0;     // dropped: the queue was full
  uint64_t oversized = 0;     // dropped: larger than the library's buffer
  uint64_t damaged = 0;       // dropped: malformed KLV, RTP or ancillary packets
  uint64_t badChecksums = 0;  // ancillary packets with a wrong checksum
  uint64_t badParity = 0;     // ancillary packets with a wrong parity bit
  uint64_t lostPackets = 0;   // RTP packets that never arrived
  uint64_t reordered = 0;     // RTP packets that arrived out of order and were put back
  uint64_t late = 0;          // RTP packets dropped: repeated, or too late to be put back
  uint64_t incomplete = 0;    // KLV messages dropped because a part was missing
  uint64_t kernelDrops = 0;   // datagrams of udp:// and rtp:// that the kernel dropped before they were read
};

// Returns zeros for an input that was never started.
HostCaptureStats HostRuntime_CaptureStats(int input);

// --- streams beside the video inputs -----------------------------------------------------------------

// A file or stream of KLV that is read as the capture of a video input reads it, and whose messages the program takes. A
// program that has more of them than there are video inputs can send them to a UDP source of its own. One thread takes
// the messages; any may ask for the rest. The destructor ends it, and waits for its thread.
class HostStream {
 public:
  HostStream() = default;
  virtual ~HostStream() = default;
  HostStream(const HostStream&) = delete;
  HostStream& operator=(const HostStream&) = delete;

  // Returns a descriptor that is readable while messages wait.
  virtual int FD() const = 0;
  // Stores the next message, or returns false if none waits.
  virtual bool Take(std::vector<uint8_t>& message) = 0;
  virtual HostCaptureState State() const = 0;
  virtual HostCaptureStats Stats() const = 0;
};

// Opens the origin for the source `name`, which lines of the log name. Messages of more than `largest` bytes are dropped
// and counted as oversized; the first is a line of the log. Returns null, after such a line, if it cannot be opened.
std::unique_ptr<HostStream> HostRuntime_OpenStream(const HostCaptureConfig& config, const std::string& name,
                                                   size_t largest);

#endif  // HOST_RUNTIME_H
