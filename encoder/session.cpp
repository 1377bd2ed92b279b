// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Start and end    open and close files, sources and signals
//   Messages         come from the callback and go to the worker
//   Main loop        polls, and handles timers, signals and limits
//   Commands         show, reset, restore and save statistics
//   Results          are the status line, the statistics and the summary
#include "session.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "render.h"

namespace mdencoder {
namespace {

sigset_t SteeringSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) sigaddset(&set, number);
  return set;
}

uint64_t WallClockUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

std::chrono::steady_clock::duration Seconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

constexpr double kShortestStatusInterval = 0.1;  // reading statistics takes the lock of serial reception

}  // namespace

// --- Start and end -----------------------------------------------------------------------------------

void Session::BlockSignals() {
  const sigset_t set = SteeringSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

Session::Session(const Config& config, const Library& library, Console& console)
    : m_config(config), m_library(library), m_console(console) {
  for (const SourceSettings& settings : m_config.sources) m_sources.emplace_back(settings);
  for (Source& source : m_sources) m_taps.push_back({this, &source});
  const sigset_t set = SteeringSignals();
  m_signals.Reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  m_wake.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_signals.IsOpen() || !m_wake.IsOpen())
    throw std::runtime_error(std::string("no descriptors: ") + std::strerror(errno));
}

Session::~Session() {
  if (m_statsJson != nullptr) std::fclose(m_statsJson);
}

void Session::OpenFiles() {
  const EncoderSettings& settings = m_config.encoder;
  if (!settings.outputDir.empty()) std::filesystem::create_directories(settings.outputDir);
  for (Source& source : m_sources) {
    std::string path = source.Settings().output;
    if (path.empty() && !settings.outputDir.empty()) path = settings.outputDir + "/" + source.Name() + ".klv";
    if (!path.empty()) source.OpenOutput(path, settings.streamHeader);
  }
  if (!settings.statsFile.empty()) m_kept = LoadStatistics(settings.statsFile, m_config.sources);
  if (settings.statsJson.empty()) return;
  m_statsJson = std::fopen(settings.statsJson.c_str(), "we");
  if (m_statsJson == nullptr) {
    throw std::runtime_error("cannot write " + settings.statsJson + ": " + std::strerror(errno));
  }
}

// Returns false after the first source that cannot be opened.
bool Session::OpenSources() {
  for (size_t i = 0; i < m_sources.size(); ++i) {
    MDATA_SRC_CFG record = m_sources[i].Settings().record;
    record.pfnCallback = OnMessage;
    record.pvUserParam1 = &m_taps[i];
    HMDATASRC handle = nullptr;
    if (!m_library.openSource(&record, &handle)) {
      Fail("source " + m_sources[i].Name() + " cannot be opened; the log tells why (--log-level 6 tells more)");
      return false;
    }
    m_sources[i].handle = handle;
    if (m_kept.contains(m_sources[i].Name())) m_library.setSourceStats(handle, &m_kept.at(m_sources[i].Name()));
  }
  return true;
}

void Session::CloseSources() {
  for (Source& source : m_sources) {
    MDATA_SRC_STATS statistics{};
    if (source.handle != nullptr) {
      m_library.getSourceStats(source.handle, &statistics);
      if (!m_library.closeSource(&source.handle)) Fail("source " + source.Name() + " cannot be closed");
      source.handle = nullptr;  // the library does not change it
    }
    m_last.push_back(statistics);
  }
}

int Session::Run() {
  OpenFiles();
  if (!m_library.init(m_config.encoder.capabilities)) throw std::runtime_error("METADATALIB_Init failed");
  const auto handle = [this](const Received& received) { Handle(received); };
  m_receiver = std::make_unique<Receiver>(m_config.encoder.queue, m_library.releaseBuffer, handle);
  m_times.startUs = WallClockUs();
  m_start = Clock::now();
  if (m_config.encoder.format == Format::Table) m_console.Line(TableHeader());
  const bool opened = OpenSources();
  if (opened) Loop();
  CloseSources();
  m_receiver->Finish();
  m_times.endUs = WallClockUs();
  m_times.seconds = std::chrono::duration<double>(Clock::now() - m_start).count();
  m_library.shutdown();
  m_console.Status({});
  for (Source& source : m_sources) {
    if (!source.CloseOutput()) Fail("the received stream of " + source.Name() + " could not be written");
  }
  if (opened) WriteResults();
  return m_failed.load() ? 1 : 0;
}

void Session::End(const char* why) {
  if (!m_ended) m_times.endedBy = why;
  m_ended = true;
}

void Session::Fail(const std::string& complaint) {
  m_failed.store(true);
  m_console.Complain("mdencoder: " + complaint);
}

// --- Messages ----------------------------------------------------------------------------------------

