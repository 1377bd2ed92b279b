// SPDX-License-Identifier: Apache-2.0
// Measures what the receiving thread spends on a message, from the socket to the encoder's callback.
//
//   bench_paths WORKLOAD [BATCHES]             both sides, each in a process of its own, in turns of a few batches
//   bench_paths WORKLOAD/SIDE BATCHES count    one side; callgrind counts the instructions of the batches, under this name
//
// The library's side runs on the Linux host runtime with its own metadata thread, the floor's on a thread of its own. The
// turns let what disturbs the machine disturb both sides.
// Prints one object of JSON: nanoseconds of processor time a message by side, or how many messages were counted.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "datagrams.h"
#include "floors/floors.h"
#include "gate.h"
#include "sources.h"
#include "traffic.h"
#include "workload.h"

namespace bench {
namespace {

constexpr int kBatch = 64;  // datagrams that wait in a socket's buffer with room to spare
constexpr int kTurn = 32;   // batches: two milliseconds of the cheapest path

using Pass = void (*)(FloorUdp*);

struct Path {
  const char* name;
  const std::vector<Bytes>& (*messages)();
  int relays = 0;
  bool rewriting = false;
  int sources = 1;            // open; the traffic comes to one in the middle
  Pass floor = FloorUdpPass;  // null: the library itself with one source
};

const std::vector<Bytes>& SmallMessages() {
  static const std::vector<Bytes> kAll = {MakeMessage(4, 1), MakeMessage(5, 2), MakeMessage(6, 3)};
  return kAll;
}

const std::vector<Bytes>& LargeMessages() {
  static const std::vector<Bytes> kAll = {MakeMessage(310, 1), MakeMessage(311, 2), MakeMessage(312, 3)};
  return kAll;
}

std::vector<Bytes> MessagesOf(int items) {
  std::vector<Bytes> all(16);
  for (unsigned i = 0; i < all.size(); ++i) all[i] = MakeMessage(items, i + 1);
  return all;
}

const std::vector<Bytes>& MessagesOf10() {
  static const std::vector<Bytes> kAll = MessagesOf(10);
  return kAll;
}

const std::vector<Bytes>& MessagesOf50() {
  static const std::vector<Bytes> kAll = MessagesOf(50);
  return kAll;
}

double MeanSize(const std::vector<Bytes>& messages) {
  std::size_t size = 0;
  for (const Bytes& message : messages) size += message.size();
  return static_cast<double>(size) / static_cast<double>(messages.size());
}

const Path kPaths[] = {
    {.name = "udp", .messages = FlightMessages},
    {.name = "udp_16_a_wait", .messages = FlightMessages, .floor = FloorUdpPassOfMany},
    {.name = "udp_recvmmsg", .messages = FlightMessages, .floor = FloorUdpPassAtOnce},
    {.name = "udp_small", .messages = SmallMessages},
    {.name = "udp_large", .messages = LargeMessages},
    {.name = "udp_relays_1", .messages = FlightMessages, .relays = 1},
    {.name = "udp_relays_4", .messages = FlightMessages, .relays = 4},
    {.name = "udp_relays_8", .messages = FlightMessages, .relays = 8},
    {.name = "udp_rewrite", .messages = FlightMessages, .rewriting = true},
    {.name = "udp_rewrite_10", .messages = MessagesOf10, .rewriting = true},
    {.name = "udp_rewrite_50", .messages = MessagesOf50, .rewriting = true},
    {.name = "udp_rewrite_200", .messages = LongMessages, .rewriting = true},
    {.name = "udp_sources_16", .messages = FlightMessages, .sources = 16, .floor = nullptr},
    {.name = "udp_sources_64", .messages = FlightMessages, .sources = 64, .floor = nullptr},
};

// --- Turns -------------------------------------------------------------------------------------------

// One direction between the processes of a pair.
class Wire {
 public:
  Wire() { Require(pipe(m_ends) == 0, "no pipe"); }
  template <typename Value>
  void Put(Value value) const {
    Require(write(m_ends[1], &value, sizeof value) == sizeof value, "the other side of the pair is gone");
  }
  // The process that reads closes the other end, so that it sees the end of the writer.
  void ReadHere() const { close(m_ends[1]); }
  template <typename Value>
  Value Take() const {
    Value value{};
    ssize_t got = 0;
    do got = read(m_ends[0], &value, sizeof value);
    while (got < 0 && errno == EINTR);
    Require(got == sizeof value, "a side of the pair failed");
    return value;
  }

