// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Allowance   limits lines and openings
//   Opening     tries, opens, closes and opens again
//   Network     looks at what changed
//   Names       are those of the relays' destinations
//   Inputs      are the front ends of sources on TAK networks, and of streams without a video input
//   Lines       say what a source waits for
//   Reload      applies a new configuration
//   Counts      are read, reset and restored, whether a source is open or not
#include "source_keeper.h"

#include <netinet/in.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <nlohmann/json.hpp>
#include <utility>

#include "ini_file.h"
#include "relay_graph.h"
#include "relay_names.h"
#include "stream_url.h"

namespace mdencoder {
namespace {

using namespace std::chrono_literals;

constexpr auto kRetry = 2s;
// An opening that the library refused wrote lines to the log.
constexpr auto kLongestOpeningPause = 30s;
// Links, addresses and routes change together.
constexpr auto kSettle = 200ms;

constexpr auto kCaptureInterval = 500ms;
constexpr auto kNamesInterval = 1s;
constexpr auto kAnswerInterval = 50ms;  // of looks for an answer that is due soon
constexpr auto kLongestAnswer = 10s;    // of a source that must be open at once

constexpr double kLinesAtOnce = 6;
constexpr auto kLineEach = 60s;
constexpr double kOpeningsAtOnce = 3;
constexpr auto kOpeningEach = 5s;

}  // namespace

// --- Allowance ---------------------------------------------------------------------------------------

void Allowance::Fill(Clock::time_point now) {
  if (m_filled != Clock::time_point{}) m_left = std::min(m_atOnce, m_left + (now - m_filled) / m_each);
  m_filled = now;
}

bool Allowance::Take(Clock::time_point now) {
  Fill(now);
  if (m_left < 1) return false;
  m_left -= 1;
  return true;
}

Allowance::Clock::time_point Allowance::Next(Clock::time_point now) const {
  Allowance filled = *this;
  filled.Fill(now);
  if (filled.m_left >= 1) return now;
  // A millisecond more, so that rounding does not make Take fail then.
  return now + std::chrono::ceil<std::chrono::milliseconds>((1 - filled.m_left) * m_each) + 1ms;
}

struct SourceKeeper::Entry {
  Entry(const SourceSettings& given, void* context, const AskName& ask)
      : settings(given), source(settings), tap{context, &source}, names(ask) {
    statistics.iSrcTTL = statistics.iSrcTOS = -1;
  }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  bool IsOpen() const { return handle != nullptr; }

  SourceSettings settings;
  Source source;
  Tap tap;
  DWORD capabilities = 0;
  SourceState state = SourceState::Waiting;
  HMDATASRC handle = nullptr;    // of an open source
  MDATA_SRC_STATS statistics{};  // while it is not open: those that it is opened with
  bool hasStatistics = false;
  bool wasOpen = false;
  uint64_t reopened = 0;
  Place place;
  RelayNames names;
  std::unique_ptr<Replay> replay;  // from the first opening on, of a source whose url is a capture file
  Clock::time_point nextTry{};
  std::chrono::seconds pause = kRetry;  // after an opening that the library refused
  Allowance openings{kOpeningsAtOnce, kOpeningEach};

  uint16_t libraryPort = 0;          // of an open UDP source, as the library knows it
  std::unique_ptr<TakInput> input;   // of an open source on a TAK network
  std::unique_ptr<StreamFeed> feed;  // of an open source whose url has no video input
  HostCaptureStats fed;              // counts of the feed before
  TakCounts ended;                   // counts of inputs that ended
  uint64_t refused = 0;              // events that were told to be refused
  Allowance refusals{1, kLineEach};

