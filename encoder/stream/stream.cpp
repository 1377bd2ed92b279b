// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Start and end    make the outputs and the thread
//   Messages         come from the recorder
//   Thread           puts frames and messages together
#include "stream.h"

#include <pthread.h>
#include <sys/timex.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <utility>

#include "metadata_lib.h"
#include "st0601_items.h"
#include "stream_url.h"
#include "wall_clock.h"

namespace mdencoder {
namespace {

constexpr int64_t kIdleUs = 20'000;        // between two clock references without video
constexpr int64_t kPreludeUs = 3'000'000;  // in which the video should come; messages wait for it
constexpr int64_t kPauseUs = 3'000'000;    // without a frame, after which no pictures are coming
constexpr int64_t kWallStepUs = 1'000;     // by which the time of day is followed
constexpr auto kFailedLine = std::string_view(": the video has ended, messages go on: ");

bool FollowsReference() {
  timex state{};
  return adjtimex(&state) != TIME_ERROR && (state.status & STA_UNSYNC) == 0;
}

int64_t BoundUs(double seconds) {
  return static_cast<int64_t>(seconds * 1e6);
}

}  // namespace

// --- Start and end -----------------------------------------------------------------------------------

Stream::Stream(const StreamSettings& settings, const std::vector<std::string>& sources, const Streams::Say& say)
    : Stream(settings, sources, say, MakeVideoFeed(settings, say)) {}

Stream::Stream(const StreamSettings& settings, const std::vector<std::string>& sources, Streams::Say say,
               std::unique_ptr<VideoFeed> feed)
    : m_settings(settings),
      m_say(std::move(say)),
      m_start(Clock::now()),
      m_feed(std::move(feed)),
      m_mux(video::Codec::H264, settings.isSynchronous ? ts::Carriage::Synchronous : ts::Carriage::Asynchronous) {
  OpenOutputs();
  {
    const common::Lock lock(m_mutex);
    m_report.name = m_settings.name;
    m_report.video = stream_url::Shown(m_settings.video);
    m_wallUs = m_firstWallUs = static_cast<int64_t>(common::WallClockUs());
    for (const std::string& source : m_settings.sources.empty() ? sources : m_settings.sources) OriginOf(source);
  }
  m_isLocked = FollowsReference();
  m_start = Clock::now();
  m_thread = std::thread([this] { Run(); });
}

Stream::~Stream() {
  Finish();
}

void Stream::OpenOutputs() {
  const auto add = [this](const std::string& name, const TsOutput::MakeTsSink& make) {
    m_outputs.push_back(std::make_unique<TsOutput>("stream " + m_settings.name + ": " + name, make, m_say));
    m_outputNames.push_back(name);
  };
  for (const StreamOutput& output : m_settings.outputs) {
    add(stream_url::Shown(output.text),
        [output](std::function<bool()> isStopping) { return MakeSink(output, std::move(isStopping)); });
  }
  if (m_settings.hls.empty()) return;
  add(m_settings.hls,
      [this](const std::function<bool()>&) { return MakeSegmentSink(m_settings.hls, m_settings.name); });
}

void Stream::Finish() {
  if (!m_thread.joinable()) return;
  {
    const common::Lock lock(m_mutex);
    m_isStopped = true;
    m_changed.NotifyAll();
  }
  m_thread.join();
  m_feed.reset();
  for (const auto& output : m_outputs) output->Finish();
  m_ring->Close();
}

// --- Messages ----------------------------------------------------------------------------------------

bool Stream::Carries(std::string_view source) const {
  const auto& names = m_settings.sources;
  return names.empty() || std::find(names.begin(), names.end(), source) != names.end();
}

void Stream::Push(const Received& received) {
  if (!Carries(received.name)) return;
  const st0601::ByteView message = received.Message();
  bool begins = false;
  {
    const common::Lock lock(m_mutex);
    if (m_isStopped) return;
    if (m_queue.size() >= kMostMessages || m_waiting + message.size() > kMostWaiting) {
      ++m_report.lost;
      begins = !std::exchange(m_isOverrun, true);
    } else {
      m_waiting += message.size();
      m_queue.push_back(
          {std::string(received.name), {message.begin(), message.end()}, received.sequence, received.timeUs});
    }
  }
  if (begins) m_say(true, "stream " + m_settings.name + " is too slow; messages that it lacks are counted");
}

// Returns nothing if there are as many tracks as a stream can have.
Stream::Origin* Stream::OriginOf(const std::string& source) {
  const auto found = m_origins.find(source);
  if (found != m_origins.end()) return &found->second;
  size_t track = 0;
  if (!m_settings.isMerged || m_origins.empty()) {
    const auto added = m_mux.AddTrack();
    if (!added) return nullptr;
    track = *added;
  }
  Origin origin;
  origin.track = track;
  origin.clock = StreamClock(BoundUs(m_settings.timeBound));
  return &m_origins.emplace(source, origin).first->second;
}

std::optional<int64_t> Stream::Presentation(std::string_view source, std::optional<uint64_t> timeUs,
                                            uint64_t arrivalUs) const {
  const common::Lock lock(m_mutex);
  const auto origin = m_origins.find(source);
  if (origin == m_origins.end()) return std::nullopt;
  std::optional<int64_t> stamp;
  if (timeUs) stamp = static_cast<int64_t>(*timeUs);
  return origin->second.clock.Map(stamp, static_cast<int64_t>(arrivalUs)) - m_wallUs;
}

StreamReport Stream::Snapshot() const {
  StreamReport report;
  {
    const common::Lock lock(m_mutex);
    report = m_report;
    report.wallOffsetUs = m_wallUs - m_firstWallUs;
    for (const auto& [name, origin] : m_origins) {
      const StreamClock::State& state = origin.clock.Snapshot();
      report.tracks.push_back({name, ts::Mux::PidOf(origin.track), origin.messages, origin.late, origin.byArrival,
                               state.offsetUs, state.differenceUs, state.driftPpm});
    }
  }
  for (size_t i = 0; i < m_outputs.size(); ++i) {
    const TsOutput::Counts counts = m_outputs[i]->Snapshot();
    report.outputs.push_back({m_outputNames[i], counts.isGood, counts.bytes, counts.lost});
  }
  return report;
}

// --- Thread ------------------------------------------------------------------------------------------

void Stream::Run() {
  pthread_setname_np(pthread_self(), "Stream");
  while (Wait()) Step();
  // What came until the end.
  std::vector<uint8_t> out;
  PutMessages(out);
  Emit(std::move(out), Now(), false);
  try {
    if (m_mp4) m_mp4->Finish();
  } catch (const std::exception& error) {
    m_say(true, "stream " + m_settings.name + ": " + error.what());
  }
}

int64_t Stream::Now() const {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - m_start).count();
}

