// SPDX-License-Identifier: Apache-2.0
// Records the behaviour of the library with a fixed course of traffic: every log line of level 0 to 8, every dump,
// every assertion, every delivered byte, every relayed datagram, every statistics record. Two builds with the same
// behaviour print the same text; scripts/compare-run builds two revisions and compares them.
//
// It uses only the public interface and the fake host, so that the same file builds against older revisions.
//
//   record_run [RECORDING]     RECORDING: ST 0601 messages, back to back, which are added to the traffic
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "builders.h"
#include "fake_host.h"
#include "mdfeed/cot_frame.h"

namespace {

std::mt19937 g_random(20240102);  // this seed determines the traffic

unsigned Draw(unsigned limit) {
  return static_cast<unsigned>(g_random() % limit);
}

// --- What is printed -------------------------------------------------------------------------------------

void PrintBytes(const char* title, const Bytes& bytes) {
  std::printf("%s %zu:", title, bytes.size());
  for (const BYTE byte : bytes) std::printf(" %02X", byte);
  std::printf("\n");
}

// Addresses differ from run to run; nothing else may differ.
std::string WithoutAddresses(const std::string& text) {
  static const std::regex kAddress("0x[0-9a-f]{9,}|pMsg = 0x[0-9a-f]+");
  return std::regex_replace(text, kAddress, "ADDRESS");
}

// Prints the output since the last call. The fake host stores lines, dumps and assertions separately, so each of the
// three is printed in its own order.
void Flush(const std::string& step) {
  std::printf("-- %s\n", step.c_str());
  for (const LogLine& line : host().Logs()) {
    std::string text = WithoutAddresses(line.text);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    std::printf("%s %d %s: %s\n", line.module.c_str(), line.level, line.file.c_str(), text.c_str());
  }
  for (const DumpLine& dump : host().Dumps())
    PrintBytes(("dump " + std::to_string(dump.level) + " " + dump.title).c_str(), dump.bytes);
  for (const Assertion& assertion : host().Assertions())
    std::printf("assertion %s\n", WithoutAddresses(assertion.text).c_str());
  host().ClearLogs();
}

struct Encoder {
  const char* name;
  int taken = 0;
  int refuseEvery = 0;  // 0 never
};

BOOL OnMessage(MDATA_BUFFER* buffer, void* user, void*) {
  auto* encoder = static_cast<Encoder*>(user);
  ++encoder->taken;
  std::printf("delivered to %s, time %" PRIu64, encoder->name, static_cast<uint64_t>(buffer->nTimeStamp));
  PrintBytes("", Bytes(buffer->pcData, buffer->pcData + buffer->nDataSize));
  return encoder->refuseEvery == 0 || encoder->taken % encoder->refuseEvery != 0 ? TRUE : FALSE;
}

void PrintStats(HMDATASRC source) {
  MDATA_SRC_STATS stats;
  memset(&stats, 0, sizeof stats);
  MetaData_GetSourceStats(source, &stats);
  const BYTE* bytes = reinterpret_cast<const BYTE*>(&stats);
  PrintBytes("statistics", Bytes(bytes, bytes + sizeof stats));
}

// --- Traffic ---------------------------------------------------------------------------------------------

Bytes RandomBytes(size_t size) {
  Bytes bytes(size);
  for (BYTE& byte : bytes) byte = static_cast<BYTE>(g_random());
  return bytes;
}

// Makes a message of random items, sometimes with a mission identifier, a security set, or no checksum.
Bytes AnyMessage() {
  UasMessage message;
  message.Item(2, RandomBytes(8));
  const unsigned items = Draw(20);
  for (unsigned i = 0; i < items; ++i) message.Item(static_cast<BYTE>(1 + Draw(100)), RandomBytes(1 + Draw(12)));
  if (Draw(3) == 0) message.Item(3, Text("MISSION-" + std::to_string(Draw(100))));
  if (Draw(3) == 0)
    message.Item(48, Hex("01 01 01 02 01 01 03 04 2F 2F 43 41 0C 01 07 0D 06 00 43 00 41 00 4E 16 02 00 0C"));
  if (Draw(20) == 0) message.Item(22, RandomBytes(150 + Draw(400)));
  if (Draw(8) != 0) message.Checksum();
  return message.Build();
}

// Changes a few bytes of a message, truncates it, or puts bytes in front of it.
Bytes DamagedMessage() {
  Bytes bytes = AnyMessage();
  switch (Draw(4)) {
    case 0:
      for (unsigned i = 0; i <= Draw(4); ++i)
        bytes[Draw(static_cast<unsigned>(bytes.size()))] = static_cast<BYTE>(g_random());
      break;
    case 1:
      bytes.resize(Draw(static_cast<unsigned>(bytes.size())));
      break;
    case 2:
      bytes = RandomBytes(Draw(40)) + bytes;
      break;
    default:
      bytes = bytes + RandomBytes(Draw(40));
      break;
  }
  return bytes;
}

// Makes keys of every registry designator, each followed by a small set.
Bytes OtherKey() {
  Bytes key = UasKey();
  key[5] = static_cast<BYTE>(g_random());
  return UasMessage().Key(key).Raw(RandomBytes(Draw(60))).Build();
}

std::string Number(double value) {
  char text[40];
  std::snprintf(text, sizeof text, "%.7f", value);
  return text;
}

// Makes events of an aircraft and its sensor point, sometimes with a value missing, out of range or damaged.
std::string Event(bool aircraft, int second) {
  const std::string time = "2024-01-02T03:0" + std::to_string(second / 60 % 10) + ":" +
                           std::to_string(10 + second % 50) + "." + std::to_string(10 + Draw(80)) + "Z";
  const double scale = Draw(12) == 0 ? 20 : 1;
  const std::string lat = Number((Draw(1800) / 10.0 - 90) * scale);
  const std::string lon = Number((Draw(3600) / 10.0 - 180) * scale);
  const std::string hae = Number(Draw(20000) - 1000.0);
  std::string text = "<?xml version=\"1.0\"?><event version=\"2.0\" uid=\"" +
                     std::string(aircraft ? "AIRCRAFT" : "SENSOR-" + std::to_string(Draw(40))) + "\" type=\"" +
                     (aircraft ? "a-f-A-M-F" : "b-m-p-s-p-i") + "\" time=\"" + time + "\" start=\"" + time +
                     "\" stale=\"" + time + "\" how=\"m-g\"><detail>";
  if (aircraft)
    text += "<track course=\"" + Number(Draw(4000) / 10.0) + "\" speed=\"" + Number(Draw(3000) / 10.0) +
            "\"/><attitude pitch=\"" + Number(Draw(2000) / 10.0 - 100) + "\" roll=\"" +
            Number(Draw(2000) / 10.0 - 100) + "\"/>";
  else
    text += "<sensor azimuth=\"" + Number(Draw(3600) / 10.0) + "\" elevation=\"" + Number(Draw(1800) / 10.0 - 90) +
            "\" roll=\"" + Number(Draw(3600) / 10.0) + "\" fov=\"" + Number(Draw(2000) / 10.0) + "\" vfov=\"" +
            Number(Draw(2000) / 10.0) + "\" model=\"EO-IR\" range=\"" + Number(Draw(6000000)) + "\"/>";
  text += "</detail><point lat=\"" + lat + "\" lon=\"" + lon + "\" hae=\"" + hae + "\" le=\"" + Number(Draw(3000)) +
          "\" ce=\"" + Number(Draw(3000)) + "\"/></event>";
  if (Draw(10) == 0) text.erase(Draw(static_cast<unsigned>(text.size())), 1 + Draw(9));
  if (Draw(40) == 0) text[Draw(static_cast<unsigned>(text.size()))] = static_cast<char>(g_random());
  return text;
}

// --- Sources ---------------------------------------------------------------------------------------------

MDATA_SRC_CFG Config(int input, int data, Encoder* encoder) {
  MDATA_SRC_CFG config;
  memset(&config, 0, sizeof config);
  config.nSize = sizeof config;
  config.nIndex = 3;
  config.enInputType = input;
  config.enDataType = data;
  config.pfnCallback = OnMessage;
  config.pvUserParam1 = encoder;
  config.nDecimationFactor = 1;
  return config;
}

void AddRelay(MDATA_SRC_CFG& config, int ttl, int tos, bool multicast = false) {
  MDATA_RELAY_CFG& relay = config.Relays[config.nNumOfRelays++];
  relay.usUDPPort = static_cast<USHORT>(6000 + config.nNumOfRelays);
  relay.iDestAddressFamily = AF_INET;
  relay.acDestAddress[0] = multicast ? 239 : 10;
  relay.acDestAddress[3] = static_cast<BYTE>(config.nNumOfRelays);
  relay.IpTTL = ttl;
  relay.IpTOS = tos;
}

void Rewrite(MDATA_SRC_CFG& config, bool filter) {
  std::strcpy(config.szMissionID, "RECORDED");
  config.bClassifyMission = TRUE;
  config.enClassification = 2;
  std::strcpy(config.szClassifyingCountry, "USA");
  std::strcpy(config.szObjectCountry, "USA;CAN");
  if (!filter) return;
  config.bFilterUASTags = TRUE;
  for (UINT32& word : config.UASTagFilter) word = 0x5A5AA5A5;
  config.bFilterUASSecurityTags = TRUE;
  config.UASSecurityTagFilter[0] = 0x00401002;
}

class Source {
 public:
  Source(const char* name, const MDATA_SRC_CFG& config) : m_name(name) {
    const bool opened = MetaData_OpenSource(&config, &m_handle) != FALSE;
    Flush(std::string("open ") + name + (opened ? "" : ": refused"));
  }
  ~Source() {
    try {
      if (m_handle != nullptr) Close();
    } catch (...) {
      std::abort();  // an incomplete record is useless
    }
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

 private:
  void Close() {
    PrintStats(m_handle);
    MDATA_SRC_STATS stats;
    memset(&stats, 0x11, sizeof stats);
    MetaData_SetSourceStats(m_handle, &stats);
    PrintStats(m_handle);
    MetaData_ResetSourceStats(m_handle);
    PrintStats(m_handle);
    Flush(m_name + " statistics");
    MetaData_CloseSource(&m_handle);
    Flush("close " + m_name);
    static int printed = 0;  // the last descriptor whose datagrams are printed
    for (const int fd : host().FDsOfKind("socket")) {
      if (fd <= printed) continue;
      printed = fd;
      for (const Bytes& sent : host().FD(fd).sent) PrintBytes("relayed", sent);
    }
  }

  std::string m_name;
  HMDATASRC m_handle = nullptr;
};

void FeedDatagram(const char* kind, const Bytes& bytes, unsigned number) {
  DatagramInfo info;
  info.from = std::strcmp(kind, "udp6") == 0 ? "2001:db8::7" : number % 7 == 6 ? "10.1.2.4" : "10.1.2.3";
  info.ttl = static_cast<int>(60 + number / 40);
  info.tos = static_cast<int>(number / 60 * 4);
  host().FeedDatagram(host().LastFD(kind), bytes, info);
  host().PassUntilIdle();
  if (number % 25 == 24) host().Advance(1100);
  Flush("datagram");
}

void FeedStream(const Bytes& stream, unsigned pause) {
  for (size_t at = 0; at < stream.size();) {
    const size_t size = std::min<size_t>(1 + Draw(400), stream.size() - at);
    host().FeedSerial(host().LastFD("serial"),
                      Bytes(stream.begin() + static_cast<long>(at), stream.begin() + static_cast<long>(at + size)));
    host().PassUntilIdle();
    at += size;
    if (Draw(pause) == 0) host().Advance(300 + Draw(500));
    Flush("serial");
  }
}

// --- The course of traffic ------------------------------------------------------------------------------------

void KlvOverUdp(const std::vector<Bytes>& recorded) {
  Encoder encoder{"udp"};
  MDATA_SRC_CFG config = Config(MDATA_INPUT_NETWORK, MDATA_DATA_KLV, &encoder);
  config.in.Network.usUDPPort = 5000;
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 64;
  AddRelay(config, -1, -1);
  AddRelay(config, 16, 8, true);
  {
    const Source source("plain UDP", config);
    for (const Bytes& message : recorded) FeedDatagram("udp4", message, 0);
    for (unsigned i = 0; i < 200; ++i)
      FeedDatagram(i % 3 == 0 ? "udp6" : "udp4", i % 5 == 4 ? DamagedMessage() : AnyMessage(), i);
  }
  Rewrite(config, false);
  {
    const Source source("rewritten UDP", config);
    for (const Bytes& message : recorded) FeedDatagram("udp4", message, 0);
    for (unsigned i = 0; i < 300; ++i) FeedDatagram("udp4", i % 3 == 2 ? DamagedMessage() : AnyMessage(), i);
  }
  Rewrite(config, true);
  config.in.Network.iSrcAddressFamily = AF_INET;
  const BYTE sender[] = {10, 1, 2, 3};
  memcpy(config.in.Network.acSrcAddress, sender, sizeof sender);
  {
    const Source source("filtered UDP", config);
    for (const Bytes& message : recorded) FeedDatagram("udp4", message, 0);
    for (unsigned i = 0; i < 300; ++i) FeedDatagram("udp4", i % 3 == 2 ? DamagedMessage() : AnyMessage(), i);
  }
  config.szMissionID[0] = '\0';
  config.bClassifyMission = FALSE;
  for (UINT32& word : config.UASTagFilter) word = 0;
  const Source source("emptied UDP", config);
  for (unsigned i = 0; i < 40; ++i) FeedDatagram("udp4", AnyMessage(), i);
}

void KlvOverSerial(const std::vector<Bytes>& recorded) {
  Encoder encoder{"serial"};
  MDATA_SRC_CFG config = Config(MDATA_INPUT_SERIAL, MDATA_DATA_KLV, &encoder);
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 64;
  AddRelay(config, 0, 0);
  for (int round = 0; round < 2; ++round) {
    const Source source(round == 0 ? "plain serial" : "rewritten serial", config);
    Bytes stream;
    for (const Bytes& message : recorded) stream = stream + message;
    for (unsigned i = 0; i < 250; ++i) {
      const unsigned kind = Draw(10);
      stream = stream + (kind < 6    ? AnyMessage()
                         : kind < 8  ? DamagedMessage()
                         : kind == 8 ? OtherKey()
                                     : RandomBytes(Draw(30)));
    }
    FeedStream(stream, 30);
    Rewrite(config, true);
  }
}

void CotOverUdp() {
  Encoder encoder{"cot"};
  MDATA_SRC_CFG config = Config(MDATA_INPUT_NETWORK, MDATA_DATA_COT, &encoder);
  config.in.Network.usUDPPort = 5001;
  config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 900;
  config.format.CoT.bSensorDiscovery = TRUE;
  AddRelay(config, -1, -1);
  for (int round = 0; round < 2; ++round) {
    const Source source(round == 0 ? "CoT over UDP" : "rewritten CoT over UDP", config);
    for (unsigned i = 0; i < 300; ++i) {
      FeedDatagram("udp4", Text(Event(i % 2 == 0, static_cast<int>(i / 4))), i);
      if (i % 20 == 19) host().SelectTimesOut();
    }
    Rewrite(config, true);
    std::strcpy(config.format.CoT.szSpiUid, "SENSOR-1");
  }
}

void CotOverSerial() {
  using mdfeed::FrameField;
  Encoder encoder{"cot serial"};
  MDATA_SRC_CFG config = Config(MDATA_INPUT_SERIAL, MDATA_DATA_COT, &encoder);
  config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 900;
  config.bCaptureToDisk = TRUE;
  config.nMaxCaptureSizeInKBytes = 64;
  AddRelay(config, 0, 0);
  const Source source("CoT over serial", config);
  for (unsigned i = 0; i < 200; ++i) {
    mdfeed::FrameOptions options;
    options.seed = i;
    if (i % 4 == 3) options.damage = {static_cast<FrameField>(Draw(14))};
    FeedStream(mdfeed::BuildCotFrame(Event(i % 2 == 0, static_cast<int>(i / 4)), options), 50);
    if (i % 9 == 8) FeedStream(RandomBytes(Draw(50)), 50);
  }
}

void Video() {
  Encoder first{"video 1"};
  Encoder second{"video 2", 0, 3};
  MDATA_SRC_CFG config = Config(MDATA_INPUT_VIDEO, MDATA_DATA_KLV, &first);
  config.in.Video.enInputInterface = 2;
  config.nDecimationFactor = 3;
  AddRelay(config, 0, 0);
  const Source decimated("decimated video", config);
  config.pvUserParam1 = &second;
  config.nDecimationFactor = 1;
  Rewrite(config, true);
  const Source rewritten("rewritten video", config);
  for (unsigned i = 0; i < 200; ++i) {
    host().FeedCapture(2, i % 6 == 5 ? DamagedMessage() : AnyMessage(), i / 2 * 3003);
    host().PassUntilIdle();
    if (i % 25 == 24) host().Advance(1100);
    Flush("frame");
  }
}

std::string Grid() {
  std::string text;
  char number[32];
  for (int i = 0; i < 721 * 1441; ++i) {
    std::snprintf(number, sizeof number, "%s%d.%04d%c", i % 3 == 0 ? "-" : "", i % 90, i * 7 % 10000,
                  i % 8 == 7 ? '\n' : ' ');
    text += number;
  }
  return text;
}

void Record(const char* recording) {
  std::vector<Bytes> recorded;
  if (recording != nullptr) {
    std::ifstream file(recording, std::ios::binary);
    recorded = SplitMessages(Bytes(std::istreambuf_iterator<char>(file), {}));
  }
  host().Reset();
  host().WriteFile("/usr/share/vendor/data/ww15mgh.grd", Grid());
  METADATALIB_Init(METADATALIB_CAPS_COT_SUPPORT | METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT);
  Flush("start");
  KlvOverUdp(recorded);
  KlvOverSerial(recorded);
  CotOverUdp();
  CotOverSerial();
  Video();
  METADATALIB_Shutdown();
  Flush("stop");
}

}  // namespace

int main(int argc, char** argv) {
  setenv("TZ", "UTC", 1);
  try {
    Record(argc > 1 ? argv[1] : nullptr);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "record_run: %s\n", error.what());
    return 1;
  }
  return 0;
}
