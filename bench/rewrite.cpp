// SPDX-License-Identifier: Apache-2.0
// Rewriting of UAS Local Sets, without the path around it.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "floors/floors.h"
#include "metadata_lib.h"
#include "sources.h"
#include "traffic.h"
#include "workload.h"

namespace bench {
namespace {

int HeaderSize(const Bytes& message) {
  const int first = message[kKeySize];
  return static_cast<int>(kKeySize) + 1 + (first < 0x80 ? 0 : first - 0x80);
}

Work RewriteOurs(const std::vector<Bytes>& messages, Filter filter) {
  UseLibrary(kDefaultLogLevel);
  auto copies = std::make_shared<std::vector<Bytes>>(messages);
  auto source = std::make_shared<UdpSource>(RewritingConfig(filter));
  return {[=] {
            for (Bytes& message : *copies) {
              MDATA_BUFFER* rewritten = nullptr;
              ProcessUASDataLinkLocalSet(source->Handle(), message.data(), static_cast<int>(message.size()),
                                         HeaderSize(message), &rewritten, nullptr);
              Require(rewritten != nullptr, "a message was not rewritten");
              DoReleaseBuffer(&rewritten);
            }
          },
          static_cast<double>(messages.size())};
}

// A floor that makes other messages is no floor.
void RequireSameMessages(const std::vector<Bytes>& messages, Filter filter) {
  const UdpSource source(RewritingConfig(filter));
  for (Bytes message : messages) {
    MDATA_BUFFER* ours = nullptr;
    ProcessUASDataLinkLocalSet(source.Handle(), message.data(), static_cast<int>(message.size()), HeaderSize(message),
                               &ours, nullptr);
    const FloorMessage floor = FloorRewrite(&RewritingRules(filter), message.data(), message.size());
    Require(ours != nullptr && floor.block != nullptr, "a message was not rewritten");
    Require(std::equal(ours->pcData, ours->pcData + ours->nDataSize, floor.data, floor.data + floor.size),
            "the messages differ");
    free(floor.block);
    DoReleaseBuffer(&ours);
  }
}

Work RewriteFloor(const std::vector<Bytes>& messages, Filter filter) {
  UseLibrary(kDefaultLogLevel);
  RequireSameMessages(messages, filter);
  const FloorRules& rules = RewritingRules(filter);
  return {[&messages, &rules] {
            for (const Bytes& message : messages) {
              const FloorMessage rewritten = FloorRewrite(&rules, message.data(), message.size());
              Require(rewritten.block != nullptr, "a message was not rewritten");
              free(rewritten.block);
            }
          },
          static_cast<double>(messages.size())};
}

bool AddRewrite(const std::string& name, const std::vector<Bytes>& (*messages)(), Filter filter) {
  Add(name + "/ours", [=] { return RewriteOurs(messages(), filter); });
  return Add(name + "/floor", [=] { return RewriteFloor(messages(), filter); });
}

const bool kRewriteAdded[] = {
    AddRewrite("rewrite_flight", FlightMessages, Filter::All),
    AddRewrite("rewrite_flight_gaps", FlightMessages, Filter::EveryOther),
    AddRewrite("rewrite_200_items", LongMessages, Filter::All),
    AddRewrite("rewrite_200_items_gaps", LongMessages, Filter::EveryOther),
};

}  // namespace
}  // namespace bench
