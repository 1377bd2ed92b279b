// Compares the conversion of a pair of Cursor-on-Target events with the minimum that any conversion must do: copy both
// texts, find their ends, read their twenty numbers, allocate the packet's buffer and compute the packet's sum.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "converter.h"

namespace {

const std::string& Aircraft() {
  static const std::string kText =
      R"(<?xml version="1.0"?><event version="2.0" uid="AIRCRAFT-1" type="a-f-A-M-F-Q" how="m-g" )"
      R"(time="2024-05-06T07:08:09.10Z" start="2024-05-06T07:08:09.10Z" stale="2024-05-06T07:09:09.10Z">)"
      R"(<point lat="45.5017" lon="-73.5673" hae="1250.5" ce="9.9" le="9.9"/><detail><contact callsign="HAWK 1"/>)"
      R"(<track course="87.5" speed="61.2"/><attitude pitch="2.25" roll="-3.5" yaw="0.0"/></detail></event>)";
  return kText;
}

const std::string& Spi() {
  static const std::string kText =
      R"(<?xml version="1.0"?><event version="2.0" uid="SENSOR-1" type="b-m-p-s-p-i" how="m-g" )"
      R"(time="2024-05-06T07:08:09.30Z" start="2024-05-06T07:08:09.30Z" stale="2024-05-06T07:09:09.30Z">)"
      R"(<point lat="45.5117" lon="-73.5573" hae="35.5" ce="10" le="10"/><detail><sensor model="EO" fov="12.5" )"
      R"(vfov="7.5" azimuth="100.25" elevation="-30.5" roll="0" range="4321"/><link uid="AIRCRAFT-1"/></detail></event>)";
  return kText;
}

class Converter {
 public:
  Converter() : m_grid(kGridValues, -33.5f) {
    _g_pGrid = m_grid.data();
    AllocCoT2KLVConvert(&m_hConv, 500000, "", FALSE);
  }
  ~Converter() {
    FreeCoT2KLVConvert(&m_hConv);
    _g_pGrid = nullptr;
  }
  // The packet, if the event completes one.
  MDATA_BUFFER* Convert(const std::string& text) {
    MDATA_BUFFER* pBuffer = nullptr;
    ConvertCoT2KLV(m_hConv, reinterpret_cast<const BYTE*>(text.data()), static_cast<int>(text.size()), &pBuffer);
    return pBuffer;
  }

 private:
  std::vector<float> m_grid;
  HCONVERTER m_hConv = nullptr;
};

void ConvertPair(benchmark::State& state) {
  Converter converter;
  for (auto _ : state) {
    converter.Convert(Aircraft());
    MDATA_BUFFER* pBuffer = converter.Convert(Spi());
    if (pBuffer == nullptr) {
      state.SkipWithError("no packet was made");
      break;
    }
    benchmark::DoNotOptimize(pBuffer->pcData);
    ReleaseConvertedData(pBuffer);
  }
  state.SetItemsProcessed(state.iterations());
}

void Floor(benchmark::State& state) {
  constexpr int kNumbers = 20;
  constexpr int kPacketLength = 200;
  std::vector<char> copy(2048);
  for (auto _ : state) {
    double sum = 0;
    for (const std::string* pText : {&Aircraft(), &Spi()}) {
      memcpy(copy.data(), pText->c_str(), pText->size() + 1);
      benchmark::DoNotOptimize(strstr(copy.data(), "</event>"));
    }
    for (int i = 0; i < kNumbers; i++) sum += strtod(i % 2 == 0 ? "-73.5673" : "1250.5", nullptr);
    benchmark::DoNotOptimize(sum);
    MDATA_BUFFER* pBuffer = nullptr;
    DoAllocBuffer(kCvtBufferSize, &pBuffer);
    memset(pBuffer->pcData, 0x5A, kPacketLength);
    benchmark::DoNotOptimize(get_checksum_u16(pBuffer->pcData, kPacketLength));
    DoReleaseBuffer(&pBuffer);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(Floor)->Name("convert/floor_copy_search_numbers_and_sum");
BENCHMARK(ConvertPair)->Name("convert/pair");

}  // namespace
