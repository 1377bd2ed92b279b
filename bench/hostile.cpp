// SPDX-License-Identifier: Apache-2.0
// What a hostile sender can make the stream decoders do, per byte of its own, against ordinary traffic at the same log level.
// Every stream repeats itself without end and is never good; the decoders are measured when their buffers are full of it.
#include "hostile.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "metadata_lib.h"
#include "traffic.h"
#include "workload.h"

namespace bench {
namespace {

constexpr std::size_t kChunk = 48;        // what a serial source reads at once
constexpr std::size_t kChunksOfRun = 20;  // fed in one run
constexpr std::size_t kStart = 64'992;    // whole chunks, nearly as much as the largest message
constexpr int kQuietLevel = 3;            // nothing of what a sender does is logged

struct Decoder {
  BOOL (*alloc)(void**, void (*)(MDATA_BUFFER*, void*), void*);
  BOOL (*release)(void**);
  int (*feed)(void*, const BYTE*, int);
};

const Decoder kKlv = {AllocKlvDecodeContext, FreeKlvDecodeContext, GenericKLV_ProcessRxData};
const Decoder kCot = {AllocCotDecodeContext, FreeCotDecodeContext, COT_ProcessRxData};

// A stream of whole chunks that joins its own beginning.
Bytes Endless(const Bytes& period) {
  Bytes stream;
  for (std::size_t i = 0; i < kChunk; ++i) stream.insert(stream.end(), period.begin(), period.end());
  return stream;
}

struct Line {
  Line(const Decoder& used, Bytes repeated) : decoder(used), stream(std::move(repeated)) {
    Require(decoder.alloc(
                &context, [](MDATA_BUFFER*, void* user) { ++*static_cast<std::uint64_t*>(user); }, &good),
            "no decoder");
  }
  ~Line() { decoder.release(&context); }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  void Feed(std::size_t chunks) {
    for (std::size_t i = 0; i < chunks; ++i) {
      decoder.feed(context, stream.data() + at, kChunk);
      at = (at + kChunk) % stream.size();
    }
  }

  const Decoder& decoder;
  const Bytes stream;
  void* context = nullptr;
  std::size_t at = 0;
  std::uint64_t good = 0;  // messages delivered
};

Work Hostile(const Decoder& decoder, const Bytes& period, int logLevel) {
  UseLibrary(logLevel);
  auto line = std::make_shared<Line>(decoder, Endless(period));
  // In one piece, so that what nests is not looked at before it is all there.
  Bytes start;
  while (start.size() < kStart) start.insert(start.end(), line->stream.begin(), line->stream.end());
  decoder.feed(line->context, start.data(), static_cast<int>(kStart));
  line->at = kStart % line->stream.size();
  return {[line] {
            line->Feed(kChunksOfRun);
            Require(line->good == 0, "hostile input was taken for good");
          },
          static_cast<double>(kChunksOfRun * kChunk), 16};
}

Work Ordinary(const Decoder& decoder, const std::vector<Bytes>& messages, int logLevel) {
  UseLibrary(logLevel);
  auto line = std::make_shared<Line>(decoder, Endless(Join(messages)));
  return {[line] {
            const std::uint64_t before = line->good;
            line->Feed(kChunksOfRun * kChunk);
            Require(line->good > before, "ordinary input was lost");
          },
          static_cast<double>(kChunksOfRun * kChunk * kChunk), 2};
}

bool AddHostile(const std::string& name, const Decoder& decoder, Bytes (*makePeriod)(), int logLevel) {
  Add(name + "/hostile", [&decoder, makePeriod, logLevel] { return Hostile(decoder, makePeriod(), logLevel); });
  return Add(name + "/ordinary", [&decoder, logLevel] {
    return Ordinary(decoder, &decoder == &kKlv ? FlightMessages() : CotFrames(), logLevel);
  });
}

// --- KLV ---------------------------------------------------------------------------------------------

constexpr std::uint8_t kUasDesignator = 0x0B;

// A key whose sixth byte is a registry designator, with a length of two bytes, and what follows.
Bytes Key(std::uint8_t designator, std::uint16_t length, const Bytes& rest) {
  Bytes bytes(UASDataLinkKey, UASDataLinkKey + kKeySize);
  bytes[5] = designator;
  bytes.insert(bytes.end(), {0x82, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)});
  bytes.insert(bytes.end(), rest.begin(), rest.end());
  return bytes;
}

Bytes KlvSyncs() {
  return {0x06, 0x0E, 0x2B, 0x34, 0x02};
}

// Largest messages, one in the other, whose items are as long as what they are made of.
Bytes NestedKeys() {
  return Key(kUasDesignator, 65535, {});
}

Bytes CotSyncs() {
  return {'o', 'H', 'e', 'Y', '!'};
}

}  // namespace

// So many bytes between the keys, two an item, make the walks the longest.
Bytes NestedItems() {
  return Key(kUasDesignator, 65530, Bytes(10, 0));
}

Bytes NestedCotHeaders() {
  constexpr std::uint16_t kLength = 65519;
  constexpr std::uint16_t kCheck = static_cast<std::uint16_t>(0x10000 - 2 * kLength);
  Bytes header = CotSyncs();
  for (int i = 0; i < 3; ++i) {
    for (const std::uint16_t word : {kLength, kCheck}) {
      header.push_back(static_cast<std::uint8_t>(word));
      header.push_back(static_cast<std::uint8_t>(word >> 8));
    }
  }
  return header;
}