// Waits for the next frame. Returns false at the end.
bool Stream::Wait() {
  const int64_t dueUs = m_feed ? m_feed->DueUs() : Now() + kIdleUs;
  const auto due = m_start + std::chrono::microseconds(dueUs);
  const common::Lock lock(m_mutex);
  while (!m_isStopped && Clock::now() < due) m_changed.WaitUntil(m_mutex, due);
  return !m_isStopped;
}

// A frame comes before the messages, so that a segment can begin with it.
void Stream::Step() {
  ReadWall();
  const int64_t nowUs = Now();
  std::vector<EncodedFrame> frames;
  TakeFrames(nowUs, frames);
  // The tables tell the codec, and players do not expect another one.
  if (frames.empty() && m_shape.width == 0 && nowUs < kPreludeUs) return;
  std::vector<uint8_t> out;
  bool isKey = false;
  int64_t timeUs = nowUs;
  for (const EncodedFrame& frame : frames) {
    // A chunk has one key frame at most, at its beginning.
    if (frame.isKey) Emit(std::exchange(out, {}), timeUs, isKey);
    if (out.empty()) {
      isKey = frame.isKey;
      timeUs = frame.dtsUs;
    }
    PutFrame(frame, out);
  }
  if (frames.empty()) m_mux.PutClock(Ticks(nowUs), out);
  PutMessages(out);
  Emit(std::move(out), timeUs, isKey);
}

// The stream's clock never jumps; the time of day may. A thread that was held up between the two clocks has learnt nothing.
void Stream::ReadWall() {
  const int64_t nowUs = Now();
  const int64_t wallUs = static_cast<int64_t>(common::WallClockUs()) - nowUs;
  if (Now() - nowUs > kWallStepUs / 2) return;
  const common::Lock lock(m_mutex);
  if (std::abs(wallUs - m_wallUs) > kWallStepUs) m_wallUs = wallUs;
}

