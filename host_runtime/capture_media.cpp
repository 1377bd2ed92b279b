// SPDX-License-Identifier: Apache-2.0
// The capture back end that plays the KLV track of a media file or stream.
//
// A file is played in its own time by its presentation timestamps; a stream (a URL) is passed on as it arrives. Both
// keep their timestamps, in units of 90 kHz. In a looped file the timestamps continue, so that none occurs twice.
#define HOST_MODULE "capture_media"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "capture.h"
#include "capture_playback.h"
#include "media_demuxer.h"
#include "nanoseconds.h"
#include "stream_url.h"

namespace host_runtime {
namespace {

class MediaBackend : public CaptureBackend {
 public:
  explicit MediaBackend(HostCaptureConfig config)
      : m_config(std::move(config)),
        m_name(stream_url::Shown(m_config.path)),
        m_isLive(stream_url::IsLive(m_config.path)),
        m_playback(m_name, m_isLive, m_config.speed) {}

  bool Open(CaptureQueue& queue) override {
    if (stream_url::IsUrl(m_config.path) || access(m_config.path.c_str(), R_OK) == 0) return true;
    HOST_LOG(3, "%s: cannot read \"%s\": %s.\n", queue.Label(), m_name.c_str(), strerror(errno));
    return false;
  }

  void Run(CaptureQueue& queue) override {
    while (!queue.IsStopping()) {
      const bool played = Play(queue);
      if (queue.IsStopping()) return;
      if (m_isLive) {
        queue.Wait(-1, kSecond);  // before the next attempt
      } else if (!played || !m_config.loop) {
        queue.End();
        return;
      }
    }
  }

 private:
  // Plays the file once, or a stream until it breaks. Returns true if there was KLV.
  bool Play(CaptureQueue& queue) {
    m_playback.BeginPass();
    MediaDemuxer demuxer([&queue] { return queue.IsStopping(); });
    if (!demuxer.Open(m_config.path, m_config.authorities)) {
      if (!queue.IsStopping()) RefuseInput(queue, demuxer.Fault());
      return false;
    }
    if (m_isLive) queue.SetFault("");
    MediaDemuxer::Packet packet;
    while (demuxer.Next(&packet) && m_playback.Push(queue, packet.time, packet.data)) continue;
    if (!queue.IsStopping()) ReportEnd(queue, demuxer.Fault());
    return m_playback.HasKlv();
  }

  void RefuseInput(CaptureQueue& queue, const std::string& fault) const {
    if (m_isLive) {
      queue.SetFault("cannot open " + m_name + ": " + fault);
      return;
    }
    queue.Count(&HostCaptureStats::damaged);
    HOST_LOG(3, "%s: cannot open \"%s\": %s.\n", queue.Label(), m_name.c_str(), fault.c_str());
  }

  void ReportEnd(CaptureQueue& queue, const std::string& fault) const {
    if (m_isLive) {
      queue.SetFault(m_name + (fault.empty() ? " has ended" : " broke off: " + fault));
    } else if (!fault.empty()) {
      queue.Count(&HostCaptureStats::damaged);
      HOST_LOG(3, "%s: reading \"%s\" failed after %llu KLV packets: %s.\n", queue.Label(), m_name.c_str(),
               m_playback.Messages(), fault.c_str());
    } else if (!m_playback.HasKlv()) {
      HOST_LOG(4, "%s: \"%s\" has no KLV.\n", queue.Label(), m_name.c_str());
    } else {
      HOST_LOG(5, "%s: end of \"%s\" after %llu KLV packets%s.\n", queue.Label(), m_name.c_str(), m_playback.Messages(),
               m_config.loop ? ", beginning again" : "");
    }
  }

  const HostCaptureConfig m_config;
  const std::string m_name;
  const bool m_isLive;
  Playback m_playback;
};

}  // namespace

std::unique_ptr<CaptureBackend> MakeMediaBackend(const HostCaptureConfig& config) {
  return std::make_unique<MediaBackend>(config);
}

}  // namespace host_runtime
