// A run: opens the sources, shows the messages, executes commands, and closes everything in the order that the library
// requires. Everything runs on the main thread, except the callback (metadata thread) and Handle (worker thread).
#ifndef MDENCODER_SESSION_H
#define MDENCODER_SESSION_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "config.h"
#include "console.h"
#include "library.h"
#include "owned_fd.h"
#include "receiver.h"
#include "source.h"
#include "statistics.h"

namespace mdencoder {

class Session {
 public:
  // Blocks the signals that end or control a run. Call it before any thread starts.
  static void BlockSignals();

  Session(const Config& config, const Library& library, Console& console);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Does the whole run and returns the exit code. Throws std::runtime_error for a failure before the first source is
  // open.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;
  // The user parameter of the callback.
  struct Tap {
    Session* session;
    Source* source;
  };

  static BOOL OnMessage(MDATA_BUFFER* buffer, void* tap, void* again);

  void OpenFiles();
  bool OpenSources();
  void CloseSources();
  void Loop();
  int Wait();  // returns the milliseconds until the next timer, or -1
  void OnSignal();
  void OnInput();
  void Tick();
  void Handle(const Received& received);
  bool LimitReached() const;
  void End(const char* why);
  void Fail(const std::string& complaint);

  void Execute(const Command& command);
  void ShowStatistics(const std::string& name);
  void Reset(const std::string& name);
  void Restore(const std::string& name);
  void Save();
  std::vector<Source*> Chosen(const std::string& name);

  std::vector<Report> Reports();
  void ShowStatus();
  void WriteStatistics(bool print);
  void WriteResults();

  const Config& m_config;
  const Library& m_library;
  Console& m_console;
  std::deque<Source> m_sources;
  std::deque<Tap> m_taps;
  std::unique_ptr<Receiver> m_receiver;
  std::map<std::string, MDATA_SRC_STATS> m_kept;
  std::vector<MDATA_SRC_STATS> m_last;  // last statistics of the closed sources, by position
  std::FILE* m_statsJson = nullptr;
  LineReader m_input;
  std::atomic<uint64_t> m_taken{0};   // total of accepted messages
  std::atomic<bool> m_failed{false};  // the exit code will be 1
  bool m_ended = false;
  common::OwnedFD m_signals;  // signalfd
  common::OwnedFD m_wake;     // eventfd; written at a limit or a failed output, never read
  RunTimes m_times;
  Clock::time_point m_start;
  std::optional<Clock::time_point> m_nextStatus;
  std::optional<Clock::time_point> m_nextStatistics;
};

}  // namespace mdencoder

#endif
