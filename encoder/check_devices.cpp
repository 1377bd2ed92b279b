// SPDX-License-Identifier: Apache-2.0
// The serial device and the video inputs.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "check.h"
#include "replay.h"
#include "stream_url.h"

namespace mdencoder {
namespace {

// --- Serial device -----------------------------------------------------------------------------------

// Returns whether the kernel has a terminal driver for the device's number. Opening it could change its lines.
bool IsTerminal(dev_t number) {
  std::ifstream drivers("/proc/tty/drivers");
  if (!drivers) return true;  // the kernel does not tell
  std::string line;
  while (std::getline(drivers, line)) {
    std::istringstream words(line);
    std::string name;
    std::string path;
    std::string range;
    unsigned first = 0;
    if (!(words >> name >> path >> first >> range) || first != major(number)) continue;
    unsigned lowest = 0;
    unsigned highest = 0;
    const int count = std::sscanf(range.c_str(), "%u-%u", &lowest, &highest);
    if (count == 1) highest = lowest;
    if (count >= 1 && minor(number) >= lowest && minor(number) <= highest) return true;
  }
  return false;
}

// Returns whether a program holds the lock that the host runtime takes on a device that it opens.
bool IsLocked(const struct stat& info) {
  char wanted[64];
  std::snprintf(wanted, sizeof(wanted), " %02x:%02x:%lu ", major(info.st_dev), minor(info.st_dev),
                static_cast<unsigned long>(info.st_ino));
  std::ifstream locks("/proc/locks");
  std::string line;
  while (std::getline(locks, line)) {
    if (line.find(" FLOCK ") != std::string::npos && line.find(wanted) != std::string::npos) return true;
  }
  return false;
}

// Returns "", or what keeps the device from being opened.
std::string DeviceFault(const std::string& path) {
  if (stream_url::IsUrl(path)) return {};  // a connection would take the line from those who have it
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::strerror(errno);
  if (!S_ISCHR(info.st_mode) || !IsTerminal(info.st_rdev)) return "it is not a serial device";
  if (faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) != 0) return std::strerror(errno);
  return IsLocked(info) ? "it is in use" : "";
}

void CheckSerial(const CheckSubject& subject, const SourceSettings& source) {
  const auto mapped = subject.host.serialDevices.find(kSerialDevice);
  const bool isMapped = mapped != subject.host.serialDevices.end();
  const std::string device = isMapped ? mapped->second : kSerialDevice;
  const std::string fault = DeviceFault(device);
  if (fault.empty()) return;
  const std::string allowed = "a serial device that can be opened";
  if (source.device.empty() && isMapped) {
    Refuse({subject.config.encoder.hostConfig, "serial", kSerialDevice}, device, allowed, fault);
  }
  Refuse({subject.configPath, source.name, "device"}, device, allowed, fault);
}

// --- Video inputs ------------------------------------------------------------------------------------

bool IsBoundSocket(const std::string& path) {
  std::ifstream sockets("/proc/net/unix");
  std::string line;
  while (std::getline(sockets, line)) {
    if (line.ends_with(" " + path)) return true;
  }
  return false;
}

// Returns "", or what keeps the runtime from making the socket.
std::string SocketFault(const std::string& path) {
  constexpr size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  if (path.size() > kLongest) return "it is longer than " + std::to_string(kLongest) + " characters";
  const std::string parent = std::filesystem::path(path).parent_path().string();
  const std::string folder = parent.empty() ? "." : parent;
  if (faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) return folder + ": " + std::strerror(errno);
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return "";
  if (!S_ISSOCK(info.st_mode)) return "it is another kind of file";
  return IsBoundSocket(path) ? "it is in use" : "";
}

void CheckVideo(const CheckSubject& subject, const SourceSettings& source) {
  const int input = source.record.in.Video.enInputInterface;
  const std::string section = "capture" + std::to_string(input);
  const HostCaptureConfig& capture = CaptureOf(source, subject.host);
  const KeyPlace place = source.capture ? KeyPlace{subject.configPath, source.name, "url"}
                                        : KeyPlace{subject.config.encoder.hostConfig, section, "path"};
  std::string fault;
  switch (capture.kind) {
    case HostCaptureConfig::Kind::None:
      Refuse({subject.configPath, source.name, "interface"}, std::to_string(input), "a video input with a capture",
             "host_config has no section [" + section + "] with a kind");
    case HostCaptureConfig::Kind::Media:
      fault = subject.mediaFault(capture.path);
      if (!fault.empty()) {
        Refuse(place, stream_url::Shown(capture.path), "a KLV file, or a media file or URL with a KLV track", fault);
      }
      break;
    case HostCaptureConfig::Kind::Socket:
      fault = SocketFault(capture.path);
      if (!fault.empty()) Refuse(place, capture.path, "a path at which a socket can be made", fault);
      break;
    case HostCaptureConfig::Kind::Anc:
      break;  // its port is checked with the others
  }
}

}  // namespace

void CheckDevices(const CheckSubject& subject) {
  for (const SourceSettings& source : subject.config.sources) {
    if (source.record.enInputType == MDATA_INPUT_SERIAL) CheckSerial(subject, source);
    if (source.record.enInputType == MDATA_INPUT_VIDEO || IsFed(source)) CheckVideo(subject, source);
    if (!source.replay) continue;
    const std::string fault = ReplayFault(*source.replay);
    if (!fault.empty()) {
      Refuse({subject.configPath, source.name, "url"}, source.replay->path, "a capture file", fault);
    }
  }
}

}  // namespace mdencoder
