// SPDX-License-Identifier: Apache-2.0
#include "traffic.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <utility>

#include "cot_flight.h"
#include "cot_frame.h"
#include "flight.h"
#include "klv_flight.h"
#include "workload.h"

namespace bench {
namespace {

constexpr int kMessages = 407;
constexpr std::int64_t kStartUs = 1'714'557'600'000'000;  // 2024-05-01 10:00 UTC
constexpr std::int64_t kStepUs = 200'000;
constexpr std::uint8_t kChecksumItem[] = {1, 2, 0, 0};

std::size_t MessageSize(const Bytes& stream, std::size_t at) {
  if (at + kKeySize + 3 > stream.size()) return 0;
  const std::uint8_t first = stream[at + kKeySize];
  if (first < 0x80) return kKeySize + 1 + first;
  if (first == 0x81) return kKeySize + 2 + stream[at + kKeySize + 1];
  return kKeySize + 3 + (std::size_t{stream[at + kKeySize + 1]} << 8 | stream[at + kKeySize + 2]);
}

std::vector<Bytes> Split(const Bytes& stream) {
  std::vector<Bytes> messages;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t size = MessageSize(stream, at);
    if (size == 0 || size > stream.size() - at) break;
    messages.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(at),
                          stream.begin() + static_cast<std::ptrdiff_t>(at + size));
    at += size;
  }
  return messages;
}

std::vector<Bytes> Generate() {
  mdfeed::FlightOptions options;
  options.startUs = kStartUs;
  mdfeed::Flight flight(options);
  std::vector<Bytes> messages;
  for (int i = 0; i < kMessages; ++i) {
    flight.AdvanceTo(i * kStepUs);
    messages.push_back(mdfeed::MakeKlvMessage(flight.State()));
  }
  return messages;
}

bool g_onlyGenerated = false;

const std::vector<Bytes>& Recorded() {
  static const std::vector<Bytes> kAll = [] {
    if (g_onlyGenerated) return std::vector<Bytes>();
    std::ifstream file(METADATA_SHARED_DATA_DIR "/recorded_flight.klv", std::ios::binary);
    return Split(Bytes(std::istreambuf_iterator<char>(file), {}));
  }();
  return kAll;
}

// Details that a converter has no use for, of about so many bytes.
std::string FurtherDetails(std::size_t size, std::mt19937& random) {
  std::string text;
  while (text.size() < size) {
    text += "  <mark id=\"" + std::to_string(random() % 100'000) + "\" colour=\"" + std::to_string(random() % 256) +
            "\"><note author=\"crew " + std::to_string(random() % 9) + "\">seen twice, moving slowly</note></mark>\n";
  }
  return text;
}

void FillUp(std::string& event, std::size_t size, std::mt19937& random) {
  if (event.size() >= size) return;
  const std::size_t end = event.find(" </detail>");
  event.insert(end, FurtherDetails(size - event.size(), random));
}

std::vector<EventPair> MakePairs(std::size_t eventSize) {
  mdfeed::FlightOptions options;
  options.startUs = kStartUs;
  mdfeed::Flight flight(options);
  mdfeed::CotWriter writer({});
  std::mt19937 random(1);
  std::vector<EventPair> pairs;
  for (int i = 0; i < 64; ++i) {
    flight.AdvanceTo(i * kStepUs);
    mdfeed::CotPair pair = writer.Write(flight.State());
    FillUp(pair.aircraft, eventSize, random);
    FillUp(pair.sensor, eventSize, random);
    pairs.push_back({std::move(pair.aircraft), std::move(pair.sensor)});
  }
  return pairs;
}

constexpr char kMissionId[] = "BENCHMARK-0001";
constexpr char kCountry[] = "USA";

struct Rules {
  Bytes missionId;
  Bytes securitySet;
  FloorRules rules = {};
};

Rules MakeRules(Filter filter) {
  const MDATA_SRC_CFG config = RewritingConfig(filter);
  Rules made;
  MISSION_ID_KLV* mission = AllocMissionID(config.szMissionID);
  KLV_ELEMENT* security =
      AllocSecurityMetadata(config.enClassification, config.szClassifyingCountry, config.szObjectCountry);
  Require(mission != nullptr && security != nullptr, "no elements to insert");
  const auto* first = reinterpret_cast<const std::uint8_t*>(mission);
  made.missionId.assign(first, first + 2 + mission->cLength);
  first = reinterpret_cast<const std::uint8_t*>(security);
  made.securitySet.assign(first, first + 2 + security->Length);
  free(mission);
  free(security);
  std::copy(std::begin(config.UASTagFilter), std::end(config.UASTagFilter), made.rules.keep);
  return made;
}

}  // namespace

void UseGeneratedFlight() {
  g_onlyGenerated = true;
}

