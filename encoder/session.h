// SPDX-License-Identifier: Apache-2.0
// A run: opens the sources, shows the messages, executes commands, reloads the configuration, and closes everything in
// the order that the library requires. Everything runs on the main thread, except the callback (metadata thread) and
// Handle (recorder's thread).
#ifndef MDENCODER_SESSION_H
#define MDENCODER_SESSION_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "annotated_mutex.h"
#include "commands.h"
#include "config.h"
#include "console.h"
#include "cot_sender.h"
#include "host_runtime.h"
#include "http/live_page.h"
#include "library.h"
#include "loss.h"
#include "network_watch.h"
#include "owned_fd.h"
#include "presentation.h"
#include "reach.h"
#include "receiver.h"
#include "reload.h"
#include "service.h"
#include "source.h"
#include "source_keeper.h"
#include "statistics.h"
#include "stream_hint.h"
#include "streams.h"

namespace mdencoder {

// What a run has from the program around it.
struct Surroundings {
  HostRuntimeConfig host;
  Reach reach = SystemReach();
  // Reads the configuration again and checks it whole, without side effects. Throws ConfigError.
  std::function<CheckedConfig()> prepare;
  // Applies the host's part of a configuration that was prepared.
  std::function<void(const HostRuntimeConfig&)> applyHost;
  // Returns how long ago the metadata thread gave its last sign, in seconds; nothing if there is no such thread.
  std::function<std::optional<double>()> secondsSinceSign;
  // Tells the host what the sockets receive that this thread lets the library create.
  std::function<void(const HostReception&)> setReception;
  // Returns the host's counts of a video input.
  std::function<HostCaptureStats(int input)> captureStats;
  Captures captures;
  // Sets what tells how many messages of files may come; with an empty function nothing does any more.
  std::function<void(std::function<size_t()>)> onRoom;
  // Sets what is called with every line of the log, on the thread that writes it; with an empty function nothing is any
  // more, and no call is left running.
  std::function<void(std::function<void(const HostLogLine&)>)> onLog;
};

class Session {
 public:
  // Blocks the signals that end or control a run. Call it before any thread starts.
  static void BlockSignals();

  Session(const Config& config, const Library& library, Console& console, Surroundings around = {});
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Sets the function that tells, inside the callback, by how many microseconds the times of a packet's two
  // Cursor-on-Target events differ, if they do. Call it before Run().
  void SetPairClock(std::function<std::optional<int64_t>()> pairClock) { m_pairClock = std::move(pairClock); }

  // Does the whole run and returns the exit code. Throws std::runtime_error for a failure before the first source is
  // open.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;
  static BOOL OnMessage(MDATA_BUFFER* buffer, void* tap, void* again);

  void OpenFiles();
  void OpenOutput(Source& source, const EncoderSettings& settings);
  void OpenTrack(Source& source, const EncoderSettings& settings);
  void SendCot(Source& source);
  void StartStreams();
  void Redirect(Source& source, std::function<void()> change);
  void Forget(const Source& source);
  void RedirectOutputs(const ConfigDifference& difference, const EncoderSettings& settings);
  void TakeRedirections();
  void EndFormerSenders();
  void OpenPage();
  void UpdatePage(Clock::time_point now);
  bool OpenSources();
  size_t Room() const;
  Captures CapturesOf(const Surroundings& around);
  void EndRecording(Source& source);
  void SetTimers(const EncoderSettings& before);
  void Loop();
  int Wait();  // returns the milliseconds until the next timer, or -1
  void OnSignal();
  void OnEndSignal(int number);
  void OnHangUp();
  void Reload();
  void AddSources(const std::vector<SourceSettings>& added, const EncoderSettings& settings);
  void Beat(Clock::time_point now);
  void OnInput();
  void Tick();
  void Handle(const Received& received);
  void Hint(const Received& received);
  bool LimitReached() const;
  void End(const char* why);
  void Fail(const std::string& complaint);
  void Say(Priority priority, const std::string& line);

  void Execute(const Command& command);
  void ShowStatistics(const std::string& name);
  void Reset(const std::string& name);
  void Restore(const std::string& name);
  void Save();
  std::vector<Source*> Chosen(const std::string& name);

  std::vector<Report> Reports(bool withRemoved = false);
  void LookForLosses(Clock::time_point now);
  void ShowStatus();
  void PrintStatistics(const std::vector<Report>& reports);
  void WriteStatistics(const std::vector<Report>& reports, bool print);
  void FinishRows();
  void WriteResults();

  CheckedConfig m_checked;
  const Config& m_config = m_checked.config;
  const Library& m_library;
  Console& m_console;
  std::function<std::optional<int64_t>()> m_pairClock;
  Presentation m_presentation;  // recorder's thread, once it runs
  const Surroundings m_around;
  std::unique_ptr<http::LivePage> m_page;  // set before any other thread starts; null without one
  SourceKeeper m_keeper;
  Streams m_streams;
  std::unique_ptr<Receiver> m_receiver;
  std::map<std::string, MDATA_SRC_STATS> m_kept;
  std::map<const Source*, StreamHint> m_hints;  // recorder's thread
  std::vector<Source*> m_unflushed;  // recorder's thread: those with messages that are not in their files yet
  // What the configuration wants of a source, and the recorder's thread has or will have soon. Main thread.
  struct Outputs {
    std::string track;  // path
    double trackInterval = 0;
    std::optional<CotSenderSettings> events;
  };
  std::map<const Source*, Outputs> m_wanted;
  std::set<std::string> m_tracks;  // paths that this run has written
  common::Mutex m_redirectionLock;
  std::vector<std::function<void()>> m_redirections GUARDED_BY(m_redirectionLock);        // for the recorder's thread
  std::vector<std::shared_ptr<CotSender>> m_formerSenders GUARDED_BY(m_redirectionLock);  // ended by the main thread
  std::FILE* m_statsJson = nullptr;
  KernelDrops m_kernelDrops;
  SilenceWatch m_silence{
      [this](bool isWarning, const std::string& line) { Say(isWarning ? Priority::Warning : Priority::Notice, line); }};
  LineReader m_input;
  std::atomic<uint64_t> m_taken{0};   // total of accepted messages
  std::atomic<bool> m_failed{false};  // the exit code will be 1
  bool m_ended = false;
  bool m_endSignal = false;  // SIGINT, SIGTERM, or SIGHUP of a closed terminal, came
  NetworkWatch m_network;
  ServiceManager m_service;
  std::vector<int> m_terminals;  // standard descriptors that are terminals
  common::OwnedFD m_signals;     // signalfd
  common::OwnedFD m_wake;        // eventfd; written at a limit, never read
  RunTimes m_times;
  Clock::time_point m_start;
  std::optional<Clock::time_point> m_nextStatus;
  std::optional<Clock::time_point> m_nextStatistics;
  std::optional<Clock::time_point> m_nextPage;
  Clock::time_point m_nextLook;   // at what the sources deliver
  Clock::time_point m_nextDrops;  // at the kernel's counts, which go with their sockets
  std::optional<Clock::time_point> m_nextBeat;
};

}  // namespace mdencoder

#endif