  std::string reason;  // of the trouble; empty without one
  Clock::time_point since{};
  bool isTold = false;
  unsigned untold = 0;  // troubles that came and went without a line
  Allowance lines{kLinesAtOnce, kLineEach};
};

SourceKeeper::SourceKeeper(const Library& library, MDATA_READY_CALLBACK callback, void* context, HostRuntimeConfig host,
                           Reach reach, Say say, Captures captures)
    : m_library(library),
      m_callback(callback),
      m_context(context),
      m_host(std::move(host)),
      m_reach(std::move(reach)),
      m_say(std::move(say)),
      m_captures(std::move(captures)) {}

SourceKeeper::~SourceKeeper() = default;

// --- Opening -----------------------------------------------------------------------------------------

Source& SourceKeeper::Add(const SourceSettings& settings, DWORD capabilities) {
  const auto returned = std::find_if(m_entries.begin(), m_entries.end(), [&](const auto& entry) {
    return entry->state == SourceState::Removed && IsSameSource(entry->settings, settings);
  });
  if (returned == m_entries.end()) {
    m_entries.push_back(std::make_unique<Entry>(settings, m_context, m_reach.ask));
  } else {
    std::rotate(returned, returned + 1, m_entries.end());
  }
  Entry& entry = *m_entries.back();
  if (entry.hasStatistics) entry.statistics = ContinuedStatistics(entry.settings, settings, entry.statistics);
  entry.settings = settings;
  entry.names.Configure(settings);
  entry.capabilities = capabilities;
  entry.state = SourceState::Waiting;
  entry.nextTry = {};
  return entry.source;
}

// Queued messages may refer to a source that was open before.
void SourceKeeper::Discard(const Source& source) {
  for (const auto& entry : m_entries) {
    if (&entry->source == &source && entry->wasOpen) entry->state = SourceState::Removed;
  }
  std::erase_if(m_entries, [&](const auto& entry) { return &entry->source == &source && !entry->wasOpen; });
}

void SourceKeeper::Preset(const std::string& name, const MDATA_SRC_STATS& statistics) {
  if (Entry* entry = Find(name)) {
    entry->statistics = statistics;
    entry->hasStatistics = true;
  }
}

SourceKeeper::Entry* SourceKeeper::Find(const std::string& name) {
  const auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const auto& entry) {
    return entry->state != SourceState::Removed && entry->settings.name == name;
  });
  return found == m_entries.end() ? nullptr : found->get();
}

// Tells whether another source has started the capture of this video input, which holds its port or file.
bool SourceKeeper::IsCaptured(const Entry& entry) const {
  return std::any_of(m_entries.begin(), m_entries.end(), [&](const auto& other) {
    return other.get() != &entry && other->IsOpen() && other->settings.record.enInputType == MDATA_INPUT_VIDEO &&
           other->settings.record.in.Video.enInputInterface == entry.settings.record.in.Video.enInputInterface;
  });
}

// Tells whether no other source has this video input, and no key `interface` names it.
bool SourceKeeper::IsInputFree(const Entry& entry, int32_t input) const {
  return std::none_of(m_entries.begin(), m_entries.end(), [&](const auto& other) {
    const SourceSettings& settings = other->settings;
    if (other.get() == &entry || other->state == SourceState::Removed) return false;
    if (settings.record.enInputType != MDATA_INPUT_VIDEO || settings.record.in.Video.enInputInterface != input) {
      return false;
    }
    return other->IsOpen() || !settings.capture;
  });
}

// Gives a source with a url a video input. That of the configuration may be another source's after a reload.
void SourceKeeper::TakeInput(Entry& entry) const {
  if (!entry.settings.capture || IsFed(entry.settings)) return;
  int32_t& input = entry.settings.record.in.Video.enInputInterface;
  for (int32_t each = 0; each < kHostVideoInputs && !IsInputFree(entry, input); ++each) input = each;
  if (m_captures.set) m_captures.set(input, *entry.settings.capture);
}

// A source that is opened again goes on in its file.
void SourceKeeper::BeginReplay(Entry& entry) const {
  if (!entry.settings.replay) return;
  if (!entry.replay) {
    entry.replay = std::make_unique<Replay>(entry.settings.name, *entry.settings.replay,
                                            Replay::Surroundings{[this] { return RoomOfOne(); }, m_say});
  }
  entry.replay->SendTo(entry.settings.record.in.Network.usUDPPort);
}

HostCaptureState SourceKeeper::CaptureState(const Entry& entry) const {
  if (entry.feed) return entry.feed->State();
  if (!entry.IsOpen() || !entry.settings.capture || !m_captures.state) return {};
  return m_captures.state(entry.settings.record.in.Video.enInputInterface);
}

