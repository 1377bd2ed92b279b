// SPDX-License-Identifier: Apache-2.0
// Capture of the KLV of video inputs: queues, threads and the service.
//
// CONTENTS
//   Queue      passes packets from a back end's thread to the metadata thread
//   Room       holds the packets of files back until they can be taken
//   Inputs     hold the running captures
//   Streams    are captures beside the video inputs
//   Services   are called by the library
#define HOST_MODULE "capture"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

#include "capture.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace host_runtime {

using common::Lock;
using common::Mutex;

// --- Queue -------------------------------------------------------------------------------------------

bool CaptureQueue::Open() {
  m_readable.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  m_stop.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  return m_readable.IsOpen() && m_stop.IsOpen();
}

void CaptureQueue::Push(uint64_t timestamp, std::span<const uint8_t> klv) {
  if (klv.size() > m_largest) {
    Count(&HostCaptureStats::oversized);
    if (std::exchange(m_isLargestTold, true)) return;
    HOST_LOG(4, "%s: KLV packet of %zu bytes dropped, %zu at most can be passed on; others are only counted.\n",
             Label(), klv.size(), m_largest);
    return;
  }
  {
    const Lock guard(m_lock);
    if (m_packets.size() < kMostPackets && m_bytes + klv.size() <= kMostBytes) {
      m_packets.push_back({timestamp, {klv.begin(), klv.end()}});
      m_bytes += klv.size();
      ++m_stats.packets;
      m_stats.bytes += klv.size();
      if (m_packets.size() == 1) eventfd_write(m_readable.Get(), 1);
      return;
    }
    ++m_stats.overflows;
  }
  HOST_LOG(4, "%s: queue full, KLV packet of %zu bytes dropped.\n", Label(), klv.size());
}

void CaptureQueue::Count(uint64_t HostCaptureStats::*counter, uint64_t count) {
  const Lock guard(m_lock);
  std::invoke(counter, m_stats) += count;  // clang does not check "m_stats.*counter"
}

