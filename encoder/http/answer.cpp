// SPDX-License-Identifier: Apache-2.0
#include "http/answer.h"

#include <nlohmann/json.hpp>

namespace mdencoder::http {

Answer RefusalAnswer(const Refusal& refusal) {
  nlohmann::ordered_json json;
  json["error"] = {{"status", refusal.status}, {"text", refusal.text}};
  Answer answer;
  answer.status = refusal.status;
  answer.body = json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  return answer;
}

}  // namespace mdencoder::http