// Returns the source's port, or a number that stands for it in the library if another open source has it: the library
// refuses a second source on a port, also one of another group.
uint16_t SourceKeeper::LibraryPort(const Entry& entry) const {
  const auto isTaken = [&](unsigned port) {
    return std::any_of(m_entries.begin(), m_entries.end(), [&](const auto& other) {
      return other.get() != &entry && other->settings.record.enInputType == MDATA_INPUT_NETWORK && other->IsOpen() &&
             other->libraryPort == port;
    });
  };
  const auto isConfigured = [&](unsigned port) {
    return std::any_of(m_entries.begin(), m_entries.end(), [&](const auto& other) {
      return other->settings.record.enInputType == MDATA_INPUT_NETWORK &&
             other->settings.record.in.Network.usUDPPort == port;
    });
  };
  const uint16_t wanted = entry.settings.record.in.Network.usUDPPort;
  if (wanted == 0 || !isTaken(wanted)) return wanted;
  uint16_t port = 1;
  while (isTaken(port) || isConfigured(port)) ++port;
  return port;
}

std::string SourceKeeper::ObstacleTo(const Entry& entry) const {
  if (entry.settings.record.enInputType == MDATA_INPUT_VIDEO && IsCaptured(entry)) return {};
  if (entry.settings.record.enInputType != MDATA_INPUT_NETWORK) return m_reach.obstacle(entry.settings, m_host);
  // The library makes sockets only of the families that it was started with.
  SourceSettings asked = entry.settings;
  int32_t& family = asked.record.in.Network.iSrcAddressFamily;
  if (family == 0 && (entry.capabilities & METADATALIB_CAPS_IPV6_SUPPORT) == 0) family = AF_INET;
  if (family == 0 && (entry.capabilities & METADATALIB_CAPS_IPV4_SUPPORT) == 0) family = AF_INET6;
  return m_reach.obstacle(asked, m_host);
}

// Each attempt that gets this far writes lines to the log.
void SourceKeeper::PutOff(Entry& entry, const std::string& reason, Clock::time_point now) {
  entry.nextTry = now + entry.pause;
  entry.pause = std::min<std::chrono::seconds>(entry.pause * 2, kLongestOpeningPause);
  Trouble(entry, reason, now);
}

bool SourceKeeper::TryOpen(Entry& entry, Clock::time_point now) {
  if (!HasAddresses(entry, now)) return false;
  const std::string obstacle = entry.settings.retry ? ObstacleTo(entry) : "";
  entry.nextTry = now + kRetry;
  if (!obstacle.empty()) {
    Trouble(entry, obstacle, now);
    return false;
  }
  TakeInput(entry);
  if (entry.settings.replay || IsFed(entry.settings)) entry.settings.record.in.Network.usUDPPort = FreePort();
  try {
    if (!MakeFeed(entry, now)) return false;
    MakeInput(entry);
  } catch (const std::exception& error) {
    Trouble(entry, error.what(), now);
    if (!entry.settings.retry) Tell(entry, now);
    return false;
  }
  MDATA_SRC_CFG record = entry.settings.record;
  record.pfnCallback = m_callback;
  record.pvUserParam1 = &entry.tap;
  entry.place = entry.settings.retry ? m_reach.locate(entry.settings, m_host) : Place{};
  entry.source.Restart();
  entry.source.SetWaitsForRoom(WaitsForRoom(entry.settings));
  HMDATASRC handle = nullptr;
  HostReception reception = entry.settings.reception;
  if (record.enInputType == MDATA_INPUT_NETWORK) {
    entry.libraryPort = LibraryPort(entry);
    if (entry.libraryPort != record.in.Network.usUDPPort) {
      reception.port = std::exchange(record.in.Network.usUDPPort, entry.libraryPort);
    }
  }
  m_setReception(reception);
  const bool isOpen = m_library.openSource(&record, &handle) != FALSE;
  m_setReception({});
  if (!isOpen) {
    PutOff(entry, "the library cannot open it; the log tells why", now);
    EndInput(entry);
    return false;
  }
  entry.handle = handle;
  entry.names.ForgetErrors();
  if (entry.hasStatistics) m_library.setSourceStats(handle, &entry.statistics);
  entry.state = SourceState::Open;
  entry.pause = kRetry;
  BeginReplay(entry);
  if (std::exchange(entry.wasOpen, true)) ++entry.reopened;
  Health health;
  if (entry.settings.retry) health = m_reach.examine(entry.settings, m_host, entry.place);
  if (!health.fault.empty()) {
    entry.state = SourceState::CutOff;
    Trouble(entry, health.fault, now);
  } else {
    if (health.needsReopen) m_examineAt = now + kSettle;
    Recover(entry, now);
  }
  if (entry.input) entry.input->Start();
  if (entry.feed) entry.feed->SendTo(entry.settings.record.in.Network.usUDPPort);
  return true;
}

