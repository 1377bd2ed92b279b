// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Start and end    open and close files, sources, the page and signals
//   Messages         come from the callback and go to the worker
//   Main loop        polls, and handles timers, signals and limits
//   Reload           reads the configuration again and applies what is different
//   Commands         show, reset, restore and save statistics
//   Results          are the status line, the statistics and the summary
#include "session.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "cot_sender.h"
#include "http/hub.h"
#include "http/message_json.h"
#include "http/snapshot.h"
#include "recording.h"
#include "recording_name.h"
#include "table.h"
#include "track_file.h"
#include "track_text.h"
#include "wall_clock.h"

namespace mdencoder {
namespace {

sigset_t SteeringSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) sigaddset(&set, number);
  return set;
}

std::chrono::steady_clock::duration Seconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

std::string MachineName() {
  char name[HOST_NAME_MAX + 1] = "";
  if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0') return "mdencoder";
  return name;
}

size_t LongestName(const std::vector<SourceSettings>& sources) {
  size_t longest = 0;
  for (const SourceSettings& source : sources) longest = std::max(longest, source.name.size());
  return longest;
}

// A second SIGINT or SIGTERM, while the run is ending.
void EndAtOnce(int number) {
  _exit(128 + number);
}

constexpr auto kLossInterval = std::chrono::milliseconds(250);
constexpr auto kDropsInterval = std::chrono::seconds(1);
constexpr auto kPageInterval = std::chrono::seconds(1);
constexpr size_t kSourcesOfReserve = 16;         // at least, because a reload may add some
constexpr double kLongestThreadSilence = 10;     // of the metadata thread, in seconds, which gives a sign every second
constexpr double kShortestStatusInterval = 0.1;  // reading statistics takes the lock of serial reception

}  // namespace

// --- Start and end -----------------------------------------------------------------------------------

void Session::BlockSignals() {
  const sigset_t set = SteeringSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

Session::Session(const Config& config, const Library& library, Console& console, Surroundings around)
    : m_checked{config, around.host},
      m_library(library),
      m_console(console),
      m_presentation(MakePresentation(config.encoder.presentation, LongestName(config.sources),
                                      [] { return OutputWidth(STDOUT_FILENO); })),
      m_around(std::move(around)),
      m_keeper(
          m_library, OnMessage, this, m_checked.host, m_around.reach,
          [this](bool isWarning, const auto& line) { Say(isWarning ? Priority::Warning : Priority::Notice, line); },
          CapturesOf(m_around)) {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (isatty(fd) == 1) m_terminals.push_back(fd);
  }
  if (m_around.setReception) m_keeper.SetReception(m_around.setReception);
  const sigset_t set = SteeringSignals();
  m_signals.Reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  m_wake.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_signals.IsOpen() || !m_wake.IsOpen())
    throw std::runtime_error(std::string("no descriptors: ") + std::strerror(errno));
}

Session::~Session() {
  if (m_page) m_page->Stop();
  if (m_statsJson != nullptr) std::fclose(m_statsJson);
}

void Session::OpenFiles() {
  const EncoderSettings& settings = m_config.encoder;
  if (!settings.outputDir.empty()) std::filesystem::create_directories(settings.outputDir);
  for (const SourceSettings& source : m_config.sources) {
    OpenOutput(m_keeper.Add(source, settings.capabilities), settings);
  }
  if (!settings.statsFile.empty()) m_kept = LoadStatistics(settings.statsFile, m_config.sources);
  for (const auto& [name, statistics] : m_kept) m_keeper.Preset(name, statistics);
  if (settings.statsJson.empty()) return;
  m_statsJson = std::fopen(settings.statsJson.c_str(), "we");
  if (m_statsJson == nullptr) {
    throw std::runtime_error("cannot write " + settings.statsJson + ": " + std::strerror(errno));
  }
}

// A source that returns goes on with its files.
void Session::OpenOutput(Source& source, const EncoderSettings& settings) {
  OpenTrack(source, settings);
  SendCot(source);
  const std::string path = RecordingPath(source.Settings(), settings);
  if (path.empty() || path == source.OutputPath()) return;
  if (m_keeper.OwnerOf(path) != nullptr || m_tracks.count(path) != 0) {
    throw ConfigError("[" + source.Name() + "] cannot be written to " + path +
                      ", which another source of this run has written");
  }
  const RecordingSettings recording{path, source.Name(), settings.streamHeader,
                                    source.Settings().rotateSize.value_or(0), source.Settings().rotateTime.value_or(0)};
  source.OpenOutput(recording, common::WallClockUs(), [this](bool isWarning, const auto& line) {
    Say(isWarning ? Priority::Warning : Priority::Notice, line);
  });
}

