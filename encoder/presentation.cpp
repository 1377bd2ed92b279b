// SPDX-License-Identifier: Apache-2.0
#include "presentation.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "csv.h"
#include "render.h"
#include "table.h"

namespace mdencoder {
namespace {

constexpr size_t kLeastNameWidth = 6;
constexpr size_t kMostNameWidth = 16;

Presentation FittedTable(const PresentationSettings& settings, size_t nameWidth, std::function<size_t()> width) {
  Table::Settings columns;
  columns.columns = settings.columns;
  if (columns.columns.empty()) columns.columns.assign(UsualColumns().begin(), UsualColumns().end());
  columns.isCut = !settings.isWide;
  columns.nameWidth = settings.isWide ? nameWidth : std::clamp(nameWidth, kLeastNameWidth, kMostNameWidth);
  columns.width = std::move(width);
  const auto table = std::make_shared<Table>(std::move(columns));
  Presentation made;
  made.header = table->Header();
  made.render = [table](const Received& received) { return table->Row(received, st0601::Parse(received.Message())); };
  return made;
}

}  // namespace

Presentation MakePresentation(const PresentationSettings& settings, size_t nameWidth, std::function<size_t()> width) {
  switch (settings.format) {
    case Format::Table:
      if (!settings.isWide || !settings.columns.empty()) return FittedTable(settings, nameWidth, std::move(width));
      return {WideHeader(),
              [](const Received& received) { return WideRow(received, st0601::Parse(received.Message())); }};
    case Format::Json:
      return {"", [items = settings.items](const Received& received) {
                return JsonLine(received, st0601::Parse(received.Message()), items);
              }};
    case Format::Csv: {
      auto items = settings.items;
      if (items.empty()) items.assign(UsualItems().begin(), UsualItems().end());
      return {CsvHeader(items),
              [items](const Received& received) { return CsvRow(received, st0601::Parse(received.Message()), items); }};
    }
    default:
      return {};
  }
}

}  // namespace mdencoder
