// SPDX-License-Identifier: Apache-2.0
// The format of the output, and the columns and items that a user chooses for it.
#ifndef MDENCODER_COLUMNS_H
#define MDENCODER_COLUMNS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "st0601_items.h"

namespace mdencoder {

// A column of the table: something that is known of every message, or an item of ST 0601.
struct Column {
  enum class Kind : uint8_t { Arrival, Source, Sequence, Length, Checksum, Item };
  Kind kind = Kind::Item;
  const st0601::Item* item = nullptr;  // of Kind::Item
  bool operator==(const Column&) const = default;
};

// Returns "arrival", "source" and so on, or the short name of the item.
std::string_view ColumnName(const Column& column);

// Reads columns in their order, separated by commas: the names above, tags, ranges of tags, and "all" for every item.
// Returns nothing for text that is not allowed.
std::optional<std::vector<Column>> ParseColumns(std::string_view text);
// The same for items alone.
std::optional<std::vector<const st0601::Item*>> ParseItems(std::string_view text);
extern const char kColumnsAllowed[];
extern const char kItemsAllowed[];

// Return the dozen that the table has, and the items that a row of CSV has, if none are chosen.
std::span<const Column> UsualColumns();
std::span<const st0601::Item* const> UsualItems();

enum class Format { Table, Json, Csv, None };

struct PresentationSettings {
  Format format = Format::Table;
  std::vector<Column> columns;             // of the table; none: the usual ones
  std::vector<const st0601::Item*> items;  // of JSON and CSV; none: all in JSON, the usual ones in CSV
  bool isWide = false;                     // the table is not fitted; without columns it shows every item
  bool operator==(const PresentationSettings&) const = default;
};

}  // namespace mdencoder

#endif  // MDENCODER_COLUMNS_H