namespace {

// A wrong checksum as the first item of each message: the sum of all of it is made for every key.
Bytes NestedSums() {
  return Key(kUasDesignator, 65535, {1, 2, 0, 0});
}

Bytes KeyWithSum(std::uint16_t sum) {
  return Key(kUasDesignator, 65530,
             {1, 2, static_cast<std::uint8_t>(sum >> 8), static_cast<std::uint8_t>(sum), 0, 0, 0, 0});
}

// What a decoder sums up for a message of keys with this checksum.
std::uint16_t SumOfNested(std::uint16_t sum) {
  constexpr std::size_t kSumOffset = kKeySize + 3 + 2;
  const Bytes period = KeyWithSum(sum);
  Bytes message;
  while (message.size() < kKeySize + 3 + 65530) message.insert(message.end(), period.begin(), period.end());
  message[kSumOffset] = message[kSumOffset + 1] = 0;
  return FloorWordSum(message.data(), kKeySize + 3 + 65530);
}

// The same with the right checksum: the walk goes on behind it, and only its end shows that the message is none. The
// checksum of each message is part of all others', so it is searched; the sum is linear in its two bytes.
Bytes NestedRightSums() {
  const unsigned none = SumOfNested(0);
  const unsigned perHigh = SumOfNested(0x0100) - none;
  const unsigned perLow = SumOfNested(0x0001) - none;
  for (unsigned sum = 0; sum < 0x10000; ++sum) {
    if (((none + (sum >> 8) * perHigh + (sum & 0xFF) * perLow - sum) & 0xFFFF) == 0) {
      return KeyWithSum(static_cast<std::uint16_t>(sum));
    }
  }
  Fail("no checksum is right");
}

// Every registry designator in turn, so that no two neighbours read their items the same way.
Bytes NestedDesignators() {
  Bytes all;
  for (int designator = 0; designator < 0x80; ++designator) {
    const auto byte = static_cast<std::uint8_t>(designator);
    if (!KLV_GetFieldInfoFromRegistryDesignator(byte, nullptr, nullptr)) continue;
    const Bytes key = Key(byte, static_cast<std::uint16_t>(65530 - designator), Bytes(10, 0));
    all.insert(all.end(), key.begin(), key.end());
  }
  return all;
}

// Two designators in turn.
Bytes NestedTwoKinds() {
  Bytes both = Key(kUasDesignator, 65530, Bytes(10, 0));
  const Bytes other = Key(0x23, 65520, Bytes(9, 0));
  both.insert(both.end(), other.begin(), other.end());
  return both;
}

// Between the keys bytes that all say the same length, so that walks which begin side by side never meet.
Bytes NestedStrides() {
  return Key(kUasDesignator, 65530, Bytes(40, 9));
}

// --- Cursor-on-Target ----------------------------------------------------------------------------------

// Nested headers, each followed by the length of the longest block that the frame can hold.
Bytes NestedCotBlocks() {
  constexpr int kBlock = 65519 * 8 / 155 * 105 / 8;
  Bytes header = NestedCotHeaders();
  header.push_back(static_cast<std::uint8_t>(kBlock));
  header.push_back(static_cast<std::uint8_t>(kBlock >> 8));
  return header;
}

const bool kHostileAdded[] = {
    AddHostile("klv_nested_keys", kKlv, NestedKeys, kQuietLevel),
    AddHostile("klv_nested_items", kKlv, NestedItems, kQuietLevel),
    AddHostile("klv_nested_sums", kKlv, NestedSums, kQuietLevel),
    AddHostile("klv_nested_right_sums", kKlv, NestedRightSums, kQuietLevel),
    AddHostile("klv_nested_designators", kKlv, NestedDesignators, kQuietLevel),
    AddHostile("klv_nested_two_kinds", kKlv, NestedTwoKinds, kQuietLevel),
    AddHostile("klv_nested_strides", kKlv, NestedStrides, kQuietLevel),
    AddHostile("klv_syncs", kKlv, KlvSyncs, kQuietLevel),
    AddHostile(
        "klv_all_06", kKlv, [] { return Bytes{0x06}; }, kQuietLevel),
    AddHostile("klv_nested_keys_log", kKlv, NestedKeys, kDefaultLogLevel),
    AddHostile("klv_nested_sums_log", kKlv, NestedSums, kDefaultLogLevel),
    AddHostile("klv_syncs_log", kKlv, KlvSyncs, kDefaultLogLevel),
    AddHostile(
        "klv_all_06_log", kKlv, [] { return Bytes{0x06}; }, kDefaultLogLevel),
    AddHostile("cot_nested_headers", kCot, NestedCotHeaders, kQuietLevel),
    AddHostile("cot_nested_blocks", kCot, NestedCotBlocks, kQuietLevel),
    AddHostile("cot_syncs", kCot, CotSyncs, kQuietLevel),
    AddHostile(
        "cot_all_o", kCot, [] { return Bytes{'o'}; }, kQuietLevel),
    AddHostile("cot_nested_headers_log", kCot, NestedCotHeaders, kDefaultLogLevel),
    AddHostile("cot_syncs_log", kCot, CotSyncs, kDefaultLogLevel),
};

}  // namespace
}  // namespace bench
