// SPDX-License-Identifier: Apache-2.0
// Files and URLs of captures: what they are, and what can be said of them without playing them.
#define HOST_MODULE "capture_url"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "capture.h"
#include "klv_file.h"
#include "media_demuxer.h"
#include "media_input.h"
#include "owned_fd.h"
#include "stream_url.h"

namespace host_runtime {
namespace {

constexpr size_t kBeginning = 64;

// Returns whether the file begins with KLV messages. A file that cannot be read does not.
bool IsKlvFile(const std::string& path, bool* hasStreamHeaders) {
  const common::OwnedFD file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  std::array<uint8_t, kBeginning> beginning{};
  const ssize_t got = file.IsOpen() ? read(file.Get(), beginning.data(), beginning.size()) : -1;
  return got > 0 && klv_file::BeginsWithKlv({beginning.data(), static_cast<size_t>(got)}, hasStreamHeaders);
}

}  // namespace

std::unique_ptr<CaptureBackend> MakeUrlBackend(const HostCaptureConfig& config) {
  if (stream_url::IsDatagramUrl(config.path)) return MakeDatagramBackend(config);
  bool hasStreamHeaders = false;
  if (!stream_url::IsUrl(config.path) && IsKlvFile(config.path, &hasStreamHeaders)) {
    return MakeKlvFileBackend(config, hasStreamHeaders);
  }
  return MakeMediaBackend(config);
}

}  // namespace host_runtime

using namespace host_runtime;

std::string HostRuntime_MediaFault(const std::string& path) {
  return NoThrow(std::string(), [&]() -> std::string {
    if (stream_url::IsDatagramUrl(path)) {
      return stream_url::ParseDatagramUrl(path) ? std::string()
                                                : std::string("it is not ") + stream_url::kDatagramAllowed;
    }
    if (stream_url::IsUrl(path))
      return media_input::KnowsProtocol(media_input::Purpose::Klv, path) ? "" : "unknown protocol";
    if (access(path.c_str(), R_OK) != 0) return strerror(errno);
    bool hasStreamHeaders = false;
    if (IsKlvFile(path, &hasStreamHeaders) || path.ends_with(".sdp")) return {};
    MediaDemuxer demuxer([] { return false; });
    if (!demuxer.Open(path)) return demuxer.Fault();
    return demuxer.MayHaveKlv() ? "" : "it has no KLV track";
  });
}