void Stream::TakeFrames(int64_t nowUs, std::vector<EncodedFrame>& frames) {
  if (!m_feed) return;
  int64_t wallUs = 0;
  {
    const common::Lock lock(m_mutex);
    wallUs = m_wallUs;
  }
  try {
    m_feed->Take(nowUs, static_cast<uint64_t>(nowUs + wallUs), m_seen, frames);
    const VideoFeed::Shape shape = m_feed->Describe();
    if (shape != m_shape) m_mp4.reset();
    m_shape = shape;
    m_mux.SetCodec(m_shape.codec);
  } catch (const std::exception& error) {
    m_say(true, "stream " + m_settings.name + std::string(kFailedLine) + error.what());
    m_feed.reset();
  }
  const common::Lock lock(m_mutex);
  if (!frames.empty()) m_frameUs = nowUs;
  m_report.hasVideo = m_feed && m_frameUs && nowUs - *m_frameUs < kPauseUs;
  if (m_feed) m_report.framesLate = m_feed->Late();
}

void Stream::PutFrame(const EncodedFrame& frame, std::vector<uint8_t>& out) {
  int64_t wallUs = 0;
  {
    const common::Lock lock(m_mutex);
    ++m_report.frames;
    m_report.clockUs = frame.ptsUs;
    wallUs = m_wallUs;
  }
  EncodedFrame stamped = frame;
  stamped.dtsUs = std::max(frame.dtsUs, m_lastDtsUs + 1);
  stamped.ptsUs = std::max(frame.ptsUs, stamped.dtsUs);
  m_lastDtsUs = stamped.dtsUs;
  stamped.bytes =
      video::WithTimeStamp(m_shape.codec, frame.bytes, static_cast<uint64_t>(frame.ptsUs + wallUs), m_isLocked);
  m_mux.PutFrame({stamped.bytes, Ticks(stamped.ptsUs), Ticks(stamped.dtsUs), stamped.isKey}, out);
  try {
    if (!m_mp4) m_mp4 = std::make_unique<Mp4Fragments>(m_shape.codec, m_shape.width, m_shape.height, m_ring);
    m_mp4->Push(stamped);
  } catch (const std::exception& error) {
    m_say(true, "stream " + m_settings.name + ": the video for pages begins anew: " + error.what());
    m_mp4.reset();
  }
}

void Stream::PutMessages(std::vector<uint8_t>& out) {
  std::deque<Waiting> queue;
  {
    const common::Lock lock(m_mutex);
    queue.swap(m_queue);
    m_waiting = 0;
    if (queue.size() < kMostMessages / 2) m_isOverrun = false;
  }
  for (const Waiting& waiting : queue) PutMessage(waiting, out);
  if (queue.empty()) return;
  const st0601::Message newest = st0601::Parse(queue.back().message);
  if (newest.isUas && newest.checksum != st0601::ChecksumState::Bad) m_seen = st0601::Observe(newest);
}

// The cell has the number that the library has given the message, so that a reader sees what was lost.
void Stream::PutMessage(const Waiting& waiting, std::vector<uint8_t>& out) {
  const st0601::Message parsed = st0601::Parse(waiting.message);
  std::optional<int64_t> stamp;
  if (parsed.isUas && parsed.checksum != st0601::ChecksumState::Bad) {
    const auto timeUs = st0601::Observe(parsed).timeUs;
    if (timeUs) stamp = static_cast<int64_t>(*timeUs);
  }
  const common::Lock lock(m_mutex);
  Origin* const origin = OriginOf(waiting.source);
  if (origin == nullptr) {
    ++m_report.lost;
    return;
  }
  const uint64_t mapped = origin->clock.Snapshot().mapped;
  const int64_t timeUs = origin->clock.Push(stamp, static_cast<int64_t>(waiting.arrivalUs)) - m_wallUs;
  if (origin->clock.Snapshot().mapped == mapped) ++origin->byArrival;
  const auto sequence = m_settings.isMerged ? static_cast<uint8_t>(m_mergedNumber++) : waiting.sequence;
  if (!m_mux.PutMessage(origin->track, {waiting.message, sequence, Ticks(timeUs)}, out)) ++origin->late;
  ++origin->messages;
  ++m_report.messages;
}

void Stream::Emit(std::vector<uint8_t> bytes, int64_t timeUs, bool isKey) {
  if (bytes.empty()) return;
  const auto chunk = std::make_shared<const TsChunk>(TsChunk{std::move(bytes), timeUs, isKey});
  for (const auto& output : m_outputs) output->Push(chunk);
}

}  // namespace mdencoder