bool CaptureQueue::Wait(int fd, int64_t nanoseconds) {
  const int64_t end = MonotonicNs() + nanoseconds;
  while (!IsStopping()) {
    const int64_t left = std::max<int64_t>(0, end - MonotonicNs());
    pollfd wait[2] = {{m_stop.Get(), POLLIN, 0}, {fd, POLLIN, 0}};
    const auto ms = static_cast<int>(std::min<int64_t>((left + 999'999) / 1'000'000, 1'000'000));
    const int ready = poll(wait, fd >= 0 ? 2 : 1, ms);
    if (ready > 0 && wait[0].revents == 0) return true;
    if (ready == 0 && MonotonicNs() >= end) return false;
    if (ready < 0 && errno != EINTR) return false;
  }
  return false;
}

void CaptureQueue::Stop() {
  __atomic_store_n(&m_stopping, true, __ATOMIC_RELAXED);
  eventfd_write(m_stop.Get(), 1);
}

// Takes the next packet out, and counts it as taken if it is not larger than the room.
std::optional<CaptureQueue::Packet> CaptureQueue::Next(size_t room) {
  const Lock guard(m_lock);
  if (m_packets.empty()) return std::nullopt;
  Packet packet = std::move(m_packets.front());
  m_packets.pop_front();
  m_bytes -= packet.klv.size();
  ++(packet.klv.size() > room ? m_stats.oversized : m_stats.taken);
  eventfd_t count = 0;
  if (m_packets.empty()) eventfd_read(m_readable.Get(), &count);
  return packet;
}

bool CaptureQueue::Take(std::vector<uint8_t>& klv) {
  auto packet = Next(SIZE_MAX);
  if (packet) klv = std::move(packet->klv);
  return packet.has_value();
}

bool CaptureQueue::Pop(BYTE* pcData, int* pnLength, UINT64* pnTimeStamp) {
  const size_t room = *pnLength < 0 ? 0 : static_cast<size_t>(*pnLength);
  while (const auto packet = Next(room)) {
    if (packet->klv.size() > room) {
      HOST_LOG(4, "%s: KLV packet of %zu bytes dropped, there is room for %zu.\n", Label(), packet->klv.size(), room);
      continue;
    }
    std::copy(packet->klv.begin(), packet->klv.end(), pcData);
    *pnLength = static_cast<int>(packet->klv.size());
    *pnTimeStamp = packet->timestamp;
    return true;
  }
  return false;
}

HostCaptureStats CaptureQueue::Stats() const {
  const Lock guard(m_lock);
  return m_stats;
}

HostCaptureState CaptureQueue::State() const {
  using Phase = HostCaptureState::Phase;
  const Lock guard(m_lock);
  return {m_hasEnded && m_packets.empty() ? Phase::Ended : Phase::Running, m_fault};
}

void CaptureQueue::End() {
  const Lock guard(m_lock);
  m_hasEnded = true;
}

void CaptureQueue::SetFault(const std::string& fault) {
  {
    const Lock guard(m_lock);
    if (m_fault == fault) return;
    m_fault = fault;
  }
  if (fault.empty()) {
    HOST_LOG(5, "%s: the stream is there.\n", Label());
  } else {
    HOST_LOG(3, "%s: %s; trying again every second.\n", Label(), fault.c_str());
  }
}

// --- Room --------------------------------------------------------------------------------------------
// The packets of a file that wait in a queue, and the messages that the program holds, may become messages of several
// captures at once. Each capture therefore takes a part of the room only.

namespace {

constexpr size_t kPart = 8;
constexpr size_t kMostAhead = 48;  // the library warns if it finds 60 at once
constexpr int64_t kRoomWait = 1'000'000;

struct RoomState {
  Mutex lock;  // leaf
  std::shared_ptr<const std::function<size_t()>> room GUARDED_BY(lock);
};

RoomState& Room() {
  static auto* const kRoom = new RoomState;
  return *kRoom;
}

size_t ProgramRoom() {
  std::shared_ptr<const std::function<size_t()>> room;
  {
    const Lock guard(Room().lock);
    room = Room().room;
  }
  return room != nullptr ? (*room)() : CaptureQueue::kMostPackets;
}

}  // namespace

bool CaptureQueue::HasRoom() const {
  const size_t room = ProgramRoom();
  const Lock guard(m_lock);
  return room != 0 && m_packets.size() < std::clamp(room / kPart, size_t{1}, kMostAhead) && m_bytes < kMostBytes / 2;
}

bool CaptureQueue::AwaitRoom() {
  while (!IsStopping() && !HasRoom()) Wait(-1, kRoomWait);
  return !IsStopping();
}

// --- Inputs ------------------------------------------------------------------------------------------
// The metadata thread starts and stops them, any thread may read them. They are never destroyed.

namespace {

class Capture {
 public:
  // `label` begins the lines of the log. Without `largest` the taker of the packets says how large they may be.
  Capture(std::string label, std::string thread, std::unique_ptr<CaptureBackend> backend, size_t largest = SIZE_MAX)
      : m_name(std::move(thread)), m_backend(std::move(backend)), m_queue(std::move(label), largest) {}
  ~Capture() { Stop(); }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  bool Start() {
    if (!m_queue.Open()) {
      HOST_LOG(3, "%s: no descriptors: %s.\n", m_queue.Label(), strerror(errno));
      return false;
    }
    if (!m_backend->Open(m_queue)) return false;
    return CreateThread(&m_thread, m_name.c_str(), 0, 0, &Capture::Run, this) && StartThread(m_thread);
  }
  void Stop() {
    if (m_thread == nullptr) return;
    m_queue.Stop();
    WaitForThread(m_thread);
    m_thread = nullptr;
  }
  CaptureQueue& Queue() { return m_queue; }
  const CaptureQueue& Queue() const { return m_queue; }

 private:
  static DWORD Run(void* pvCapture) {
    auto* capture = static_cast<Capture*>(pvCapture);
    NoThrow([&] { capture->m_backend->Run(capture->m_queue); });
    return 0;
  }

  const std::string m_name;  // of the thread
  std::unique_ptr<CaptureBackend> m_backend;
  CaptureQueue m_queue;
  HTHREAD m_thread = nullptr;
};

struct Inputs {
  Mutex lock;  // taken before a queue's; never held while waiting for a thread
  std::array<std::shared_ptr<Capture>, kHostVideoInputs> captures GUARDED_BY(lock);
  std::array<HostCaptureStats, kHostVideoInputs> last GUARDED_BY(lock);  // counts of the last capture that was stopped

  std::shared_ptr<Capture> Find(int fd) {
    const Lock guard(lock);
    for (const auto& capture : captures) {
      if (capture != nullptr && capture->Queue().FD() == fd) return capture;
    }
    return nullptr;
  }
};

Inputs& AllInputs() {
  static auto* const kInputs = new Inputs;
  return *kInputs;
}

bool IsInput(int input) {
  return input >= 0 && input < kHostVideoInputs;
}

std::unique_ptr<CaptureBackend> MakeBackend(const HostCaptureConfig& config) {
  switch (config.kind) {
    case HostCaptureConfig::Kind::Media:
      return MakeUrlBackend(config);
    case HostCaptureConfig::Kind::Anc:
      return MakeAncBackend(config);
    case HostCaptureConfig::Kind::Socket:
      return MakeSocketBackend(config);
    case HostCaptureConfig::Kind::None:
      break;
  }
  return nullptr;
}

BOOL Start(int input, VIDEO_EXTRACTOR* pExtractor) {
  const auto index = static_cast<size_t>(input);
  {
    const Lock guard(AllInputs().lock);
    if (AllInputs().captures[index] != nullptr) {
      HOST_LOG(3, "Video input %d is captured already.\n", input);
      return FALSE;
    }
  }
  auto backend = MakeBackend(Config()->captures[index]);
  if (backend == nullptr) {
    HOST_LOG(3, "Video input %d has no capture configured.\n", input);
    return FALSE;
  }
  const std::string number = std::to_string(input);
  auto capture = std::make_shared<Capture>("Video input " + number, "KLV video " + number, std::move(backend));
  if (!capture->Start()) return FALSE;
  pExtractor->iFD = capture->Queue().FD();
  const Lock guard(AllInputs().lock);
  AllInputs().captures[index] = std::move(capture);
  return TRUE;
}

// --- Streams -----------------------------------------------------------------------------------------

class Stream : public HostStream {
 public:
  Stream(const HostCaptureConfig& config, const std::string& name, size_t largest)
      : m_capture("Source " + name, "KLV stream", MakeBackend(config), largest) {}

  bool Start() { return m_capture.Start(); }
  int FD() const override { return m_capture.Queue().FD(); }
  bool Take(std::vector<uint8_t>& message) override {
    return NoThrow(false, [&] { return m_capture.Queue().Take(message); });
  }
  HostCaptureState State() const override {
    return NoThrow(HostCaptureState{}, [&] { return m_capture.Queue().State(); });
  }
  HostCaptureStats Stats() const override { return m_capture.Queue().Stats(); }

 private:
  Capture m_capture;
};

}  // namespace
}  // namespace host_runtime

// --- Services ----------------------------------------------------------------------------------------

using namespace host_runtime;
using common::Lock;

void HostRuntime_OnRoom(std::function<size_t()> room) {
  NoThrow([&] {
    auto fresh = room ? std::make_shared<const std::function<size_t()>>(std::move(room)) : nullptr;
    const Lock guard(Room().lock);
    Room().room.swap(fresh);
  });
}

HostCaptureState HostRuntime_CaptureState(int input) {
  if (!IsInput(input)) return {};
  return NoThrow(HostCaptureState{}, [&] {
    const auto index = static_cast<size_t>(input);
    const Lock guard(AllInputs().lock);
    const auto& capture = AllInputs().captures[index];
    return capture != nullptr ? capture->Queue().State() : HostCaptureState{};
  });
}

std::unique_ptr<HostStream> HostRuntime_OpenStream(const HostCaptureConfig& config, const std::string& name,
                                                   size_t largest) {
  if (config.kind == HostCaptureConfig::Kind::None) return nullptr;
  return NoThrow(std::unique_ptr<HostStream>(), [&]() -> std::unique_ptr<HostStream> {
    auto stream = std::make_unique<Stream>(config, name, largest);
    if (!stream->Start()) return nullptr;
    return stream;
  });
}

HostCaptureStats HostRuntime_CaptureStats(int input) {
  if (!IsInput(input)) return {};
  const auto index = static_cast<size_t>(input);
  const Lock guard(AllInputs().lock);
  const auto& capture = AllInputs().captures[index];
  return capture != nullptr ? capture->Queue().Stats() : AllInputs().last[index];
}

extern "C" {

BOOL KLVCAPTURE_Start(int iInterface, VIDEO_EXTRACTOR* pExtractor) {
  if (pExtractor == nullptr) return FALSE;
  if (!IsInput(iInterface)) {
    HOST_LOG(3, "There is no video input %d.\n", iInterface);
    return FALSE;
  }
  return NoThrow(FALSE, [&] { return Start(iInterface, pExtractor); });
}

void KLVCAPTURE_Stop(int iInterface) {
  if (!IsInput(iInterface)) return;
  NoThrow([&] {
    const auto index = static_cast<size_t>(iInterface);
    std::shared_ptr<Capture> capture;
    {
      const Lock guard(AllInputs().lock);
      capture = AllInputs().captures[index];
    }
    if (capture == nullptr) return;
    capture->Stop();
    const Lock guard(AllInputs().lock);
    AllInputs().last[index] = capture->Queue().Stats();
    AllInputs().captures[index] = nullptr;
  });
}

BOOL KLVCAPTURE_GetKLV(int iFD, BYTE* pcData, int* pnLength, UINT64* pnTimeStamp) {
  if (iFD < 0 || pcData == nullptr || pnLength == nullptr || pnTimeStamp == nullptr) return FALSE;
  return NoThrow(FALSE, [&] {
    const auto capture = AllInputs().Find(iFD);
    return capture != nullptr && capture->Queue().Pop(pcData, pnLength, pnTimeStamp) ? TRUE : FALSE;
  });
}

}  // extern "C"