const char* FlightKind() {
  return Recorded().empty() ? "generated" : "recorded";
}

const std::vector<Bytes>& FlightMessages() {
  static const std::vector<Bytes> kAll = Recorded().empty() ? Generate() : Recorded();
  return kAll;
}

Bytes MakeMessage(int items, unsigned seed) {
  std::mt19937 random(seed);
  Bytes body;
  int tag = 1;
  for (int i = 0; i < items - 1; ++i) {
    // What a source replaces occurs once: from the second round on without the items 3 and 48.
    tag = tag == 127 ? 4 : tag + (tag == 47 && i > 47 ? 2 : 1);
    const std::size_t length = 1 + random() % 4;
    if (kKeySize + 3 + body.size() + 2 + length + sizeof kChecksumItem > kFloorDatagram) break;
    body.push_back(static_cast<std::uint8_t>(tag));
    body.push_back(static_cast<std::uint8_t>(length));
    for (std::size_t k = 0; k < length; ++k) body.push_back(static_cast<std::uint8_t>(random()));
  }
  body.insert(body.end(), std::begin(kChecksumItem), std::end(kChecksumItem));
  Bytes message(UASDataLinkKey, UASDataLinkKey + kKeySize);
  if (body.size() > 255) {
    message.insert(message.end(), {0x82, static_cast<std::uint8_t>(body.size() >> 8)});
  } else if (body.size() > 127) {
    message.push_back(0x81);
  }
  message.push_back(static_cast<std::uint8_t>(body.size()));
  message.insert(message.end(), body.begin(), body.end());
  const std::uint16_t sum = FloorChecksum(message.data(), message.size());
  message[message.size() - 2] = static_cast<std::uint8_t>(sum >> 8);
  message[message.size() - 1] = static_cast<std::uint8_t>(sum);
  return message;
}

const std::vector<Bytes>& LongMessages() {
  static const std::vector<Bytes> kAll = [] {
    std::vector<Bytes> made;
    for (unsigned i = 0; i < 64; ++i) made.push_back(MakeMessage(200, i + 1));
    return made;
  }();
  return kAll;
}

Bytes Join(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const std::vector<EventPair>& EventPairs(std::size_t eventSize) {
  static std::map<std::size_t, std::vector<EventPair>> made;
  std::vector<EventPair>& pairs = made[eventSize];
  if (pairs.empty()) pairs = MakePairs(eventSize);
  return pairs;
}

const std::vector<Bytes>& CotFrames() {
  static const std::vector<Bytes> kAll = [] {
    std::vector<Bytes> made;
    for (const EventPair& pair : EventPairs(0)) made.push_back(mdfeed::BuildCotFrame(pair.aircraft));
    return made;
  }();
  return kAll;
}

const std::vector<Bytes>& CotPairFrames() {
  static const std::vector<Bytes> kAll = [] {
    std::vector<Bytes> made;
    for (const EventPair& pair : EventPairs(0)) {
      made.push_back(mdfeed::BuildCotFrame(pair.sensorPoint));
      made.push_back(mdfeed::BuildCotFrame(pair.aircraft));
    }
    return made;
  }();
  return kAll;
}

MDATA_SRC_CFG RewritingConfig(Filter filter) {
  MDATA_SRC_CFG config;
  std::memset(&config, 0, sizeof config);
  config.nSize = sizeof config;
  std::memcpy(config.szMissionID, kMissionId, sizeof kMissionId);
  config.bClassifyMission = TRUE;
  config.enClassification = 1;
  std::memcpy(config.szClassifyingCountry, kCountry, sizeof kCountry);
  std::memcpy(config.szObjectCountry, kCountry, sizeof kCountry);
  config.bFilterUASTags = TRUE;
  for (UINT32& word : config.UASTagFilter) word = filter == Filter::All ? ~0u : 0x55555555u;
  return config;
}

const FloorRules& RewritingRules(Filter filter) {
  static std::map<Filter, Rules> made;
  const auto [found, isNew] = made.try_emplace(filter);
  Rules& rules = found->second;
  if (isNew) {
    rules = MakeRules(filter);
    rules.rules.missionId = rules.missionId.data();
    rules.rules.missionIdSize = rules.missionId.size();
    rules.rules.securitySet = rules.securitySet.data();
    rules.rules.securitySetSize = rules.securitySet.size();
  }
  return rules.rules;
}

Bytes Noise(std::size_t size, unsigned oneIn) {
  std::mt19937 random(1);
  Bytes noise(size);
  for (std::uint8_t& byte : noise) {
    byte = static_cast<std::uint8_t>(random());
    if (byte == 0x06) byte = 0x07;
    if (oneIn != 0 && random() % oneIn == 0) byte = 0x06;
  }
  return noise;
}

}  // namespace bench
