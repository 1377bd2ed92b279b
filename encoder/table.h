// SPDX-License-Identifier: Apache-2.0
// The table of messages: one row each, with as many of the chosen columns as the terminal is wide.
#ifndef MDENCODER_TABLE_H
#define MDENCODER_TABLE_H

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "columns.h"
#include "receiver.h"
#include "st0601_items.h"

namespace mdencoder {

// Returns the width that rows on this descriptor may have: that of the environment variable COLUMNS, or of the terminal,
// or 120.
size_t OutputWidth(int fd);

class Table {
 public:
  struct Settings {
    std::vector<Column> columns;    // in the order in which they are given up from the end
    bool isCut = true;              // columns and rows that are too wide are left out and cut
    size_t nameWidth = 16;          // of the column of sources
    std::function<size_t()> width;  // asked for each row, because a terminal can be resized
  };

  explicit Table(Settings settings);

  // Returns the titles and the units, in two lines without the last line end.
  std::string Header();
  // Returns a row without a line end; it begins with the header if the columns have changed. One thread at a time.
  std::string Row(const Received& received, const st0601::Message& message);

 private:
  size_t WidthOf(const Column& column) const;
  void Fit(size_t width);

  const Settings m_settings;
  std::vector<size_t> m_widths;  // of the columns
  size_t m_width = 0;            // for which the columns were counted
  size_t m_shown = 0;            // columns
};

}  // namespace mdencoder

#endif  // MDENCODER_TABLE_H
