// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Keys          are allowed in a section, some of them under a condition
//   Encoder       reads the [encoder] section
//   Sources       reads every other section
//   URLs          are what the key url names
//   Together      checks the sections against each other
#include "config.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "baud_rates.h"
#include "cot_sender.h"
#include "host_serial.h"
#include "reception.h"
#include "recording_name.h"
#include "relay_graph.h"
#include "replay.h"
#include "section.h"
#include "stream_loop.h"
#include "stream_url.h"
#include "value_text.h"
#include "values.h"

namespace mdencoder {
namespace {

constexpr char kEncoder[] = "encoder";

// --- Keys --------------------------------------------------------------------------------------------

constexpr std::string_view kEncoderKeys[] = {"capabilities",
                                             "library",
                                             "host_config",
                                             "output_dir",
                                             "stream_header",
                                             "format",
                                             "live",
                                             "log_level",
                                             "log_levels",
                                             "status_interval",
                                             "stats_interval",
                                             "stats_json",
                                             "stats_file",
                                             "summary",
                                             "duration",
                                             "messages",
                                             "messages_each",
                                             "queue",
                                             "extended_tags",
                                             "heights",
                                             "retry",
                                             "rotate_size",
                                             "rotate_time",
                                             "silence",
                                             "columns",
                                             "items",
                                             "wide",
                                             "track_dir",
                                             "track_format",
                                             "track_interval",
                                             "http",
                                             "http_token",
                                             "http_cert",
                                             "http_key",
                                             "http_host",
                                             "tiles",
                                             "tiles_attribution"};

constexpr std::string_view kSourceKeys[] = {"input",
                                            "data",
                                            "url",
                                            "index",
                                            "output",
                                            "track",
                                            "cot_out",
                                            "cot_out_rate",
                                            "cot_out_uid",
                                            "cot_out_type",
                                            "rotate_size",
                                            "rotate_time",
                                            "silence",
                                            "retry",
                                            "device",
                                            "baud",
                                            "parity",
                                            "flow",
                                            "stop",
                                            "bits",
                                            "port",
                                            "family",
                                            "address",
                                            "sender",
                                            "interface",
                                            "decimation",
                                            "speed",
                                            "loop",
                                            "filter",
                                            "cot_delta_ms",
                                            "cot_sensor",
                                            "cot_discovery",
                                            "cot_aircraft",
                                            "tls_ca",
                                            "tls_certificate",
                                            "tls_key",
                                            "tls_password",
                                            "tls_name",
                                            "mission_id",
                                            "classification",
                                            "classifying_country",
                                            "object_country",
                                            "keep_tags",
                                            "keep_security_tags",
                                            "capture",
                                            "capture_limit_kb",
                                            "relay1",
                                            "relay2",
                                            "relay3",
                                            "relay4",
                                            "relay5",
                                            "relay6",
                                            "relay7",
                                            "relay8"};

constexpr std::string_view kFormats[] = {"table", "json", "csv", "none"};
constexpr std::string_view kTrackFormats[] = {"geojson", "kml", "gpx"};  // track_text::Format
constexpr std::string_view kHeights[] = {"required", "optional"};
constexpr std::string_view kInputs[] = {"serial", "udp", "video"};  // MDATA_INPUT_*
constexpr std::string_view kData[] = {"klv", "cot"};                // MDATA_DATA_*
constexpr std::string_view kParities[] = {"none", "odd", "even"};   // HOST_SERIAL_PARITY_*
constexpr std::string_view kFlows[] = {"none", "hardware", "software"};
constexpr std::string_view kStops[] = {"1", "2"};
constexpr std::string_view kClassifications[] = {"unclassified", "restricted", "confidential", "secret", "top-secret"};

// Returns the condition under which a key of a source is allowed.
std::string ConditionOf(std::string_view key) {
  for (const std::string_view serial : {"device", "baud", "parity", "flow", "stop", "bits"}) {
    if (key == serial) return "with input = serial";
  }
  for (const std::string_view udp : {"port", "family", "address"}) {
    if (key == udp) return "with input = udp and without url";
  }
  if (key == "cot_aircraft") return "with data = cot and url = tak://, tcp:// or tls://";
  if (key == "tls_key") return "with a tls_certificate";
  if (key == "tls_ca") return "with url = tls:// and data = cot, with url = https://, or with cot_out = tls://";
  if (key.starts_with("tls_")) return "with url = tls:// and data = cot, or with cot_out = tls://";
  if (key == "sender") return "with input = udp and groups as the address";
  if (key == "interface") return "with input = udp, with input = video and without url, or with url = tak://";
  if (key == "decimation") return "with input = video";
  if (key == "speed" || key == "loop") return "with url of a file";
  if (key == "filter") return "with url of a capture file";
  if (key.starts_with("cot_out_")) return "with cot_out";
  if (key.starts_with("cot_")) return "with data = cot";
  if (key == "classifying_country" || key == "object_country") return "with a classification";
  return "with capture = yes";
}

// --- Encoder -----------------------------------------------------------------------------------------

DWORD ReadCapabilities(Section& section) {
  const std::string* value = section.Find("capabilities");
  if (value == nullptr) return 0;
  DWORD capabilities = 0;
  for (const std::string& part : SplitList(*value)) {
    if (part == "cot") {
      capabilities |= METADATALIB_CAPS_COT_SUPPORT;
    } else if (part == "ipv4") {
      capabilities |= METADATALIB_CAPS_IPV4_SUPPORT;
    } else if (part == "ipv6") {
      capabilities |= METADATALIB_CAPS_IPV6_SUPPORT;
    } else {
      section.Fail("capabilities", *value, "a list of cot, ipv4 and ipv6");
    }
  }
  if ((capabilities & (METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT)) == 0) {
    section.Fail("capabilities", *value, "a list with ipv4 or ipv6 in it");
  }
  return capabilities;
}

void ReadModuleLevels(Section& section, EncoderSettings& settings) {
  const std::string* value = section.Find("log_levels");
  if (value == nullptr) return;
  const std::vector<std::string> parts = SplitList(*value);
  if (parts.empty()) section.Fail("log_levels", *value, "a list of MODULE:LEVEL with levels 0 to 8");
  for (const std::string& part : parts) {
    const size_t colon = part.find(':');
    const auto level = colon == std::string::npos || colon == 0
                           ? std::nullopt
                           : value_text::ParseWholeNumber(Trim(part.substr(colon + 1)), 0, 8);
    if (!level) section.Fail("log_levels", *value, "a list of MODULE:LEVEL with levels 0 to 8");
    settings.moduleLevels.emplace_back(Trim(part.substr(0, colon)), static_cast<int>(*level));
  }
}

constexpr int64_t kLongestRotation = 31 * 86400;
constexpr double kLongestTrackInterval = 86400;
constexpr double kMostSilence = 31 * 86400;

std::optional<uint64_t> ReadRotateSize(Section& section) {
  const std::string* value = section.Find("rotate_size");
  if (value == nullptr) return std::nullopt;
  const auto size = *value == "0" ? std::optional<uint64_t>(0) : ParseSize(*value);
  if (!size) section.Fail("rotate_size", *value, kSizeAllowed);
  return size;
}

std::optional<uint64_t> ReadRotateTime(Section& section) {
  const int64_t seconds = section.Number("rotate_time", 0, kLongestRotation, -1);
  return seconds < 0 ? std::nullopt : std::optional<uint64_t>(static_cast<uint64_t>(seconds));
}

PresentationSettings ReadPresentation(Section& section) {
  PresentationSettings settings;
  settings.format = static_cast<Format>(section.Choice("format", kFormats, 0));
  if (const std::string* value = section.Find("columns")) {
    const auto columns = ParseColumns(*value);
    if (!columns) section.Fail("columns", *value, kColumnsAllowed);
    settings.columns = *columns;
  }
  if (const std::string* value = section.Find("items")) {
    const auto items = ParseItems(*value);
    if (!items) section.Fail("items", *value, kItemsAllowed);
    settings.items = *items;
  }
  settings.isWide = section.Switch("wide", false);
  return settings;
}

EncoderSettings ReadEncoder(const IniSection& ini, const std::string& iniPath) {
  Section section(ini, kEncoderKeys, iniPath);
  EncoderSettings settings;
  settings.capabilities = ReadCapabilities(section);
  settings.library = section.Path("library");
  settings.hostConfig = section.Path("host_config");
  settings.outputDir = section.Path("output_dir");
  settings.streamHeader = section.Switch("stream_header", false);
  settings.trackDir = section.Path("track_dir");
  settings.trackFormat = static_cast<track_text::Format>(section.Choice("track_format", kTrackFormats, 0));
  settings.trackInterval = section.Real("track_interval", 0, kLongestTrackInterval, settings.trackInterval);
  settings.rotateSize = ReadRotateSize(section).value_or(0);
  settings.rotateTime = ReadRotateTime(section).value_or(0);
  settings.silence = section.Real("silence", 0, kMostSilence, 0);
  settings.extendedTags = section.Switch("extended_tags", true);
  settings.heightsOptional = section.Choice("heights", kHeights, 0) == 1;
  settings.presentation = ReadPresentation(section);
  settings.live = section.Switch("live", false);
  settings.logLevel = static_cast<int>(section.Number("log_level", 0, 8, -1));
  ReadModuleLevels(section, settings);
  settings.statusInterval = section.Real("status_interval", 0, 3600, settings.statusInterval);
  settings.statsInterval = section.Real("stats_interval", 0, 86400, 0);
  settings.statsJson = section.Path("stats_json");
  settings.statsFile = section.Path("stats_file");
  settings.summary = section.Path("summary");
  settings.duration = section.Real("duration", 0, 1e9, 0);
  settings.messages = static_cast<uint64_t>(section.Number("messages", 0, INT64_MAX, 0));
  settings.messagesEach = static_cast<uint64_t>(section.Number("messages_each", 0, INT64_MAX, 0));
  settings.queue = static_cast<size_t>(section.Number("queue", 1, 1000000, 4096));
  settings.retry = section.Switch("retry", true);
  settings.http = ReadHttp(section);
  return settings;
}

// --- Sources -----------------------------------------------------------------------------------------

template <size_t n>
void Copy(char (&to)[n], const std::string& from) {
  std::memcpy(to, from.c_str(), std::min(from.size(), n - 1));
}

int32_t ReadBaud(Section& section) {
  constexpr int kUsualBaud = 115200;
  const auto baud = static_cast<int>(section.Number("baud", 50, 4000000, kUsualBaud));
  const auto isBaud = [baud](const common::Baud& known) { return known.rate == baud; };
  if (std::any_of(std::begin(common::kBauds), std::end(common::kBauds), isBaud)) return baud;
  std::string rates;
  for (const common::Baud& known : common::kBauds) rates += (rates.empty() ? "" : ", ") + std::to_string(known.rate);
  section.Fail("baud", *section.Find("baud"), "one of " + rates);
}

void ReadSerial(Section& section, MDATA_SERIAL_SRC_CFG& serial) {
  serial.nBaudRate = ReadBaud(section);
  serial.enParity = section.Choice("parity", kParities, HOST_SERIAL_PARITY_NONE);
  serial.enFlowControl = section.Choice("flow", kFlows, HOST_SERIAL_FLOW_NONE);
  serial.enStopBits = section.Choice("stop", kStops, HOST_SERIAL_STOP_1);
  serial.nDataBits = static_cast<int32_t>(section.Number("bits", 5, 8, 8));
}

HostReception ReadNetwork(Section& section, MDATA_INET_SRC_CFG& network) {
  const int64_t port = section.Number("port", 1, 65535, 0);
  if (port == 0)
    throw ConfigError("[" + section.Name() + "] port is missing; it must be a whole number from 1 to 65535");
  network.usUDPPort = static_cast<USHORT>(port);
  return ReadReception(section, network);
}

constexpr double kLeastCotRate = 0.01;  // pairs of events a second
constexpr double kMostCotRate = 50;
constexpr size_t kLongestCotName = 60;

// The library multiplies the delta by 1000 in a signed 32-bit field, so a larger one would become negative.
constexpr int64_t kLargestDeltaMs = INT32_MAX / 1000;
// The converter pairs an event with the pending one if their times differ by no more than the delta, whatever their kinds.
// A delta that reaches from one pair to the next makes wrong pairs for good once an event is lost. This one does not up to
// ten pairs a second with events of a pair up to 40 ms apart, and is the largest multiple of 10 ms that does not.
constexpr int64_t kUsualDeltaMs = 40;

void ReadCot(Section& section, MDATA_COT_CFG& cot) {
  cot.nMaxAirCraftSPITimeDeltaInMs =
      static_cast<UINT64>(section.Number("cot_delta_ms", 0, kLargestDeltaMs, kUsualDeltaMs));
  Copy(cot.szSpiUid, section.Text("cot_sensor", sizeof(cot.szSpiUid) - 1));
  cot.bSensorDiscovery = section.Switch("cot_discovery", false) ? TRUE : FALSE;
}

void ReadCotOut(Section& section, SourceSettings& source) {
  const std::string* value = section.Find("cot_out");
  if (value == nullptr) return;
  const auto destination = ParseCotDestination(*value);
  if (!destination)
    section.Fail("cot_out", *value, "udp://HOST:PORT, tak://HOST:PORT, tcp://HOST:PORT or tls://HOST:PORT");
  source.cotOut = *value;
  if (destination->isTls) source.cotOutTls = ReadTls(section);
  source.cotOutRate = section.Real("cot_out_rate", kLeastCotRate, kMostCotRate, source.cotOutRate);
  source.cotOutUid = section.Text("cot_out_uid", kLongestCotName);
  const std::string* type = section.Find("cot_out_type");
  source.cotOutType = type == nullptr ? "a-f-A-M-F-Q" : *type;
  const auto fits = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-'; };
  const std::string& chosen = source.cotOutType;
  if (!chosen.starts_with("a-") || chosen.size() > kLongestCotName ||
      !std::all_of(chosen.begin(), chosen.end(), fits)) {
    section.Fail("cot_out_type", chosen, "a type of an atom as \"a-f-A-M-F-Q\"");
  }
}

void ReadRelays(Section& section, SourceSettings& source) {
  MDATA_SRC_CFG& record = source.record;
  for (int i = 1; i <= MDATA_MAX_RELAYS; ++i) {
    const std::string key = "relay" + std::to_string(i);
    const std::string* value = section.Find(key);
    if (value == nullptr) continue;
    const auto relay = ParseRelay(*value);
    if (!relay) section.Fail(key, *value, kRelayAllowed);
    // Field by field: the padding stays zero, so that a reload sees the same relay as the same.
    MDATA_RELAY_CFG& place = record.Relays[record.nNumOfRelays++];
    place.usUDPPort = relay->record.usUDPPort;
    place.iDestAddressFamily = relay->record.iDestAddressFamily;
    std::copy(std::begin(relay->record.acDestAddress), std::end(relay->record.acDestAddress), place.acDestAddress);
    place.IpTOS = relay->record.IpTOS;
    place.IpTTL = relay->record.IpTTL;
    source.relayKeys.push_back(key);
    source.relayHosts.push_back(relay->host);
    std::string& interface = source.reception.relayInterface;
    if (relay->interface.empty() || relay->interface == interface) continue;
    if (!interface.empty()) {
      section.Fail(
          key, *value,
          "on the interface " + interface + " as the relay before, because the library has one for all of a source");
    }
    interface = relay->interface;
  }
}

void ReadClassification(Section& section, MDATA_SRC_CFG& record) {
  const int classification = section.Choice("classification", kClassifications, -1);
  if (classification < 0) return;
  record.bClassifyMission = TRUE;
  record.enClassification = classification + 1;
  const std::string* country = section.Find("classifying_country");
  // Without exactly three letters the library builds neither the security set nor the mission identifier.
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  if (country == nullptr || country->size() != 3 || !std::all_of(country->begin(), country->end(), isLetter)) {
    section.Fail("classifying_country", country == nullptr ? "" : *country, "a country code of three letters");
  }
  Copy(record.szClassifyingCountry, *country);
  Copy(record.szObjectCountry, section.Text("object_country", sizeof(record.szObjectCountry) - 1));
}

void ReadFilters(Section& section, MDATA_SRC_CFG& record) {
  if (const std::string* value = section.Find("keep_tags")) {
    const auto words = ParseTags(*value, 128, false);
    if (!words) section.Fail("keep_tags", *value, "a list of tags 0 to 127, ranges and item names, or none");
    record.bFilterUASTags = TRUE;
    std::copy(words->begin(), words->end(), record.UASTagFilter);
  }
  if (const std::string* value = section.Find("keep_security_tags")) {
    const auto words = ParseTags(*value, 32, true);
    if (!words) section.Fail("keep_security_tags", *value, "a list of tags 0 to 31, ranges and element names, or none");
    record.bFilterUASSecurityTags = TRUE;
    record.UASSecurityTagFilter[0] = (*words)[0];
  }
}

void CheckName(const std::string& name) {
  const auto fits = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
  };
  if (name.size() > ini::kLongestSection || !std::all_of(name.begin(), name.end(), fits) || name.starts_with('.')) {
    throw ConfigError("[" + name + "] must be a source name of up to 49 letters, digits, '_', '-' and '.'");
  }
}

// --- URLs --------------------------------------------------------------------------------------------

constexpr BYTE kLoopback[] = {127, 0, 0, 1};
constexpr double kHighestSpeed = 1000;
constexpr size_t kLongestFilter = 197;  // a line of the file
constexpr std::string_view kSchemes[] = {"udp", "rtp", "srt", "rtsp", "rtsps", "http", "https", "tcp"};
constexpr char kUrlAllowed[] =
    "a file, or a URL that begins with udp, rtp, srt, rtsp, rtsps, http, https or tcp and ://";

enum class Origin { None, Stream, File, CaptureFile, Tak };

bool IsCaptureFile(const std::string& path) {
  return path.ends_with(".pcap") || path.ends_with(".pcapng") || path.ends_with(".cap");
}

// Returns what the URL of a source is. Throws ConfigError for one that nothing here can open.
Origin OriginOf(Section& section) {
  const std::string* const url = section.Find("url");
  if (url == nullptr) return Origin::None;
  if (IsTakSection(section)) return Origin::Tak;
  if (url->empty()) section.Fail("url", *url, kUrlAllowed);
  const std::string scheme = stream_url::Scheme(*url);
  if (!stream_url::IsUrl(*url)) {
    if (IsCaptureFile(*url)) return Origin::CaptureFile;
    return url->ends_with(".sdp") ? Origin::Stream : Origin::File;
  }
  if (std::find(std::begin(kSchemes), std::end(kSchemes), scheme) == std::end(kSchemes)) {
    section.Fail("url", *url, kUrlAllowed);
  }
  if (stream_url::IsDatagramUrl(*url) && !stream_url::ParseDatagramUrl(*url)) {
    section.Fail("url", *url, stream_url::kDatagramAllowed);
  }
  return Origin::Stream;
}

// The URL settles the input.
int32_t ReadInput(Section& section, Origin origin) {
  const int32_t input = section.Choice("input", kInputs, -1);
  if (origin == Origin::None) {
    if (input < 0) {
      throw ConfigError("[" + section.Name() + "] input is missing; it must be one of " + Join(kInputs));
    }
    return input;
  }
  const bool isUdp = origin == Origin::CaptureFile || origin == Origin::Tak;
  const int32_t settled = isUdp ? MDATA_INPUT_NETWORK : MDATA_INPUT_VIDEO;
  if (input >= 0 && input != settled) {
    section.Fail("input", kInputs[input], std::string(kInputs[settled]) + " with this url, or left out");
  }
  return settled;
}

void ReadReplay(Section& section, SourceSettings& source) {
  ReplaySettings& replay = source.replay.emplace();
  replay.path = section.Path("url");
  replay.filter = section.Text("filter", kLongestFilter);
  if (!replay.filter.empty()) {
    const std::string fault = FilterFault(replay.filter);
    if (!fault.empty()) section.Fail("filter", replay.filter, "a filter of tcpdump (" + fault + ")");
  }
  replay.speed = section.Real("speed", 0, kHighestSpeed, 1);
  replay.loop = section.Switch("loop", false);
  // Only what this program sends arrives.
  MDATA_INET_SRC_CFG& network = source.record.in.Network;
  network.iSrcAddressFamily = AF_INET;
  std::copy(std::begin(kLoopback), std::end(kLoopback), network.acSrcAddress);
}

void ReadVideo(Section& section, Origin origin, SourceSettings& source) {
  MDATA_SRC_CFG& record = source.record;
  if (record.enDataType != MDATA_DATA_KLV) {
    section.Fail("data", source.data, origin == Origin::None ? "klv with input = video" : "klv with this url");
  }
  record.nDecimationFactor = static_cast<UINT32>(section.Number("decimation", 0, UINT32_MAX, 0));
  if (origin == Origin::None) {
    record.in.Video.enInputInterface = static_cast<int32_t>(section.Number("interface", 0, kHostVideoInputs - 1, 0));
    return;
  }
  HostCaptureConfig& capture = source.capture.emplace();
  capture.kind = HostCaptureConfig::Kind::Media;
  capture.path = section.Path("url");
  if (stream_url::Scheme(capture.path) == "https") capture.authorities = section.Path("tls_ca");
  if (origin != Origin::File) return;
  capture.speed = section.Real("speed", 0, kHighestSpeed, 1);
  capture.loop = section.Switch("loop", false);
}

// A serial device may be a server that passes its bytes on.
void CheckTcpDevice(const Section& section, const std::string& device) {
  if (!stream_url::IsUrl(device)) return;
  const auto place = stream_url::ParseHostAndPort(device.substr(device.find("://") + 3));
  if (stream_url::Scheme(device) == "tcp" && place && !place->host.empty()) return;
  section.Fail("device", device, "a serial device, or tcp://HOST:PORT");
}

SourceSettings ReadSource(const IniSection& ini, const std::string& iniPath, UINT32 index) {
  CheckName(ini.name);
  Section section(ini, kSourceKeys, iniPath);
  SourceSettings source;
  source.name = ini.name;
  MDATA_SRC_CFG& record = source.record;
  record.nSize = sizeof(record);
  record.nIndex = static_cast<UINT32>(section.Number("index", 0, UINT32_MAX, index));
  const Origin origin = OriginOf(section);
  record.enInputType = ReadInput(section, origin);
  record.enDataType = section.Choice("data", kData, MDATA_DATA_KLV);
  source.input = origin == Origin::Tak ? "tak" : kInputs[record.enInputType];
  source.data = kData[record.enDataType];
  source.output = section.Path("output");
  source.track = section.Path("track");
  if (!source.track.empty() && !track_text::FormatOf(source.track)) {
    section.Fail("track", *section.Find("track"), "a name that ends in .geojson, .kml or .gpx");
  }
  ReadCotOut(section, source);
  source.hasRetry = section.Find("retry") != nullptr;
  source.retry = section.Switch("retry", true);
  source.rotateSize = ReadRotateSize(section);
  source.rotateTime = ReadRotateTime(section);
  if (section.Find("silence") != nullptr) source.silence = section.Real("silence", 0, kMostSilence, 0);
  switch (record.enInputType) {
    case MDATA_INPUT_SERIAL:
      source.device = section.Path("device");
      CheckTcpDevice(section, source.device);
      ReadSerial(section, record.in.Serial);
      break;
    case MDATA_INPUT_NETWORK:
      if (origin == Origin::Tak) {
        source.tak = ReadTak(section, record.in.Network);
        source.reception.onlyLoopback = true;
        break;
      }
      if (origin == Origin::CaptureFile) {
        ReadReplay(section, source);
        break;
      }
      source.reception = ReadNetwork(section, record.in.Network);
      source.hasAddress = section.Find("address") != nullptr;
      break;
    default:
      ReadVideo(section, origin, source);
      break;
  }
  if (record.enDataType == MDATA_DATA_COT) ReadCot(section, record.format.CoT);
  ReadRelays(section, source);
  Copy(record.szMissionID, section.Text("mission_id", sizeof(record.szMissionID) - 1));
  ReadClassification(section, record);
  ReadFilters(section, record);
  record.bCaptureToDisk = section.Switch("capture", false) ? TRUE : FALSE;
  if (record.bCaptureToDisk) {
    record.nMaxCaptureSizeInKBytes = static_cast<int32_t>(section.Number("capture_limit_kb", 0, INT32_MAX, 1024));
  }
  if (const std::string* unused = section.UnusedKey()) {
    throw ConfigError("[" + ini.name + "] " + *unused + " is allowed only " + ConditionOf(*unused));
  }
  return source;
}

// --- Video inputs ------------------------------------------------------------------------------------

constexpr char kFedInput[] = "url";

void GiveInput(SourceSettings& source, int32_t input) {
  source.input = kInputs[MDATA_INPUT_VIDEO];
  source.reception.onlyLoopback = false;
  source.record.enInputType = MDATA_INPUT_VIDEO;
  std::memset(&source.record.in, 0, sizeof(source.record.in));
  source.record.in.Video.enInputInterface = input;
}

// Only what this machine sends arrives.
void FeedOverLoopback(SourceSettings& source) {
  if (source.record.nDecimationFactor != 0) {
    throw ConfigError("[" + source.name + "] decimation is allowed only with a video input, and the " +
                      std::to_string(kHostVideoInputs) + " are taken by other sources");
  }
  source.input = kFedInput;
  source.reception.onlyLoopback = true;
  source.record.enInputType = MDATA_INPUT_NETWORK;
  std::memset(&source.record.in, 0, sizeof(source.record.in));
  MDATA_INET_SRC_CFG& network = source.record.in.Network;
  network.iSrcAddressFamily = AF_INET;
  std::copy(std::begin(kLoopback), std::end(kLoopback), network.acSrcAddress);
}

constexpr int kStaysFed = 3;

// Sources with less get a video input first, those with kStaysFed none.
int RankForInput(const SourceSettings& source, const std::vector<SourceSettings>& running) {
  const auto same = std::find_if(running.begin(), running.end(),
                                 [&](const SourceSettings& each) { return each.capture && each.name == source.name; });
  const bool isThinned = source.record.nDecimationFactor != 0;
  if (same != running.end() && !IsFed(*same)) return 0;
  return isThinned ? 1 : same == running.end() ? 2 : kStaysFed;
}

// --- Together ----------------------------------------------------------------------------------------

// Returns the default capabilities: both IP families, and CoT if a source needs it.
DWORD CapabilitiesFor(const std::vector<SourceSettings>& sources) {
  DWORD capabilities = METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT;
  for (const SourceSettings& source : sources) {
    if (source.record.enDataType == MDATA_DATA_COT) capabilities |= METADATALIB_CAPS_COT_SUPPORT;
  }
  return capabilities;
}

void CheckCapabilities(const SourceSettings& source, DWORD capabilities) {
  const auto require = [&](bool needed, DWORD capability, const std::string& key, const char* name) {
    if (!needed || (capabilities & capability) != 0) return;
    throw ConfigError("[" + source.name + "] " + key + " is allowed only with " + name + " among the capabilities");
  };
  const MDATA_SRC_CFG& record = source.record;
  const bool network = record.enInputType == MDATA_INPUT_NETWORK;
  const int32_t family = network ? record.in.Network.iSrcAddressFamily : 0;
  require(record.enDataType == MDATA_DATA_COT, METADATALIB_CAPS_COT_SUPPORT, "data = cot", "cot");
  const bool isSentHere = source.tak || source.replay || IsFed(source);
  require(family == AF_INET, METADATALIB_CAPS_IPV4_SUPPORT, isSentHere ? "url" : "family = ipv4", "ipv4");
  require(family == AF_INET6, METADATALIB_CAPS_IPV6_SUPPORT, "family = ipv6", "ipv6");
}

// The settings of the encoder apply to the sources that have none of their own.
void SettleRecording(SourceSettings& source, const EncoderSettings& encoder) {
  source.rotateSize = source.rotateSize.value_or(encoder.rotateSize);
  source.rotateTime = source.rotateTime.value_or(encoder.rotateTime);
  const char* const allowed = PatternFault(source.output, *source.rotateSize != 0 || *source.rotateTime != 0);
  if (source.output.empty() || allowed == nullptr) return;
  throw ConfigError("[" + source.name + "] " + value_text::Refusal("output", source.output, allowed));
}

// Returns the port that two sources cannot both have, or 0. Sources of different groups share their port.
unsigned PortOfBoth(const SourceSettings& one, const SourceSettings& other) {
  const unsigned port = ReceptionOf(one.record, one.tak).usUDPPort;
  if (port != ReceptionOf(other.record, other.tak).usUDPPort) return 0;
  const std::vector<Address> first = GroupsOf(one.record, one.reception, one.tak);
  const std::vector<Address> second = GroupsOf(other.record, other.reception, other.tak);
  if (first.empty() || second.empty()) return port;
  const auto isInBoth = [&](const Address& group) {
    return std::find(second.begin(), second.end(), group) != second.end();
  };
  return std::any_of(first.begin(), first.end(), isInBoth) ? port : 0;
}

std::vector<std::string> NamesOf(const std::vector<SourceSettings>& sources) {
  std::vector<std::string> names;
  for (const SourceSettings& source : sources) names.push_back(source.name);
  return names;
}

void CheckTogether(const Config& config) {
  const auto& sources = config.sources;
  CheckStreams(config.streams, NamesOf(sources));
  if (sources.empty()) throw ConfigError("there is no source; each source is a section with at least its input");
  for (auto it = sources.begin(); it != sources.end(); ++it) {
    CheckCapabilities(*it, config.encoder.capabilities);
    for (auto other = sources.begin(); other != it; ++other) {
      if (!it->output.empty() && it->output == other->output) {
        throw ConfigError("[" + it->name + "] output must be a file of its own, and [" + other->name + "] has \"" +
                          it->output + "\"");
      }
      if (!it->track.empty() && it->track == other->track) {
        throw ConfigError("[" + it->name + "] track must be a file of its own, and [" + other->name + "] has \"" +
                          it->track + "\"");
      }
      if (it->record.enInputType != other->record.enInputType) continue;
      if (it->record.enInputType == MDATA_INPUT_SERIAL) {
        throw ConfigError("[" + it->name + "] input = serial is allowed for one source only, and [" + other->name +
                          "] has it");
      }
      if (it->record.enInputType != MDATA_INPUT_NETWORK || it->replay || other->replay) continue;
      if (const unsigned port = PortOfBoth(*it, *other)) {
        throw ConfigError("[" + it->name + "] port must be a port of its own, or one of other groups, and [" +
                          other->name + "] has " + std::to_string(port));
      }
    }
  }
}

}  // namespace

