// SPDX-License-Identifier: Apache-2.0
// Measures the receiving thread on traffic at the pace of real sources, where most of the price is waking up.
//
//   bench_paced WORKLOAD/SIDE SECONDS
//
//   eight_sources     eight sources of KLV over UDP, 60 messages a second each, two relays each
//   line_klv          KLV on a serial line of 921,600 baud that never pauses
//   line_cot          events of Cursor-on-Target on the same line
//   line_klv_hostile  nested messages on the same line; its sides are "hostile" and "ordinary"
//   line_cot_hostile  nested headers on the same line
//
// Prints one object of JSON: nanoseconds of processor time a message, on lines a byte, and the share of a processor.
#include <fcntl.h>
#include <pthread.h>
#include <pty.h>
#include <sys/epoll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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
#include "hostile.h"
#include "sources.h"
#include "traffic.h"
#include "workload.h"

namespace bench {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr int kBaud = 921'600;
constexpr std::int64_t kBytesPerMs = kBaud / 10 / 1000;

// What the receiving thread tells of itself.
struct Receiver {
  std::atomic<bool> known{false};
  clockid_t clock{};  // its processor time

  void Arrive() {
    if (!known) {
      PinReceiver();
      pthread_getcpuclockid(pthread_self(), &clock);
      known = true;
    }
  }
  std::int64_t Nanoseconds() const {
    timespec used{};
    clock_gettime(clock, &used);
    return std::int64_t{used.tv_sec} * kSecond + used.tv_nsec;
  }
};

BOOL OnMessage(MDATA_BUFFER*, void* user, void*) {
  static_cast<Receiver*>(user)->Arrive();
  return TRUE;
}

void OnFloorMessage(const std::uint8_t*, std::size_t, void* user) {
  static_cast<Receiver*>(user)->Arrive();
}

MDATA_SRC_CFG EmptyConfig(Receiver& receiver) {
  MDATA_SRC_CFG config;
  std::memset(&config, 0, sizeof config);
  config.nSize = sizeof config;
  config.pfnCallback = OnMessage;
  config.pvUserParam1 = &receiver;
  return config;
}

std::int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * kSecond + now.tv_nsec;
}

void SleepUntil(std::int64_t time) {
  const timespec at = {time / kSecond, time % kSecond};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) != 0) continue;
}

struct Result {
  double seconds;
  double nanoseconds;  // of the receiving thread
};

// Takes a step at a time at a steady pace: a second to get going, then the seconds that are measured.
template <typename Step>
Result Pace(const Receiver& receiver, double seconds, std::int64_t distance, Step step) {
  PinSender();
  std::int64_t next = Now();
  const auto run = [&](double duration) {
    for (const std::int64_t end = next + static_cast<std::int64_t>(duration * kSecond); next < end; next += distance) {
      SleepUntil(next);
      step();
    }
  };
  run(1);
  Require(receiver.known, "nothing arrived");
  const std::int64_t start = Now();
  const std::int64_t used = receiver.Nanoseconds();
  run(seconds);
  return {static_cast<double>(Now() - start) / kSecond, static_cast<double>(receiver.Nanoseconds() - used)};
}

// --- Eight sources -----------------------------------------------------------------------------------

constexpr int kSources = 8;
constexpr int kSourceRelays = 2;
constexpr int kSourceRate = 60;

Result EightSources(Receiver& receiver, double seconds, const std::vector<std::uint16_t>& ports) {
  std::deque<Sender> senders;
  for (const std::uint16_t port : ports) senders.emplace_back(port, FlightMessages());
  std::size_t number = 0;
  // One after the other: as many wake-ups as messages.
  return Pace(receiver, seconds, kSecond / (kSourceRate * kSources),
              [&] { senders[number++ % senders.size()].Send(1); });
}

Result EightSourcesOurs(Receiver& receiver, double seconds) {
  LibraryConfig().realtimeThreads = true;
  UseLibrary(kDefaultLogLevel);
  static const std::deque<Sink> kSinks(kSourceRelays);
  MDATA_SRC_CFG config = EmptyConfig(receiver);
  config.nNumOfRelays = kSourceRelays;
  for (std::size_t i = 0; i < kSourceRelays; ++i) kSinks[i].Describe(config.Relays[i]);
  std::deque<UdpSource> sources;
  std::vector<std::uint16_t> ports(kSources);
  for (std::uint16_t& port : ports) port = sources.emplace_back(config).Port();
  return EightSources(receiver, seconds, ports);
}

Result EightSourcesFloor(Receiver& receiver, double seconds) {
  static const std::deque<Sink> kSinks(kSourceRelays);
  static FloorUdp udp = {};
  udp.count = kSources;
  udp.deliver = OnFloorMessage;
  udp.user = &receiver;
  std::vector<std::uint16_t> ports(kSources);
  for (std::size_t i = 0; i < kSources; ++i) {
    udp.sources[i].socket = BindLoopback(&ports[i]);
    udp.sources[i].relays = kSourceRelays;
    for (std::size_t k = 0; k < kSourceRelays; ++k) udp.sources[i].relaySockets[k] = kSinks[k].Connect();
  }
  Require(FloorUdpOpen(&udp) == 0, "no epoll instance");
  std::thread([] {
    for (;;) FloorUdpPass(&udp);
  }).detach();
  return EightSources(receiver, seconds, ports);
}

