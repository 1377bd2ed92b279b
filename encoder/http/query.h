// SPDX-License-Identifier: Apache-2.0
// The parameters of a request. Each is read once; what is not allowed, or not known, is refused with one line that says so.
#ifndef MDENCODER_HTTP_QUERY_H
#define MDENCODER_HTTP_QUERY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "http/answer.h"

namespace mdencoder::http {

// Takes a target apart: the decoded path without its query, and the decoded parameters. Throws Refusal.
std::string ParseTarget(std::string_view target, Parameters& query);

class Query {
 public:
  explicit Query(const Parameters& parameters) : m_parameters(parameters) {}

  // All throw Refusal.
  std::optional<int64_t> Number(std::string_view key, int64_t lowest, int64_t highest);
  int64_t Number(std::string_view key, int64_t lowest, int64_t highest, int64_t otherwise);
  double Real(std::string_view key, double lowest, double highest, double otherwise);
  bool Switch(std::string_view key);  // 1, yes or nothing behind it; 0 or no
  size_t Choice(std::string_view key, std::span<const std::string_view> choices, size_t otherwise);
  std::string Text(std::string_view key);
  // Returns the values of a key that may be repeated, and the parts between their commas.
  std::vector<std::string> Texts(std::string_view key, size_t most);
  // Call it after the last key: others are not known.
  void Finish() const;

 private:
  const std::string* Find(std::string_view key);

  const Parameters& m_parameters;
  std::set<std::string, std::less<>> m_used;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_QUERY_H
