// The host's INI file, and the INI service, both through libinih.
#include <ini.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <vector>

#include "runtime.h"

namespace {

struct IniLine {
  std::string section;
  std::string key;
  std::string value;
};

int Collect(void* user, const char* section, const char* name, const char* value) {
  static_cast<std::vector<IniLine>*>(user)->push_back({section, name, value == nullptr ? "" : value});
  return 1;
}

// 0, -1 when the file cannot be read, or the number of the first bad line.
int Parse(const std::string& path, std::vector<IniLine>& lines) {
  return ini_parse(path.c_str(), Collect, &lines);
}

bool Complain(std::string& error, const IniLine& line, const char* allowed) {
  error = "[" + line.section + "] " + line.key + " = \"" + line.value + "\": " + allowed;
  return false;
}

bool ReadInt(const IniLine& line, int low, int high, int& out) {
  const char* end = line.value.data() + line.value.size();
  const auto result = std::from_chars(line.value.data(), end, out);
  return result.ec == std::errc() && result.ptr == end && out >= low && out <= high;
}

bool ReadBool(const IniLine& line, bool& out) {
  static const char* const kYes[] = {"yes", "true", "on", "1"};
  static const char* const kNo[] = {"no", "false", "off", "0"};
  const auto is = [&](const char* word) { return strcasecmp(line.value.c_str(), word) == 0; };
  out = std::any_of(std::begin(kYes), std::end(kYes), is);
  return out || std::any_of(std::begin(kNo), std::end(kNo), is);
}

bool ReadLog(const IniLine& line, HostRuntimeConfig& config, std::string& error) {
  constexpr const char* kLevels = "levels are 0 to 8";
  if (line.key == "file") {
    config.logFile = line.value;
  } else if (line.key == "console") {
    if (!ReadBool(line, config.console)) return Complain(error, line, "allowed are yes and no");
  } else if (line.key == "level") {
    if (!ReadInt(line, 0, 8, config.logLevel)) return Complain(error, line, kLevels);
  } else if (line.key.rfind("level.", 0) == 0) {
    int level = 0;
    if (!ReadInt(line, 0, 8, level)) return Complain(error, line, kLevels);
    config.moduleLevels[line.key.substr(6)] = level;
  } else {
    return Complain(error, line, "keys of [log] are level, level.MODULE, file and console");
  }
  return true;
}

bool ReadCapture(const IniLine& line, HostRuntimeConfig& config, std::string& error) {
  const char input = line.section.back();
  if (line.section.size() != 8 || input < '0' || input > '3')
    return Complain(error, line, "captures are [capture0] to [capture3]");
  HostCaptureConfig& capture = config.captures[input - '0'];
  using Kind = HostCaptureConfig::Kind;
  if (line.key == "kind") {
    static const std::map<std::string, Kind> kKinds = {
        {"none", Kind::kNone}, {"media", Kind::kMedia}, {"anc", Kind::kAnc}, {"socket", Kind::kSocket}};
    const auto found = kKinds.find(line.value);
    if (found == kKinds.end()) return Complain(error, line, "allowed are none, media, anc and socket");
    capture.kind = found->second;
  } else if (line.key == "path") {
    capture.path = line.value;
  } else if (line.key == "address") {
    capture.address = line.value;
  } else if (line.key == "port") {
    int port = 0;
    if (!ReadInt(line, 1, 65535, port)) return Complain(error, line, "ports are 1 to 65535");
    capture.port = static_cast<std::uint16_t>(port);
  } else if (line.key == "loop") {
    if (!ReadBool(line, capture.loop)) return Complain(error, line, "allowed are yes and no");
  } else {
    return Complain(error, line, "keys of a capture are kind, path, loop, address and port");
  }
  return true;
}

bool ReadLine(const IniLine& line, HostRuntimeConfig& config, std::string& error) {
  if (line.section == "log") return ReadLog(line, config, error);
  if (line.section == "serial") {
    config.serialDevices[line.key] = line.value;
    return true;
  }
  if (line.section == "files") {
    config.configFiles[line.key] = line.value;
    return true;
  }
  if (line.section.rfind("capture", 0) == 0) return ReadCapture(line, config, error);
  return Complain(error, line, "sections are log, serial, files and capture0 to capture3");
}

}  // namespace

bool HostRuntime_Load(const std::string& path, HostRuntimeConfig& config, std::string& error) {
  std::vector<IniLine> lines;
  const int result = Parse(path, lines);
  if (result < 0) {
    error = "cannot read \"" + path + "\"";
    return false;
  }
  if (result > 0) {
    error = "\"" + path + "\" line " + std::to_string(result) + ": neither a section nor key = value";
    return false;
  }
  return std::all_of(lines.begin(), lines.end(), [&](const IniLine& line) { return ReadLine(line, config, error); });
}

namespace runtime {

std::optional<std::string> IniValue(const std::string& file, const std::string& section, const std::string& key) {
  std::vector<IniLine> lines;
  if (Parse(file, lines) < 0) return {};
  for (const IniLine& line : lines)
    if (line.section == section && line.key == key) return line.value;
  return {};
}

}  // namespace runtime

extern "C" BOOL CfgFile_GetStringValue(const char* szFile, const char* szSection, const char* szKey, char* szOut,
                                       int* pnSize, const char* szDefault) {
  const HostRuntimeConfig config = runtime::Config();
  const auto mapped = config.configFiles.find(szFile);
  const std::string file = mapped == config.configFiles.end() ? szFile : mapped->second;
  const std::optional<std::string> value = runtime::IniValue(file, szSection, szKey);
  CopyString(szOut, value ? value->c_str() : szDefault, *pnSize);
  *pnSize = static_cast<int>(strlen(szOut));
  return value ? TRUE : FALSE;
}
