// SPDX-License-Identifier: Apache-2.0
// What a client asks and what it gets, without the connection between them.
#ifndef MDENCODER_HTTP_ANSWER_H
#define MDENCODER_HTTP_ANSWER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace mdencoder::http {

// A request that is refused: the status, and one line that says why. The API throws it.
struct Refusal {
  int status = 400;
  std::string text;
};

using Parameters = std::multimap<std::string, std::string, std::less<>>;

struct Request {
  std::string path;  // decoded: "/api/v1/sources/aircraft/last"
  Parameters query;  // decoded
  std::string lastEventId;
  std::string knownTag;  // If-None-Match
  bool acceptsGzip = false;
  bool wantsPage = false;  // a browser that opens a page
};

// A body that is made while it is sent.
class Flow {
 public:
  Flow() = default;
  virtual ~Flow() = default;
  Flow(const Flow&) = delete;
  Flow& operator=(const Flow&) = delete;

  // Replaces `piece` by what comes next, or by nothing after about a second without any. Returns false at the end. The
  // connection's thread.
  virtual bool Next(std::string& piece) = 0;
};

struct Answer {
  int status = 200;
  std::string type = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> fields;
  std::unique_ptr<Flow> flow;  // in place of a body
};

// Returns the body of an answer that says why there is no other.
Answer RefusalAnswer(const Refusal& refusal);

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_ANSWER_H
