// SPDX-License-Identifier: Apache-2.0
// Opens the sources of a run, keeps them open, and closes them.
//
// Each source waits to be opened, is open, is cut off (open, but its interface or a route of its relays is gone), or was
// removed. A source that waits says once what it waits for, and once that it is back; in between it is tried again every
// two seconds in a way that logs nothing (reach.h), and the library is asked only when nothing is known against it. Its
// counts survive: the library's statistics are loaded into the new source as those of a statistics file are.
//
// Everything but the callback runs on the main thread. A Source stays where it is until the keeper is destroyed, because
// queued messages refer to it, and so that a removed source that returns goes on with its counts and its file.
#ifndef MDENCODER_SOURCE_KEEPER_H
#define MDENCODER_SOURCE_KEEPER_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "config.h"
#include "host_runtime.h"
#include "library.h"
#include "metadata_lib.h"
#include "network_watch.h"
#include "reach.h"
#include "reload.h"
#include "replay.h"
#include "source.h"
#include "statistics.h"
#include "stream_feed.h"
#include "tak_input.h"

namespace mdencoder {

// Lets a few lines or openings pass at once and then one in a while, so that what flaps does not fill the log.
class Allowance {
 public:
  using Clock = std::chrono::steady_clock;
  Allowance(double atOnce, std::chrono::duration<double> each) : m_atOnce(atOnce), m_each(each), m_left(atOnce) {}
  bool Take(Clock::time_point now);
  // Returns when Take will succeed.
  Clock::time_point Next(Clock::time_point now) const;

 private:
  void Fill(Clock::time_point now);

  double m_atOnce;
  std::chrono::duration<double> m_each;
  double m_left;
  Clock::time_point m_filled{};
};

// What the keeper asks and tells the host about the captures of sources with a url. Empty functions are left out.
struct Captures {
  std::function<size_t()> room;  // messages that the program can take now; any thread may call it
  std::function<void(int input, const HostCaptureConfig&)> set;
  std::function<HostCaptureState(int input)> state;
  // Opens the stream of a source that has no video input; null if it cannot be opened, which a line of the log explains.
  std::function<std::unique_ptr<HostStream>(const HostCaptureConfig&, const std::string& name)> open;
};

enum class SourceState { Waiting, Open, CutOff, Removed };

class SourceKeeper {
 public:
  using Clock = std::chrono::steady_clock;
  // Says a line: a warning, or a notice that all is well again. Replays call it on their threads.
  using Say = std::function<void(bool isWarning, const std::string&)>;

  // `context` is passed to `callback` in a Tap.
  struct Tap {
    void* context;
    Source* source;
  };
  SourceKeeper(const Library& library, MDATA_READY_CALLBACK callback, void* context, HostRuntimeConfig host,
               Reach reach, Say say, Captures captures = {});
  SourceKeeper(const SourceKeeper&) = delete;
  SourceKeeper& operator=(const SourceKeeper&) = delete;
  ~SourceKeeper();

  // Sets the function that tells the host what the sockets receive that this thread lets the library create from then on.
  void SetReception(std::function<void(const HostReception&)> setReception) {
    m_setReception = std::move(setReception);
  }

  // Adds a source that is not open, or brings back a removed one of the same kind. `capabilities` are the library's.
  Source& Add(const SourceSettings& settings, DWORD capabilities);
  // Takes back Add, before the source was opened.
  void Discard(const Source& source);
  // The statistics that a source has when it is opened, if it was not open before.
  void Preset(const std::string& name, const MDATA_SRC_STATS& statistics);

  // Tries to open every source that waits. Returns the first one that must be open and cannot be (retry = no), or null.
  const Source* OpenAll(Clock::time_point now);
  void CloseAll();
  // Carries out what is due.
  void Tick(Clock::time_point now);
  // Returns when Tick has something to do, or the largest time point.
  Clock::time_point Due(Clock::time_point now) const;
  void OnNetwork(const NetworkChanges& changes, Clock::time_point now);

  // Closes the removed and the changed sources of a new configuration, calls `between`, and opens changed and new ones,
  // which were added before. A source keeps its counts if its kind does not change.
  void Apply(const ConfigDifference& difference, const HostRuntimeConfig& host, const std::function<void()>& between,
             Clock::time_point now);

  std::vector<Source*> Sources();  // those that were not removed, in the order in which they were added
  std::vector<Source*> EverySource();
  // Returns the source whose recording has this file open, also a removed one, or null.
  const Source* OwnerOf(const std::string& output) const;
  bool IsOpen(const Source& source) const;  // and not cut off
  bool HasBeenOpen(const Source& source) const;
  bool AllReached(uint64_t messages) const;
  // Returns whether every source is a file that was played to its end.
  bool AllPlayed() const;
  std::vector<Report> Reports(bool withRemoved) const;
  void Reset(Source& source);
  void Restore(Source& source, const MDATA_SRC_STATS& statistics);
  std::string Summary() const;  // "7 of 8 sources open; camera waits: there is no /dev/ttyUSB0"
  bool Failed() const { return m_failed; }

 private:
  struct Entry;

  void PutOff(Entry& entry, const std::string& reason, Clock::time_point now);
  bool TryOpen(Entry& entry, Clock::time_point now);
  std::string ObstacleTo(const Entry& entry) const;
  void Close(Entry& entry);
  void Reopen(Entry& entry, Clock::time_point now);
  void Examine(Clock::time_point now);
  void Examine(Entry& entry, Clock::time_point now);
  void MakeInput(Entry& entry);
  void EndInput(Entry& entry);
  void LookAtInput(Entry& entry, Clock::time_point now);
  void Trouble(Entry& entry, const std::string& reason, Clock::time_point now);
  void Tell(Entry& entry, Clock::time_point now);
  void Recover(Entry& entry, Clock::time_point now);
  Entry* Find(const std::string& name);
  bool MakeFeed(Entry& entry, Clock::time_point now);
  size_t RoomOfOne() const;
  bool IsCaptured(const Entry& entry) const;
  void TakeInput(Entry& entry) const;
  void BeginReplay(Entry& entry) const;
  bool IsInputFree(const Entry& entry, int32_t input) const;
  HostCaptureState CaptureState(const Entry& entry) const;
  Health HealthOf(const Entry& entry) const;
  bool WaitsForRoom(const SourceSettings& settings) const;
  void LookAtCaptures(Clock::time_point now);
  uint16_t LibraryPort(const Entry& entry) const;
  bool HasAddresses(Entry& entry, Clock::time_point now);
  std::string WayBack(const Entry& entry, const SourceSettings& settings) const;
  void LookAtNames(Clock::time_point now);
  void LookAtNames(Entry& entry, Clock::time_point now);

  const Library& m_library;
  const MDATA_READY_CALLBACK m_callback;
  void* const m_context;
  HostRuntimeConfig m_host;
  const Reach m_reach;
  const Say m_say;
  const Captures m_captures;
  std::function<void(const HostReception&)> m_setReception = [](const HostReception&) {};
  std::atomic<size_t> m_feeding{0};  // sources whose messages this program sends to the library
  std::deque<std::unique_ptr<Entry>> m_entries;
  std::optional<Clock::time_point> m_examineAt;  // after the network changed
  Clock::time_point m_nextLook{};                // at the captures of streams
  Clock::time_point m_nextNames{};               // at relays whose destinations are names
  bool m_failed = false;
};

}  // namespace mdencoder

#endif  // MDENCODER_SOURCE_KEEPER_H