// --- Serial line ---------------------------------------------------------------------------------------

// A pseudo-terminal in raw mode.
struct Terminal {
  Terminal() {
    termios raw{};
    cfmakeraw(&raw);
    char name[64];
    Require(openpty(&master, &slave, name, &raw, nullptr) == 0, "no pseudo-terminal");
    path = name;
    fcntl(master, F_SETFL, O_NONBLOCK);
  }
  int master = -1;
  int slave = -1;
  std::string path;
};

// What a full line brings in a millisecond goes out every millisecond: ordinary traffic until the receiver is known.
Result FillLine(const Receiver& receiver, double seconds, const Terminal& terminal, const Bytes& ordinary,
                const Bytes& stream) {
  std::size_t at = 0;
  const Bytes* sent = &ordinary;
  return Pace(receiver, seconds, kSecond / 1000, [&] {
    for (std::size_t left = kBytesPerMs; left > 0;) {
      if (at == 0 && receiver.known) sent = &stream;
      const std::size_t piece = std::min(left, sent->size() - at);
      const ssize_t written = write(terminal.master, sent->data() + at, piece);
      if (written <= 0) return;  // the receiver is behind: a real line loses bytes, too
      at = (at + static_cast<std::size_t>(written)) % sent->size();
      left -= static_cast<std::size_t>(written);
    }
  });
}

// Some messages of each kind: the line takes a tenth of a second for them.
Bytes Ordinary(int dataType) {
  const std::vector<Bytes>& all = dataType == MDATA_DATA_KLV ? FlightMessages() : CotPairFrames();
  return Join({all.begin(), all.begin() + 10});
}

Bytes Repeat(const Bytes& period) {
  Bytes stream;
  while (stream.size() < 4096) stream.insert(stream.end(), period.begin(), period.end());
  return stream;
}

Result LineOurs(Receiver& receiver, double seconds, int dataType, const Bytes& stream) {
  static const Terminal kTerminal;
  LibraryConfig().realtimeThreads = true;
  LibraryConfig().serialDevices["/dev/ttyPS0"] = kTerminal.path;
  UseLibrary(kDefaultLogLevel);
  MDATA_SRC_CFG config = EmptyConfig(receiver);
  config.enInputType = MDATA_INPUT_SERIAL;
  config.enDataType = dataType;
  config.in.Serial.nBaudRate = kBaud;
  config.in.Serial.nDataBits = 8;
  config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 100;
  HMDATASRC source = nullptr;
  Require(MetaData_OpenSource(&config, &source), "the serial source cannot be opened");
  return FillLine(receiver, seconds, kTerminal, Ordinary(dataType), stream);
}

using Decode = size_t (*)(const std::uint8_t*, size_t, FloorDeliver, void*);

// Gathers what the line brings and decodes it as far as it is there.
[[noreturn]] void ReadLine(int descriptor, Decode decode, Receiver& receiver) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
  Bytes held(65'536);
  std::size_t size = 0;
  for (;;) {
    epoll_wait(epoll, &event, 1, -1);
    const ssize_t got = read(descriptor, held.data() + size, held.size() - size - 8);
    if (got > 0) size += static_cast<std::size_t>(got);
    const std::size_t done = decode(held.data(), size, OnFloorMessage, &receiver);
    size -= done;
    std::memmove(held.data(), held.data() + done, size);
  }
}

Result LineFloor(Receiver& receiver, double seconds, int dataType) {
  static const Terminal kTerminal;
  const Decode decode = dataType == MDATA_DATA_KLV ? FloorKlvStream : FloorCotStream;
  std::thread([decode, &receiver] { ReadLine(kTerminal.slave, decode, receiver); }).detach();
  const Bytes stream = Ordinary(dataType);
  return FillLine(receiver, seconds, kTerminal, stream, stream);
}

Result Measure(const std::string& name, double seconds, Receiver& receiver) {
  if (name == "eight_sources/ours") return EightSourcesOurs(receiver, seconds);
  if (name == "eight_sources/floor") return EightSourcesFloor(receiver, seconds);
  const int dataType = name.starts_with("line_klv") ? MDATA_DATA_KLV : MDATA_DATA_COT;
  if (name == "line_klv/floor" || name == "line_cot/floor") return LineFloor(receiver, seconds, dataType);
  if (name == "line_klv_hostile/hostile") return LineOurs(receiver, seconds, dataType, Repeat(NestedItems()));
  if (name == "line_cot_hostile/hostile") return LineOurs(receiver, seconds, dataType, Repeat(NestedCotHeaders()));
  return LineOurs(receiver, seconds, dataType, Ordinary(dataType));
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Require(argc == 3, "which workload, and for how many seconds?");
  const std::string name = argv[1];
  static bench::Receiver receiver;
  const bench::Result result = bench::Measure(name, std::atof(argv[2]), receiver);
  const double units = name.starts_with("eight") ? bench::kSourceRate * bench::kSources : bench::kBytesPerMs * 1000;
  std::printf("{\"ns\": %.2f, \"share\": %.5f, \"flight\": \"%s\"}\n", result.nanoseconds / result.seconds / units,
              result.nanoseconds / result.seconds / bench::kSecond, bench::FlightKind());
  std::fflush(stdout);
  std::_Exit(0);  // threads wait for ever
}
