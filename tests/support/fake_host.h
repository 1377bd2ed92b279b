// The fake host: every host service and the libc calls that reach outside, replaced for unit tests. A small language:
//
//   feed bytes               host().FeedDatagram(fd, bytes, {...}), FeedSerial(fd, bytes), FeedCapture(input, bytes, pts)
//   advance the clock        host().Advance(600)
//   fail a named service     host().FailNext("MBOX_SendMessage"), FailNext("setsockopt", {.error = EPERM})
//   drive the thread         host().Pass(), PassUntilIdle(), SelectTimesOut()
//   act at a point           host().AtLog("Wait successful.\n", [&] { ... })
//   expect a log line        ExpectLog(4, "KLV_GetInfo returned an error.\n"), ExpectAssertion("0")
//
// The thread that WaitForThread joins gets only the passes that a real one would make: for a readable descriptor, or by
// time-out where one is set. A thread that would sleep for ever fails the test.
//
// Tests derive from HostTest, which resets everything, the library's own globals included, and, at the end, fails the
// test on any unclaimed log line of level 0 to 5, any unclaimed assertion, and anything left open or allocated: blocks,
// descriptors, streams, sets, mailboxes and their messages, rate tables, wait conditions, threads. Nothing sleeps:
// time() and its kin follow
// the fake clock, files under /tmp, /usr/share/vendor and /etc/hostos.ini live in a folder of the test's own.
#ifndef FAKE_HOST_H
#define FAKE_HOST_H

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host.h"
#include "metadata_lib.h"

using Bytes = std::vector<BYTE>;

// Descriptors the fake gives out start here.
inline constexpr int kFirstFakeFD = 1000;

struct LogLine {
  std::string module;  // "METADATALIB" or "COTCONVERTER"
  int level;
  std::string function;
  std::string file;
  std::string text;
  bool claimed = false;
};

struct Assertion {
  std::string function;
  std::string file;
  std::string text;
  bool isText = false;  // raised with _DoTextAssert
  bool claimed = false;
};

struct DumpLine {
  int level;
  std::string title;
  Bytes bytes;
};

struct SocketOption {
  int level;
  int option;
  Bytes value;
};

// How a named call fails: the calls after 'skip' good ones, 'times' of them.
struct Failure {
  int times = 1;
  int skip = 0;
  int error = EIO;                  // errno
  std::optional<long> result = {};  // what it returns instead of its usual failure
};

// Where a datagram comes from and what its control messages say.
struct DatagramInfo {
  std::string from = "127.0.0.1";  // IPv4 or IPv6 text
  int port = 4000;
  std::optional<int> ttl = {};  // TTL or hop limit control message
  std::optional<int> tos = {};  // TOS or traffic class control message
  Bytes control = {};           // raw control area instead
};

// What became of a fake descriptor.
struct FakeFD {
  std::string kind;  // "socket", "udp4", "udp6", "serial", "mailbox", "capture"
  int family = 0;    // of socket()
  bool closed = false;
  bool nonBlocking = false;
  bool closeOnExec = false;  // of socket()
  sockaddr_storage connectedTo = {};
  std::vector<SocketOption> options;
  std::vector<Bytes> sent;
};

// What the services were asked for, in plain fields.
struct HostRecords {
  struct UDPSocketCall {
    USHORT port;
    Bytes address;  // 4 bytes of the IPv4 call
    DWORD flags;    // of the IPv6 call
    bool ipv6;
  };
  std::vector<UDPSocketCall> udpSocketCalls;
  MDATA_SERIAL_SRC_CFG serialConfig = {};
  std::string serialPath;
  UINT32 scopeID = 0;  // of "eth0"; 0 makes the look-up fail
  std::vector<int> captureStarts;
  std::vector<int> captureStops;
  std::string setName;
  std::string threadName;
  std::vector<DWORD> threadOptions;  // stack size, priority
  MBOX_CONFIG mboxConfig = {};
  std::string mboxName;
  std::vector<DWORD> waits;  // limits of the waits, ms
  int outstandingPosts = 0;
  int threadIterations = 0;
  std::vector<std::string> savedStates;  // functions that called __SaveThreadState
  std::vector<int> pausedStates;
  std::vector<UINT> iterations;
  struct Receive {  // what recvmsg was asked for
    int flags;
    size_t size;
    size_t nameSize;     // 0 without a place for the sender
    size_t controlSize;  // 0 without a place for control messages
  };
  std::vector<Receive> receives;
  std::vector<UINT64> rateTotals;
  UINT32 rate = 0;
  int rateResets = 0;
  std::string rateName;
  int rateSamples = 0;
};