const Source* SourceKeeper::OpenAll(Clock::time_point now) {
  for (const auto& entry : m_entries) {
    if (entry->state != SourceState::Waiting) continue;
    if (!TryOpen(*entry, now) && !entry->settings.retry) return &entry->source;
  }
  return nullptr;
}

void SourceKeeper::Close(Entry& entry) {
  if (!entry.IsOpen()) return;
  if (entry.replay) entry.replay->SendTo(0);
  EndInput(entry);
  MDATA_SRC_STATS statistics{};
  m_library.getSourceStats(entry.handle, &statistics);
  if (!m_library.closeSource(&entry.handle)) {
    m_failed = true;
    m_say(true, "source " + entry.settings.name + " cannot be closed");
  }
  entry.handle = nullptr;  // the library does not change it
  entry.statistics = statistics;
  entry.hasStatistics = true;
  entry.state = SourceState::Waiting;
}

void SourceKeeper::CloseAll() {
  for (const auto& entry : m_entries) entry->replay.reset();
  for (const auto& entry : m_entries) {
    // The summary tells the state at the end of the run.
    const SourceState state = entry->state;
    Close(*entry);
    entry->state = state;
  }
}

// Sources of one video input share its capture, which ends when the last of them is closed.
void SourceKeeper::Reopen(Entry& entry, Clock::time_point now) {
  std::vector<Entry*> all = {&entry};
  if (entry.settings.record.enInputType == MDATA_INPUT_VIDEO) {
    for (const auto& other : m_entries) {
      if (other.get() != &entry && other->IsOpen() && other->settings.record.enInputType == MDATA_INPUT_VIDEO &&
          other->settings.record.in.Video.enInputInterface == entry.settings.record.in.Video.enInputInterface) {
        all.push_back(other.get());
      }
    }
  }
  for (Entry* each : all) {
    Close(*each);
    each->statistics = ContinuedStatistics(each->settings, each->settings, each->statistics);
  }
  for (Entry* each : all) {
    const bool wasTold = !each->reason.empty();
    if (TryOpen(*each, now) && !wasTold && each->reason.empty() && each->lines.Take(now)) {
      m_say(false, "source " + each->settings.name + " was opened again, because its interface or address changed");
    }
  }
}

void SourceKeeper::Tick(Clock::time_point now) {
  for (const auto& entry : m_entries) {
    if (entry->state == SourceState::Waiting && entry->settings.retry && now >= entry->nextTry) TryOpen(*entry, now);
  }
  if (m_examineAt && now >= *m_examineAt) {
    m_examineAt.reset();
    Examine(now);
  }
  if (now >= m_nextLook) LookAtCaptures(now);
  if (now >= m_nextNames) LookAtNames(now);
  for (const auto& entry : m_entries) {
    if (entry->input) LookAtInput(*entry, now);
    if (!entry->reason.empty() && !entry->isTold) Tell(*entry, now);
  }
}

SourceKeeper::Clock::time_point SourceKeeper::Due(Clock::time_point now) const {
  auto due = Clock::time_point::max();
  if (m_examineAt) due = *m_examineAt;
  for (const auto& entry : m_entries) {
    if (entry->state == SourceState::Waiting && entry->settings.retry) due = std::min(due, entry->nextTry);
    if (!entry->reason.empty() && !entry->isTold) due = std::min(due, entry->lines.Next(now));
    if (entry->IsOpen() && entry->settings.capture) due = std::min(due, m_nextLook);
    if (entry->IsOpen() && entry->settings.retry && !entry->names.IsEmpty()) due = std::min(due, m_nextNames);
  }
  return due;
}

