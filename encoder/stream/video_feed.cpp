// SPDX-License-Identifier: Apache-2.0
#include "video_feed.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "media_reader.h"
#include "scene.h"
#include "stream_clock.h"
#include "video_encoder.h"

namespace mdencoder {
namespace {

class SceneFeed : public VideoFeed {
 public:
  SceneFeed(const StreamSettings& settings, const Say& say)
      : m_name(settings.name),
        m_intervalUs(1e6 / settings.rate),
        m_shape{video::Codec::H264, settings.width, settings.height},
        m_scene({settings.width, settings.height, settings.rate}),
        m_encoder({settings.width, settings.height, settings.rate, settings.bitrate}) {
    if (!m_scene.HasText()) say(true, "stream " + m_name + ": the scene has no text without the font DejaVu Sans Mono");
  }

  int64_t DueUs() const override { return std::llround(static_cast<double>(m_next) * m_intervalUs); }

  // A frame has the time at which it was due. Those whose time has gone by are left out.
  void Take(int64_t nowUs, uint64_t wallUs, const st0601::Observation& seen,
            std::vector<EncodedFrame>& frames) override {
    if (nowUs < DueUs()) return;
    const auto reached = static_cast<int64_t>(static_cast<double>(nowUs) / m_intervalUs);
    if (reached > m_next + 1) {
      m_late += static_cast<uint64_t>(reached - m_next);
      m_next = reached;
    }
    const int64_t ptsUs = DueUs();
    ++m_next;
    const uint64_t shownUs = wallUs - static_cast<uint64_t>(nowUs - ptsUs);
    auto frame = m_encoder.Encode(m_scene.Next(SceneLines(m_name, shownUs, seen)), ptsUs);
    if (frame) frames.push_back(std::move(*frame));
  }

  Shape Describe() const override { return m_shape; }
  uint64_t Late() const override { return m_late; }

 private:
  const std::string m_name;
  const double m_intervalUs;
  const Shape m_shape;
  Scene m_scene;
  VideoEncoder m_encoder;
  int64_t m_next = 0;  // number of the frame
  uint64_t m_late = 0;
};

// What a file or a live stream has. A file is played at its own speed; a live stream's clock is followed.
class MediaFeed : public VideoFeed {
 public:
  MediaFeed(const StreamSettings& settings, const Say& say)
      : m_isFile(settings.kind == StreamSettings::Video::File), m_reader(settings, say) {}

  int64_t DueUs() const override { return m_dueUs; }

  void Take(int64_t nowUs, uint64_t, const st0601::Observation&, std::vector<EncodedFrame>& frames) override {
    const auto now = std::chrono::steady_clock::now();
    m_dueUs = nowUs + kLookUs;
    while (const MediaFrame* const next = m_reader.Front()) {
      const auto age = std::chrono::duration_cast<std::chrono::microseconds>(now - next->arrival).count();
      if (!Place(*next, m_isFile ? nowUs : nowUs - age, nowUs)) return;
      EncodedFrame frame = next->frame;
      frame.ptsUs = m_placedUs + (frame.ptsUs - frame.dtsUs);
      frame.dtsUs = m_placedUs;
      m_shape = next->shape;
      frames.push_back(std::move(frame));
      m_reader.Pop();
    }
  }

  Shape Describe() const override { return m_shape; }
  uint64_t Late() const override { return m_reader.Lost(); }

 private:
  static constexpr int64_t kLookUs = 10'000;         // between two looks at what the reader has
  static constexpr int64_t kMostLateUs = 1'000'000;  // of a file that begins again

  // Finds the frame's decode time on the stream's clock. Returns false if it has not come yet.
  bool Place(const MediaFrame& next, int64_t arrivalUs, int64_t nowUs) {
    const int64_t dtsUs = next.frame.dtsUs;
    const bool jumps = std::abs(dtsUs - m_lastUs) > StreamClock::kUsualBoundUs;
    if (!m_isBased && (next.isFirst || jumps)) {
      // A file that begins again goes on as it did.
      const int64_t nextUs = m_placedUs < 0 ? 0 : m_placedUs + m_intervalUs;
      m_baseUs =
          (m_isFile && m_placedUs >= 0 && nowUs - nextUs < kMostLateUs ? nextUs : std::max(arrivalUs, nextUs)) - dtsUs;
      m_clock = StreamClock();
    }
    const int64_t placedUs = dtsUs + m_baseUs;
    m_isBased = m_isFile && placedUs > nowUs;
    if (m_isBased) return false;
    if (!next.isFirst && dtsUs > m_lastUs && !jumps) m_intervalUs = dtsUs - m_lastUs;
    m_lastUs = dtsUs;
    m_placedUs = m_isFile ? placedUs : m_clock.Push(placedUs, arrivalUs);
    return true;
  }

  const bool m_isFile;
  int64_t m_dueUs = 0;
  Shape m_shape;
  StreamClock m_clock;
  int64_t m_baseUs = 0;           // from the input's clock to the stream's
  int64_t m_lastUs = 0;           // on the input's clock
  int64_t m_intervalUs = 40'000;  // between the last two frames
  bool m_isBased = false;         // for the frame that comes next
  int64_t m_placedUs = -1;
  MediaReader m_reader;
};

}  // namespace

std::unique_ptr<VideoFeed> MakeVideoFeed(const StreamSettings& settings, const VideoFeed::Say& say) {
  if (settings.kind != StreamSettings::Video::Scene) return std::make_unique<MediaFeed>(settings, say);
  return std::make_unique<SceneFeed>(settings, say);
}

}  // namespace mdencoder