// Carries out a change of a source's outputs. Messages of a source that was open before may be on their way to them.
void Session::Redirect(Source& source, std::function<void()> change) {
  if (m_receiver == nullptr || !m_keeper.HasBeenOpen(source)) return change();
  const common::Lock lock(m_redirectionLock);
  m_redirections.push_back(std::move(change));
}

void Session::OpenTrack(Source& source, const EncoderSettings& settings) {
  const std::string path = TrackPath(source.Settings(), settings);
  Outputs& wanted = m_wanted[&source];
  if (path == wanted.track && (path.empty() || settings.trackInterval == wanted.trackInterval)) return;
  if (path == wanted.track) {
    wanted.trackInterval = settings.trackInterval;
    Redirect(source, [&source, interval = settings.trackInterval] { source.SetTrackInterval(interval); });
    return;
  }
  std::shared_ptr<TrackFile> track;
  if (!path.empty()) {
    if (m_keeper.OwnerOf(path) != nullptr || m_tracks.count(path) != 0) {
      throw ConfigError("[" + source.Name() + "] cannot have its track in " + path + ", which this run has written");
    }
    if (!settings.trackDir.empty()) std::filesystem::create_directories(settings.trackDir);
    const auto format = track_text::FormatOf(path).value_or(track_text::Format::GeoJson);
    track = std::make_shared<TrackFile>(
        TrackSettings{path, source.Name(), format, settings.trackInterval},
        [this](bool isWarning, const auto& line) { Say(isWarning ? Priority::Warning : Priority::Notice, line); });
    track->Open();
    m_tracks.insert(path);
  }
  wanted.track = path;
  wanted.trackInterval = settings.trackInterval;
  Redirect(source, [&source, track] {
    if (const auto former = source.SetTrack(track)) former->Close();
  });
}

void Session::SendCot(Source& source) {
  const SourceSettings& settings = source.Settings();
  std::optional<CotSenderSettings> events;
  if (!settings.cotOut.empty()) {
    std::string uid = settings.cotOutUid;
    if (uid.empty()) uid = MachineName() + "-" + settings.name;
    events.emplace(CotSenderSettings{settings.name, settings.cotOut, settings.cotOutRate, uid, settings.cotOutType,
                                     settings.cotOutTls});
  }
  Outputs& wanted = m_wanted[&source];
  if (events == wanted.events) return;
  wanted.events = events;
  std::shared_ptr<CotSender> sender;
  if (events) {
    sender = std::make_shared<CotSender>(*events, [this](bool isWarning, const auto& line) {
      Say(isWarning ? Priority::Warning : Priority::Notice, line);
    });
  }
  Redirect(source, [this, &source, sender] {
    auto former = source.SetCotSender(sender);
    const common::Lock lock(m_redirectionLock);
    if (former) m_formerSenders.push_back(std::move(former));
  });
}

// Opens the port of the page, so that the run does not begin without it.
void Session::OpenPage() {
  const EncoderSettings& settings = m_config.encoder;
  if (!settings.http.IsOn()) return;
  http::LivePageSettings page;
  page.http = settings.http;
  page.version = MDENCODER_VERSION;
  if (!settings.outputDir.empty()) page.folders.push_back(settings.outputDir);
  for (const SourceSettings& source : m_config.sources) {
    const std::string path = RecordingPath(source, settings);
    if (!path.empty()) page.folders.push_back(std::filesystem::path(path).parent_path());
  }
  for (std::string& folder : page.folders) folder = (std::filesystem::absolute(folder) / "").lexically_normal();
  page.streams = http::ViewOf(m_streams);
  page.presenter = http::PresenterOf(m_streams);
  page.say = [this](const std::string& line) { Say(Priority::Warning, line); };
  m_page = std::make_unique<http::LivePage>(std::move(page));
  if (m_around.onLog) {
    m_around.onLog([this](const HostLogLine& line) {
      m_page->Inbox().Log(PriorityOfLevel(line.level, line.assertion), line.module, line.function + ": " + line.text);
    });
  }
}