 private:
  int m_ends[2];
};

struct Request {
  const Path* path = nullptr;
  std::string name;  // with the side
  bool ours = false;
  int batches = 4000;
  bool counted = false;
  const Wire* go = nullptr;  // of a pair: a byte lets a turn begin
  const Wire* done = nullptr;
};

double Drive(Gate& gate, const Request& request, std::uint16_t port) {
  Sender sender(port, request.path->messages());
  gate.Close([&] { sender.Send(1); });
  for (int i = 0; i < request.batches; ++i) {
    if (request.go != nullptr && i % kTurn == 0) {
      request.done->Put('d');  // with the preparations, or the turn before
      request.go->Take<char>();
    }
    gate.Pass([&] { Require(sender.Send(kBatch) == kBatch, "a batch was not sent"); });
  }
  return gate.Nanoseconds();
}

// --- The library -------------------------------------------------------------------------------------

BOOL OnMessage(MDATA_BUFFER*, void* user, void*) {
  static_cast<Gate*>(user)->Arrive();
  return TRUE;
}

void AddRelays(MDATA_SRC_CFG& config, const std::deque<Sink>& sinks) {
  config.nNumOfRelays = static_cast<UINT32>(sinks.size());
  for (std::size_t i = 0; i < sinks.size(); ++i) sinks[i].Describe(config.Relays[i]);
}

std::deque<Sink> MakeSinks(int count) {
  std::deque<Sink> sinks;
  for (int i = 0; i < count; ++i) sinks.emplace_back();
  return sinks;
}

double MeasureOurs(const Request& request, int sourceCount) {
  UseLibrary(kDefaultLogLevel);
  Gate gate(kBatch, request.counted ? request.name : "");
  const auto sinks = MakeSinks(request.path->relays);
  MDATA_SRC_CFG config;
  std::memset(&config, 0, sizeof config);
  if (request.path->rewriting) config = RewritingConfig(Filter::All);
  config.pfnCallback = OnMessage;
  config.pvUserParam1 = &gate;
  AddRelays(config, sinks);
  std::deque<UdpSource> sources;
  for (int i = 0; i < sourceCount; ++i) sources.emplace_back(config);
  const double result = Drive(gate, request, sources[sources.size() / 2].Port());
  gate.Open();
  return result;
}

// --- The floor ---------------------------------------------------------------------------------------

void OnFloorMessage(const std::uint8_t*, std::size_t, void* user) {
  static_cast<Gate*>(user)->Arrive();
}

double MeasureFloor(const Request& request) {
  Gate gate(kBatch, request.counted ? request.name : "");
  const auto sinks = MakeSinks(request.path->relays);
  FloorUdp udp = {};
  udp.count = 1;
  udp.deliver = OnFloorMessage;
  udp.user = &gate;
  udp.rules = request.path->rewriting ? &RewritingRules(Filter::All) : nullptr;
  std::uint16_t port = 0;
  udp.sources[0].socket = BindLoopback(&port);
  udp.sources[0].relays = request.path->relays;
  for (std::size_t i = 0; i < sinks.size(); ++i) udp.sources[0].relaySockets[i] = sinks[i].Connect();
  Require(FloorUdpOpen(&udp) == 0, "no epoll instance");
  // It never ends: the process does.
  std::thread([&udp, pass = request.path->floor] {
    for (;;) pass(&udp);
  }).detach();
  return Drive(gate, request, port);
}

double Measure(const Request& request) {
  if (request.ours) return MeasureOurs(request, request.path->sources);
  if (request.path->floor == nullptr) return MeasureOurs(request, 1);
  return MeasureFloor(request);
}

// --- Both sides --------------------------------------------------------------------------------------

// A side in a process of its own.
struct Runner {
  Wire go;
  Wire done;

  void Start(Request request) const {
    const pid_t child = fork();
    Require(child >= 0, "no process");
    if (child != 0) {
      done.ReadHere();
      return;
    }
    request.go = &go;
    request.done = &done;
    go.ReadHere();
    const double ns = Measure(request);
    done.Put('d');
    done.Put(ns);
    std::_Exit(0);  // the floor's thread waits for ever
  }
};

// They take turns, and in beginning too. Prints their figures.
void MeasurePair(Request request) {
  const Runner ours;
  const Runner floor;
  request.ours = true;
  ours.Start(request);
  request.ours = false;
  floor.Start(request);
  const Runner* sides[] = {&ours, &floor};
  // Both are prepared before the first turn.
  for (const Runner* side : sides) side->done.Take<char>();
  const int turns = (request.batches + kTurn - 1) / kTurn;
  for (int turn = 0; turn < turns; ++turn) {
    for (const int which : {turn % 2, 1 - turn % 2}) {
      sides[which]->go.Put('g');
      sides[which]->done.Take<char>();
    }
  }
  const auto oursNs = ours.done.Take<double>();
  std::printf("{\"ours\": %.2f, \"floor\": %.2f, \"flight\": \"%s\", \"bytes\": %.1f}\n", oursNs,
              floor.done.Take<double>(), FlightKind(), MeanSize(request.path->messages()));
}

Request Read(int argc, char** argv) {
  Request request;
  Require(argc >= 2, "which workload?");
  request.name = argv[1];
  const std::size_t slash = request.name.find('/');
  request.ours = slash != std::string::npos && request.name.substr(slash + 1) == "ours";
  for (const Path& path : kPaths) {
    if (path.name == request.name.substr(0, slash)) request.path = &path;
  }
  Require(request.path != nullptr, "there is no such workload");
  if (argc >= 3) request.batches = std::atoi(argv[2]);
  request.counted = argc >= 4 && std::strcmp(argv[3], "count") == 0;
  Require(request.counted == (slash != std::string::npos), "a side alone is counted, and both are measured");
  return request;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bench::Request request = bench::Read(argc, argv);
  if (!request.counted) {
    bench::MeasurePair(request);
    return 0;
  }
  bench::UseGeneratedFlight();
  bench::Measure(request);
  std::printf("{\"counted\": %d}\n", request.batches * bench::kBatch);
  std::fflush(stdout);
  std::_Exit(0);  // the floor's thread waits for ever
}
