// The receive road's inner loops, each against the least that any such code must do in the same run:
//
//   decoder    the stream cut and checked                floor: find each key, copy each message, sum it up
//   scan       a pattern looked for in a stream          floor: memmem over the same bytes
//   checksum   the running sum of a message              floor: read every byte once
//   crc        the link's CRC bit by bit                 floor: the same with a table of 256 words
#include <benchmark/benchmark.h>
#include <string.h>

#include <array>
#include <numeric>
#include <vector>

#include "generic_klv_support.h"

namespace {

// A stream of messages with the elements that a flight usually carries, checksums last.
std::vector<BYTE> MakeStream(int nMessages) {
  std::vector<BYTE> Stream;
  for (int n = 0; n < nMessages; n++) {
    std::vector<BYTE> Message(UASDataLinkKey, UASDataLinkKey + 16);
    Message.insert(Message.end(), {0x81, 0});
    const auto Put = [&Message, n](BYTE Tag, size_t nLength) {
      Message.push_back(Tag);
      Message.push_back(static_cast<BYTE>(nLength));
      for (size_t i = 0; i < nLength; i++) Message.push_back(static_cast<BYTE>(static_cast<size_t>(n) + Tag + i));
    };
    Put(2, 8);
    Put(3, 12);
    for (const int nTag : {5, 6, 7, 15, 16, 17, 22, 25, 26, 27, 28, 29}) Put(static_cast<BYTE>(nTag), 2);
    for (const int nTag : {13, 14, 18, 19, 20, 21, 23, 24, 40, 41}) Put(static_cast<BYTE>(nTag), 4);
    Put(48, 28);
    Put(65, 1);
    Message.insert(Message.end(), {1, 2});
    Message[17] = static_cast<BYTE>(Message.size() + 2 - 18);
    const WORD nSum = CalcKlvChecksum16(Message.data(), static_cast<WORD>(Message.size()));
    Message.insert(Message.end(), {static_cast<BYTE>(nSum >> 8), static_cast<BYTE>(nSum)});
    Stream.insert(Stream.end(), Message.begin(), Message.end());
  }
  return Stream;
}

constexpr int kMessages = 400;

void CountBytes(benchmark::State& State, size_t nBytes) {
  State.SetBytesProcessed(State.iterations() * static_cast<int64_t>(nBytes));
}

// --- Decoder ---------------------------------------------------------------------------------------------

void DecoderFloor(benchmark::State& State) {
  const std::vector<BYTE> Stream = MakeStream(kMessages);
  std::vector<BYTE> Message(65554);
  for (auto _ : State) {
    const BYTE* pcAt = Stream.data();
    const BYTE* pcEnd = pcAt + Stream.size();
    while ((pcAt = static_cast<const BYTE*>(memmem(pcAt, static_cast<size_t>(pcEnd - pcAt), UASDataLinkKey, 5)))) {
      const size_t nSize = size_t{18} + pcAt[17];
      memcpy(Message.data(), pcAt, nSize);
      benchmark::DoNotOptimize(CalcKlvChecksum16(Message.data(), static_cast<WORD>(nSize - 2)));
      pcAt += nSize;
    }
  }
  CountBytes(State, Stream.size());
}

void Decoder(benchmark::State& State) {
  const std::vector<BYTE> Stream = MakeStream(kMessages);
  const auto nChunk = static_cast<size_t>(State.range(0));
  UINT64 nDelivered = 0;
  void* pvCtxt = nullptr;
  AllocKlvDecodeContext(
      &pvCtxt, [](MDATA_BUFFER*, void* pvCount) { ++*static_cast<UINT64*>(pvCount); }, &nDelivered);
  for (auto _ : State) {
    for (size_t nAt = 0; nAt < Stream.size(); nAt += nChunk) {
      const size_t nSize = std::min(nChunk, Stream.size() - nAt);
      GenericKLV_ProcessRxData(pvCtxt, Stream.data() + nAt, static_cast<int>(nSize));
    }
  }
  if (nDelivered != static_cast<UINT64>(State.iterations()) * kMessages) State.SkipWithError("messages were lost");
  FreeKlvDecodeContext(&pvCtxt);
  CountBytes(State, Stream.size());
}

// Largest messages nested in each other, none of which is good: per byte received.
void DecoderHostile(benchmark::State& State) {
  std::vector<BYTE> Stream;
  while (Stream.size() < 100000) {
    Stream.insert(Stream.end(), UASDataLinkKey, UASDataLinkKey + 16);
    Stream.insert(Stream.end(), {0x82, 0xFF, 0xFF});
  }
  for (auto _ : State) {
    void* pvCtxt = nullptr;
    AllocKlvDecodeContext(
        &pvCtxt, [](MDATA_BUFFER*, void*) {}, nullptr);
    for (size_t nAt = 0; nAt < Stream.size(); nAt += 1500) {
      const size_t nSize = std::min<size_t>(1500, Stream.size() - nAt);
      GenericKLV_ProcessRxData(pvCtxt, Stream.data() + nAt, static_cast<int>(nSize));
    }
    FreeKlvDecodeContext(&pvCtxt);
  }
  CountBytes(State, Stream.size());
}

// --- Scan ------------------------------------------------------------------------------------------------

// Bytes as they are in a stream: one in 64 begins a pattern that does not go on.
std::vector<BYTE> MakeNoise() {
  std::vector<BYTE> Noise(100000);
  UINT nState = 1;
  for (BYTE& nByte : Noise) {
    nState = nState * 1664525u + 1013904223u;
    nByte = (nState >> 26) == 0 ? 0x06 : static_cast<BYTE>((nState >> 16) | 0x10);
  }
  return Noise;
}

void ScanFloor(benchmark::State& State) {
  const std::vector<BYTE> Noise = MakeNoise();
  for (auto _ : State) benchmark::DoNotOptimize(memmem(Noise.data(), Noise.size(), UASDataLinkKey, 5));
  CountBytes(State, Noise.size());
}

void Scan(benchmark::State& State) {
  const std::vector<BYTE> Noise = MakeNoise();
  int nOffset = 0;
  for (auto _ : State)
    benchmark::DoNotOptimize(ScanForPattern(Noise.data(), static_cast<int>(Noise.size()), UASDataLinkKey, 5, &nOffset));
  CountBytes(State, Noise.size());
}

// --- Checksum and CRC ------------------------------------------------------------------------------------

void ChecksumFloor(benchmark::State& State) {
  const std::vector<BYTE> Noise = MakeNoise();
  for (auto _ : State) benchmark::DoNotOptimize(std::accumulate(Noise.begin(), Noise.begin() + 60000, 0u));
  CountBytes(State, 60000);
}

void Checksum(benchmark::State& State) {
  const std::vector<BYTE> Noise = MakeNoise();
  for (auto _ : State) benchmark::DoNotOptimize(CalcKlvChecksum16(Noise.data(), 60000));
  CountBytes(State, 60000);
}

void CRCFloor(benchmark::State& State) {
  const std::vector<BYTE> Noise = MakeNoise();
  std::array<WORD, 256> Table;
  for (size_t i = 0; i < Table.size(); i++) {
    const BYTE nByte = static_cast<BYTE>(i);
    Table[i] = CalcCRC16(&nByte, 1);
  }
  for (auto _ : State) {
    unsigned nCRC = 0;
    for (const BYTE nByte : Noise) nCRC = nCRC >> 8 ^ Table[(nCRC ^ nByte) & 0xFF];
    benchmark::DoNotOptimize(nCRC);
  }
  CountBytes(State, Noise.size());
}

void CRC(benchmark::State& State) {
  const std::vector<BYTE> Noise = MakeNoise();
  for (auto _ : State) benchmark::DoNotOptimize(CalcCRC16(Noise.data(), static_cast<int>(Noise.size())));
  CountBytes(State, Noise.size());
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