// Gives the page the statistics and what is wrong.
void Session::UpdatePage(Clock::time_point now) {
  http::Snapshot snapshot;
  snapshot.timeUs = common::WallClockUs();
  snapshot.at = now;
  bool isOpen = false;
  for (const Report& report : Reports()) {
    http::Json source = ReportJson(report);
    source["faults"] = LostOrCorrupt(report);
    snapshot.sources.push_back(std::move(source));
  }
  for (const Source* source : m_keeper.Sources()) isOpen = isOpen || m_keeper.IsOpen(*source);
  if (!isOpen) snapshot.troubles.push_back("no source is open: " + m_keeper.Summary());
  if (m_failed.load() || m_keeper.Failed()) snapshot.troubles.push_back("something has failed; the log tells what");
  if (m_around.secondsSinceSign) snapshot.silentFor = m_around.secondsSinceSign();
  if (snapshot.silentFor.value_or(0) > kLongestThreadSilence) {
    snapshot.troubles.push_back("the metadata thread gives no sign");
  }
  if (m_receiver) snapshot.waiting = m_config.encoder.queue - std::min(m_config.encoder.queue, m_receiver->Room());
  m_page->Inbox().Update(std::move(snapshot));
  m_nextPage = now + kPageInterval;
}

// Returns how many messages can come without a loss.
size_t Session::Room() const {
  return m_receiver != nullptr && m_console.HasRowRoom() ? m_receiver->Room() : 0;
}

Captures Session::CapturesOf(const Surroundings& around) {
  Captures captures = around.captures;
  captures.room = [this] { return Room(); };
  return captures;
}

// Returns false after the first source that cannot be opened, and may not wait.
bool Session::OpenSources() {
  const Source* const failed = m_keeper.OpenAll(Clock::now());
  if (failed == nullptr) return true;
  Fail("source " + failed->Name() + " cannot be opened; the log tells why (--log-level 6 tells more)");
  return false;
}

void Session::StartStreams() {
  std::vector<std::string> names;
  for (const SourceSettings& source : m_config.sources) names.push_back(source.name);
  m_streams.Start(m_config.streams, names, [this](bool isWarning, const auto& line) {
    Say(isWarning ? Priority::Warning : Priority::Notice, line);
  });
}

int Session::Run() {
  OpenPage();
  OpenFiles();
  StartStreams();
  if (!m_library.init(m_config.encoder.capabilities)) throw std::runtime_error("METADATALIB_Init failed");
  const auto handle = [this](const Received& received) { Handle(received); };
  const auto flush = [this] {
    TakeRedirections();
    std::erase_if(m_unflushed, [](Source* source) { return source->FlushOutput(); });
  };
  const size_t reserve = Source::kMostUnderWay * std::max(m_keeper.Sources().size(), kSourcesOfReserve);
  m_receiver = std::make_unique<Receiver>(m_config.encoder.queue, reserve, m_library.releaseBuffer, handle, flush);
  m_times.startUs = common::WallClockUs();
  m_start = Clock::now();
  if (!m_presentation.header.empty()) m_console.Line(m_presentation.header);
  if (m_around.onRoom) m_around.onRoom([this] { return Room(); });
  const bool opened = OpenSources();
  if (m_page) {
    UpdatePage(Clock::now());
    m_page->Start();
    Say(Priority::Notice, "the live page is at " + m_config.encoder.http.Url());
  }
  if (opened) Loop();
  m_service.Stopping();
  m_kernelDrops.Update();
  m_keeper.CloseAll();
  if (m_around.onRoom) m_around.onRoom({});
  m_receiver->Finish();
  m_streams.Finish();
  if (m_page) {
    if (m_around.onLog) m_around.onLog({});
    m_page->Stop();
  }
  m_times.endUs = common::WallClockUs();
  m_times.seconds = std::chrono::duration<double>(Clock::now() - m_start).count();
  m_library.shutdown();
  m_console.Status({});
  TakeRedirections();
  for (Source* source : m_keeper.EverySource()) EndRecording(*source);
  if (opened) WriteResults();
  BlockSignals();
  return m_failed.load() || m_keeper.Failed() ? 1 : 0;
}

// A message that a recording lacks is a failure of the run, wherever it was lost.
void Session::EndRecording(Source& source) {
  source.CloseOutput();
  const Counters counters = source.Snapshot();
  const uint64_t lacking = counters.dropped + counters.recordingLost;
  if (!counters.isRecorded || lacking == 0) return;
  Fail("the received stream of " + source.Name() + " lacks " + std::to_string(lacking) +
       " messages: " + std::to_string(counters.dropped) + " dropped with the queue full, " +
       std::to_string(counters.recordingLost) + " that could not be written");
}