// --- Network -----------------------------------------------------------------------------------------

void SourceKeeper::OnNetwork(const NetworkChanges& changes, Clock::time_point now) {
  if (!changes.any) return;
  for (const auto& entry : m_entries) {
    if (entry->input) entry->input->NetworkChanged();
    const auto& links = changes.removedLinks;
    // Its successor may have the same number.
    if (std::find(links.begin(), links.end(), entry->place.interface) != links.end()) entry->place.interface = 0;
    if (entry->state == SourceState::Waiting && entry->pause == kRetry) {
      entry->nextTry = std::min(entry->nextTry, now + kSettle);
    }
  }
  if (!m_examineAt) m_examineAt = now + kSettle;
}

void SourceKeeper::Examine(Clock::time_point now) {
  for (const auto& entry : m_entries) {
    if (!entry->IsOpen() || !entry->settings.retry) continue;
    Examine(*entry, now);
  }
}

// What a stream lacks the host finds out itself, and it goes on trying.
Health SourceKeeper::HealthOf(const Entry& entry) const {
  Health health = m_reach.examine(entry.settings, m_host, entry.place);
  if (health.fault.empty() && !health.needsReopen) health.fault = CaptureState(entry).fault;
  return health;
}

void SourceKeeper::LookAtCaptures(Clock::time_point now) {
  m_nextLook = now + kCaptureInterval;
  for (const auto& entry : m_entries) {
    if (!entry->IsOpen() || !entry->settings.capture || !entry->settings.retry) continue;
    if (CaptureState(*entry).fault != entry->reason) Examine(*entry, now);
  }
}

void SourceKeeper::Examine(Entry& entry, Clock::time_point now) {
  const Health health = HealthOf(entry);
  if (health.needsReopen) {
    if (entry.openings.Take(now)) {
      Reopen(entry, now);
    } else {
      const auto next = entry.openings.Next(now);
      m_examineAt = m_examineAt ? std::min(*m_examineAt, next) : next;
    }
  } else if (!health.fault.empty()) {
    entry.state = SourceState::CutOff;
    Trouble(entry, health.fault, now);
  } else if (entry.state == SourceState::CutOff && (!entry.input || entry.input->Trouble().empty())) {
    entry.state = SourceState::Open;
    Recover(entry, now);
  }
}

// --- Names -------------------------------------------------------------------------------------------

// Puts the addresses of the relays into the record. Returns false if there are none yet, or if one leads back.
bool SourceKeeper::HasAddresses(Entry& entry, Clock::time_point now) {
  RelayNames& names = entry.names;
  if (names.IsEmpty()) return true;
  names.Update(now);
  if (!entry.settings.retry && names.IsAsking()) {
    names.Wait(kLongestAnswer);
    names.Update(now);
  }
  const bool isAsking = names.IsAsking();
  // Who has waited in vain says so at once.
  std::string fault = names.Fault(entry.settings.retry ? now : now + kLongestAnswer);
  if (fault.empty() && names.AreKnown()) {
    SourceSettings filled = entry.settings;
    names.Fill(filled);
    fault = WayBack(entry, filled);
    if (fault.empty()) {
      entry.settings = filled;
      return true;
    }
    names.ForgetAddresses();
  }
  entry.nextTry = now + (isAsking ? std::chrono::milliseconds(kAnswerInterval) : std::chrono::milliseconds(kRetry));
  if (!fault.empty()) Trouble(entry, fault, now);
  if (!entry.settings.retry) Tell(entry, now);
  return false;
}

// Returns what is wrong with relays that lead back to their source, directly or through others that are open. The check of
// the configuration could not see it.
std::string SourceKeeper::WayBack(const Entry& entry, const SourceSettings& settings) const {
  Config config;
  config.encoder.capabilities = entry.capabilities;
  for (const auto& other : m_entries) {
    if (other.get() != &entry && other->IsOpen()) config.sources.push_back(other->settings);
  }
  config.sources.push_back(settings);
  try {
    CheckRelays(config, ThisMachine());
  } catch (const ConfigError& error) {
    return error.what();
  }
  return {};
}

