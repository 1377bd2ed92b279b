// SPDX-License-Identifier: Apache-2.0
// The fake host replaces every host service, and the libc calls that leave the process, in unit tests. It is a small
// language:
//
//   feed bytes               host().FeedDatagram(fd, bytes, {...}), FeedSerial(fd, bytes), FeedCapture(input, bytes, pts)
//   advance the clock        host().Advance(600)
//   fail a named service     host().FailNext("MBOX_SendMessage"), FailNext("setsockopt", {.error = EPERM})
//   drive the thread         host().Pass(), PassUntilIdle(), SelectTimesOut()
//   act at a point           host().AtLog("Wait successful.\n", [&] { ... })
//   expect a log line        ExpectLog(4, "KLV_GetInfo returned an error.\n"), ExpectAssertion("0")
//
// A thread that WaitForThread joins gets only the passes that a real thread would make: for a readable descriptor, or
// after a time-out if one is set. A thread that would sleep for ever fails the test.
//
// Tests derive from HostTest, which resets everything, including the library's own globals. At the end it fails the
// test on any unclaimed log line of level 0 to 5, any unclaimed assertion, and anything left open or allocated: blocks,
// descriptors, streams, sets, mailboxes and their messages, rate tables, wait conditions, threads. Nothing sleeps:
// time() and the related calls follow the fake clock, and files under /tmp, /usr/share/vendor and /etc/hostos.ini are
// kept in the test's own folder.
#ifndef FAKE_HOST_H
#define FAKE_HOST_H

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host.h"
#include "metadata_lib.h"

using Bytes = std::vector<BYTE>;

// The first descriptor number of the fake host.
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

// How a named call fails: after 'skip' successful calls the next 'times' calls fail.
struct Failure {
  int times = 1;
  int skip = 0;
  int error = EIO;                  // errno
  std::optional<long> result = {};  // result in place of the usual failure
};

// The sender of a datagram and the contents of its control messages.
struct DatagramInfo {
  std::string from = "127.0.0.1";  // IPv4 or IPv6 text
  int port = 4000;
  std::optional<int> ttl = {};  // TTL or hop limit control message
  std::optional<int> tos = {};  // TOS or traffic class control message
  Bytes control = {};           // raw control area in their place
};

// The state of a fake descriptor.
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

// The arguments of the calls to the services, in plain fields.
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
  UINT32 scopeID = 0;  // scope of "eth0"; 0 makes the look-up fail
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
  struct Receive {  // arguments of one recvmsg
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
  void ClearLogs();  // claims all lines and assertions so far
  // Runs the action once, on the thread that writes the next line with this text, before the line is written.
  void AtLog(const std::string& text, std::function<void()> act);

  // --- clock, starts at 2024-01-02 03:04:05 UTC; up-time starts at 1000 s
  void Advance(long milliseconds);
  void SetWallClock(long seconds, long microseconds = 0);
  void SetCoarseClockLag(long microseconds);  // how far the coarse clock stands behind the wall clock
  long NowSeconds() const;

  // --- failures: host services and the wrapped libc calls, by name
  void FailNext(const std::string& name, Failure failure = {});
  void StopFailing(const std::string& name);  // cancels the failures that have not happened yet
  int Calls(const std::string& name) const;
  // Runs the action once, inside the call of that name after 'skip' others and on its thread, so that it happens in the
  // middle of the library's work.
  void WhenCalled(const std::string& name, std::function<void()> action, int skip = 0);

  // --- descriptors
  const FakeFD& FD(int fd) const;
  std::vector<int> FDsOfKind(const std::string& kind) const;
  int LastFD(const std::string& kind) const;  // -1 if there is none
  void FeedDatagram(int fd, const Bytes& bytes, const DatagramInfo& info = {});
  void FeedSerial(int fd, const Bytes& bytes);
  void HangUp(int fd);  // makes it readable from now on, and read returns 0
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
  void Pass();                 // runs one select pass over the readable descriptors
  void PassUntilIdle();        // runs passes until no descriptor is readable
  void SelectTimesOut();       // runs one pass that ends by time-out
  void HoldThread(bool hold);  // while held, waits do not let the thread run
  bool ThreadRuns() const;
  std::optional<timeval> SelectInterval() const;
  std::vector<int> SetDescriptors() const;  // in the order they were added

  // These are for the fixture.
  void Reset();
  void Verify();
  void Finish();  // ends the test
  void AllowLogs(int level, const std::string& part);
  bool ClaimLog(int level, const std::string& text, bool whole);
  bool ClaimAssertion(const std::string& text, bool isText);

  struct Impl;
  Impl* impl;
};

Host& host();

// Gives every global of the library the value that a fresh process has. It runs before each test, and inside a test
// that starts the library more than once as new processes would.
void ResetLibrary();

// Stores the line of the test that makes a claim. clang 14 has no std::source_location.
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

// Verifies last, so that resources that a derived fixture's TearDown, destructor or members release are not leaks.
class HostTest : public ::testing::Test {
 protected:
  HostTest() { host().Reset(); }
  ~HostTest() override {
    host().Verify();
    host().Finish();
  }
};

#endif  // FAKE_HOST_H