// Runs on the metadata thread. Accepts or refuses the message and never blocks.
BOOL Session::OnMessage(MDATA_BUFFER* buffer, void* tap, void*) {
  auto& [session, source] = *static_cast<Tap*>(tap);
  const uint64_t limit = session->m_config.encoder.messages;
  if (limit != 0 && session->m_taken.load(std::memory_order_relaxed) >= limit) return FALSE;
  if (!session->m_receiver->Push(buffer, *source)) return FALSE;
  session->m_taken.fetch_add(1, std::memory_order_relaxed);
  if (session->LimitReached()) eventfd_write(session->m_wake.Get(), 1);
  return TRUE;
}

// Runs on the worker thread.
void Session::Handle(const Received& received) {
  Source& source = *received.source;
  const st0601::Message message = st0601::Parse(received.Message());
  source.Judge(message);
  if (!source.Write(received.buffer)) Fail("the received stream of " + source.Name() + " cannot be written further");
  switch (m_config.encoder.format) {
    case Format::Table:
      m_console.Line(TableRow(received, message));
      break;
    case Format::Json:
      m_console.Line(JsonLine(received, message));
      break;
    case Format::None:
      break;
  }
  if (m_console.OutputFailed()) eventfd_write(m_wake.Get(), 1);
}

bool Session::LimitReached() const {
  const EncoderSettings& settings = m_config.encoder;
  if (settings.messages != 0 && m_taken.load(std::memory_order_relaxed) >= settings.messages) return true;
  const auto enough = [&](const Source& source) { return source.Messages() >= settings.messagesEach; };
  return settings.messagesEach != 0 && std::all_of(m_sources.begin(), m_sources.end(), enough);
}

// --- Main loop ---------------------------------------------------------------------------------------

void Session::Loop() {
  const EncoderSettings& settings = m_config.encoder;
  if (settings.statusInterval > 0 && m_console.HasStatus()) m_nextStatus = m_start;
  if (settings.statsInterval > 0) m_nextStatistics = m_start + Seconds(settings.statsInterval);
  while (!m_ended) {
    pollfd set[] = {{m_signals.Get(), POLLIN, 0}, {m_wake.Get(), POLLIN, 0}, {m_input.Descriptor(), POLLIN, 0}};
    const int ready = poll(set, 3, Wait());
    if (ready < 0 && errno != EINTR) {
      Fail(std::string("cannot wait for events: ") + std::strerror(errno));
      End("failure");
    }
    if (ready > 0) {
      if (set[0].revents != 0) OnSignal();
      if (set[2].revents != 0) OnInput();
    }
    Tick();
  }
}

int Session::Wait() {
  auto due = Clock::time_point::max();
  if (m_config.encoder.duration > 0) due = std::min(due, m_start + Seconds(m_config.encoder.duration));
  if (m_nextStatus) due = std::min(due, *m_nextStatus);
  if (m_nextStatistics) due = std::min(due, *m_nextStatistics);
  if (due == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, 3600000));
}

void Session::Tick() {
  const auto now = Clock::now();
  if (m_nextStatus && now >= *m_nextStatus) {
    ShowStatus();
    m_nextStatus = now + Seconds(std::max(m_config.encoder.statusInterval, kShortestStatusInterval));
  }
  if (m_nextStatistics && now >= *m_nextStatistics) {
    WriteStatistics(true);
    m_nextStatistics = *m_nextStatistics + Seconds(m_config.encoder.statsInterval);
    if (*m_nextStatistics < now) m_nextStatistics = now + Seconds(m_config.encoder.statsInterval);
  }
  if (m_config.encoder.duration > 0 && now >= m_start + Seconds(m_config.encoder.duration)) End("duration");
  if (LimitReached()) End("messages");
  if (m_console.OutputFailed()) {
    Fail("cannot write to standard output");
    End("output");
  }
}

