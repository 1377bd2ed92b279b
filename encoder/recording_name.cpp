// SPDX-License-Identifier: Apache-2.0
#include "recording_name.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <ctime>

#include "value_text.h"

namespace mdencoder {
namespace {

constexpr std::string_view kTimes = "YmdHMS";
constexpr int64_t kLeastSize = 1024;
constexpr int64_t kMostSize = int64_t{1} << 40;

size_t NameAt(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? 0 : slash + 1;
}

// Calls action with each conversion of the name.
template <typename Action>
void EachConversion(std::string_view path, Action action) {
  for (size_t at = path.find('%', NameAt(path)); at != std::string_view::npos; at = path.find('%', at + 2)) {
    action(at + 1 < path.size() ? path[at + 1] : '\0');
  }
}

}  // namespace

const char kSizeAllowed[] = "a number of bytes from 1024, which may end in k, M or G";

std::string RecordingPath(const SourceSettings& source, const EncoderSettings& encoder) {
  if (!source.output.empty()) return source.output;
  if (encoder.outputDir.empty()) return {};
  const bool rotated = source.rotateSize.value_or(0) != 0 || source.rotateTime.value_or(0) != 0;
  return encoder.outputDir + "/" + source.name + (rotated ? "_%Y%m%dT%H%M%SZ_%n" : "") + ".klv";
}

std::string TrackPath(const SourceSettings& source, const EncoderSettings& encoder) {
  if (!source.track.empty() || encoder.trackDir.empty()) return source.track;
  return encoder.trackDir + "/" + source.name + track_text::Suffix(encoder.trackFormat);
}

const char* PatternFault(std::string_view path, bool rotated) {
  bool known = true;
  EachConversion(path, [&](char c) {
    known = known && (c == '%' || c == 'n' || (c != '\0' && kTimes.find(c) != std::string_view::npos));
  });
  if (!known) return "a name with only %Y %m %d %H %M %S, %n and %% in it";
  if (rotated && !HasNumber(path)) return "a name with %n in it, because the recording is rotated";
  return nullptr;
}

bool IsPattern(std::string_view path) {
  bool found = false;
  EachConversion(path, [&](char c) { found = found || c != '%'; });
  return found;
}

bool HasNumber(std::string_view path) {
  bool found = false;
  EachConversion(path, [&](char c) { found = found || c == 'n'; });
  return found;
}

std::string ExpandPattern(std::string_view path, uint64_t timeUs, unsigned number) {
  const time_t seconds = static_cast<time_t>(timeUs / 1000000);
  tm parts{};
  gmtime_r(&seconds, &parts);
  std::string expanded(path.substr(0, NameAt(path)));
  for (size_t at = NameAt(path); at < path.size(); ++at) {
    if (path[at] != '%' || at + 1 == path.size()) {
      expanded += path[at];
      continue;
    }
    const char conversion = path[++at];
    char text[32] = "%";
    if (conversion == 'n') std::snprintf(text, sizeof(text), "%04u", number);
    const char format[] = {'%', conversion, '\0'};
    if (kTimes.find(conversion) != std::string_view::npos) std::strftime(text, sizeof(text), format, &parts);
    expanded += text;
  }
  return expanded;
}

std::optional<uint64_t> ParseSize(std::string_view text) {
  int64_t unit = 1;
  if (!text.empty()) {
    const size_t power = std::string_view("kMG").find(text.back());
    if (power != std::string_view::npos) {
      unit = int64_t{1} << (10 * (power + 1));
      text.remove_suffix(1);
    }
  }
  const auto number = value_text::ParseWholeNumber(std::string(text), (kLeastSize + unit - 1) / unit, kMostSize / unit);
  if (!number) return std::nullopt;
  return static_cast<uint64_t>(*number * unit);
}

}  // namespace mdencoder
