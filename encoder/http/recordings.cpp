// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Index      finds lines by their place and by their time
//   Files      are found in the folders
//   Answers    are lists, points and messages
#include "http/recordings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>
#include <utility>

#include "http/answer.h"
#include "klv_file.h"
#include "metadata_lib.h"
#include "owned_fd.h"

namespace mdencoder::http {
namespace {

namespace fs = std::filesystem;

constexpr char kIndexSuffix[] = ".json";
constexpr size_t kWindow = 2 * klv_file::kLongestIndexLine;
constexpr uint64_t kMostBack = 16 * kWindow;

common::OwnedFD OpenFile(const std::string& path) {
  return common::OwnedFD(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
}

// Returns up to `size` bytes of a file, fewer at its end, and none if it cannot be read.
std::string ReadAt(int fd, uint64_t offset, size_t size) {
  std::string bytes(size, '\0');
  size_t got = 0;
  while (got < size) {
    const ssize_t more = pread(fd, bytes.data() + got, size - got, static_cast<off_t>(offset + got));
    if (more < 0 && errno == EINTR) continue;
    if (more <= 0) break;
    got += static_cast<size_t>(more);
  }
  bytes.resize(got);
  return bytes;
}

uint64_t SizeOf(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size < 0) return 0;
  return static_cast<uint64_t>(status.st_size);
}

// --- Index -------------------------------------------------------------------------------------------

// A line of an index and its place there.
struct Place {
  uint64_t at = 0;
  klv_file::IndexLine line;
};

class Index {
 public:
  // Opens an index that belongs to a recording; IsGood tells whether it is one.
  explicit Index(const std::string& path) : m_file(OpenFile(path)) {
    if (!m_file.IsOpen()) return;
    m_end = SizeOf(m_file.Get());
    const std::string text = ReadAt(m_file.Get(), 0, kWindow);
    const size_t end = text.find('\n');
    if (end == std::string::npos) return;
    const auto header = klv_file::ParseIndexHeader(std::string_view(text).substr(0, end));
    if (!header) return;
    m_hasHeaders = header->hasStreamHeaders;
    m_begin = end + 1;
    const Json json = Json::parse(text.substr(0, end), nullptr, false);
    const auto source = json.is_object() ? json.find("source") : json.end();
    if (json.is_object() && source != json.end() && source->is_string()) m_source = source->get<std::string>();
  }

  bool IsGood() const { return m_begin != 0; }
  bool HasStreamHeaders() const { return m_hasHeaders; }
  const std::string& Source() const { return m_source; }
  uint64_t Begin() const { return m_begin; }
  uint64_t End() const { return m_end; }

  // Returns the first whole line that begins at that place or behind it.
  std::optional<Place> At(uint64_t at) const {
    at = std::max(at, m_begin);
    if (at >= m_end) return std::nullopt;
    const std::string text = ReadAt(m_file.Get(), at - 1, kWindow);
    size_t begin = text.find('\n');
    while (begin != std::string::npos) {
      const size_t end = text.find('\n', begin + 1);
      if (end == std::string::npos) return std::nullopt;
      const auto line = klv_file::ParseIndexLine(std::string_view(text).substr(begin + 1, end - begin - 1));
      if (line) return Place{at + begin, *line};
      begin = end;
    }
    return std::nullopt;
  }

  // Returns the last line that begins in front of that place. After a crash what is no line may stand there.
  std::optional<Place> Before(uint64_t at) const {
    std::optional<Place> found;
    for (uint64_t back = kWindow; !found && back <= kMostBack; back *= 2) {
      const uint64_t from = at > m_begin + back ? at - back : m_begin;
      for (auto place = At(from); place && place->at < at; place = At(place->at + 1)) found = place;
      if (from == m_begin) break;
    }
    return found;
  }

  // Returns the last line whose time is not later, or the first line.
  std::optional<Place> Find(int64_t timeUs) const {
    uint64_t low = m_begin;
    uint64_t high = m_end;
    while (high - low > 1) {
      const uint64_t middle = low + (high - low) / 2;
      const auto place = At(middle);
      if (!place || place->at >= high || place->line.timeUs > timeUs) {
        high = middle;
      } else {
        low = place->at;
      }
    }
    return At(low);
  }

