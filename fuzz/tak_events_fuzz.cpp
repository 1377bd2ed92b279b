// SPDX-License-Identifier: Apache-2.0
// Reads arbitrary bytes as a stream of Cursor-on-Target events and as a datagram of the TAK protocol. The input's first
// byte is the size of the pieces in which the stream arrives, which must make no difference. Whatever is prepared for the
// library fits into its buffer and is prepared again as it is, and an event that is written is read again.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "cot_event.h"
#include "tak_protocol.h"
#include "tak_stream.h"

namespace {

using Bytes = std::span<const uint8_t>;

void Check(bool condition) {
  if (!condition) abort();
}

void CheckPrepared(const cot::Prepared& prepared) {
  Check((prepared.verdict == cot::Verdict::Ready) == !prepared.datagram.empty());
  Check(prepared.datagram.size() <= cot::kLargestDatagram);
  if (prepared.verdict != cot::Verdict::Ready) return;
  Check(prepared.datagram.find("<event ") == prepared.datagram.rfind("<event ", prepared.datagram.find("<point ")));
  Check(prepared.uid.size() <= cot::kLongestUid);
}

void CheckMessage(Bytes bytes) {
  const tak::Message message = tak::ParseMessage(bytes);
  Check(message.isValid || !message.event);
  if (!message.event) return;
  CheckPrepared(cot::Prepare(*message.event));
  const std::vector<uint8_t> written = tak::FormatMessage(*message.event);
  const tak::Message again = tak::ParseMessage(written);
  Check(again.isValid);
  // What is no number does not equal itself.
  if (again.event) Check(tak::FormatMessage(*again.event) == written);
}

std::vector<std::string> Cut(Bytes bytes, size_t piece) {
  constexpr size_t kLongest = 4096;
  std::vector<std::string> messages;
  tak::StreamReader reader(kLongest);
  while (!bytes.empty()) {
    const Bytes part = bytes.first(std::min(piece, bytes.size()));
    bytes = bytes.subspan(part.size());
    reader.Push(part, [&](tak::StreamReader::Kind kind, Bytes message) {
      Check(message.size() <= kLongest);
      const char first = kind == tak::StreamReader::Kind::Protobuf ? 'p' : 'x';
      messages.push_back(first + std::string(message.begin(), message.end()));
    });
  }
  return messages;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const Bytes bytes(data + 1, size - 1);
  const std::vector<std::string> messages = Cut(bytes, bytes.size());
  Check(Cut(bytes, static_cast<size_t>(data[0]) + 1) == messages);
  for (const std::string& message : messages) {
    const Bytes body(reinterpret_cast<const uint8_t*>(message.data()) + 1, message.size() - 1);
    if (message[0] == 'p') {
      CheckMessage(body);
    } else {
      CheckPrepared(cot::Prepare(body));
    }
  }
  const tak::Datagram datagram = tak::ParseDatagram(bytes);
  if (datagram.kind == tak::Datagram::Kind::Protobuf) CheckMessage(datagram.payload);
  CheckMessage(bytes);
  CheckPrepared(cot::Prepare(bytes));
  return 0;
}