void SourceKeeper::LookAtNames(Clock::time_point now) {
  m_nextNames = now + kNamesInterval;
  for (const auto& entry : m_entries) {
    if (entry->IsOpen() && entry->settings.retry && !entry->names.IsEmpty()) LookAtNames(*entry, now);
  }
}

// The library keeps the sockets of its relays until the source is closed.
void SourceKeeper::LookAtNames(Entry& entry, Clock::time_point now) {
  MDATA_SRC_STATS statistics{};
  m_library.getSourceStats(entry.handle, &statistics);
  entry.names.Look(statistics, now);
  entry.names.Update(now);
  if (!entry.names.WouldChange(entry.settings) || !entry.openings.Take(now)) return;
  Close(entry);
  entry.statistics = ContinuedStatistics(entry.settings, entry.settings, entry.statistics);
  const std::vector<size_t> changed = entry.names.Fill(entry.settings);
  if (!TryOpen(entry, now) || !entry.lines.Take(now)) return;
  for (const size_t relay : changed) {
    const MDATA_RELAY_CFG& record = entry.settings.record.Relays[relay];
    m_say(false, "source " + entry.settings.name + " relays to " + RelayText(entry.settings, relay) + " at " +
                     AddressText(record.iDestAddressFamily, record.acDestAddress) + " from now on");
  }
}

// --- Inputs ------------------------------------------------------------------------------------------

namespace {

TakCounts Sum(const TakCounts& a, const TakCounts& b) {
  TakCounts sum;
  for (const auto count : {&TakCounts::bytes, &TakCounts::datagrams, &TakCounts::connections, &TakCounts::events,
                           &TakCounts::forwarded, &TakCounts::otherKinds, &TakCounts::otherAircraft, &TakCounts::faulty,
                           &TakCounts::tooLong, &TakCounts::shortened, &TakCounts::notSent}) {
    sum.*count = a.*count + b.*count;
  }
  return sum;
}

}  // namespace

// Makes the input of a source on a TAK network, and gives its port to the record. Throws std::runtime_error.
void SourceKeeper::MakeInput(Entry& entry) {
  if (!entry.settings.tak) return;
  entry.input = std::make_unique<TakInput>(*entry.settings.tak, entry.settings.retry);
  entry.settings.record.in.Network.usUDPPort = entry.input->Port();
}

// Each may take a part of the room, which shrinks if there are many.
size_t SourceKeeper::RoomOfOne() const {
  constexpr size_t kSharing = 8;  // that the parts are made for
  const size_t room = m_captures.room ? m_captures.room() : 1;
  const size_t feeding = std::max(m_feeding.load(), kSharing);
  return room == 0 ? 0 : std::max(room * kSharing / feeding, size_t{1});
}

// A replay and a feed send only what there is room for, and so does the host with a file; a network does not ask.
bool SourceKeeper::WaitsForRoom(const SourceSettings& settings) const {
  if (settings.replay || IsFed(settings)) return true;
  if (settings.record.enInputType != MDATA_INPUT_VIDEO) return false;
  const HostCaptureConfig& capture = CaptureOf(settings, m_host);
  return capture.kind == HostCaptureConfig::Kind::Media && !stream_url::IsLive(capture.path);
}

// Opens the stream of a source that is fed. Returns false if it cannot be opened.
bool SourceKeeper::MakeFeed(Entry& entry, Clock::time_point now) {
  m_feeding = static_cast<size_t>(std::count_if(m_entries.begin(), m_entries.end(), [](const auto& each) {
    return each->state != SourceState::Removed && (each->settings.replay || IsFed(each->settings));
  }));
  if (!IsFed(entry.settings)) return true;
  auto stream = m_captures.open ? m_captures.open(*entry.settings.capture, entry.settings.name) : nullptr;
  if (stream == nullptr) {
    PutOff(entry, "its url cannot be opened; the log tells why", now);
    return false;
  }
  entry.feed = std::make_unique<StreamFeed>(std::move(stream), [this] { return RoomOfOne(); });
  return true;
}

void SourceKeeper::EndInput(Entry& entry) {
  if (const auto feed = std::move(entry.feed)) entry.fed = feed->Stats();
  if (!entry.input) return;
  // What it counts while it ends is little, but not nothing.
  auto input = std::move(entry.input);
  input->Stop();
  entry.ended = Sum(entry.ended, input->Counts());
}