bool IsFed(const SourceSettings& settings) {
  return settings.capture && settings.record.enInputType == MDATA_INPUT_NETWORK;
}

void GiveInputs(std::vector<SourceSettings>& sources, const std::vector<SourceSettings>& running) {
  std::array<bool, kHostVideoInputs> taken{};
  std::vector<std::pair<int, SourceSettings*>> wanting;
  for (SourceSettings& source : sources) {
    if (source.capture) {
      wanting.emplace_back(RankForInput(source, running), &source);
    } else if (source.record.enInputType == MDATA_INPUT_VIDEO) {
      taken.at(static_cast<size_t>(source.record.in.Video.enInputInterface)) = true;
    }
  }
  std::stable_sort(wanting.begin(), wanting.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& [rank, source] : wanting) {
    const auto free = std::find(taken.begin(), taken.end(), false);
    if (free == taken.end() || rank == kStaysFed) {
      FeedOverLoopback(*source);
      continue;
    }
    *free = true;
    GiveInput(*source, static_cast<int32_t>(free - taken.begin()));
  }
}

const HostCaptureConfig& CaptureOf(const SourceSettings& settings, const HostRuntimeConfig& host) {
  if (settings.capture) return *settings.capture;
  return host.captures.at(static_cast<size_t>(settings.record.in.Video.enInputInterface));
}

