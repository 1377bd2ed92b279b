// SPDX-License-Identifier: Apache-2.0
#include "reload.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "recording_name.h"

namespace mdencoder {
namespace {

[[noreturn]] void RefuseChange(const std::string& key) {
  throw ConfigError("[encoder] " + key + " cannot change while the program runs; restart it");
}

// Less may be needed than the library was started with, but not more. Without cot nothing changes for the sources left.
void CompareCapabilities(DWORD running, DWORD fresh) {
  if ((fresh & ~running) != 0 || (running & ~fresh & ~static_cast<DWORD>(METADATALIB_CAPS_COT_SUPPORT)) != 0) {
    RefuseChange("capabilities (of the key, or of data = cot)");
  }
}

void CompareEncoders(const EncoderSettings& running, const EncoderSettings& fresh) {
  const auto require = [](bool isSame, const char* key) {
    if (!isSame) RefuseChange(key);
  };
  CompareCapabilities(running.capabilities, fresh.capabilities);
  require(running.library == fresh.library, "library");
  require(running.hostConfig == fresh.hostConfig, "host_config");
  require(running.outputDir == fresh.outputDir, "output_dir");
  require(running.streamHeader == fresh.streamHeader, "stream_header");
  require(running.rotateSize == fresh.rotateSize, "rotate_size");
  require(running.rotateTime == fresh.rotateTime, "rotate_time");
  require(running.extendedTags == fresh.extendedTags, "extended_tags");
  require(running.heightsOptional == fresh.heightsOptional, "heights");
  require(running.presentation.format == fresh.presentation.format, "format");
  // All rows of CSV have the items of the first one.
  require(running.presentation.format != Format::Csv || running.presentation.items == fresh.presentation.items,
          "items");
  require(running.live == fresh.live, "live");
  require(running.statsJson == fresh.statsJson, "stats_json");
  require(running.messages == fresh.messages, "messages");
  require(running.messagesEach == fresh.messagesEach, "messages_each");
  require(running.queue == fresh.queue, "queue");
  require(running.http.address == fresh.http.address && running.http.port == fresh.http.port, "http");
  require(running.http.token == fresh.http.token, "http_token");
  require(running.http.certificate == fresh.http.certificate, "http_cert");
  require(running.http.key == fresh.http.key, "http_key");
  require(running.http.hosts == fresh.http.hosts, "http_host");
  require(running.http.tiles == fresh.http.tiles, "tiles");
  require(running.http.attribution == fresh.http.attribution, "tiles_attribution");
  EncoderSettings taken = running;
  TakeOver(taken, fresh);
  taken.capabilities = fresh.capabilities;
  require(taken == fresh, "has a key that");
}

void CompareStreams(const std::vector<StreamSettings>& running, const std::vector<StreamSettings>& fresh) {
  for (size_t i = 0; i < std::max(running.size(), fresh.size()); ++i) {
    if (i < running.size() && i < fresh.size() && running[i] == fresh[i]) continue;
    const StreamSettings& different = i < fresh.size() ? fresh[i] : running[i];
    throw ConfigError("[stream " + different.name + "] cannot change while the program runs; restart it");
  }
}

void CompareRotation(const SourceSettings& running, const SourceSettings& fresh) {
  if (running.rotateSize == fresh.rotateSize && running.rotateTime == fresh.rotateTime) return;
  const char* const key = running.rotateSize == fresh.rotateSize ? "rotate_time" : "rotate_size";
  throw ConfigError("[" + fresh.name + "] " + key + " cannot change while the program runs; restart it");
}

bool IsRedirected(const Config& running, const SourceSettings& before, const Config& fresh,
                  const SourceSettings& after) {
  const std::string track = TrackPath(after, fresh.encoder);
  return TrackPath(before, running.encoder) != track ||
         (!track.empty() && running.encoder.trackInterval != fresh.encoder.trackInterval) ||
         std::tie(before.cotOut, before.cotOutRate, before.cotOutUid, before.cotOutType, before.cotOutTls) !=
             std::tie(after.cotOut, after.cotOutRate, after.cotOutUid, after.cotOutType, after.cotOutTls);
}

// Compares what the host has for the source.
bool IsSameOrigin(const SourceSettings& source, const HostRuntimeConfig& a, const HostRuntimeConfig& b) {
  switch (source.record.enInputType) {
    case MDATA_INPUT_SERIAL:
      return a.serialDevices == b.serialDevices;
    case MDATA_INPUT_NETWORK:
      return a.multicastInterface == b.multicastInterface;
    default:
      return CaptureOf(source, a) == CaptureOf(source, b) && a.multicastInterface == b.multicastInterface;
  }
}

// The records are zeroed before they are filled, field by field, so that their padding is the same. A source with a url has any
// free video input.
bool IsSameRecord(const SourceSettings& running, const SourceSettings& fresh) {
  const MDATA_SRC_CFG& a = running.record;
  MDATA_SRC_CFG b = fresh.record;
  b.nIndex = a.nIndex;
  if (a.enInputType == MDATA_INPUT_VIDEO && running.capture && fresh.capture)
    b.in.Video.enInputInterface = a.in.Video.enInputInterface;
  if (running.capture != fresh.capture || running.replay != fresh.replay || running.tak != fresh.tak ||
      running.reception != fresh.reception || running.relayHosts != fresh.relayHosts) {
    return false;
  }
  return std::memcmp(&a, &b, sizeof(a)) == 0;  // NOLINT(bugprone-suspicious-memory-comparison): see above
}

}  // namespace

bool IsSameSource(const SourceSettings& a, const SourceSettings& b) {
  return a.name == b.name && a.input == b.input && a.data == b.data && a.output == b.output;
}

ConfigDifference Compare(const CheckedConfig& running, const CheckedConfig& fresh) {
  CompareEncoders(running.config.encoder, fresh.config.encoder);
  CompareStreams(running.config.streams, fresh.config.streams);
  ConfigDifference difference;
  difference.isShownOtherwise = running.config.encoder.presentation != fresh.config.encoder.presentation;
  const auto isIn = [](const std::vector<SourceSettings>& sources, const SourceSettings& wanted) {
    return std::find_if(sources.begin(), sources.end(),
                        [&](const SourceSettings& each) { return IsSameSource(each, wanted); });
  };
  for (const SourceSettings& old : running.config.sources) {
    if (isIn(fresh.config.sources, old) == fresh.config.sources.end()) difference.removed.push_back(old.name);
  }
  for (const SourceSettings& source : fresh.config.sources) {
    const auto old = isIn(running.config.sources, source);
    if (old != running.config.sources.end()) {
      CompareRotation(*old, source);
      if (IsRedirected(running.config, *old, fresh.config, source)) difference.redirected.push_back(source);
    }
    if (old == running.config.sources.end()) {
      difference.added.push_back(source);
    } else if (IsSameRecord(*old, source) && IsSameOrigin(source, running.host, fresh.host)) {
      difference.unchanged.push_back(source);
    } else {
      difference.changed.push_back(source);
    }
  }
  return difference;
}

void TakeOver(EncoderSettings& running, const EncoderSettings& fresh) {
  running.logLevel = fresh.logLevel;
  running.moduleLevels = fresh.moduleLevels;
  running.statusInterval = fresh.statusInterval;
  running.statsInterval = fresh.statsInterval;
  running.statsFile = fresh.statsFile;
  running.summary = fresh.summary;
  running.duration = fresh.duration;
  running.retry = fresh.retry;
  running.silence = fresh.silence;
  running.trackDir = fresh.trackDir;
  running.trackFormat = fresh.trackFormat;
  running.trackInterval = fresh.trackInterval;
  running.presentation.columns = fresh.presentation.columns;
  running.presentation.items = fresh.presentation.items;
  running.presentation.isWide = fresh.presentation.isWide;
}

}  // namespace mdencoder
