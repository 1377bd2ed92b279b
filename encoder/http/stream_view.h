// SPDX-License-Identifier: Apache-2.0
// The streams of a run as the page sees them.
#ifndef MDENCODER_HTTP_STREAM_VIEW_H
#define MDENCODER_HTTP_STREAM_VIEW_H

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "fragment_ring.h"
#include "http/hub.h"
#include "http/message_json.h"

namespace mdencoder {
class Streams;
}

namespace mdencoder::http {

struct StreamView {
  std::function<Json()> list;  // an object of each, with its name
  std::function<std::shared_ptr<FragmentRing>(const std::string& name)> ring;
};

// Both refer to the streams as long as they are used.
StreamView ViewOf(const Streams& streams);
Hub::Presenter PresenterOf(const Streams& streams);

// Returns the type that a player wants to know, of the beginning of a movie: "video/mp4; codecs=\"avc1.42c01f\"".
std::string MovieType(std::span<const uint8_t> init);

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_STREAM_VIEW_H
