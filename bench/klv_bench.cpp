// Compares the inner loops of the receive paths with the minimum that any such code must do, in the same run:
//
//   decoder    extracts and checks messages              floor: find each key, copy each message, compute its sum
//   scan       searches a stream for a pattern           floor: memmem over the same bytes
//   checksum   computes the running sum of a message     floor: read every byte once
//   crc        computes the link's CRC bit by bit        floor: the same with a table of 256 words
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <vector>

#include "generic_klv_support.h"

namespace {

// Returns a stream of messages with the usual elements of a flight and checksums at the end.
std::vector<BYTE> MakeStream(int nMessages) {
  std::vector<BYTE> stream;
  for (int n = 0; n < nMessages; n++) {
    std::vector<BYTE> message(UASDataLinkKey, UASDataLinkKey + 16);
    message.insert(message.end(), {0x81, 0});
    const auto put = [&message, n](BYTE tag, size_t nLength) {
      message.push_back(tag);
      message.push_back(static_cast<BYTE>(nLength));
      for (size_t i = 0; i < nLength; i++) message.push_back(static_cast<BYTE>(static_cast<size_t>(n) + tag + i));
    };
    put(2, 8);
    put(3, 12);
    for (const int nTag : {5, 6, 7, 15, 16, 17, 22, 25, 26, 27, 28, 29}) put(static_cast<BYTE>(nTag), 2);
    for (const int nTag : {13, 14, 18, 19, 20, 21, 23, 24, 40, 41}) put(static_cast<BYTE>(nTag), 4);
    put(48, 28);
    put(65, 1);
    message.insert(message.end(), {1, 2});
    message[17] = static_cast<BYTE>(message.size() + 2 - 18);
    const WORD nSum = CalcKlvChecksum16(message.data(), static_cast<WORD>(message.size()));
    message.insert(message.end(), {static_cast<BYTE>(nSum >> 8), static_cast<BYTE>(nSum)});
    stream.insert(stream.end(), message.begin(), message.end());
  }
  return stream;
}

constexpr int kMessages = 400;

void CountBytes(benchmark::State& state, size_t nBytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(nBytes));
}

// --- Decoder ---------------------------------------------------------------------------------------------

void DecoderFloor(benchmark::State& state) {
  const std::vector<BYTE> stream = MakeStream(kMessages);
  std::vector<BYTE> message(65554);
  for (auto _ : state) {
    const BYTE* pcAt = stream.data();
    const BYTE* pcEnd = pcAt + stream.size();
    while ((pcAt = static_cast<const BYTE*>(memmem(pcAt, static_cast<size_t>(pcEnd - pcAt), UASDataLinkKey, 5)))) {
      const size_t nSize = size_t{18} + pcAt[17];
      memcpy(message.data(), pcAt, nSize);
      benchmark::DoNotOptimize(CalcKlvChecksum16(message.data(), static_cast<WORD>(nSize - 2)));
      pcAt += nSize;
    }
  }
  CountBytes(state, stream.size());
}

void Decoder(benchmark::State& state) {
  const std::vector<BYTE> stream = MakeStream(kMessages);
  const auto nChunk = static_cast<size_t>(state.range(0));
  UINT64 nDelivered = 0;
  void* pvCtxt = nullptr;
  AllocKlvDecodeContext(
      &pvCtxt, [](MDATA_BUFFER*, void* pvCount) { ++*static_cast<UINT64*>(pvCount); }, &nDelivered);
  for (auto _ : state) {
    for (size_t nAt = 0; nAt < stream.size(); nAt += nChunk) {
      const size_t nSize = std::min(nChunk, stream.size() - nAt);
      GenericKLV_ProcessRxData(pvCtxt, stream.data() + nAt, static_cast<int>(nSize));
    }
  }
  if (nDelivered != static_cast<UINT64>(state.iterations()) * kMessages) state.SkipWithError("messages were lost");
  FreeKlvDecodeContext(&pvCtxt);
  CountBytes(state, stream.size());
}

