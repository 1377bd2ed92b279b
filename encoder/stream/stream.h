// SPDX-License-Identifier: Apache-2.0
// One stream: its thread puts the video and the messages of its sources together.
//
// Messages wait in a bounded queue until the next frame, which nobody holds up: a message that comes late has its own
// time in the stream as long as that is allowed, and the earliest one otherwise.
#ifndef MDENCODER_STREAM_H
#define MDENCODER_STREAM_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "annotated_mutex.h"
#include "encoded_frame.h"
#include "fragment_ring.h"
#include "mp4_fragments.h"
#include "observation.h"
#include "stream_clock.h"
#include "stream_settings.h"
#include "streams.h"
#include "ts_mux.h"
#include "ts_output.h"
#include "video_feed.h"

namespace mdencoder {

class Stream {
 public:
  static constexpr size_t kMostWaiting = size_t{16} << 20;  // bytes of messages
  static constexpr size_t kMostMessages = 65536;

  // Throws std::runtime_error for an output or a video that cannot be made.
  Stream(const StreamSettings& settings, const std::vector<std::string>& sources, const Streams::Say& say);
  // With this video in place of the one of the settings.
  Stream(const StreamSettings& settings, const std::vector<std::string>& sources, Streams::Say say,
         std::unique_ptr<VideoFeed> feed);
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  const std::string& Name() const { return m_settings.name; }
  // Any thread; waits for nobody.
  void Push(const Received& received);
  // Puts what waits into the stream, and ends it.
  void Finish();

  StreamReport Snapshot() const;
  const std::shared_ptr<FragmentRing>& Ring() const { return m_ring; }
  std::optional<int64_t> Presentation(std::string_view source, std::optional<uint64_t> timeUs,
                                      uint64_t arrivalUs) const;

 private:
  using Clock = std::chrono::steady_clock;

  struct Waiting {
    std::string source;
    std::vector<uint8_t> message;
    uint8_t sequence = 0;
    uint64_t arrivalUs = 0;
  };
  // A source in the stream.
  struct Origin {
    size_t track = 0;
    StreamClock clock;
    uint64_t messages = 0;
    uint64_t late = 0;
    uint64_t byArrival = 0;
  };

  void OpenOutputs();
  bool Carries(std::string_view source) const;
  Origin* OriginOf(const std::string& source) REQUIRES(m_mutex);
  void Run();
  bool Wait();
  int64_t Now() const;
  void Step();
  void ReadWall();
  void TakeFrames(int64_t nowUs, std::vector<EncodedFrame>& frames);
  void PutFrame(const EncodedFrame& frame, std::vector<uint8_t>& out);
  void PutMessages(std::vector<uint8_t>& out);
  void PutMessage(const Waiting& waiting, std::vector<uint8_t>& out);
  void Emit(std::vector<uint8_t> bytes, int64_t timeUs, bool isKey);

  const StreamSettings m_settings;
  const Streams::Say m_say;
  const std::shared_ptr<FragmentRing> m_ring = std::make_shared<FragmentRing>();
  std::vector<std::unique_ptr<TsOutput>> m_outputs;
  std::vector<std::string> m_outputNames;
  Clock::time_point m_start;

  // Thread.
  std::unique_ptr<VideoFeed> m_feed;  // none after it has failed
  std::unique_ptr<Mp4Fragments> m_mp4;
  VideoFeed::Shape m_shape;
  ts::Mux m_mux;
  bool m_isLocked = false;      // the system's clock follows a reference
  uint64_t m_mergedNumber = 0;  // of the next message of a merged track
  int64_t m_lastDtsUs = INT64_MIN;
  std::optional<int64_t> m_frameUs;  // when the last frame came
  st0601::Observation m_seen;

  mutable common::Mutex m_mutex;  // leaf
  common::Condition m_changed;
  std::deque<Waiting> m_queue GUARDED_BY(m_mutex);
  size_t m_waiting GUARDED_BY(m_mutex) = 0;  // bytes
  bool m_isStopped GUARDED_BY(m_mutex) = false;
  bool m_isOverrun GUARDED_BY(m_mutex) = false;  // a line has said so
  int64_t m_wallUs GUARDED_BY(m_mutex) = 0;      // the time of day at 0 of the stream's clock, as it is now
  int64_t m_firstWallUs GUARDED_BY(m_mutex) = 0;
  std::map<std::string, Origin, std::less<>> m_origins GUARDED_BY(m_mutex);
  StreamReport m_report GUARDED_BY(m_mutex);

  std::thread m_thread;
};

}  // namespace mdencoder

#endif  // MDENCODER_STREAM_H
