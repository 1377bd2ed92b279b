// SPDX-License-Identifier: Apache-2.0
#include "stream_loop.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include "ini_file.h"
#include "reception.h"
#include "stream_settings.h"
#include "stream_url.h"
#include "value_text.h"

namespace mdencoder {
namespace {

// What a source receives.
struct Ear {
  uint16_t port = 0;
  std::vector<Address> groups;  // none: whatever is sent to the port
};

std::optional<Ear> EarOf(const SourceSettings& source) {
  if (source.replay || source.tak) return std::nullopt;
  Ear ear;
  if (source.record.enInputType == MDATA_INPUT_NETWORK && !source.capture) {
    ear.port = source.record.in.Network.usUDPPort;
    ear.groups = GroupsOf(source.record, source.reception, source.tak);
    return ear;
  }
  const auto origin = source.capture ? stream_url::ParseDatagramUrl(source.capture->path) : std::nullopt;
  if (!origin) return std::nullopt;
  ear.port = origin->port;
  const auto address = ParseAddress(origin->address);
  if (address && address->IsMulticast()) ear.groups.push_back(*address);
  return ear;
}

bool IsLocal(const Address& address, const std::vector<Address>& own) {
  const auto& bytes = address.bytes;
  const size_t size = address.family == AF_INET ? 4 : 16;
  if (address.family == AF_INET && bytes[0] == 127) return true;
  const bool isZero = std::all_of(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size) - 1,
                                  [](BYTE byte) { return byte == 0; });
  if (isZero && bytes.at(size - 1) <= (address.family == AF_INET ? 0 : 1)) return true;
  return std::find(own.begin(), own.end(), address) != own.end();
}

bool Reaches(const StreamOutput& output, const Ear& ear, const std::vector<Address>& own) {
  if (output.kind != StreamOutput::Kind::Datagrams || output.port != ear.port) return false;
  const auto to = ParseAddress(output.host);
  if (!to) return output.host == "localhost";
  if (!to->IsMulticast()) return IsLocal(*to, own);
  return ear.groups.empty() || std::find(ear.groups.begin(), ear.groups.end(), *to) != ear.groups.end();
}

bool Carries(const StreamSettings& stream, const std::string& source) {
  return stream.sources.empty() ||
         std::find(stream.sources.begin(), stream.sources.end(), source) != stream.sources.end();
}

}  // namespace

void CheckStreamLoops(const Config& config, const std::vector<Address>& own) {
  for (const StreamSettings& stream : config.streams) {
    for (const SourceSettings& source : config.sources) {
      const auto ear = Carries(stream, source.name) ? EarOf(source) : std::nullopt;
      if (!ear) continue;
      const auto output = std::find_if(stream.outputs.begin(), stream.outputs.end(),
                                       [&](const StreamOutput& each) { return Reaches(each, *ear, own); });
      if (output == stream.outputs.end()) continue;
      throw ConfigError(
          "[stream " + stream.name + "] " +
          value_text::Refusal(output->key, output->text, "a place that does not lead back into the stream") + ": [" +
          source.name + "] receives it, and the stream carries that");
    }
  }
}

}  // namespace mdencoder