void Session::End(const char* why) {
  if (!m_ended) m_times.endedBy = why;
  m_ended = true;
}

void Session::Fail(const std::string& complaint) {
  m_failed.store(true);
  Say(Priority::Error, complaint);
}

void Session::Say(Priority priority, const std::string& line) {
  if (m_page) m_page->Inbox().Log(priority, {}, line);
  m_console.Complain(PriorityPrefix(priority) + "mdencoder: " + line);
}

// --- Messages ----------------------------------------------------------------------------------------

// Runs on the metadata thread. Accepts or refuses the message; waits for the recorder only if the queue is full, and 2 ms at
// most (Receiver::Push).
BOOL Session::OnMessage(MDATA_BUFFER* buffer, void* tap, void*) {
  const auto& [context, source] = *static_cast<SourceKeeper::Tap*>(tap);
  auto* const session = static_cast<Session*>(context);
  const uint64_t limit = session->m_config.encoder.messages;
  if (limit != 0 && session->m_taken.load(std::memory_order_relaxed) >= limit) return FALSE;
  if (session->m_pairClock && source->IsCot()) {
    if (const auto difference = session->m_pairClock()) source->CountPair(*difference);
  }
  if (!session->m_receiver->Push(buffer, *source)) return FALSE;
  const uint64_t taken = session->m_taken.fetch_add(1, std::memory_order_relaxed) + 1;
  const uint64_t each = session->m_config.encoder.messagesEach;
  if (taken == limit || (each != 0 && source->Messages() == each)) eventfd_write(session->m_wake.Get(), 1);
  return TRUE;
}

// Runs on the recorder's thread, or after its end.
void Session::TakeRedirections() {
  std::vector<std::function<void()>> changes;
  {
    const common::Lock lock(m_redirectionLock);
    changes.swap(m_redirections);
  }
  for (const auto& change : changes) change();
}

// Runs on the recorder's thread: files come before the printing, which has a thread of its own.
void Session::Handle(const Received& received) {
  Source& source = *received.source;
  const st0601::Message message = st0601::Parse(received.Message());
  source.Judge(message);
  if (!message.isUas && source.IsKlvOverUdp()) Hint(received);
  if (source.Write(received, message)) m_unflushed.push_back(&source);
  m_streams.Push(received);
  if (m_page) m_page->Inbox().Push(received);
  if (m_presentation.render) m_console.Row(received, m_presentation.render);
}

// Runs on the recorder's thread.
void Session::Hint(const Received& received) {
  const std::string what = m_hints[received.source].Look(received.Message());
  if (what.empty()) return;
  Say(Priority::Warning,
      "source " + received.source->Name() + " receives " + what +
          ", which is no KLV in datagrams; url = udp://ADDRESS:PORT in place of input and port reads it");
}

bool Session::LimitReached() const {
  const EncoderSettings& settings = m_config.encoder;
  if (settings.messages != 0 && m_taken.load(std::memory_order_relaxed) >= settings.messages) return true;
  return settings.messagesEach != 0 && m_keeper.AllReached(settings.messagesEach);
}

// --- Main loop ---------------------------------------------------------------------------------------

// Starts the timers of the settings that have changed.
void Session::SetTimers(const EncoderSettings& before) {
  const EncoderSettings& settings = m_config.encoder;
  const auto now = Clock::now();
  if (settings.statusInterval != before.statusInterval) {
    m_nextStatus.reset();
    if (settings.statusInterval > 0 && m_console.HasStatus()) m_nextStatus = now;
  }
  if (settings.statsInterval != before.statsInterval) {
    m_nextStatistics.reset();
    if (settings.statsInterval > 0) m_nextStatistics = now + Seconds(settings.statsInterval);
  }
}