class Host : public HostRecords {
 public:
  Host();
  ~Host();

  // --- log
  void SetLevel(const std::string& module, int level);
  std::vector<LogLine> Logs() const;
  std::vector<DumpLine> Dumps() const;
  std::vector<Assertion> Assertions() const;
  void ClearLogs();  // claims everything so far
  // Acts once, on the thread that writes the next line with this text, before it is written.
  void AtLog(const std::string& text, std::function<void()> act);

  // --- clock, starts at 2024-01-02 03:04:05 UTC; up-time starts at 1000 s
  void Advance(long milliseconds);
  void SetWallClock(long seconds, long microseconds = 0);
  long NowSeconds() const;

  // --- failures: host services and the wrapped libc calls, by name
  void FailNext(const std::string& name, Failure failure = {});
  void StopFailing(const std::string& name);  // takes back the failures that have not happened yet
  int Calls(const std::string& name) const;
  // Runs once, inside the call of that name after 'skip' others and on its thread: what happens to the library in the
  // middle of its work.
  void WhenCalled(const std::string& name, std::function<void()> action, int skip = 0);

  // --- descriptors
  const FakeFD& FD(int fd) const;
  std::vector<int> FDsOfKind(const std::string& kind) const;
  int LastFD(const std::string& kind) const;  // -1 when there is none
  void FeedDatagram(int fd, const Bytes& bytes, const DatagramInfo& info = {});
  void FeedSerial(int fd, const Bytes& bytes);
  void HangUp(int fd);  // from now on readable, and read returns 0
  void FeedCapture(int interface, const Bytes& bytes, UINT64 timestamp, std::optional<int> length = {});

  // --- files and configuration
  void WriteFile(const std::string& path, const std::string& text);
  std::string ReadFile(const std::string& path) const;
  bool FileExists(const std::string& path) const;
  void PlantLink(const std::string& path, const std::string& target);
  void PlantFifo(const std::string& path);
  void PlantHardLink(const std::string& path, const std::string& target);
  std::string RealPath(const std::string& path) const;
  void SetConfig(const std::string& file, const std::string& section, const std::string& key, const std::string& value);

  // --- the metadata thread, in lockstep
  void Pass();                 // one select pass over what is readable now
  void PassUntilIdle();        // passes until nothing is readable
  void SelectTimesOut();       // one pass that ends by time-out
  void HoldThread(bool hold);  // waits do not let the thread run
  bool ThreadRuns() const;
  std::optional<timeval> SelectInterval() const;
  std::vector<int> SetDescriptors() const;  // in the order they were added

  // For the fixture.
  void Reset();
  void Verify();
  void Finish();  // no test is under way any more
  void AllowLogs(int level, const std::string& part);
  bool ClaimLog(int level, const std::string& text, bool whole);
  bool ClaimAssertion(const std::string& text, bool isText);

  struct Impl;
  Impl* impl;
};

Host& host();

// Gives every global of the library the value that a fresh process has. Before each test, and in one that starts the
// library more than once as new processes would.
void ResetLibrary();

// The line of the test that calls a claim. clang 14 has no std::source_location of its own.
struct Where {
  const char* file;
  int line;
  static constexpr Where Caller(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {file, line};
  }
};

void ExpectLog(int level, const std::string& text, Where where = Where::Caller());
void ExpectLogContaining(int level, const std::string& part, Where where = Where::Caller());
void ExpectNoLog(const std::string& text, Where where = Where::Caller());
void ExpectAssertion(const std::string& expression, Where where = Where::Caller());
void ExpectTextAssertion(const std::string& text, Where where = Where::Caller());
void ExpectDump(int level, const std::string& title, const Bytes& bytes, Where where = Where::Caller());
// Lines that contain the part need no claim.
void AllowLogs(int level, const std::string& part);
int CountLogs(int level, const std::string& text);

// Verifies last: what a derived fixture's TearDown, destructor or members give back is no leak.
class HostTest : public ::testing::Test {
 protected:
  HostTest() { host().Reset(); }
  ~HostTest() override {
    host().Verify();
    host().Finish();
  }
};

#endif  // FAKE_HOST_H
