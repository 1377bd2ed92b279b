// SPDX-License-Identifier: Apache-2.0
#include "streams.h"

#include <algorithm>

#include "media_input.h"
#include "stream.h"

namespace mdencoder {
namespace {

const Stream* Find(const std::vector<std::unique_ptr<Stream>>& streams, std::string_view name) {
  const auto found =
      std::find_if(streams.begin(), streams.end(), [&](const auto& each) { return each->Name() == name; });
  return found == streams.end() ? nullptr : found->get();
}

}  // namespace

Streams::Streams() = default;
Streams::~Streams() = default;

void Streams::Start(const std::vector<StreamSettings>& streams, const std::vector<std::string>& sources,
                    const Say& say) {
  // What matters of libav's messages is said in lines of ours.
  if (!streams.empty()) media_input::Prepare();
  for (const StreamSettings& settings : streams) m_streams.push_back(std::make_unique<Stream>(settings, sources, say));
}

void Streams::Finish() {
  for (const auto& stream : m_streams) stream->Finish();
}

void Streams::Push(const Received& received) {
  for (const auto& stream : m_streams) stream->Push(received);
}

std::vector<std::string> Streams::Names() const {
  std::vector<std::string> names;
  for (const auto& stream : m_streams) names.push_back(stream->Name());
  return names;
}

std::vector<StreamReport> Streams::Snapshot() const {
  std::vector<StreamReport> reports;
  for (const auto& stream : m_streams) reports.push_back(stream->Snapshot());
  return reports;
}

std::shared_ptr<FragmentRing> Streams::Ring(std::string_view stream) const {
  const Stream* const found = Find(m_streams, stream);
  return found == nullptr ? nullptr : found->Ring();
}

std::optional<int64_t> Streams::Presentation(std::string_view stream, std::string_view source,
                                             std::optional<uint64_t> timeUs, uint64_t arrivalUs) const {
  const Stream* const found = Find(m_streams, stream);
  return found == nullptr ? std::nullopt : found->Presentation(source, timeUs, arrivalUs);
}

}  // namespace mdencoder