void Session::Loop() {
  EncoderSettings none;
  none.statusInterval = none.statsInterval = 0;
  SetTimers(none);
  if (m_service.WatchdogTime()) m_nextBeat = m_start;
  m_service.Ready(m_keeper.Summary());
  while (!m_ended) {
    pollfd set[] = {{m_signals.Get(), POLLIN, 0},
                    {m_wake.Get(), POLLIN, 0},
                    {m_input.Descriptor(), POLLIN, 0},
                    {m_console.FailureDescriptor(), POLLIN, 0},
                    {m_network.Descriptor(), POLLIN, 0}};
    const int ready = poll(set, std::size(set), Wait());
    if (ready < 0 && errno != EINTR) {
      Fail(std::string("cannot wait for events: ") + std::strerror(errno));
      End("failure");
    }
    if (ready > 0) {
      if (set[0].revents != 0) OnSignal();
      if (set[2].revents != 0) OnInput();
      if (set[4].revents != 0) m_keeper.OnNetwork(m_network.Read(), Clock::now());
    }
    Tick();
  }
}

int Session::Wait() {
  auto due = Clock::time_point::max();
  if (m_config.encoder.duration > 0) due = std::min(due, m_start + Seconds(m_config.encoder.duration));
  if (m_nextStatus) due = std::min(due, *m_nextStatus);
  if (m_nextStatistics) due = std::min(due, *m_nextStatistics);
  if (m_nextBeat) due = std::min(due, *m_nextBeat);
  if (m_nextPage) due = std::min(due, *m_nextPage);
  due = std::min({due, m_nextLook, m_keeper.Due(Clock::now())});
  if (due == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, 3600000));
}

void Session::Tick() {
  const auto now = Clock::now();
  if (now >= m_nextLook) LookForLosses(now);
  m_keeper.Tick(now);
  EndFormerSenders();
  m_service.Status(m_keeper.Summary());
  if (m_nextBeat && now >= *m_nextBeat) Beat(now);
  if (m_nextPage && now >= *m_nextPage) UpdatePage(now);
  if (m_nextStatus && now >= *m_nextStatus) {
    ShowStatus();
    m_nextStatus = now + Seconds(std::max(m_config.encoder.statusInterval, kShortestStatusInterval));
  }
  if (m_nextStatistics && now >= *m_nextStatistics) {
    WriteStatistics(Reports(), true);
    m_nextStatistics = *m_nextStatistics + Seconds(m_config.encoder.statsInterval);
    if (*m_nextStatistics < now) m_nextStatistics = now + Seconds(m_config.encoder.statsInterval);
  }
  if (m_config.encoder.duration > 0 && now >= m_start + Seconds(m_config.encoder.duration)) End("duration");
  if (LimitReached()) End("messages");
  if (m_keeper.AllPlayed()) End("played");
  if (m_console.OutputFailed()) {
    Fail("cannot write to standard output");
    End("output");
  }
}

// A sender may take a moment to end, for which the recorder does not wait.
void Session::EndFormerSenders() {
  std::vector<std::shared_ptr<CotSender>> ending;
  {
    const common::Lock lock(m_redirectionLock);
    ending.swap(m_formerSenders);
  }
}

void Session::LookForLosses(Clock::time_point now) {
  m_nextLook = now + kLossInterval;
  for (const Source* source : m_keeper.Sources()) {
    const Counters counters = source->Snapshot();
    m_silence.Look(source->Name(), source->Settings().silence.value_or(0), m_keeper.IsOpen(*source),
                   counters.messages + counters.dropped, now);
  }
  if (now < m_nextDrops) return;
  m_kernelDrops.Update();
  m_nextDrops = now + kDropsInterval;
}

