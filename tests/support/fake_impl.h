// SPDX-License-Identifier: Apache-2.0
// Private declarations of the fake host.
#ifndef FAKE_IMPL_H
#define FAKE_IMPL_H

#include <atomic>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fake_host.h"

// True from Host::Reset to Host::Finish. It is constant-initialised and never destroyed, because wrapped calls read it
// before main and after the last destructor.
inline constinit std::atomic<bool> g_testUnderWay{false};

// A block of the allocator that has not been freed yet.
struct Allocation {
  size_t size;
  const void* caller;
};

struct QueuedDatagram {
  Bytes bytes;
  DatagramInfo info;
};

struct QueuedKLV {
  Bytes bytes;
  UINT64 timestamp;
  std::optional<int> length;
};

struct FDState : FakeFD {
  std::deque<QueuedDatagram> datagrams;
  std::deque<BYTE> serial;
  bool hungUp = false;
  int interface = -1;
};

struct PendingAction {
  std::function<void()> action;
  int skip;
};

struct SetEntry {
  int fd;
  FDMGR_READ_CALLBACK callback;
  void* param1;
  void* param2;
};

struct tagHOST_FDSET {
  std::vector<SetEntry> entries;
  std::optional<timeval> interval;
  FDMGR_TIMEOUT_CALLBACK timeoutCallback = nullptr;
  void* param1 = nullptr;
  void* param2 = nullptr;
};

struct tagHOST_MBOX_MSG {
  MBOX_MSGHEADER header;
};

struct tagHOST_MBOX {
  int fd;
  std::deque<HMBOXMSG> queue;
};

struct tagHOST_THREAD {
  HOST_THREAD_ROUTINE routine;
  void* argument;
  std::thread thread;
  bool started = false;
};

struct tagHOST_COUNTER_RATE {
  int samples;
};

struct DebugModule : tagDBG_MODULE {
  std::string name;
};

struct Host::Impl {
  mutable std::recursive_mutex lock;
  std::condition_variable_any changed;

  std::vector<LogLine> logs;
  std::vector<DumpLine> dumps;
  std::vector<Assertion> assertions;
  std::vector<std::pair<int, std::string>> allowed;
  std::map<std::string, int> levels;
  std::map<std::string, std::function<void()>> acts;  // by log text
  std::map<std::string, DebugModule> modules;

  long wallMicroseconds = 0;
  long coarseLagMicroseconds = 0;
  long upMilliseconds = 0;

  std::map<std::string, std::deque<Failure>> failures;
  std::map<std::string, int> calls;
  std::map<std::string, PendingAction> actions;

  std::map<int, FDState> fds;
  int nextFD = kFirstFakeFD;
  int captureFD[4] = {-1, -1, -1, -1};
  std::map<int, std::deque<QueuedKLV>> captures;  // by input

  std::string folder;
  std::map<std::string, std::string> config;

  std::set<tagHOST_FDSET*> sets;
  std::set<tagHOST_MBOX*> mailboxes;
  std::set<tagHOST_MBOX_MSG*> messages;
  std::set<tagHOST_COUNTER_RATE*> rates;
  std::set<tagHOST_THREAD*> threads;
  std::set<WAIT_COND*> conditions;
  std::map<int, std::string> openFiles;      // paths of real descriptors from open()
  std::map<FILE*, std::string> openStreams;  // paths of streams

  std::mutex blocksLock;  // taken last, under any other lock
  std::map<const void*, Allocation> blocks;

  // Lockstep: the metadata thread waits in FDMGR_Select until a pass is granted.
  std::thread::id metadataThread;
  bool running = false;
  bool atSelect = false;
  bool granted = false;
  bool timeOut = false;
  bool hold = false;
  tagHOST_FDSET* currentSet = nullptr;

  // Counts a call. Returns the failure to simulate and sets errno, if this call is to fail.
  std::optional<Failure> Call(const std::string& name);
  bool Fails(const std::string& name) { return Call(name).has_value(); }
  void Act(const std::string& name);  // runs the action of WhenCalled
  bool Readable(int fd);
  bool AnyReadable();
  int NewFD(const std::string& kind);
  void Grant(bool timeOutPass);
  // Grants the pass that a real thread would make next. Returns false if it would sleep for ever.
  bool GrantAsReal();
  void VerifyNothingIsLeft();
  std::string DescribeBlocks();
};

inline Host::Impl& Fake() {
  return *host().impl;
}

#endif  // FAKE_IMPL_H
