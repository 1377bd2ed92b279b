// Compares the rewriting of a typical UAS Local Set (27 elements, about 230 bytes) with the minimum that any rewriting
// must do: allocate a buffer, copy the message and compute the sum.
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "md_source.h"
#include "metadata_lib.h"
#include "misb0601_tools.h"

namespace {

// Returns a message with the usual elements of a flight and the checksum at the end.
std::vector<BYTE> MakeMessage() {
  std::vector<BYTE> body;
  const auto put = [&body](BYTE tag, size_t nLength) {
    body.push_back(tag);
    body.push_back(static_cast<BYTE>(nLength));
    for (size_t i = 0; i < nLength; i++) body.push_back(static_cast<BYTE>(tag + i));
  };
  put(2, 8);
  put(3, 12);
  for (const int nTag : {5, 6, 7, 15, 16, 17, 22, 25, 26, 27, 28, 29}) put(static_cast<BYTE>(nTag), 2);
  for (const int nTag : {13, 14, 18, 19, 20, 21, 23, 24, 40, 41}) put(static_cast<BYTE>(nTag), 4);
  put(48, 28);
  put(65, 1);
  put(1, 2);
  std::vector<BYTE> message(UASDataLinkKey, UASDataLinkKey + 16);
  message.push_back(0x81);
  message.push_back(static_cast<BYTE>(body.size()));
  message.insert(message.end(), body.begin(), body.end());
  return message;
}

struct Source {
  MDATA_SRC_HANDLE pRecord = static_cast<MDATA_SRC_HANDLE>(calloc(1, sizeof(tagMDATA_SRC_HANDLE)));
  ~Source() {
    free(pRecord->pMissionID);
    free(pRecord->pSecurityMDataSet);
    free(pRecord);
  }
  void InsertAll() {
    pRecord->pMissionID = AllocMissionID("BENCHMARK-0001");
    pRecord->nMissionIDElementSize = pRecord->pMissionID->cLength + 2;
    pRecord->pSecurityMDataSet = AllocSecurityMetadata(1, "USA", "USA");
    pRecord->nSecurityMDataSetSize = pRecord->pSecurityMDataSet->Length + 2;
  }
  void FilterAll() {
    pRecord->Config.bFilterUASTags = TRUE;
    for (UINT32& nWord : pRecord->Config.UASTagFilter) nWord = ~0u;
  }
};

void Rewrite(benchmark::State& state, const Source& of) {
  std::vector<BYTE> message = MakeMessage();
  for (auto _ : state) {
    MDATA_BUFFER* pBuffer = nullptr;
    ProcessUASDataLinkLocalSet(of.pRecord, message.data(), static_cast<int>(message.size()), 18, &pBuffer, nullptr);
    benchmark::DoNotOptimize(pBuffer->pcData);
    DoReleaseBuffer(&pBuffer);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
}

void Floor(benchmark::State& state) {
  std::vector<BYTE> message = MakeMessage();
  for (auto _ : state) {
    MDATA_BUFFER* pBuffer = nullptr;
    DoAllocCopyBufferEx(message.data(), static_cast<int>(message.size()), MDATA_STREAM_HEADER_SIZE, &pBuffer);
    benchmark::DoNotOptimize(CalcKlvChecksum16(pBuffer->pcData, static_cast<WORD>(message.size())));
    DoReleaseBuffer(&pBuffer);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
}

void NothingToChange(benchmark::State& state) {
  Source plain;
  Rewrite(state, plain);
}

void InsertsReplaced(benchmark::State& state) {
  Source inserting;
  inserting.InsertAll();
  Rewrite(state, inserting);
}

void FilteredAndInserted(benchmark::State& state) {
  Source filtering;
  filtering.InsertAll();
  filtering.FilterAll();
  Rewrite(state, filtering);
}

BENCHMARK(Floor)->Name("rewrite/floor_copy_and_sum");
BENCHMARK(NothingToChange)->Name("rewrite/checksum_only");
BENCHMARK(InsertsReplaced)->Name("rewrite/mission_and_security");
BENCHMARK(FilteredAndInserted)->Name("rewrite/filter_mission_and_security");

}  // namespace
