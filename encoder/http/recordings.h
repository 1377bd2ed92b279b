// SPDX-License-Identifier: Apache-2.0
// Recordings with an index, for the page's time slider. A message is found by bisection in the index, whose lines are in
// the order of their times: nothing is kept between requests, and a request reads little of files of any length.
#ifndef MDENCODER_HTTP_RECORDINGS_H
#define MDENCODER_HTTP_RECORDINGS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "http/message_json.h"

namespace mdencoder::http {

class Recordings {
 public:
  static constexpr size_t kMostListed = 200;
  static constexpr size_t kMostEntries = 10000;  // of a folder that are looked at
  static constexpr size_t kMostPoints = 2000;
  static constexpr size_t kLongestMessage = size_t{1} << 20;

  // Nothing outside of these folders is read, and nothing through a symbolic link.
  explicit Recordings(std::vector<std::string> folders) : m_folders(std::move(folders)) {}

  bool AreThere() const { return !m_folders.empty(); }
  Json List() const;

  // Both throw Refusal.
  Json Points(const std::string& name, std::optional<int64_t> fromUs, std::optional<int64_t> toUs, size_t most) const;
  // Returns the message at a place of the index, or the last one that is not later than a time.
  Json Message(const std::string& name, std::optional<int64_t> timeUs, std::optional<int64_t> at, bool withRaw) const;

 private:
  const std::vector<std::string> m_folders;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_RECORDINGS_H
