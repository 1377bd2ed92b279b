/*
 * CONTENTS
 *   Start and end    files, sources, signals
 *   Messages         the callback, and the worker behind it
 *   Main loop        poll, timers, signals, limits
 *   Commands         statistics, reset, restore, save
 *   Results          status line, statistics, summary
 */
#include "session.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
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

constexpr double kShortestStatusInterval = 0.1;  // statistics take the lock that serial reception takes

}  // namespace

/* ------------------------------------------------------------------------------------------------ */
/* Start and end                                                                                    */
/* ------------------------------------------------------------------------------------------------ */

void Session::BlockSignals() {
  const sigset_t set = SteeringSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

Session::Session(const Config& config, const Library& library, Console& console)
    : config_(config), library_(library), console_(console) {
  for (const SourceSettings& settings : config_.sources) sources_.emplace_back(settings);
  for (Source& source : sources_) taps_.push_back({this, &source});
  const sigset_t set = SteeringSignals();
  signals_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (signals_ < 0 || wake_ < 0) throw std::runtime_error(std::string("no descriptors: ") + std::strerror(errno));
}

Session::~Session() {
  if (statsJson_ != nullptr) std::fclose(statsJson_);
  if (signals_ >= 0) close(signals_);
  if (wake_ >= 0) close(wake_);
}

void Session::OpenFiles() {
  const EncoderSettings& settings = config_.encoder;
  if (!settings.outputDir.empty()) std::filesystem::create_directories(settings.outputDir);
  for (Source& source : sources_) {
    std::string path = source.Settings().output;
    if (path.empty() && !settings.outputDir.empty()) path = settings.outputDir + "/" + source.Name() + ".klv";
    if (!path.empty()) source.OpenOutput(path, settings.streamHeader);
  }
  if (!settings.statsFile.empty()) kept_ = LoadStatistics(settings.statsFile, config_.sources);
  if (settings.statsJson.empty()) return;
  statsJson_ = std::fopen(settings.statsJson.c_str(), "we");
  if (statsJson_ == nullptr) {
    throw std::runtime_error("cannot write " + settings.statsJson + ": " + std::strerror(errno));
  }
}

/* FALSE after the first source that cannot be opened. */
bool Session::OpenSources() {
  for (size_t i = 0; i < sources_.size(); ++i) {
    MDATA_SRC_CFG record = sources_[i].Settings().record;
    record.pfnCallback = OnMessage;
    record.pvUserParam1 = &taps_[i];
    HMDATASRC handle = nullptr;
    if (!library_.OpenSource(&record, &handle)) {
      Fail("source " + sources_[i].Name() + " cannot be opened; the log tells why (--log-level 6 tells more)");
      return false;
    }
    sources_[i].handle = handle;
    if (kept_.contains(sources_[i].Name())) library_.SetSourceStats(handle, &kept_.at(sources_[i].Name()));
  }
  return true;
}

void Session::CloseSources() {
  for (Source& source : sources_) {
    MDATA_SRC_STATS statistics{};
    if (source.handle != nullptr) {
      library_.GetSourceStats(source.handle, &statistics);
      if (!library_.CloseSource(&source.handle)) Fail("source " + source.Name() + " cannot be closed");
      source.handle = nullptr;  // the library leaves it as it was
    }
    last_.push_back(statistics);
  }
}

int Session::Run() {
  OpenFiles();
  if (!library_.Init(config_.encoder.capabilities)) throw std::runtime_error("the library does not start");
  const auto handle = [this](const Received& received) { Handle(received); };
  receiver_ = std::make_unique<Receiver>(config_.encoder.queue, library_.ReleaseBuffer, handle);
  times_.startUs = WallClockUs();
  start_ = Clock::now();
  if (config_.encoder.format == Format::kTable) console_.Line(TableHeader());
  const bool opened = OpenSources();
  if (opened) Loop();
  CloseSources();
  receiver_->Finish();
  times_.endUs = WallClockUs();
  times_.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  library_.Shutdown();
  console_.Status({});
  for (Source& source : sources_) {
    if (!source.CloseOutput()) Fail("the received stream of " + source.Name() + " could not be written");
  }
  if (opened) WriteResults();
  return failed_.load() ? 1 : 0;
}

void Session::End(const char* why) {
  if (!ended_) times_.endedBy = why;
  ended_ = true;
}

void Session::Fail(const std::string& complaint) {
  failed_.store(true);
  console_.Complain("mdencoder: " + complaint);
}

/* ------------------------------------------------------------------------------------------------ */
/* Messages                                                                                         */
/* ------------------------------------------------------------------------------------------------ */

/* Metadata thread. Takes the message or refuses it, and never blocks. */
BOOL Session::OnMessage(MDATA_BUFFER* buffer, void* tap, void*) {
  auto& [session, source] = *static_cast<Tap*>(tap);
  const uint64_t limit = session->config_.encoder.messages;
  if (limit != 0 && session->taken_.load(std::memory_order_relaxed) >= limit) return FALSE;
  if (!session->receiver_->Take(buffer, *source)) return FALSE;
  session->taken_.fetch_add(1, std::memory_order_relaxed);
  if (session->LimitReached()) eventfd_write(session->wake_, 1);
  return TRUE;
}

/* Worker thread. */
void Session::Handle(const Received& received) {
  Source& source = *received.source;
  const st0601::Message message = st0601::Parse(received.message());
  source.Judge(message);
  if (!source.Write(received.buffer)) Fail("the received stream of " + source.Name() + " cannot be written further");
  switch (config_.encoder.format) {
    case Format::kTable:
      console_.Line(TableRow(received, message));
      break;
    case Format::kJson:
      console_.Line(JsonLine(received, message));
      break;
    case Format::kNone:
      break;
  }
  if (console_.OutputFailed()) eventfd_write(wake_, 1);
}

bool Session::LimitReached() const {
  const EncoderSettings& settings = config_.encoder;
  if (settings.messages != 0 && taken_.load(std::memory_order_relaxed) >= settings.messages) return true;
  const auto enough = [&](const Source& source) { return source.Messages() >= settings.messagesEach; };
  return settings.messagesEach != 0 && std::all_of(sources_.begin(), sources_.end(), enough);
}

/* ------------------------------------------------------------------------------------------------ */
/* Main loop                                                                                        */
/* ------------------------------------------------------------------------------------------------ */

void Session::Loop() {
  const EncoderSettings& settings = config_.encoder;
  if (settings.statusInterval > 0 && console_.HasStatus()) nextStatus_ = start_;
  if (settings.statsInterval > 0) nextStatistics_ = start_ + Seconds(settings.statsInterval);
  while (!ended_) {
    pollfd set[] = {{signals_, POLLIN, 0}, {wake_, POLLIN, 0}, {input_.Descriptor(), POLLIN, 0}};
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
  if (config_.encoder.duration > 0) due = std::min(due, start_ + Seconds(config_.encoder.duration));
  if (nextStatus_) due = std::min(due, *nextStatus_);
  if (nextStatistics_) due = std::min(due, *nextStatistics_);
  if (due == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, 3600000));
}

void Session::Tick() {
  const auto now = Clock::now();
  if (nextStatus_ && now >= *nextStatus_) {
    ShowStatus();
    nextStatus_ = now + Seconds(std::max(config_.encoder.statusInterval, kShortestStatusInterval));
  }
  if (nextStatistics_ && now >= *nextStatistics_) {
    WriteStatistics(true);
    nextStatistics_ = *nextStatistics_ + Seconds(config_.encoder.statsInterval);
    if (*nextStatistics_ < now) nextStatistics_ = now + Seconds(config_.encoder.statsInterval);
  }
  if (config_.encoder.duration > 0 && now >= start_ + Seconds(config_.encoder.duration)) End("duration");
  if (LimitReached()) End("messages");
  if (console_.OutputFailed()) {
    Fail("the standard output takes no more");
    End("output");
  }
}

void Session::OnSignal() {
  signalfd_siginfo info{};
  while (read(signals_, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
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
  for (const std::string& line : input_.Read()) {
    if (const auto command = ParseCommand(line)) Execute(*command);
  }
}

/* ------------------------------------------------------------------------------------------------ */
/* Commands                                                                                         */
/* ------------------------------------------------------------------------------------------------ */

void Session::Execute(const Command& command) {
  switch (command.kind) {
    case Command::Kind::kStats:
      ShowStatistics(command.name);
      break;
    case Command::Kind::kReset:
      Reset(command.name);
      break;
    case Command::Kind::kRestore:
      Restore(command.name);
      break;
    case Command::Kind::kSave:
      Save();
      break;
    case Command::Kind::kQuit:
      End("quit");
      break;
    case Command::Kind::kHelp:
      console_.Complain(kCommandHelp);
      break;
    case Command::Kind::kUnknown:
      console_.Complain("unknown command \"" + command.name + "\"; " + kCommandHelp);
      break;
  }
}

/* The sources that a command means; complains when there is none of that name. */
std::vector<Source*> Session::Chosen(const std::string& name) {
  std::vector<Source*> chosen;
  for (Source& source : sources_) {
    if (name.empty() || source.Name() == name) chosen.push_back(&source);
  }
  if (chosen.empty()) console_.Complain("no source \"" + name + "\"");
  return chosen;
}

void Session::ShowStatistics(const std::string& name) {
  if (Chosen(name).empty()) return;
  auto reports = Reports();
  if (!name.empty()) std::erase_if(reports, [&](const Report& report) { return report.settings->name != name; });
  if (config_.encoder.format == Format::kJson) {
    console_.Line(StatisticsLine(reports, WallClockUs()));
  } else {
    console_.Lines(StatisticsTable(reports));
  }
}

void Session::Reset(const std::string& name) {
  for (Source* source : Chosen(name)) {
    library_.ResetSourceStats(source->handle);
    console_.Complain("statistics of " + source->Name() + " reset");
  }
}

/* Loads what the statistics file holds now. */
void Session::Restore(const std::string& name) {
  const std::string& path = config_.encoder.statsFile;
  if (path.empty()) {
    console_.Complain("nothing to restore from: there is no stats_file");
    return;
  }
  try {
    kept_ = LoadStatistics(path, config_.sources);
  } catch (const std::runtime_error& error) {
    console_.Complain(error.what());
    return;
  }
  for (Source* source : Chosen(name)) {
    const auto it = kept_.find(source->Name());
    if (it != kept_.end()) library_.SetSourceStats(source->handle, &it->second);
    console_.Complain((it != kept_.end() ? "statistics of " : "no kept statistics of ") + source->Name() +
                      (it != kept_.end() ? " restored" : ""));
  }
}

void Session::Save() {
  const std::string& path = config_.encoder.statsFile;
  if (path.empty()) {
    console_.Complain("nowhere to save to: there is no stats_file");
    return;
  }
  try {
    SaveStatistics(path, Reports());
    console_.Complain("statistics saved to " + path);
  } catch (const std::runtime_error& error) {
    console_.Complain(error.what());
  }
}

/* ------------------------------------------------------------------------------------------------ */
/* Results                                                                                          */
/* ------------------------------------------------------------------------------------------------ */

std::vector<Report> Session::Reports() {
  std::vector<Report> reports;
  for (size_t i = 0; i < sources_.size(); ++i) {
    Report report;
    report.settings = &sources_[i].Settings();
    report.counters = sources_[i].Snapshot();
    if (i < last_.size()) {
      report.statistics = last_[i];
    } else if (sources_[i].handle != nullptr) {
      library_.GetSourceStats(sources_[i].handle, &report.statistics);
    }
    reports.push_back(report);
  }
  return reports;
}

void Session::ShowStatus() {
  const auto reports = Reports();
  if (config_.encoder.live) {
    console_.Status(StatisticsTable(reports));
    return;
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start_).count();
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
  console_.Status({line});
}

void Session::WriteStatistics(bool print) {
  const auto reports = Reports();
  const uint64_t now = WallClockUs();
  if (print && config_.encoder.format == Format::kJson) {
    console_.Line(StatisticsLine(reports, now));
  } else if (print) {
    console_.Lines(StatisticsTable(reports));
  }
  if (statsJson_ == nullptr) return;
  std::fprintf(statsJson_, "%s\n", StatisticsLine(reports, now).c_str());
  if (std::fflush(statsJson_) != 0) Fail("the statistics cannot be written to " + config_.encoder.statsJson);
}

void Session::WriteResults() {
  WriteStatistics(!console_.OutputFailed());
  const auto reports = Reports();
  const auto write = [this](const std::string& path, const auto& action) {
    if (path.empty()) return;
    try {
      action(path);
    } catch (const std::runtime_error& error) {
      Fail(error.what());
    }
  };
  write(config_.encoder.summary, [&](const std::string& path) { ReplaceFile(path, SummaryJson(reports, times_)); });
  write(config_.encoder.statsFile, [&](const std::string& path) { SaveStatistics(path, reports); });
  // The last printed lines may be the ones that the output did not take.
  if (console_.OutputFailed() && !failed_.load()) Fail("the standard output takes no more");
}

}  // namespace mdencoder
