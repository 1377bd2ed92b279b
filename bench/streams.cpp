// SPDX-License-Identifier: Apache-2.0
// The stream decoders: serial KLV and the serial Cursor-on-Target link, with check and delivery.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "floors/floors.h"
#include "metadata_lib.h"
#include "traffic.h"
#include "workload.h"

namespace bench {
namespace {

using Feed = int (*)(void*, const BYTE*, int);

// What is delivered, and what it must be in the end.
struct Delivered {
  std::uint64_t messages = 0;
  std::uint64_t expected = 0;
  void* context = nullptr;
};

void CountBuffer(MDATA_BUFFER*, void* user) {
  ++static_cast<Delivered*>(user)->messages;
}

void CountBytes(const std::uint8_t*, std::size_t, void* user) {
  ++static_cast<Delivered*>(user)->messages;
}

void FeedAll(Feed feed, void* context, const Bytes& stream, std::size_t chunk) {
  for (std::size_t at = 0; at < stream.size(); at += chunk) {
    feed(context, stream.data() + at, static_cast<int>(std::min(chunk, stream.size() - at)));
  }
}

template <typename Alloc, typename Free>
Work DecodeOurs(Alloc alloc, Free release, Feed feed, const std::vector<Bytes>& messages, std::size_t chunk) {
  UseLibrary(kDefaultLogLevel);
  auto stream = std::make_shared<Bytes>(Join(messages));
  std::shared_ptr<Delivered> delivered(new Delivered, [release](Delivered* counted) {
    release(&counted->context);
    delete counted;
  });
  Require(alloc(&delivered->context, CountBuffer, delivered.get()), "no decoder");
  const std::size_t count = messages.size();
  return {[=] {
            FeedAll(feed, delivered->context, *stream, chunk);
            delivered->expected += count;
            Require(delivered->messages == delivered->expected, "messages were lost");
          },
          static_cast<double>(count)};
}

template <typename Decode>
Work DecodeFloor(Decode decode, const std::vector<Bytes>& messages) {
  UseLibrary(kDefaultLogLevel);
  auto stream = std::make_shared<Bytes>(Join(messages));
  const std::size_t size = stream->size();
  stream->resize(size + 8);  // which a floor may read
  auto delivered = std::make_shared<Delivered>();
  const std::size_t count = messages.size();
  return {[=] {
            decode(stream->data(), size, CountBytes, delivered.get());
            delivered->expected += count;
            Require(delivered->messages == delivered->expected, "messages were lost");
          },
          static_cast<double>(count)};
}

bool AddKlv(const std::string& name, const std::vector<Bytes>& (*messages)(), std::size_t chunk) {
  Add(name + "/ours", [=] {
    return DecodeOurs(AllocKlvDecodeContext, FreeKlvDecodeContext, GenericKLV_ProcessRxData, messages(), chunk);
  });
  return Add(name + "/floor", [=] { return DecodeFloor(FloorKlvStream, messages()); });
}

bool AddCot(const std::string& name, std::size_t chunk) {
  Add(name + "/ours",
      [=] { return DecodeOurs(AllocCotDecodeContext, FreeCotDecodeContext, COT_ProcessRxData, CotFrames(), chunk); });
  return Add(name + "/floor", [] { return DecodeFloor(FloorCotStream, CotFrames()); });
}

const bool kStreamsAdded[] = {
    AddKlv("serial_klv_4096", FlightMessages, 4096),
    AddKlv("serial_klv_48", FlightMessages, 48),
    AddKlv("serial_klv_24", FlightMessages, 24),
    AddKlv("serial_klv_200_items", LongMessages, 4096),
    AddCot("serial_cot_4096", 4096),
    AddCot("serial_cot_48", 48),
    AddCot("serial_cot_1", 1),
};

}  // namespace
}  // namespace bench