void Session::OnSignal() {
  signalfd_siginfo info{};
  while (read(m_signals.Get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
    if (info.ssi_signo == SIGUSR1) {
      Reset({});
    } else if (info.ssi_signo == SIGUSR2) {
      Restore({});
    } else {
      End("signal");
    }
  }
}

void Session::OnInput() {
  for (const std::string& line : m_input.Read()) {
    if (const auto command = ParseCommand(line)) Execute(*command);
  }
}

// --- Commands ----------------------------------------------------------------------------------------

void Session::Execute(const Command& command) {
  switch (command.kind) {
    case Command::Kind::Stats:
      ShowStatistics(command.name);
      break;
    case Command::Kind::Reset:
      Reset(command.name);
      break;
    case Command::Kind::Restore:
      Restore(command.name);
      break;
    case Command::Kind::Save:
      Save();
      break;
    case Command::Kind::Quit:
      End("quit");
      break;
    case Command::Kind::Help:
      m_console.Complain(kCommandHelp);
      break;
    case Command::Kind::Unknown:
      m_console.Complain("unknown command \"" + command.name + "\"; " + kCommandHelp);
      break;
  }
}

// Returns the sources of a command, and complains if none has that name.
std::vector<Source*> Session::Chosen(const std::string& name) {
  std::vector<Source*> chosen;
  for (Source& source : m_sources) {
    if (name.empty() || source.Name() == name) chosen.push_back(&source);
  }
  if (chosen.empty()) m_console.Complain("no source \"" + name + "\"");
  return chosen;
}

void Session::ShowStatistics(const std::string& name) {
  if (Chosen(name).empty()) return;
  auto reports = Reports();
  if (!name.empty()) std::erase_if(reports, [&](const Report& report) { return report.settings->name != name; });
  if (m_config.encoder.format == Format::Json) {
    m_console.Line(StatisticsLine(reports, WallClockUs()));
  } else {
    m_console.Lines(StatisticsTable(reports));
  }
}

void Session::Reset(const std::string& name) {
  for (Source* source : Chosen(name)) {
    m_library.resetSourceStats(source->handle);
    m_console.Complain("statistics of " + source->Name() + " reset");
  }
}

// Loads the current contents of the statistics file.
void Session::Restore(const std::string& name) {
  const std::string& path = m_config.encoder.statsFile;
  if (path.empty()) {
    m_console.Complain("nothing to restore from: there is no stats_file");
    return;
  }
  try {
    m_kept = LoadStatistics(path, m_config.sources);
  } catch (const std::runtime_error& error) {
    m_console.Complain(error.what());
    return;
  }
  for (Source* source : Chosen(name)) {
    const auto it = m_kept.find(source->Name());
    if (it != m_kept.end()) m_library.setSourceStats(source->handle, &it->second);
    m_console.Complain((it != m_kept.end() ? "statistics of " : "no kept statistics of ") + source->Name() +
                       (it != m_kept.end() ? " restored" : ""));
  }
}

void Session::Save() {
  const std::string& path = m_config.encoder.statsFile;
  if (path.empty()) {
    m_console.Complain("nowhere to save to: there is no stats_file");
    return;
  }
  try {
    SaveStatistics(path, Reports());
    m_console.Complain("statistics saved to " + path);
  } catch (const std::runtime_error& error) {
    m_console.Complain(error.what());
  }
}

// --- Results -----------------------------------------------------------------------------------------

std::vector<Report> Session::Reports() {
  std::vector<Report> reports;
  for (size_t i = 0; i < m_sources.size(); ++i) {
    Report report;
    report.settings = &m_sources[i].Settings();
    report.counters = m_sources[i].Snapshot();
    if (i < m_last.size()) {
      report.statistics = m_last[i];
    } else if (m_sources[i].handle != nullptr) {
      m_library.getSourceStats(m_sources[i].handle, &report.statistics);
    }
    reports.push_back(report);
  }
  return reports;
}

void Session::ShowStatus() {
  const auto reports = Reports();
  if (m_config.encoder.live) {
    m_console.Status(StatisticsTable(reports));
    return;
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_start).count();
  char text[160];
  std::snprintf(text, sizeof(text), "%02d:%02d:%02d", static_cast<int>(seconds / 3600),
                static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
  std::string line = text;
  for (const Report& report : reports) {
    std::snprintf(text, sizeof(text), "  %.64s %llu msg %u kbit/s", report.settings->name.c_str(),
                  static_cast<unsigned long long>(report.counters.messages), report.statistics.nBitRateInKbps);
    line += text;
    const uint64_t faults = report.counters.lost + report.counters.dropped + report.statistics.nRxCorruptMessages;
    if (faults != 0) line += " (" + std::to_string(faults) + " lost or corrupt)";
  }
  m_console.Status({line});
}

void Session::WriteStatistics(bool print) {
  const auto reports = Reports();
  const uint64_t now = WallClockUs();
  if (print && m_config.encoder.format == Format::Json) {
    m_console.Line(StatisticsLine(reports, now));
  } else if (print) {
    m_console.Lines(StatisticsTable(reports));
  }
  if (m_statsJson == nullptr) return;
  std::fprintf(m_statsJson, "%s\n", StatisticsLine(reports, now).c_str());
  if (std::fflush(m_statsJson) != 0) Fail("the statistics cannot be written to " + m_config.encoder.statsJson);
}

void Session::WriteResults() {
  WriteStatistics(!m_console.OutputFailed());
  const auto reports = Reports();
  const auto write = [this](const std::string& path, const auto& action) {
    if (path.empty()) return;
    try {
      action(path);
    } catch (const std::runtime_error& error) {
      Fail(error.what());
    }
  };
  write(m_config.encoder.summary, [&](const std::string& path) { ReplaceFile(path, SummaryJson(reports, m_times)); });
  write(m_config.encoder.statsFile, [&](const std::string& path) { SaveStatistics(path, reports); });
  // The write that failed may be that of the last lines.
  if (m_console.OutputFailed() && !m_failed.load()) Fail("cannot write to standard output");
}

}  // namespace mdencoder
