// SPDX-License-Identifier: Apache-2.0
// Messages as comma-separated values (RFC 4180): a header, and a row for each message.
#ifndef MDENCODER_CSV_H
#define MDENCODER_CSV_H

#include <span>
#include <string>
#include <string_view>

#include "receiver.h"
#include "st0601_items.h"

namespace mdencoder {

// Return a line that ends with the carriage return; the printer adds the line feed.
std::string CsvHeader(std::span<const st0601::Item* const> items);
std::string CsvRow(const Received& received, const st0601::Message& message,
                   std::span<const st0601::Item* const> items);

// Returns a field with the quotation marks that it needs. A sender's text that a spreadsheet would take for a formula gets
// an apostrophe in front, as spreadsheets themselves write it.
std::string CsvText(std::string_view text);

}  // namespace mdencoder

#endif  // MDENCODER_CSV_H
