// SPDX-License-Identifier: Apache-2.0
// What a section [stream NAME] of the configuration says.
#ifndef MDENCODER_STREAM_SETTINGS_H
#define MDENCODER_STREAM_SETTINGS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ini_file.h"

namespace mdencoder {

// Where a transport stream goes.
struct StreamOutput {
  bool operator==(const StreamOutput&) const = default;

  enum class Kind { File, Datagrams, Srt };
  Kind kind = Kind::File;
  std::string key;   // "url", "url2"
  std::string text;  // path of a file; otherwise the URL
  std::string host;  // of datagrams
  uint16_t port = 0;
  int ttl = 16;           // hops of datagrams to a group; others have the system's
  bool hasTtl = false;    // it was given, and applies to any address
  std::string interface;  // from which datagrams to a group leave; empty: as the routes say
};

struct StreamSettings {
  bool operator==(const StreamSettings&) const = default;

  enum class Video { Scene, File, Live, Camera };
  std::string name;
  Video kind = Video::Scene;
  std::string video = "scene";  // "scene", a path, a URL, or the path of a camera
  std::string
      authorities;  // video of https: file (PEM) of those that may have signed the certificate; empty: the system's
  int width = 640;
  int height = 360;
  double rate = 25;                  // frames a second
  int64_t bitrate = 1'000'000;       // bits a second
  bool copies = false;               // what a file or URL has is not encoded again
  std::vector<std::string> sources;  // names; empty: all
  bool isSynchronous = true;
  bool isMerged = false;  // one track for all sources
  double timeBound = 2;   // seconds between a message's time and its arrival, up to which the time is used
  std::vector<StreamOutput> outputs;
  std::string hls;  // folder of segments and their playlist; empty: none
};

// "stream NAME" is the section of a stream, and no source can have such a name.
bool IsStreamSection(std::string_view name);
// Throws ConfigError. Names of files are relative to the folder of `iniPath`.
StreamSettings ReadStream(const IniSection& section, const std::string& iniPath);
// Throws ConfigError for a stream of a source that is not there, and for two outputs in one place.
void CheckStreams(const std::vector<StreamSettings>& streams, const std::vector<std::string>& sources);

}  // namespace mdencoder

#endif  // MDENCODER_STREAM_SETTINGS_H
