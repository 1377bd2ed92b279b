// SPDX-License-Identifier: Apache-2.0
// Gives arbitrary bytes as the head of a request to everything of ours that reads one: the form, the host, the token, the
// target and its parameters, and the paths. What is answered as JSON is well-formed, and what is refused says why.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "http/access.h"
#include "http/api.h"
#include "http/assets.h"
#include "http/hub.h"
#include "http/query.h"
#include "http/snapshot.h"
#include "receiver.h"

namespace {

using namespace mdencoder::http;

void Check(bool isTrue) {
  if (!isTrue) abort();
}

// A program with a source that has delivered a message.
struct Program {
  Program() {
    Snapshot snapshot;
    snapshot.at = Hub::Clock::now();
    snapshot.sources.push_back({{"name", "a"}, {"input", "udp"}, {"data", "klv"}, {"state", "open"}, {"messages", 1}});
    hub.Update(std::move(snapshot));
    const st0601::Bytes message = st0601::Builder().AddText(3, "M").Add(13, 1.0).Add(14, 2.0).Finish();
    st0601::Bytes buffer(MDATA_STREAM_HEADER_SIZE, 0);
    buffer.insert(buffer.end(), message.begin(), message.end());
    mdencoder::Received received;
    received.name = "a";
    received.timeUs = 1714558830123456;
    received.buffer = buffer;
    hub.Push(received);
    hub.Stop();
  }

  Hub hub;
  const Assets assets;
  const Api api{{}, hub, assets};
  const Access access{"0123456789abcdef", {"host.example"}, true};
};

void CheckRefusal(const Refusal& refusal) {
  Check(refusal.status >= 400 && refusal.status < 600 && !refusal.text.empty());
  Check(nlohmann::json::accept(RefusalAnswer(refusal).body));
}

void CheckAnswer(Answer answer) {
  Check(answer.status >= 200 && answer.status < 600);
  if (answer.type == "application/json" && answer.status != 304 && !answer.flow)
    Check(nlohmann::json::accept(answer.body));
  for (const auto& [name, value] : answer.fields) Check(value.find_first_of("\r\n") == std::string::npos);
  std::string piece;
  for (int i = 0; answer.flow && i < 100 && answer.flow->Next(piece); ++i) {
    for (const char c : piece) Check(static_cast<uint8_t>(c) >= 0x20 || c == '\n');
  }
}

// The head that the library of HTTP gets says the same, and is not refused.
void CheckReduced(const Head& head) {
  const std::string reduced = head.Reduced();
  Head again;
  Check(!ParseHead(reduced, again));
  Check(again.target == head.target && again.method == head.method && again.fields.size() <= 7);
  Check(again.Field("Host") == head.Field("Host"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Program* const kProgram = new Program;
  Head head;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (const auto refusal = ParseHead(text, head)) {
    CheckRefusal(*refusal);
    return 0;
  }
  CheckReduced(head);
  kProgram->access.AllowsHost(head.Field("Host"), "192.0.2.1");
  kProgram->access.AllowsToken(head.Field("Authorization"), head.Field("Cookie"));
  try {
    Request request;
    request.path = ParseTarget(head.target, request.query);
    request.lastEventId = head.Field("Last-Event-ID");
    request.knownTag = head.Field("If-None-Match");
    request.acceptsGzip = head.Field("Accept-Encoding").find("gzip") != std::string_view::npos;
    CheckAnswer(kProgram->api.Handle(request, {}));
  } catch (const Refusal& refusal) {
    CheckRefusal(refusal);
  }
  return 0;
}