void SourceKeeper::LookAtInput(Entry& entry, Clock::time_point now) {
  std::string trouble = entry.input->Trouble();
  if (!trouble.empty() && entry.input->HasGivenUp()) {
    trouble += "; it is not tried again (retry = no)";
    m_failed = true;
  }
  if (!trouble.empty()) {
    entry.state = SourceState::CutOff;
    Trouble(entry, trouble, now);
  } else if (entry.state == SourceState::CutOff && m_reach.examine(entry.settings, m_host, entry.place).fault.empty()) {
    entry.state = SourceState::Open;
    Recover(entry, now);
  }
  const TakCounts counts = Sum(entry.ended, entry.input->Counts());
  const uint64_t refused = counts.faulty + counts.tooLong;
  if (refused == entry.refused || !entry.refusals.Take(now)) return;
  m_say(true, "source " + entry.settings.name + " refused " + std::to_string(refused - entry.refused) + " events (" +
                  std::to_string(counts.faulty) + " faulty and " + std::to_string(counts.tooLong) +
                  " too long since the start)");
  entry.refused = refused;
}

// --- Lines -------------------------------------------------------------------------------------------

void SourceKeeper::Trouble(Entry& entry, const std::string& reason, Clock::time_point now) {
  if (entry.reason == reason) return;
  if (entry.reason.empty()) entry.since = now;
  entry.reason = reason;
  entry.isTold = false;
  if (entry.settings.retry) Tell(entry, now);
}

// Without a line the last one would still say that the source is back. The trouble is therefore told as soon as the
// allowance lets it, if it still lasts.
void SourceKeeper::Tell(Entry& entry, Clock::time_point now) {
  if (!entry.lines.Take(now)) return;
  entry.isTold = true;
  std::string line = "source " + entry.settings.name + " waits: " + entry.reason;
  if (entry.untold != 0) line += " (it was away and came back " + std::to_string(entry.untold) + " more times)";
  entry.untold = 0;
  m_say(true, line);
}

void SourceKeeper::Recover(Entry& entry, Clock::time_point now) {
  if (entry.reason.empty()) return;
  entry.reason.clear();
  if (!entry.isTold) {
    ++entry.untold;
    return;
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - entry.since).count();
  m_say(false, "source " + entry.settings.name + " is open after " + std::to_string(seconds) + " s");
}

std::string SourceKeeper::Summary() const {
  size_t open = 0;
  size_t all = 0;
  std::string waiting;
  for (const auto& entry : m_entries) {
    if (entry->state == SourceState::Removed) continue;
    ++all;
    if (entry->state == SourceState::Open) ++open;
    if (!entry->reason.empty()) waiting += "; " + entry->settings.name + " waits: " + entry->reason;
  }
  return std::to_string(open) + " of " + std::to_string(all) + " sources open" + waiting;
}

// --- Reload ------------------------------------------------------------------------------------------

namespace {

void CopyOutputs(const SourceSettings& from, SourceSettings& to) {
  to.track = from.track;
  to.cotOut = from.cotOut;
  to.cotOutRate = from.cotOutRate;
  to.cotOutUid = from.cotOutUid;
  to.cotOutType = from.cotOutType;
  to.cotOutTls = from.cotOutTls;
}

}  // namespace

void SourceKeeper::Apply(const ConfigDifference& difference, const HostRuntimeConfig& host,
                         const std::function<void()>& between, Clock::time_point now) {
  for (const std::string& name : difference.removed) {
    // A new source of this name may have been added already; the removed one comes first.
    if (Entry* entry = Find(name)) {
      Close(*entry);
      entry->replay.reset();
      entry->state = SourceState::Removed;
      entry->reason.clear();
    }
  }
  for (const SourceSettings& settings : difference.changed) {
    Entry* entry = Find(settings.name);
    if (entry == nullptr) continue;
    Close(*entry);
    if (entry->settings.replay != settings.replay) entry->replay.reset();
    entry->statistics = ContinuedStatistics(entry->settings, settings, entry->statistics);
    entry->settings = settings;
    entry->names.Configure(settings);
    entry->nextTry = now;
    entry->pause = kRetry;
  }
  for (const SourceSettings& settings : difference.unchanged) {
    Entry* const entry = Find(settings.name);
    if (entry == nullptr) continue;
    entry->settings.retry = settings.retry;
    entry->settings.silence = settings.silence;
    CopyOutputs(settings, entry->settings);
  }
  between();
  m_host = host;
  for (const auto& entry : m_entries) {
    if (entry->state != SourceState::Waiting || now < entry->nextTry || TryOpen(*entry, now)) continue;
    if (entry->settings.retry) continue;
    m_failed = true;
    m_say(true, "source " + entry->settings.name + " cannot be opened; the log tells why");
  }
}

