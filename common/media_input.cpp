// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Rules      are the protocols and formats of each purpose
//   Messages   are libavformat's own, of which some tell why an input was refused
//   Opening    applies the rules
#include "media_input.h"

#include <cerrno>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string_view>

#include "stream_url.h"

namespace media_input {
namespace {

constexpr int kMostTracks = 64;
constexpr size_t kLargestBlock = size_t{64} << 20;  // that libav may allocate at once

// --- Rules -------------------------------------------------------------------------------------------

// The protocols of a URL, each with those that it may use itself. The first word is the one in the URL.
constexpr const char* kProtocols[] = {
    "srt", "tcp",    "http,tcp", "https,http,tls,tcp", "rtsp,rtp,udp,tcp,http", "rtsps,rtsp,rtp,udp,tcp,tls",
    "udp", "rtp,udp"};

// Playlists are not among the formats: they name other files and hosts.
constexpr const char* FormatsOf(Purpose purpose) {
  switch (purpose) {
    case Purpose::Klv:
      return "mpegts,matroska,webm,mov,mp4,mxf,avi,flv,rtsp,rtp,sdp";
    case Purpose::Video:
      return "mpegts,matroska,webm,mov,mp4,mxf,avi,flv,rtsp,rtp,sdp,h264,hevc";
    case Purpose::Look:
      break;
  }
  return "mpegts,matroska,webm,mov,mp4,mxf,avi,flv,rtsp,rtp,sdp,h264,hevc,mpeg,mpegvideo,gxf,asf,nut,ogg";
}

bool IsRtsp(const std::string& name) {
  return stream_url::Scheme(name).starts_with("rtsp");
}

// Returns the protocols that an input may use, or null.
const char* ProtocolsOf(Purpose purpose, const std::string& name) {
  // A session description names addresses from which a stream comes; a video file is read again from its beginning.
  if (!stream_url::IsUrl(name)) return name.ends_with(".sdp") && purpose != Purpose::Video ? "file,rtp,udp" : "file";
  if (purpose == Purpose::Klv && stream_url::IsDatagramUrl(name)) return nullptr;
  const auto* const found = std::find_if(std::begin(kProtocols), std::end(kProtocols), [&](std::string_view each) {
    return each.substr(0, each.find(',')) == stream_url::Scheme(name);
  });
  return found == std::end(kProtocols) ? nullptr : *found;
}

// --- Messages ----------------------------------------------------------------------------------------

// The first message that tells why an input is refused. What follows comes of it.
struct Refusal {
  char text[256] = "";
};
constexpr std::string_view kOtherFormat = "Format not on whitelist";

std::atomic<Log> g_log{nullptr};
thread_local Refusal* g_refusal = nullptr;  // of the input that this thread opens

bool IsOfTls(void* context) {
  if (context == nullptr) return false;
  const AVClass* const kind = *static_cast<const AVClass* const*>(context);
  return kind != nullptr && kind->item_name != nullptr && std::strcmp(kind->item_name(context), "tls") == 0;
}

void OnMessage(void* context, int level, const char* format, va_list arguments) {
  const bool isSought = g_refusal != nullptr && g_refusal->text[0] == '\0' && (level & 0xFF) <= AV_LOG_ERROR;
  if (isSought && (IsOfTls(context) || std::string_view(format).starts_with(kOtherFormat))) {
    va_list copy;
    va_copy(copy, arguments);
    std::vsnprintf(g_refusal->text, sizeof(g_refusal->text), format, copy);
    va_end(copy);
  }
  if (const Log log = g_log.load()) log(context, level, format, arguments);
}

// Says what the message means.
std::string Meaning(const Refusal& refusal) {
  std::string_view text(refusal.text);
  if (text.starts_with(kOtherFormat)) return "its format is not among those that are read";
  if (text.starts_with("Peer certificate failed verification")) {
    return "the server's certificate is not valid, or not signed by a known authority";
  }
  if (text.starts_with("The certificate's owner does not match"))
    return "the server's certificate is that of another host";
  while (text.ends_with('\n') || text.ends_with('.')) text.remove_suffix(1);
  return "TLS: " + std::string(text);
}

// --- Opening -----------------------------------------------------------------------------------------

// A server may lead elsewhere, but not to where nobody looks at certificates.
bool HasLeftTls(AVFormatContext& context) {
  uint8_t* location = nullptr;
  if (context.pb == nullptr || av_opt_get(context.pb, "location", AV_OPT_SEARCH_CHILDREN, &location) < 0) return false;
  const bool hasLeft = location != nullptr && stream_url::Scheme(reinterpret_cast<const char*>(location)) != "https";
  av_free(location);
  return hasLeft;
}

// Returns "", or why the request cannot even be tried.
std::string FaultOf(const Request& request) {
  if (!KnowsProtocol(request.purpose, request.name)) return "unknown protocol";
  const std::string& file = request.authorities;
  if (file.empty() || access(file.c_str(), R_OK) == 0) return "";
  return "the authorities in " + file + " cannot be read: " + std::strerror(errno);
}

void SetTls(AVDictionary** options, const std::string& authorities) {
  av_dict_set(options, "tls_verify", "1", 0);
  if (!authorities.empty()) av_dict_set(options, "ca_file", authorities.c_str(), 0);
}

}  // namespace

void Prepare(Log log) {
  static std::once_flag once;
  std::call_once(once, [] {
    av_log_set_callback(OnMessage);
    av_max_alloc(kLargestBlock);
  });
  if (log != nullptr) g_log.store(log);
}

bool KnowsProtocol(Purpose purpose, const std::string& name) {
  if (!stream_url::IsUrl(name)) return true;
  return ProtocolsOf(purpose, name) != nullptr && (IsRtsp(name) || avio_find_protocol_name(name.c_str()) != nullptr);
}

AVFormatContext* MakeContext() {
  AVFormatContext* const context = avformat_alloc_context();
  if (context != nullptr) context->max_streams = kMostTracks;
  return context;
}

std::string Open(AVFormatContext*& context, const Request& request) {
  const bool isUrl = stream_url::IsUrl(request.name);
  const bool isHttps = stream_url::Scheme(request.name) == "https";
  if (std::string reason = FaultOf(request); !reason.empty()) {
    avformat_close_input(&context);
    return reason;
  }
  AVDictionary* options = nullptr;
  av_dict_set(&options, "protocol_whitelist", ProtocolsOf(request.purpose, request.name), 0);
  av_dict_set(&options, "format_whitelist", FormatsOf(request.purpose), 0);
  if (isUrl && request.endsInSilence) {
    const auto silence = std::chrono::microseconds(kLongestSilence).count();
    av_dict_set_int(&options, IsRtsp(request.name) ? "timeout" : "rw_timeout", silence, 0);
  }
  if (isHttps) SetTls(&options, request.authorities);
  Refusal refusal;
  g_refusal = &refusal;
  // Frees the context if it fails.
  const int result =
      avformat_open_input(&context, (isUrl ? request.name : "file:" + request.name).c_str(), nullptr, &options);
  g_refusal = nullptr;
  av_dict_free(&options);
  if (result < 0) return refusal.text[0] != '\0' ? Meaning(refusal) : ErrorText(result);
  if (!isHttps || !HasLeftTls(*context)) return "";
  avformat_close_input(&context);
  return "the server leads to an address without TLS";
}

std::string ErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(error, text, sizeof(text));
  return text;
}

}  // namespace media_input
