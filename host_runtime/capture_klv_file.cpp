// SPDX-License-Identifier: Apache-2.0
// The capture back end that plays a file of KLV messages: by the times of its index (of presentation, or else of
// arrival) if it has one, else by the times of their items 2.
#define HOST_MODULE "capture_klv_file"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "capture.h"
#include "capture_playback.h"
#include "klv_file.h"
#include "owned_fd.h"
#include "recording_index.h"

namespace host_runtime {
namespace {

constexpr size_t kPieceSize = 65'536;

class KlvFileBackend : public CaptureBackend {
 public:
  KlvFileBackend(HostCaptureConfig config, bool hasStreamHeaders)
      : m_config(std::move(config)), m_hasHeaders(hasStreamHeaders), m_playback(m_config.path, false, m_config.speed) {}

  bool Open(CaptureQueue& queue) override {
    if (OpenFile()) return true;
    HOST_LOG(3, "%s: cannot read \"%s\": %s.\n", queue.Label(), m_config.path.c_str(), strerror(errno));
    return false;
  }

  void Run(CaptureQueue& queue) override {
    bool played = true;
    while (!queue.IsStopping() && played) {
      played = Play(queue) && m_config.loop && OpenFile();
      if (!queue.IsStopping()) ReportEnd(queue, played);
    }
    if (!queue.IsStopping()) queue.End();
  }

 private:
  bool OpenFile() {
    m_file.Reset(open(m_config.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return m_file.IsOpen();
  }

  // Plays the file once. Returns true if it had a message and was read to its end.
  bool Play(CaptureQueue& queue) {
    common::RecordingIndex index(m_config.path + ".json");
    klv_file::Walker walker(index.Header() ? index.Header()->hasStreamHeaders : m_hasHeaders);
    std::vector<uint8_t> buffer(kPieceSize);
    m_playback.BeginPass();
    m_time = 0;
    ssize_t got = 0;
    do {
      got = read(m_file.Get(), buffer.data(), buffer.size());
      if (got > 0) walker.Push({buffer.data(), static_cast<size_t>(got)});
      if (got <= 0) walker.Finish();
      while (const auto found = walker.Pop()) {
        if (!m_playback.Push(queue, TimeOf(*found, index), found->klv)) return false;
      }
    } while (got > 0);
    m_skipped = walker.Skipped();
    m_error = got < 0 ? strerror(errno) : "";
    return got == 0 && m_playback.HasKlv();
  }

  // Returns the time of a message in units of 90 kHz. Without a time it is that of the message before it.
  int64_t TimeOf(const klv_file::Walker::Found& found, common::RecordingIndex& index) {
    const auto line = index.Find(found.offset);
    const auto us = line ? line->timeUs : index.Header() ? std::nullopt : klv_file::TimeOf(found.klv);
    if (line && line->timestamp && *line->timestamp <= INT64_MAX) {
      m_time = static_cast<int64_t>(*line->timestamp);
    } else if (us) {
      m_time = *us / 100 * 9 + *us % 100 * 9 / 100;
    }
    return m_time;
  }

  void ReportEnd(CaptureQueue& queue, bool again) const {
    const char* const input = queue.Label();
    const char* const path = m_config.path.c_str();
    if (m_skipped != 0) {
      queue.Count(&HostCaptureStats::damaged);
      HOST_LOG(4, "%s: %llu bytes of \"%s\" are no KLV.\n", input, static_cast<unsigned long long>(m_skipped), path);
    }
    if (!m_error.empty()) {
      HOST_LOG(3, "%s: reading \"%s\" failed after %llu KLV packets: %s.\n", input, path, m_playback.Messages(),
               m_error.c_str());
    } else {
      HOST_LOG(5, "%s: end of \"%s\" after %llu KLV packets%s.\n", input, path, m_playback.Messages(),
               again ? ", beginning again" : "");
    }
  }

  const HostCaptureConfig m_config;
  const bool m_hasHeaders;
  common::OwnedFD m_file;
  Playback m_playback;
  // State of a pass.
  int64_t m_time = 0;  // of the last message that had one, 90 kHz
  uint64_t m_skipped = 0;
  std::string m_error;
};

}  // namespace

std::unique_ptr<CaptureBackend> MakeKlvFileBackend(const HostCaptureConfig& config, bool hasStreamHeaders) {
  return std::make_unique<KlvFileBackend>(config, hasStreamHeaders);
}

}  // namespace host_runtime