void Session::OnSignal() {
  signalfd_siginfo info{};
  while (read(m_signals.Get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
    if (info.ssi_signo == SIGUSR1) {
      Reset({});
    } else if (info.ssi_signo == SIGUSR2) {
      Restore({});
    } else if (info.ssi_signo == SIGHUP) {
      OnHangUp();
    } else {
      OnEndSignal(static_cast<int>(info.ssi_signo));
    }
  }
}

// The first one ends the run. From then on the signals end the process, whatever this thread is waiting for.
void Session::OnEndSignal(int number) {
  if (m_endSignal && number != SIGHUP) EndAtOnce(number);
  m_endSignal = true;
  End("signal");
  sigset_t set;
  sigemptyset(&set);
  for (const int ending : {SIGINT, SIGTERM}) {
    sigaddset(&set, ending);
    std::signal(ending, EndAtOnce);
  }
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// The same signal asks for a reload and tells that the terminal is gone.
void Session::OnHangUp() {
  const auto isGone = [](int fd) {
    pollfd terminal = {fd, 0, 0};
    return poll(&terminal, 1, 0) == 1 && (terminal.revents & (POLLHUP | POLLERR)) != 0;
  };
  if (std::any_of(m_terminals.begin(), m_terminals.end(), isGone)) {
    OnEndSignal(SIGHUP);
  } else if (!m_ended) {
    Reload();
  }
}

// A sign of life of the metadata thread is passed on. It gives one every second, also without a source.
void Session::Beat(Clock::time_point now) {
  const std::chrono::duration<double> most = std::max<std::chrono::duration<double>>(
      std::chrono::seconds(2), std::chrono::duration<double>(*m_service.WatchdogTime()) / 2);
  const auto seconds = m_around.secondsSinceSign ? m_around.secondsSinceSign() : std::nullopt;
  if (seconds && *seconds < most.count()) m_service.Beat();
  m_nextBeat = now + *m_service.WatchdogTime() / 4;
}

void Session::OnInput() {
  for (const std::string& line : m_input.Read()) {
    if (const auto command = ParseCommand(line)) Execute(*command);
  }
}

// --- Reload ------------------------------------------------------------------------------------------

void Session::Reload() {
  m_service.Reloading();
  try {
    if (!m_around.prepare) throw ConfigError("there is nothing to read again");
    CheckedConfig fresh = m_around.prepare();
    GiveInputs(fresh.config.sources, m_config.sources);
    const ConfigDifference difference = Compare(m_checked, fresh);
    AddSources(difference.added, fresh.config.encoder);
    const auto applyHost = [&] {
      if (m_around.applyHost) m_around.applyHost(fresh.host);
    };
    m_keeper.Apply(difference, fresh.host, applyHost, Clock::now());
    const EncoderSettings before = m_config.encoder;
    TakeOver(m_checked.config.encoder, fresh.config.encoder);
    SetTimers(before);
    RedirectOutputs(difference, m_config.encoder);
    m_checked.config.sources = fresh.config.sources;
    m_checked.host = fresh.host;
    Say(Priority::Notice, "configuration reloaded: sources added " + std::to_string(difference.added.size()) +
                              ", changed " + std::to_string(difference.changed.size()) + ", removed " +
                              std::to_string(difference.removed.size()) + ", unchanged " +
                              std::to_string(difference.unchanged.size()));
  } catch (const std::exception& error) {
    Say(Priority::Error, std::string("configuration not reloaded, nothing has changed: ") + error.what());
  }
  m_service.Ready(m_keeper.Summary());
}

// One that was open before may have messages on their way, and keeps its outputs.
void Session::Forget(const Source& source) {
  if (!m_keeper.HasBeenOpen(source)) {
    m_tracks.erase(m_wanted[&source].track);
    m_wanted.erase(&source);
  }
  m_keeper.Discard(source);
}

// Takes over tracks, events, columns and items. A track that cannot be written is said, and the source goes on without.
void Session::RedirectOutputs(const ConfigDifference& difference, const EncoderSettings& settings) {
  for (Source* source : m_keeper.Sources()) {
    const auto isIt = [source](const SourceSettings& each) { return each.name == source->Name(); };
    if (std::none_of(difference.redirected.begin(), difference.redirected.end(), isIt)) continue;
    SendCot(*source);
    try {
      OpenTrack(*source, settings);
    } catch (const std::exception& error) {
      Say(Priority::Error, std::string("the track of ") + source->Name() + " does not change: " + error.what());
    }
  }
  if (!difference.isShownOtherwise) return;
  const common::Lock lock(m_redirectionLock);
  m_redirections.push_back([this, shown = settings.presentation, width = LongestName(m_config.sources)] {
    m_presentation = MakePresentation(shown, width, [] { return OutputWidth(STDOUT_FILENO); });
    if (!m_presentation.header.empty()) m_console.Line(m_presentation.header);
  });
}

// Adds all of them or, with an exception, none.
void Session::AddSources(const std::vector<SourceSettings>& added, const EncoderSettings& settings) {
  std::vector<const Source*> done;
  try {
    for (const SourceSettings& each : added) {
      Source& source = m_keeper.Add(each, m_config.encoder.capabilities);
      done.push_back(&source);
      OpenOutput(source, settings);
    }
  } catch (const std::exception&) {
    for (const Source* source : done) Forget(*source);
    throw;
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
  for (Source* source : m_keeper.Sources()) {
    if (name.empty() || source->Name() == name) chosen.push_back(source);
  }
  if (chosen.empty()) m_console.Complain("no source \"" + name + "\"");
  return chosen;
}

void Session::ShowStatistics(const std::string& name) {
  if (Chosen(name).empty()) return;
  auto reports = Reports();
  if (!name.empty()) std::erase_if(reports, [&](const Report& report) { return report.settings->name != name; });
  PrintStatistics(reports);
}

// Rows of CSV are for a program, which would take the table for one of them.
void Session::PrintStatistics(const std::vector<Report>& reports) {
  switch (m_config.encoder.presentation.format) {
    case Format::Json:
      m_console.Line(StatisticsLine(reports, common::WallClockUs(), m_streams.Snapshot()));
      break;
    case Format::Csv:
      for (const std::string& line : StatisticsTable(reports, m_streams.Snapshot())) m_console.Complain(line);
      break;
    default:
      m_console.Lines(StatisticsTable(reports, m_streams.Snapshot()));
  }
}

void Session::Reset(const std::string& name) {
  for (Source* source : Chosen(name)) {
    m_keeper.Reset(*source);
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
    if (it != m_kept.end()) m_keeper.Restore(*source, it->second);
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

std::vector<Report> Session::Reports(bool withRemoved) {
  m_kernelDrops.Update();
  const uint64_t now = common::WallClockUs();
  auto reports = m_keeper.Reports(withRemoved);
  for (Report& report : reports) {
    const MDATA_SRC_CFG& record = report.settings->record;
    const uint64_t last = report.counters.lastUs;
    if (last != 0) report.lastMessageAge = now > last ? static_cast<double>(now - last) / 1e6 : 0;
    if (record.enInputType == MDATA_INPUT_NETWORK) report.kernelDrops = m_kernelDrops.Of(record.in.Network.usUDPPort);
    if (report.settings->tak)
      report.kernelDrops += m_kernelDrops.Of(ReceptionOf(record, report.settings->tak).usUDPPort);
    if (record.enInputType == MDATA_INPUT_VIDEO && m_around.captureStats) {
      report.capture = m_around.captureStats(record.in.Video.enInputInterface);
    }
  }
  return reports;
}

void Session::ShowStatus() {
  const auto reports = Reports();
  if (m_config.encoder.live) {
    m_console.Status(StatisticsTable(reports, m_streams.Snapshot()));
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
    const uint64_t faults = LostOrCorrupt(report);
    if (faults != 0) line += " (" + std::to_string(faults) + " lost or corrupt)";
  }
  m_console.Status({line});
}

void Session::WriteStatistics(const std::vector<Report>& reports, bool print) {
  if (print) PrintStatistics(reports);
  if (m_statsJson == nullptr) return;
  std::fprintf(m_statsJson, "%s\n", StatisticsLine(reports, common::WallClockUs(), m_streams.Snapshot()).c_str());
  if (std::fflush(m_statsJson) != 0) Fail("the statistics cannot be written to " + m_config.encoder.statsJson);
}

// A run that was told to end does not wait for a slow reader. One that has reached its number of messages, or has played
// its files, does as long as the reader reads: they were asked for.
void Session::FinishRows() {
  Printer::Limit limit;
  limit.asLongAsItMoves = m_times.endedBy == "messages" || m_times.endedBy == "played" || m_times.endedBy == "quit";
  limit.hurry = [this] {
    OnSignal();
    return m_endSignal;
  };
  m_times.rowsDropped = m_console.FinishRows(limit);
  if (m_times.rowsDropped == 0 || m_console.OutputFailed()) return;
  m_console.Complain("mdencoder: " + std::to_string(m_times.rowsDropped) +
                     " rows were not printed, because the standard output was not read in time");
}

void Session::WriteResults() {
  const auto reports = Reports(true);
  WriteStatistics(reports, !m_console.OutputFailed());
  FinishRows();
  const auto write = [this](const std::string& path, const auto& action) {
    if (path.empty()) return;
    try {
      action(path);
    } catch (const std::runtime_error& error) {
      Fail(error.what());
    }
  };
  write(m_config.encoder.summary,
        [&](const std::string& path) { ReplaceFile(path, SummaryJson(reports, m_times, m_streams.Snapshot())); });
  write(m_config.encoder.statsFile, [&](const std::string& path) { SaveStatistics(path, Reports()); });
  // The write that failed may be that of the last lines.
  if (m_console.OutputFailed() && !m_failed.load()) Fail("cannot write to standard output");
}

}  // namespace mdencoder