std::string RelayText(const SourceSettings& settings, size_t relay) {
  const MDATA_RELAY_CFG& record = settings.record.Relays[relay];
  const bool isNamed = relay < settings.relayHosts.size() && !settings.relayHosts[relay].empty();
  return isNamed ? settings.relayHosts[relay] + ":" + std::to_string(record.usUDPPort) : DestinationText(record);
}

Config MakeConfig(const std::vector<IniSection>& sections, const std::string& iniPath) {
  Config config;
  for (const IniSection& section : sections) {
    if (section.name == kEncoder) {
      config.encoder = ReadEncoder(section, iniPath);
    } else if (IsStreamSection(section.name)) {
      config.streams.push_back(ReadStream(section, iniPath));
    } else {
      config.sources.push_back(ReadSource(section, iniPath, static_cast<UINT32>(config.sources.size() + 1)));
    }
  }
  for (SourceSettings& source : config.sources) {
    if (!source.hasRetry) source.retry = config.encoder.retry;
    source.silence = source.silence.value_or(config.encoder.silence);
  }
  if (config.encoder.capabilities == 0) config.encoder.capabilities = CapabilitiesFor(config.sources);
  for (SourceSettings& source : config.sources) SettleRecording(source, config.encoder);
  GiveInputs(config.sources);
  CheckTogether(config);
  return config;
}

Config LoadConfig(const std::string& path, const std::vector<std::pair<std::string, std::string>>& overrides,
                  std::chrono::milliseconds quiet) {
  auto sections = ReadIni(path, quiet);
  auto encoder = std::find_if(sections.begin(), sections.end(), [](const auto& s) { return s.name == kEncoder; });
  if (encoder == sections.end()) encoder = sections.insert(sections.begin(), IniSection{kEncoder, {}});
  for (const auto& [key, value] : overrides) {
    std::erase_if(encoder->entries, [&name = key](const ini::Entry& entry) { return entry.key == name; });
    encoder->entries.push_back({kEncoder, key, value, kCommandLine});
  }
  try {
    Config config = MakeConfig(sections, path);
    const Machine machine = ThisMachine();
    CheckRelays(config, machine);
    CheckStreamLoops(config, machine.own);
    return config;
  } catch (const ConfigError& error) {
    throw ConfigError(path + ": " + error.what());
  }
}

}  // namespace mdencoder