 private:
  common::OwnedFD m_file;
  bool m_hasHeaders = false;
  std::string m_source;
  uint64_t m_begin = 0;  // of the first line of a message
  uint64_t m_end = 0;
};

// --- Files -------------------------------------------------------------------------------------------

bool IsPlainFile(const fs::path& path) {
  std::error_code error;
  return fs::symlink_status(path, error).type() == fs::file_type::regular;
}

struct Found {
  std::string name;
  std::string path;
};

// Returns the recordings that have an index.
std::vector<Found> FindAll(const std::vector<std::string>& folders) {
  std::vector<Found> all;
  for (const std::string& folder : folders) {
    std::error_code error;
    size_t seen = 0;
    for (fs::directory_iterator it(folder, error), end; !error && it != end && ++seen <= Recordings::kMostEntries;
         it.increment(error)) {
      const fs::path& index = it->path();
      if (index.extension() != kIndexSuffix) continue;
      fs::path file = index;
      file.replace_extension();
      if (IsPlainFile(index) && IsPlainFile(file)) all.push_back({file.filename().string(), file.string()});
    }
  }
  return all;
}

// A name is only compared with those that are there: no part of a request becomes a path.
Found FindOne(const std::vector<std::string>& folders, const std::string& name) {
  for (Found& found : FindAll(folders)) {
    if (found.name == name) return std::move(found);
  }
  throw Refusal{404, "there is no recording \"" + name + "\""};
}

Index OpenIndex(const Found& found) {
  Index index(found.path + kIndexSuffix);
  if (!index.IsGood()) throw Refusal{404, "the recording \"" + found.name + "\" has no index"};
  return index;
}

// Returns nothing for a line that does not fit its recording.
std::unique_ptr<Delivered> ReadMessage(int file, const Index& index, const klv_file::IndexLine& line) {
  const size_t header = index.HasStreamHeaders() ? MDATA_STREAM_HEADER_SIZE : 0;
  if (line.length > Recordings::kLongestMessage || line.length < header) return nullptr;
  const std::string bytes = ReadAt(file, line.offset, static_cast<size_t>(line.length));
  if (bytes.size() != line.length) return nullptr;
  auto message = std::make_unique<Delivered>();
  message->source = index.Source();
  message->timeUs = static_cast<uint64_t>(std::max<int64_t>(line.timeUs, 0));
  message->timeStamp = line.timestamp.value_or(0);
  if (header != 0) message->sequence = static_cast<uint8_t>(bytes[1]);
  message->bytes.assign(bytes.begin() + static_cast<std::ptrdiff_t>(header), bytes.end());
  return message;
}

}  // namespace

// --- Answers -----------------------------------------------------------------------------------------

Json Recordings::List() const {
  std::vector<std::pair<int64_t, Json>> rows;
  for (const Found& found : FindAll(m_folders)) {
    const Index index(found.path + kIndexSuffix);
    if (!index.IsGood()) continue;
    const auto first = index.At(index.Begin());
    const auto last = index.Before(index.End());
    if (!first || !last) continue;
    Json row = {{"name", found.name}, {"source", index.Source()}};
    row["bytes"] = last->line.offset + last->line.length;
    AddTime(row, static_cast<uint64_t>(std::max<int64_t>(first->line.timeUs, 0)), "from");
    AddTime(row, static_cast<uint64_t>(std::max<int64_t>(last->line.timeUs, 0)), "to");
    rows.emplace_back(last->line.timeUs, std::move(row));
  }
  std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  if (rows.size() > kMostListed) rows.resize(kMostListed);
  Json json;
  json["recordings"] = Json::array();
  for (auto& [time, row] : rows) json["recordings"].push_back(std::move(row));
  return json;
}

Json Recordings::Points(const std::string& name, std::optional<int64_t> fromUs, std::optional<int64_t> toUs,
                        size_t most) const {
  const Found found = FindOne(m_folders, name);
  const Index index = OpenIndex(found);
  const common::OwnedFD file = OpenFile(found.path);
  auto first = fromUs ? index.Find(*fromUs) : index.At(index.Begin());
  const auto last = toUs ? index.Find(*toUs) : index.Before(index.End());
  if (fromUs && first && first->line.timeUs < *fromUs) first = index.At(first->at + 1);
  Json json = {{"name", name}, {"source", index.Source()}};
  json["points"] = Json::array();
  if (!first || !last || last->at < first->at) return json;
  AddTime(json, static_cast<uint64_t>(std::max<int64_t>(first->line.timeUs, 0)), "from");
  AddTime(json, static_cast<uint64_t>(std::max<int64_t>(last->line.timeUs, 0)), "to");
  uint64_t next = first->at;
  for (size_t i = 0; i < most && next <= last->at; ++i) {
    const uint64_t even = most < 2 ? 0 : (last->at - first->at) * i / (most - 1);
    const auto place = index.At(std::max(next, first->at + even));
    if (!place || place->at > last->at) break;
    next = place->at + 1;
    const auto message = ReadMessage(file.Get(), index, place->line);
    if (!message) continue;
    json["points"].push_back({{"time_us", message->timeUs},
                              {"at", place->at},
                              {"seen", SeenJson(st0601::Observe(st0601::Parse(message->bytes)))}});
  }
  return json;
}

Json Recordings::Message(const std::string& name, std::optional<int64_t> timeUs, std::optional<int64_t> at,
                         bool withRaw) const {
  const Found found = FindOne(m_folders, name);
  const Index index = OpenIndex(found);
  const auto place = at ? index.At(static_cast<uint64_t>(*at)) : index.Find(timeUs.value_or(0));
  if (!place) throw Refusal{404, "the recording has no such message"};
  const common::OwnedFD file = OpenFile(found.path);
  const auto message = ReadMessage(file.Get(), index, place->line);
  if (!message) throw Refusal{404, "the recording does not hold what its index says"};
  Json json = MessageJson(*message, ItemForm::Full, withRaw);
  const auto previous = index.Before(place->at);
  const auto next = index.At(place->at + 1);
  json["at"] = place->at;
  json["previous"] = previous ? Json(previous->at) : Json(nullptr);
  json["next"] = next ? Json(next->at) : Json(nullptr);
  return json;
}

}  // namespace mdencoder::http
