// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Outputs    are files and URLs
//   Video      is a scene, a file or a URL
//   Section    is all of it
#include "stream_settings.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <utility>

#include "section.h"
#include "stream_url.h"
#include "value_text.h"
#include "values.h"

namespace mdencoder {
namespace {

constexpr std::string_view kCamera = "v4l2:";
constexpr std::string_view kPrefix = "stream ";
constexpr std::array<std::string_view, 4> kUrlKeys = {"url", "url2", "url3", "url4"};
constexpr std::string_view kKeys[] = {"video",  "tls_ca", "size", "rate", "bitrate", "encode", "sources",   "metadata",
                                      "tracks", "url",    "url2", "url3", "url4",    "hls",    "time_bound"};
constexpr std::string_view kEncodings[] = {"h264", "copy"};
constexpr std::string_view kCarriages[] = {"synchronous", "asynchronous"};
constexpr std::string_view kTracks[] = {"each", "merged"};
constexpr std::string_view kLiveSchemes[] = {"udp", "rtp", "srt", "rtsp", "rtsps", "http", "https", "tcp"};
constexpr size_t kLongestStreamName = 40;
constexpr size_t kLongestUrl = 1000;
constexpr int kLeastSide = 64;
constexpr int kMostSide = 3840;

// --- Outputs -----------------------------------------------------------------------------------------

constexpr char kOutputAllowed[] = "a file, udp://HOST:PORT with ?ttl=N and &interface=NAME at most, or srt://HOST:PORT";

bool ReadQuery(const std::string& query, StreamOutput& output) {
  for (size_t at = 0; at <= query.size();) {
    const size_t end = std::min(query.find('&', at), query.size());
    const std::string part = query.substr(at, end - at);
    const std::string value = part.substr(std::min(part.find('=') + 1, part.size()));
    if (part.starts_with("ttl=")) {
      const auto ttl = value_text::ParseWholeNumber(value, 0, 255);
      if (!ttl) return false;
      output.ttl = static_cast<int>(*ttl);
      output.hasTtl = true;
    } else if (part.starts_with("interface=") && !value.empty()) {
      output.interface = value;
    } else {
      return false;
    }
    at = end + 1;
  }
  return true;
}

bool ReadDatagrams(const std::string& url, StreamOutput& output) {
  std::string rest = url.substr(url.find("://") + 3);
  const size_t question = rest.find('?');
  if (question != std::string::npos && !ReadQuery(rest.substr(question + 1), output)) return false;
  rest.resize(std::min(question, rest.size()));
  const auto place = stream_url::ParseHostAndPort(rest);
  if (!place || place->host.empty()) return false;
  output.host = place->host;
  output.port = place->port;
  return true;
}

StreamOutput ReadOutput(Section& section, std::string_view key) {
  StreamOutput output;
  output.key = key;
  const std::string& text = *section.Find(key);
  const std::string scheme = stream_url::Scheme(text);
  if (scheme.empty()) {
    output.text = section.Path(key);
    return output;
  }
  output.text = text;
  output.kind = scheme == "udp" ? StreamOutput::Kind::Datagrams : StreamOutput::Kind::Srt;
  const std::string place = text.substr(text.find("://") + 3);
  const bool fits = text.size() <= kLongestUrl &&
                    (scheme == "udp"   ? ReadDatagrams(text, output)
                     : scheme == "srt" ? stream_url::ParseHostAndPort(place.substr(0, place.find('?'))).has_value()
                                       : false);
  if (!fits) section.Fail(key, text, kOutputAllowed);
  return output;
}

// --- Video -------------------------------------------------------------------------------------------

void ReadSize(Section& section, StreamSettings& stream) {
  const std::string* text = section.Find("size");
  if (text == nullptr) return;
  const size_t cross = text->find('x');
  const auto side = [](std::string_view part) { return value_text::ParseWholeNumber(part, kLeastSide, kMostSide); };
  const auto width = side(std::string_view(*text).substr(0, cross));
  const auto height = cross == std::string::npos ? std::nullopt : side(std::string_view(*text).substr(cross + 1));
  if (!width || !height || *width % 2 != 0 || *height % 2 != 0) {
    section.Fail("size", *text, "WIDTHxHEIGHT with even numbers from 64 to 3840");
  }
  stream.width = static_cast<int>(*width);
  stream.height = static_cast<int>(*height);
}

void ReadVideo(Section& section, StreamSettings& stream) {
  if (const std::string* text = section.Find("video")) {
    const std::string scheme = stream_url::Scheme(*text);
    if (text->starts_with(kCamera)) {
      stream.kind = StreamSettings::Video::Camera;
      stream.video = text->substr(kCamera.size());
      if (!stream.video.starts_with('/'))
        section.Fail("video", *text, "v4l2: and the path of a camera, such as v4l2:/dev/video0");
    } else if (*text != "scene" && scheme.empty()) {
      stream.kind = StreamSettings::Video::File;
      stream.video = section.Path("video");
    } else if (!scheme.empty()) {
      stream.kind = StreamSettings::Video::Live;
      stream.video = *text;
      if (std::find(std::begin(kLiveSchemes), std::end(kLiveSchemes), scheme) == std::end(kLiveSchemes)) {
        section.Fail("video", *text,
                     "scene, a file, v4l2:/dev/videoN, or a URL that begins with " + Join(kLiveSchemes) + " and ://");
      }
    }
  }
  if (stream_url::Scheme(stream.video) == "https") {
    stream.authorities = section.Path("tls_ca");
  } else if (section.Find("tls_ca") != nullptr) {
    throw ConfigError("[" + section.Name() + "] tls_ca is allowed only with video = https://");
  }
  const bool isScene = stream.kind == StreamSettings::Video::Scene;
  stream.copies = section.Choice("encode", kEncodings, isScene ? 0 : 1) == 1;
  if (isScene && stream.copies) section.Fail("encode", "copy", "h264 with video = scene");
  ReadSize(section, stream);
  stream.rate = section.Real("rate", 1, 60, stream.rate);
  stream.bitrate = section.Number("bitrate", 50'000, 50'000'000, stream.bitrate);
}

}  // namespace

// --- Section -----------------------------------------------------------------------------------------

bool IsStreamSection(std::string_view name) {
  return name.starts_with(kPrefix);
}

StreamSettings ReadStream(const IniSection& ini, const std::string& iniPath) {
  Section section(ini, kKeys, iniPath);
  StreamSettings stream;
  stream.name = Trim(std::string_view(ini.name).substr(kPrefix.size()));
  const auto fits = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  };
  if (stream.name.empty() || stream.name.size() > kLongestStreamName ||
      !std::all_of(stream.name.begin(), stream.name.end(), fits)) {
    throw ConfigError("[" + ini.name + "] must be \"stream \" and a name of up to 40 letters, digits, '_' and '-'");
  }
  ReadVideo(section, stream);
  if (const std::string* text = section.Find("sources")) {
    stream.sources = SplitList(*text);
    if (stream.sources.empty()) section.Fail("sources", *text, "a list of sources, or left out for all");
  }
  stream.isSynchronous = section.Choice("metadata", kCarriages, 0) == 0;
  stream.isMerged = section.Choice("tracks", kTracks, 0) == 1;
  stream.timeBound = section.Real("time_bound", 0, 3600, stream.timeBound);
  for (const std::string_view key : kUrlKeys) {
    if (section.Find(key) != nullptr) stream.outputs.push_back(ReadOutput(section, key));
  }
  stream.hls = section.Path("hls");
  return stream;
}

void CheckStreams(const std::vector<StreamSettings>& streams, const std::vector<std::string>& sources) {
  std::set<std::string> names;
  std::set<std::string> places;
  const auto claim = [&](const StreamSettings& stream, const std::string& key, const std::string& place) {
    if (places.insert(place).second) return;
    throw ConfigError("[stream " + stream.name + "] " +
                      value_text::Refusal(key, place, "a place of its own, and another output has it"));
  };
  for (const StreamSettings& stream : streams) {
    if (!names.insert(stream.name).second) throw ConfigError("[stream " + stream.name + "] is there twice");
    for (const std::string& wanted : stream.sources) {
      if (std::find(sources.begin(), sources.end(), wanted) != sources.end()) continue;
      throw ConfigError("[stream " + stream.name + "] " +
                        value_text::Refusal("sources", wanted, "a list of sources of this configuration"));
    }
    for (const StreamOutput& output : stream.outputs) claim(stream, output.key, output.text);
    if (!stream.hls.empty()) claim(stream, "hls", stream.hls);
  }
}

}  // namespace mdencoder