// --- Counts ------------------------------------------------------------------------------------------

std::vector<Source*> SourceKeeper::Sources() {
  std::vector<Source*> sources;
  for (const auto& entry : m_entries) {
    if (entry->state != SourceState::Removed) sources.push_back(&entry->source);
  }
  return sources;
}

std::vector<Source*> SourceKeeper::EverySource() {
  std::vector<Source*> sources;
  for (const auto& entry : m_entries) sources.push_back(&entry->source);
  return sources;
}

const Source* SourceKeeper::OwnerOf(const std::string& output) const {
  for (const auto& entry : m_entries) {
    if (entry->source.OutputPath() == output) return &entry->source;
  }
  return nullptr;
}

bool SourceKeeper::IsOpen(const Source& source) const {
  return std::any_of(m_entries.begin(), m_entries.end(), [&source](const auto& entry) {
    return &entry->source == &source && entry->state == SourceState::Open;
  });
}

bool SourceKeeper::HasBeenOpen(const Source& source) const {
  return std::any_of(m_entries.begin(), m_entries.end(),
                     [&source](const auto& entry) { return &entry->source == &source && entry->wasOpen; });
}

bool SourceKeeper::AllReached(uint64_t messages) const {
  return std::all_of(m_entries.begin(), m_entries.end(), [messages](const auto& entry) {
    return entry->state == SourceState::Removed || entry->source.Messages() >= messages;
  });
}

bool SourceKeeper::AllPlayed() const {
  bool isAny = false;
  for (const auto& entry : m_entries) {
    if (entry->state == SourceState::Removed) continue;
    const bool isPlayed =
        entry->replay ? entry->replay->HasEnded() : CaptureState(*entry).phase == HostCaptureState::Phase::Ended;
    if (!isPlayed) return false;
    isAny = true;
  }
  return isAny;
}

std::vector<Report> SourceKeeper::Reports(bool withRemoved) const {
  static constexpr const char* kStates[] = {"waiting", "open", "cut off", "removed"};
  std::vector<Report> reports;
  for (const auto& entry : m_entries) {
    if (entry->state == SourceState::Removed && !withRemoved) continue;
    Report report;
    report.settings = &entry->settings;
    report.counters = entry->source.Snapshot();
    report.statistics = entry->statistics;
    if (entry->IsOpen()) m_library.getSourceStats(entry->handle, &report.statistics);
    report.state = kStates[static_cast<size_t>(entry->state)];
    report.reopened = entry->reopened;
    if (IsFed(entry->settings)) report.capture = entry->feed ? entry->feed->Stats() : entry->fed;
    if (entry->settings.tak) {
      report.tak = entry->input ? Sum(entry->ended, entry->input->Counts()) : entry->ended;
    }
    reports.push_back(report);
  }
  return reports;
}

void SourceKeeper::Reset(Source& source) {
  for (const auto& entry : m_entries) {
    if (&entry->source != &source) continue;
    entry->statistics = {};
    entry->statistics.iSrcTTL = entry->statistics.iSrcTOS = -1;
    if (entry->IsOpen()) m_library.resetSourceStats(entry->handle);
  }
}

void SourceKeeper::Restore(Source& source, const MDATA_SRC_STATS& statistics) {
  for (const auto& entry : m_entries) {
    if (&entry->source != &source) continue;
    entry->statistics = statistics;
    entry->hasStatistics = true;
    if (entry->IsOpen()) m_library.setSourceStats(entry->handle, &statistics);
  }
}

}  // namespace mdencoder
