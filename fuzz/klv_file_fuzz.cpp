// SPDX-License-Identifier: Apache-2.0
// Walks through arbitrary bytes as a file of KLV, whole and in pieces, and reads them as lines of an index. Both walks must
// find the same messages, each byte belongs to a message or is skipped, and no message lies outside the file.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "klv_file.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

using Places = std::vector<std::pair<uint64_t, size_t>>;

Places Walk(const std::vector<uint8_t>& file, size_t piece, bool hasHeaders, uint64_t* skipped) {
  klv_file::Walker walker(hasHeaders);
  Places places;
  for (size_t at = 0; at <= file.size(); at += piece) {
    const size_t length = std::min(piece, file.size() - at);
    walker.Push({file.data() + at, length});
    if (at + piece > file.size()) walker.Finish();
    while (const auto found = walker.Pop()) {
      places.emplace_back(found->offset, found->klv.size());
      klv_file::TimeOf(found->klv);
    }
  }
  *skipped = walker.Skipped();
  return places;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = size_t{1} + data[0] / 2;
  const bool hasHeaders = (data[0] & 1) != 0;
  const std::vector<uint8_t> file(data + 1, data + size);
  uint64_t skipped = 0;
  uint64_t skippedInPieces = 0;
  const Places whole = Walk(file, file.size() + 1, hasHeaders, &skipped);
  const Places pieces = Walk(file, piece, hasHeaders, &skippedInPieces);
  uint64_t used = skipped;
  for (const auto& [offset, length] : whole) {
    Check(offset + length <= file.size());
    used += length;
  }
  Check(used <= file.size() && (hasHeaders || used == file.size()));
  Check(pieces == whole && skipped == skippedInPieces);
  const std::string_view text(reinterpret_cast<const char*>(file.data()), file.size());
  klv_file::ParseIndexHeader(text);
  klv_file::ParseIndexLine(text);
  bool isBehindHeader = false;
  klv_file::BeginsWithKlv(file, &isBehindHeader);
  return 0;
}
