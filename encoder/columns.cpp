// SPDX-License-Identifier: Apache-2.0
#include "columns.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>

#include "value_text.h"
#include "values.h"

namespace mdencoder {
namespace {

constexpr int64_t kHighestTag = 143;
constexpr std::array<std::string_view, 5> kFields = {"arrival", "source", "sequence", "length", "checksum"};

const st0601::Item* FindOne(const std::string& text) {
  if (const auto tag = value_text::ParseWholeNumber(text, 1, kHighestTag)) {
    return st0601::FindItem(static_cast<uint32_t>(*tag));
  }
  return st0601::FindItem(std::string_view(text));
}

// Reads one part of a list: a name, a tag, a range or "all". Returns none if it is not allowed.
std::vector<const st0601::Item*> FindItems(const std::string& part) {
  std::vector<const st0601::Item*> found;
  const auto addRange = [&found](uint32_t first, uint32_t last) {
    for (const st0601::Item& item : st0601::Items()) {
      if (item.tag >= first && item.tag <= last) found.push_back(&item);
    }
  };
  const size_t dash = part.find('-');
  if (part == "all") {
    addRange(1, kHighestTag);
  } else if (dash == std::string::npos) {
    if (const st0601::Item* item = FindOne(part)) found.push_back(item);
  } else {
    const st0601::Item* first = FindOne(Trim(part.substr(0, dash)));
    const st0601::Item* last = FindOne(Trim(part.substr(dash + 1)));
    if (first != nullptr && last != nullptr) addRange(first->tag, last->tag);
  }
  return found;
}

template <typename Entry>
void AddNew(std::vector<Entry>& list, const Entry& entry) {
  if (std::find(list.begin(), list.end(), entry) == list.end()) list.push_back(entry);
}

}  // namespace

const char kColumnsAllowed[] =
    "a list of arrival, source, sequence, length, checksum, item names, tags 1 to 143, ranges of them, and all";
const char kItemsAllowed[] = "a list of item names, tags 1 to 143, ranges of them, and all";

std::string_view ColumnName(const Column& column) {
  return column.kind == Column::Kind::Item ? column.item->key : kFields.at(static_cast<size_t>(column.kind));
}

// The checksum of the message and item 1 have one name: the column tells whether the sum is right.
std::optional<std::vector<Column>> ParseColumns(std::string_view text) {
  std::vector<Column> columns;
  for (const std::string& part : SplitList(text)) {
    const auto field = std::find(kFields.begin(), kFields.end(), part);
    if (field != kFields.end()) {
      AddNew(columns, {static_cast<Column::Kind>(field - kFields.begin()), nullptr});
      continue;
    }
    const auto items = FindItems(part);
    if (items.empty()) return std::nullopt;
    for (const st0601::Item* item : items) AddNew(columns, {Column::Kind::Item, item});
  }
  return columns.empty() ? std::nullopt : std::optional(columns);
}

std::optional<std::vector<const st0601::Item*>> ParseItems(std::string_view text) {
  std::vector<const st0601::Item*> chosen;
  for (const std::string& part : SplitList(text)) {
    const auto items = FindItems(part);
    if (items.empty()) return std::nullopt;
    for (const st0601::Item* item : items) AddNew(chosen, item);
  }
  return chosen.empty() ? std::nullopt : std::optional(chosen);
}

std::span<const Column> UsualColumns() {
  static const std::vector<Column> kUsual =
      ParseColumns(
          "arrival, source, sequence, checksum, time, sensor_lat, sensor_lon, sensor_alt, heading, frame_center_lat,"
          "frame_center_lon, slant_range")
          .value();
  return kUsual;
}

std::span<const st0601::Item* const> UsualItems() {
  static const std::vector<const st0601::Item*> kUsual =
      ParseItems(
          "time, mission_id, tail_number, heading, pitch, roll, platform, sensor, sensor_lat, sensor_lon, sensor_alt,"
          "hfov, vfov, sensor_azimuth, sensor_elevation, sensor_roll, slant_range, target_width, frame_center_lat,"
          "frame_center_lon, frame_center_elev, target_lat, target_lon, target_elev")
          .value();
  return kUsual;
}

}  // namespace mdencoder
