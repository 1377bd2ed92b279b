// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Sense      combinations of keys
//   Library    loading
#include "check.h"

#include <dlfcn.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "geoid_grid.h"
#include "host_serial.h"
#include "ini_file.h"
#include "library.h"
#include "section.h"
#include "value_text.h"
#include "values.h"

namespace mdencoder {

void Refuse(const KeyPlace& place, const std::string& value, const std::string& allowed, const std::string& reason) {
  throw ConfigError(place.file + ": [" + place.section + "] " + value_text::Refusal(place.key, value, allowed) +
                    (reason.empty() ? "" : ": " + reason));
}

// --- Sense -------------------------------------------------------------------------------------------

namespace {

using Sources = std::vector<SourceSettings>;

void CheckEncoderKeys(const CheckSubject& subject) {
  const EncoderSettings& settings = subject.config.encoder;
  const auto place = [&](const char* key) { return KeyPlace{subject.configPath, "encoder", key}; };
  const Sources& sources = subject.config.sources;
  const auto hasOutput = [](const SourceSettings& source) { return !source.output.empty(); };
  if (settings.streamHeader && settings.outputDir.empty() && std::none_of(sources.begin(), sources.end(), hasOutput)) {
    Refuse(place("stream_header"), "yes", "no without output_dir and output, because nothing is written");
  }
  if (settings.live && settings.statusInterval <= 0) {
    Refuse(place("live"), "yes", "no with status_interval = 0, because the table is never shown");
  }
  if (settings.messages != 0 && settings.messages < settings.messagesEach) {
    Refuse(place("messages_each"), std::to_string(settings.messagesEach),
           "at most messages = " + std::to_string(settings.messages) + ", which end the run before");
  }
}

// The modules of the library and of the runtime that write log lines.
void CheckModules(const CheckSubject& subject) {
  constexpr std::array<std::string_view, 4> kModules = {"METADATALIB", "COTCONVERTER", "HOST", "KLVCAPTURE"};
  const auto refuseUnknown = [&](const KeyPlace& place, const std::string& module, const std::string& value) {
    if (std::find(kModules.begin(), kModules.end(), module) != kModules.end()) return;
    const std::string nearest = NearestName(module, kModules);
    Refuse(place, value, "about the modules " + Join(kModules),
           "unknown module \"" + module + "\"" + (nearest.empty() ? "" : ", did you mean \"" + nearest + "\"?"));
  };
  std::vector<std::string> seen;
  for (const auto& [module, level] : subject.config.encoder.moduleLevels) {
    if (std::find(seen.begin(), seen.end(), module) != seen.end()) {
      Refuse({subject.configPath, "encoder", "log_levels"}, module + ":" + std::to_string(level),
             "one level for each module", module + " has two");
    }
    seen.push_back(module);
    refuseUnknown({subject.configPath, "encoder", "log_levels"}, module, module + ":" + std::to_string(level));
  }
  for (const auto& [module, level] : subject.host.moduleLevels) {
    refuseUnknown({subject.config.encoder.hostConfig, "log", "level." + module}, module, std::to_string(level));
  }
}

// The library asks for one device and one file; other names are never looked up.
void CheckMappings(const CheckSubject& subject) {
  const std::string& file = subject.config.encoder.hostConfig;
  for (const auto& [path, device] : subject.host.serialDevices) {
    if (path != kSerialDevice) {
      Refuse({file, "serial", path}, device, std::string("given for ") + kSerialDevice + ", the only device opened");
    }
  }
  for (const auto& [path, other] : subject.host.configFiles) {
    if (path != "/etc/hostos.ini")
      Refuse({file, "files", path}, other, "given for /etc/hostos.ini, the only file read");
  }
}

// Returns the keys that a kind of capture uses, beside the kind.
std::span<const std::string_view> CaptureKeys(std::string_view kind) {
  static constexpr std::string_view kMedia[] = {"path", "loop", "speed"};
  static constexpr std::string_view kAnc[] = {"address", "port"};
  if (kind == "anc") return kAnc;
  return std::span(kMedia, kind == "media" ? 3U : kind == "socket" ? 1U : 0U);
}

// Reads the host's file as strictly as this program's own: a key given twice, and keys that its kind of capture ignores.
void CheckHostFile(const CheckSubject& subject) {
  const std::string& file = subject.config.encoder.hostConfig;
  if (file.empty()) return;
  for (const IniSection& section : ReadIni(file)) {
    if (!section.name.starts_with("capture")) continue;
    const auto isKind = [](const ini::Entry& entry) { return entry.key == "kind"; };
    const auto kind = std::find_if(section.entries.begin(), section.entries.end(), isKind);
    const std::string name = kind == section.entries.end() ? "none" : kind->value;
    for (const ini::Entry& entry : section.entries) {
      const auto keys = CaptureKeys(name);
      if (entry.key == "kind" || std::find(keys.begin(), keys.end(), entry.key) != keys.end()) continue;
      Refuse({file, section.name, entry.key}, entry.value, "left out with kind = " + name);
    }
  }
}

void CheckSerialSense(const KeyPlace& place, const MDATA_SERIAL_SRC_CFG& serial) {
  const auto at = [&](const char* key) { return KeyPlace{place.file, place.section, key}; };
  if (serial.nDataBits != 8) {
    Refuse(at("bits"), std::to_string(serial.nDataBits), "8, because the data is binary");
  }
  if (serial.enFlowControl == HOST_SERIAL_FLOW_SOFTWARE) {
    Refuse(at("flow"), "software", "none or hardware, because the data is binary and may hold XON and XOFF");
  }
}

void CheckSender(const KeyPlace& place, const MDATA_INET_SRC_CFG& network) {
  const BYTE* bytes = network.acSrcAddress;
  const bool isV4 = network.iSrcAddressFamily == AF_INET;
  constexpr std::array<BYTE, 16> kNone{};
  constexpr std::array<BYTE, 12> kMapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  const bool isGiven = std::memcmp(bytes, kNone.data(), kNone.size()) != 0;
  const bool isSender = isV4 ? bytes[0] != 0 && bytes[0] < 240 : isGiven && std::memcmp(bytes, kMapped.data(), 12) != 0;
  if (isSender) return;
  Refuse(place, AddressText(network.iSrcAddressFamily, bytes), "an address that a sender can have, or an IPv4 group",
         isV4 ? "the library would accept every sender" : "no IPv6 datagram comes from it");
}

void CheckCountries(const CheckSubject& subject, const SourceSettings& source) {
  const std::string_view countries = source.record.szObjectCountry;
  const auto isAllowed = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ';'; };
  if (std::all_of(countries.begin(), countries.end(), isAllowed)) return;
  Refuse({subject.configPath, source.name, "object_country"}, std::string(countries),
         "country codes of letters, separated by semicolons");
}

void CheckSourceSense(const CheckSubject& subject, const SourceSettings& source) {
  const MDATA_SRC_CFG& record = source.record;
  const auto place = [&](const std::string& key) { return KeyPlace{subject.configPath, source.name, key}; };
  if (record.enDataType == MDATA_DATA_COT && record.format.CoT.bSensorDiscovery &&
      record.format.CoT.szSpiUid[0] == '\0') {
    Refuse(place("cot_discovery"), "yes",
           "no without cot_sensor, because only sensors that it excludes are remembered");
  }
  if (record.enInputType == MDATA_INPUT_SERIAL) CheckSerialSense(place(""), record.in.Serial);
  if (record.enInputType == MDATA_INPUT_NETWORK && source.hasAddress) CheckSender(place("address"), record.in.Network);
  CheckCountries(subject, source);
  if (record.bCaptureToDisk && record.nMaxCaptureSizeInKBytes == 0) {
    Refuse(place("capture_limit_kb"), "0", "1 or more with capture = yes");
  }
  for (UINT32 i = 0; i < record.nNumOfRelays; ++i) {
    for (UINT32 j = 0; j < i; ++j) {
      const std::string destination = RelayText(source, i);
      if (destination != RelayText(source, j)) continue;
      Refuse(place(source.relayKeys[i]), destination, "a destination of its own", source.relayKeys[j] + " has it");
    }
  }
}

void CheckPairsOfSources(const CheckSubject& subject) {
  const Sources& sources = subject.config.sources;
  for (size_t i = 0; i < sources.size(); ++i) {
    for (size_t j = 0; j < i; ++j) {
      const MDATA_SRC_CFG& one = sources[i].record;
      const MDATA_SRC_CFG& other = sources[j].record;
      if (one.nIndex == other.nIndex) {
        Refuse({subject.configPath, sources[i].name, "index"}, std::to_string(one.nIndex), "a number of its own",
               "[" + sources[j].name + "] has it");
      }
      if (one.enInputType == MDATA_INPUT_VIDEO && other.enInputType == MDATA_INPUT_VIDEO && one.bCaptureToDisk &&
          other.bCaptureToDisk) {
        Refuse({subject.configPath, sources[i].name, "capture"}, "yes", "yes for one video source only",
               "[" + sources[j].name + "] captures to the same file");
      }
    }
  }
}

}  // namespace

