// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Uses       are the files that a run reads and writes
//   Writing    tells whether a file can be written, without touching it
//   Checks     name the first fault
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "check.h"
#include "geoid_grid.h"
#include "ini_file.h"
#include "recording_name.h"
#include "statistics.h"
#include "stream_url.h"

namespace mdencoder {
namespace {

namespace fs = std::filesystem;

// --- Uses --------------------------------------------------------------------------------------------

struct FileUse {
  enum class Kind {
    Read,
    Recording,  // in a folder that must exist
    Stream,     // as a recording, but may be a terminal or another device
    Replaced,   // written beside and renamed
    Log,        // appended to and rotated, in a folder that is made
    Folder,     // of recordings
    Socket      // of a video input
  };
  KeyPlace place;
  std::string path;
  Kind kind = Kind::Read;
  bool folderIsMade = false;
};

// Patterns that stand for a time or a number are left as they are: files of such names are not there yet.
std::string RecordingOf(const SourceSettings& source, const EncoderSettings& settings) {
  const std::string path = RecordingPath(source, settings);
  return IsPattern(path) ? path : ExpandPattern(path, 0, 0);
}

void AddRawCapture(const CheckSubject& subject, const SourceSettings& source, std::vector<FileUse>& uses) {
  const MDATA_SRC_CFG& record = source.record;
  if (!record.bCaptureToDisk) return;
  const KeyPlace place = {subject.configPath, source.name, "capture"};
  if (record.enInputType == MDATA_INPUT_SERIAL) {
    uses.push_back({place, "/tmp/rawserial.txt", FileUse::Kind::Stream});
    uses.push_back({place, "/tmp/cotxml.txt", FileUse::Kind::Stream});
  } else if (source.replay || IsFed(source)) {
    // Its port, which is in the name, is found when it is opened.
  } else if (record.enInputType == MDATA_INPUT_NETWORK) {
    const std::string port = std::to_string(record.in.Network.usUDPPort);
    uses.push_back({place, "/tmp/rawudp_" + port + ".txt", FileUse::Kind::Stream});
  } else {
    uses.push_back({place, "/tmp/rawhdsdi.txt", FileUse::Kind::Stream});
  }
}

bool IsInputUsed(const Config& config, int input) {
  return std::any_of(config.sources.begin(), config.sources.end(), [input](const SourceSettings& source) {
    return source.record.enInputType == MDATA_INPUT_VIDEO && !source.capture &&
           source.record.in.Video.enInputInterface == input;
  });
}

void AddHostFiles(const CheckSubject& subject, std::vector<FileUse>& uses) {
  const HostRuntimeConfig& host = subject.host;
  const std::string& file = subject.config.encoder.hostConfig;
  if (!host.logFile.empty()) uses.push_back({{file, "log", "file"}, host.logFile, FileUse::Kind::Log, true});
  for (const auto& [name, other] : host.configFiles) uses.push_back({{file, "files", name}, other});
  for (int i = 0; i < kHostVideoInputs; ++i) {
    const HostCaptureConfig& capture = host.captures.at(static_cast<size_t>(i));
    if (!IsInputUsed(subject.config, i)) continue;
    const KeyPlace place = {file, "capture" + std::to_string(i), "path"};
    const bool isUrl = stream_url::IsUrl(capture.path);
    if (capture.kind == HostCaptureConfig::Kind::Media && !isUrl) uses.push_back({place, capture.path});
    if (capture.kind != HostCaptureConfig::Kind::Socket) continue;
    uses.push_back({place, capture.path, FileUse::Kind::Socket});
    uses.push_back({place, capture.path + ".lock", FileUse::Kind::Socket});
  }
}

void AddStreamFiles(const CheckSubject& subject, std::vector<FileUse>& uses) {
  for (const StreamSettings& stream : subject.config.streams) {
    const auto place = [&](const std::string& key) {
      return KeyPlace{subject.configPath, "stream " + stream.name, key};
    };
    if (stream.kind == StreamSettings::Video::File) uses.push_back({place("video"), stream.video});
    if (!stream.authorities.empty()) uses.push_back({place("tls_ca"), stream.authorities});
    for (const StreamOutput& output : stream.outputs) {
      if (output.kind == StreamOutput::Kind::File) {
        uses.push_back({place(output.key), output.text, FileUse::Kind::Stream});
      }
    }
    if (stream.hls.empty()) continue;
    uses.push_back({place("hls"), stream.hls + "/" + stream.name + ".m3u8", FileUse::Kind::Replaced, true});
  }
}

std::vector<FileUse> UsesOf(const CheckSubject& subject) {
  const EncoderSettings& settings = subject.config.encoder;
  std::vector<FileUse> uses;
  const auto add = [&](const char* key, const std::string& path, FileUse::Kind kind) {
    if (!path.empty()) uses.push_back({{subject.configPath, "encoder", key}, path, kind});
  };
  add("host_config", settings.hostConfig, FileUse::Kind::Read);
  add("library", settings.library, FileUse::Kind::Read);
  add("output_dir", settings.outputDir, FileUse::Kind::Folder);
  add("stats_json", settings.statsJson, FileUse::Kind::Stream);
  add("stats_file", settings.statsFile, FileUse::Kind::Replaced);
  add("summary", settings.summary, FileUse::Kind::Replaced);
  AddHostFiles(subject, uses);
  AddStreamFiles(subject, uses);
  for (const SourceSettings& source : subject.config.sources) {
    const std::string recording = RecordingOf(source, settings);
    const bool isOwn = !source.output.empty();
    const KeyPlace place = {subject.configPath, isOwn ? source.name : "encoder", isOwn ? "output" : "output_dir"};
    for (const char* suffix : {"", ".json"}) {  // the index
      if (!recording.empty()) uses.push_back({place, recording + suffix, FileUse::Kind::Recording, !isOwn});
    }
    const std::string track = TrackPath(source, settings);
    const bool hasTrack = !source.track.empty();
    const KeyPlace trackPlace = {subject.configPath, hasTrack ? source.name : "encoder",
                                 hasTrack ? "track" : "track_dir"};
    if (!track.empty()) uses.push_back({trackPlace, track, FileUse::Kind::Recording, !hasTrack});
    AddRawCapture(subject, source, uses);
    const std::string file = source.capture ? source.capture->path : source.replay ? source.replay->path : "";
    if (source.capture && !source.capture->authorities.empty()) {
      uses.push_back({{subject.configPath, source.name, "tls_ca"}, source.capture->authorities});
    }
    if (!file.empty() && !stream_url::IsUrl(file)) uses.push_back({{subject.configPath, source.name, "url"}, file});
  }
  return uses;
}

// --- Writing -----------------------------------------------------------------------------------------

bool MayAccess(const std::string& path, int mode) {
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

std::string FolderOf(const std::string& path) {
  const std::string folder = fs::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

bool IsFull(const std::string& folder) {
  struct statvfs info {};
  return statvfs(folder.c_str(), &info) == 0 && info.f_blocks != 0 && info.f_bavail == 0;
}

// Returns "", or why no file can be made in the folder. A folder that is made needs one above it that can be written.
std::string FolderFault(std::string folder, bool isMade) {
  struct stat info {};
  while (stat(folder.c_str(), &info) != 0) {
    if (errno != ENOENT || !isMade) return folder + ": " + std::strerror(errno);
    folder = FolderOf(folder);
  }
  if (!S_ISDIR(info.st_mode)) return folder + " is not a folder";
  if (!MayAccess(folder, W_OK | X_OK)) return folder + ": " + std::strerror(errno);
  return IsFull(folder) ? folder + ": " + std::strerror(ENOSPC) : "";
}

// Returns "", or what keeps the file from being written.
std::string WriteFault(const FileUse& use) {
  if (use.path.ends_with('/')) return "it names a folder";
  struct stat info {};
  if (lstat(use.path.c_str(), &info) != 0) return FolderFault(FolderOf(use.path), use.folderIsMade);
  if (use.kind == FileUse::Kind::Recording && S_ISLNK(info.st_mode)) return "it is a symbolic link";
  if (S_ISLNK(info.st_mode) && stat(use.path.c_str(), &info) != 0) return "it is a symbolic link that leads nowhere";
  if (S_ISDIR(info.st_mode)) return "it is a folder";
  const bool isDevice = use.kind == FileUse::Kind::Stream && S_ISCHR(info.st_mode);
  if (!S_ISREG(info.st_mode) && !isDevice) return "it is not a regular file";
  if (use.kind == FileUse::Kind::Replaced || use.kind == FileUse::Kind::Log) {
    std::string fault = FolderFault(FolderOf(use.path), false);
    if (!fault.empty()) return fault;
  }
  if (!MayAccess(use.path, W_OK)) return std::strerror(errno);
  return !isDevice && IsFull(FolderOf(use.path)) ? std::strerror(ENOSPC) : "";
}

// --- Checks ------------------------------------------------------------------------------------------

// Two paths are the same file if they are spelt the same after links are followed, or lead to the same inode.
bool IsSameFile(const std::string& one, const std::string& other) {
  std::error_code ignored;
  if (fs::weakly_canonical(one, ignored) == fs::weakly_canonical(other, ignored)) return true;
  return fs::equivalent(one, other, ignored);
}

void CheckOwners(const CheckSubject& subject, std::vector<FileUse> uses) {
  if (subject.configPath != "-") uses.insert(uses.begin(), {{"", "", "this configuration"}, subject.configPath});
  uses.insert(uses.begin(), {{"", "", "the geoid grid"}, kGeoidGrid});
  for (const SourceSettings& source : subject.config.sources) {
    if (source.record.enInputType != MDATA_INPUT_SERIAL) continue;
    const auto device = subject.host.serialDevices.find(kSerialDevice);
    uses.push_back({{subject.configPath, source.name, "device"},
                    device == subject.host.serialDevices.end() ? kSerialDevice : device->second});
  }
  for (size_t i = 0; i < uses.size(); ++i) {
    for (size_t j = 0; j < i; ++j) {
      const bool isWritten = uses[i].kind != FileUse::Kind::Read || uses[j].kind != FileUse::Kind::Read;
      if (!isWritten || uses[i].path == "/dev/null" || !IsSameFile(uses[i].path, uses[j].path)) continue;
      // The complaint is about the one that is written; both may be.
      const bool isFirst = uses[i].kind == FileUse::Kind::Read;
      const KeyPlace& other = (isFirst ? uses[i] : uses[j]).place;
      const FileUse& use = isFirst ? uses[j] : uses[i];
      const std::string section = other.section.empty() ? "" : "[" + other.section + "] ";
      Refuse(use.place, use.path, "a file of its own", "it is that of " + section + other.key);
    }
  }
}

void CheckReadable(const FileUse& use) {
  struct stat info {};
  if (stat(use.path.c_str(), &info) != 0 || !MayAccess(use.path, R_OK)) {
    Refuse(use.place, use.path, "a file that can be read", std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) Refuse(use.place, use.path, "a file that can be read", "it is not a regular file");
}

// The statistics must be readable, and those of at least one source of this configuration.
void CheckKeptStatistics(const CheckSubject& subject) {
  const std::string& path = subject.config.encoder.statsFile;
  const KeyPlace place = {subject.configPath, "encoder", "stats_file"};
  struct stat info {};
  if (path.empty() || stat(path.c_str(), &info) != 0) return;
  try {
    if (!LoadStatistics(path, subject.config.sources).empty()) return;
    std::ifstream file(path, std::ios::binary);
    const auto json = nlohmann::json::parse(std::string{std::istreambuf_iterator<char>(file), {}});
    if (json.at("sources").empty()) return;
  } catch (const std::exception& error) {
    Refuse(place, path, "a file of statistics that mdencoder wrote", error.what());
  }
  Refuse(place, path, "a file of statistics of these sources", "it has others only");
}

}  // namespace

void CheckFiles(const CheckSubject& subject) {
  const std::vector<FileUse> uses = UsesOf(subject);
  const EncoderSettings& settings = subject.config.encoder;
  for (const auto& [key, folder] : {std::pair("output_dir", settings.outputDir), {"track_dir", settings.trackDir}}) {
    const std::string fault = folder.empty() ? "" : FolderFault(folder, true);
    if (fault.empty()) continue;
    Refuse({subject.configPath, "encoder", key}, folder, "a folder that can be written or made", fault);
  }
  CheckOwners(subject, uses);
  for (const FileUse& use : uses) {
    if (use.kind == FileUse::Kind::Read) {
      CheckReadable(use);
      continue;
    }
    if (use.kind == FileUse::Kind::Folder || use.kind == FileUse::Kind::Socket) continue;
    const std::string fault = WriteFault(use);
    if (!fault.empty()) Refuse(use.place, use.path, "a file that can be written", fault);
  }
  CheckKeptStatistics(subject);
}

}  // namespace mdencoder
