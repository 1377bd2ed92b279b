// Rewriting of a typical UAS Local Set (27 elements, about 230 bytes) as a source asks for it, against the least that
// any rewriting must do: allocate a buffer, copy the message, sum it up.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "metadata_api.h"
#include "misb0601_tools.h"

namespace {

// A message with the elements that a flight usually carries, its checksum last.
std::vector<BYTE> MakeMessage() {
  std::vector<BYTE> Body;
  const auto Put = [&Body](BYTE Tag, size_t nLength) {
    Body.push_back(Tag);
    Body.push_back(static_cast<BYTE>(nLength));
    for (size_t i = 0; i < nLength; i++) Body.push_back(static_cast<BYTE>(Tag + i));
  };
  Put(2, 8);
  Put(3, 12);
  for (const int nTag : {5, 6, 7, 15, 16, 17, 22, 25, 26, 27, 28, 29}) Put(static_cast<BYTE>(nTag), 2);
  for (const int nTag : {13, 14, 18, 19, 20, 21, 23, 24, 40, 41}) Put(static_cast<BYTE>(nTag), 4);
  Put(48, 28);
  Put(65, 1);
  Put(1, 2);
  std::vector<BYTE> Message(UASDataLinkKey, UASDataLinkKey + 16);
  Message.push_back(0x81);
  Message.push_back(static_cast<BYTE>(Body.size()));
  Message.insert(Message.end(), Body.begin(), Body.end());
  return Message;
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

void Rewrite(benchmark::State& State, const Source& Of) {
  std::vector<BYTE> Message = MakeMessage();
  for (auto _ : State) {
    MDATA_BUFFER* pBuffer = nullptr;
    ProcessUASDataLinkLocalSet(Of.pRecord, Message.data(), static_cast<int>(Message.size()), 18, &pBuffer, nullptr);
    benchmark::DoNotOptimize(pBuffer->pcData);
    DoReleaseBuffer(&pBuffer);
  }
  State.SetBytesProcessed(State.iterations() * static_cast<int64_t>(Message.size()));
}

void Floor(benchmark::State& State) {
  std::vector<BYTE> Message = MakeMessage();
  for (auto _ : State) {
    MDATA_BUFFER* pBuffer = nullptr;
    DoAllocCopyBufferEx(Message.data(), static_cast<int>(Message.size()), MDATA_STREAM_HEADER_SIZE, &pBuffer);
    benchmark::DoNotOptimize(CalcKlvChecksum16(pBuffer->pcData, static_cast<WORD>(Message.size())));
    DoReleaseBuffer(&pBuffer);
  }
  State.SetBytesProcessed(State.iterations() * static_cast<int64_t>(Message.size()));
}

void NothingToChange(benchmark::State& State) {
  Source Plain;
  Rewrite(State, Plain);
}

void InsertsReplaced(benchmark::State& State) {
  Source Inserting;
  Inserting.InsertAll();
  Rewrite(State, Inserting);
}

void FilteredAndInserted(benchmark::State& State) {
  Source Filtering;
  Filtering.InsertAll();
  Filtering.FilterAll();
  Rewrite(State, Filtering);
}

BENCHMARK(Floor)->Name("rewrite/floor_copy_and_sum");
BENCHMARK(NothingToChange)->Name("rewrite/checksum_only");
BENCHMARK(InsertsReplaced)->Name("rewrite/mission_and_security");
BENCHMARK(FilteredAndInserted)->Name("rewrite/filter_mission_and_security");

}  // namespace