void CheckSense(const CheckSubject& subject) {
  CheckEncoderKeys(subject);
  CheckModules(subject);
  CheckHostFile(subject);
  CheckMappings(subject);
  for (const SourceSettings& source : subject.config.sources) CheckSourceSense(subject, source);
  CheckPairsOfSources(subject);
}

// --- Library -----------------------------------------------------------------------------------------

void CheckLibrary(const CheckSubject& subject) {
  const KeyPlace place = {subject.configPath, "encoder", "library"};
  const std::string& path = subject.config.encoder.library;
  const std::string value = path.empty() ? "libmetadata_lib.so.1" : path;
  Library library;
  try {
    library = LoadLibrary(path);
  } catch (const std::exception& error) {
    Refuse(place, value, "the metadata library", error.what());
  }
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void*>(library.init), &info) == 0 || info.dli_fname == nullptr) return;
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(info.dli_fname, nullptr), &std::free);
  const std::string name = real == nullptr ? info.dli_fname : real.get();
  const size_t suffix = name.rfind(".so.");
  if (suffix == std::string::npos) return;  // its name does not tell
  const std::string version = name.substr(suffix + 4);
  if (std::atoi(version.c_str()) == METADATALIB_VERSION_MAJOR) return;
  Refuse(place, value, "version " + std::to_string(METADATALIB_VERSION_MAJOR) + " of the metadata library",
         "it is version " + version);
}

void CheckEverything(const CheckSubject& subject) {
  CheckSense(subject);
  CheckFiles(subject);
  CheckLibrary(subject);
  CheckDevices(subject);
  CheckNetwork(subject);
}

}  // namespace mdencoder