// Measures the time per received byte of largest messages nested in each other, none of which is valid.
void DecoderHostile(benchmark::State& state) {
  std::vector<BYTE> stream;
  while (stream.size() < 100000) {
    stream.insert(stream.end(), UASDataLinkKey, UASDataLinkKey + 16);
    stream.insert(stream.end(), {0x82, 0xFF, 0xFF});
  }
  for (auto _ : state) {
    void* pvCtxt = nullptr;
    AllocKlvDecodeContext(
        &pvCtxt, [](MDATA_BUFFER*, void*) {}, nullptr);
    for (size_t nAt = 0; nAt < stream.size(); nAt += 1500) {
      const size_t nSize = std::min<size_t>(1500, stream.size() - nAt);
      GenericKLV_ProcessRxData(pvCtxt, stream.data() + nAt, static_cast<int>(nSize));
    }
    FreeKlvDecodeContext(&pvCtxt);
  }
  CountBytes(state, stream.size());
}

// --- Scan ------------------------------------------------------------------------------------------------

// Returns bytes in which one in 64 begins a pattern that does not continue.
std::vector<BYTE> MakeNoise() {
  std::vector<BYTE> noise(100000);
  UINT nState = 1;
  for (BYTE& nByte : noise) {
    nState = nState * 1664525u + 1013904223u;
    nByte = (nState >> 26) == 0 ? 0x06 : static_cast<BYTE>((nState >> 16) | 0x10);
  }
  return noise;
}

void ScanFloor(benchmark::State& state) {
  const std::vector<BYTE> noise = MakeNoise();
  for (auto _ : state) benchmark::DoNotOptimize(memmem(noise.data(), noise.size(), UASDataLinkKey, 5));
  CountBytes(state, noise.size());
}

void Scan(benchmark::State& state) {
  const std::vector<BYTE> noise = MakeNoise();
  int nOffset = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(ScanForPattern(noise.data(), static_cast<int>(noise.size()), UASDataLinkKey, 5, &nOffset));
  CountBytes(state, noise.size());
}

// --- Checksum and CRC ------------------------------------------------------------------------------------

void ChecksumFloor(benchmark::State& state) {
  const std::vector<BYTE> noise = MakeNoise();
  for (auto _ : state) benchmark::DoNotOptimize(std::accumulate(noise.begin(), noise.begin() + 60000, 0u));
  CountBytes(state, 60000);
}

void Checksum(benchmark::State& state) {
  const std::vector<BYTE> noise = MakeNoise();
  for (auto _ : state) benchmark::DoNotOptimize(CalcKlvChecksum16(noise.data(), 60000));
  CountBytes(state, 60000);
}

void CRCFloor(benchmark::State& state) {
  const std::vector<BYTE> noise = MakeNoise();
  std::array<WORD, 256> table;
  for (size_t i = 0; i < table.size(); i++) {
    const BYTE nByte = static_cast<BYTE>(i);
    table[i] = CalcCRC16(&nByte, 1);
  }
  for (auto _ : state) {
    unsigned nCRC = 0;
    for (const BYTE nByte : noise) nCRC = nCRC >> 8 ^ table[(nCRC ^ nByte) & 0xFF];
    benchmark::DoNotOptimize(nCRC);
  }
  CountBytes(state, noise.size());
}

void CRC(benchmark::State& state) {
  const std::vector<BYTE> noise = MakeNoise();
  for (auto _ : state) benchmark::DoNotOptimize(CalcCRC16(noise.data(), static_cast<int>(noise.size())));
  CountBytes(state, noise.size());
}

BENCHMARK(DecoderFloor)->Name("klv/floor_find_copy_and_sum");
BENCHMARK(Decoder)->Name("klv/decoder")->Arg(48)->Arg(1500)->Arg(65536);
BENCHMARK(DecoderHostile)->Name("klv/decoder_nested_keys");
BENCHMARK(ScanFloor)->Name("scan/floor_memmem");
BENCHMARK(Scan)->Name("scan/pattern");
BENCHMARK(ChecksumFloor)->Name("checksum/floor_read");
BENCHMARK(Checksum)->Name("checksum/running_sum");
BENCHMARK(CRCFloor)->Name("crc/floor_table");
BENCHMARK(CRC)->Name("crc/crc16");

}  // namespace
