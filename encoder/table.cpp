// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Cells     are texts of at most so many characters
//   Columns   have titles, units and widths
//   Table     puts them together
#include "table.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <utility>

#include "klv_walk.h"
#include "render.h"
#include "value_text.h"

namespace mdencoder {
namespace {

using st0601::Item;
using st0601::Kind;

constexpr size_t kUsualWidth = 120;
constexpr int64_t kLeastWidth = 20;
constexpr int64_t kMostWidth = 100000;
constexpr int kMostDigits = 6;  // behind the point: a tenth of a metre in degrees

// --- Cells -------------------------------------------------------------------------------------------

bool BeginsCharacter(char byte) {
  return (static_cast<uint8_t>(byte) & 0xC0) != 0x80;
}

size_t Characters(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), BeginsCharacter));
}

// Returns the text with at most so many characters; '~' stands for what was cut off.
std::string Cut(std::string text, size_t most) {
  if (Characters(text) <= most) return text;
  size_t kept = 0;
  size_t end = 0;
  while (end < text.size() && kept + (BeginsCharacter(text[end]) ? 1 : 0) <= most - 1) {
    kept += BeginsCharacter(text[end]) ? 1 : 0;
    ++end;
  }
  text.resize(end);
  return text + '~';
}

std::string Pad(const std::string& text, size_t width, bool isRight) {
  const std::string blanks(width - std::min(width, Characters(text)), ' ');
  return isRight ? blanks + text : text + blanks;
}

int DigitsOf(const Item& item) {
  const double resolution = st0601::Resolution(item);
  if (resolution <= 0 || resolution >= 1) return 0;
  return std::min(static_cast<int>(std::ceil(-std::log10(resolution))), kMostDigits);
}

std::string NumberText(const Item& item, double value) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f", DigitsOf(item), value);
  return text;
}

bool IsReal(const Item& item) {
  return item.kind == Kind::Unsigned || item.kind == Kind::Signed || item.kind == Kind::Imap;
}

std::string ItemCell(const Item& item, const st0601::Message& message) {
  const st0601::Element* element = message.Find(item.tag);
  if (element == nullptr) return {};
  if (item.kind == Kind::SecuritySet) return ItemText(*element);
  const st0601::Value value = st0601::Decode(item, element->value);
  if (value.state != st0601::ValueState::Ok) return value.state == st0601::ValueState::OutOfRange ? "-" : value.text;
  if (IsReal(item)) return NumberText(item, value.number);
  if (item.kind == Kind::Time && value.text.size() == 27) return value.text.substr(11, 12);  // HH:MM:SS.mmm
  return value.text;
}

std::string Cell(const Column& column, const Received& received, const st0601::Message& message) {
  switch (column.kind) {
    case Column::Kind::Arrival:
      return received.timeUs == 0 ? "-" : LocalText(received.timeUs);
    case Column::Kind::Source:
      return std::string(received.name);
    case Column::Kind::Sequence:
      return std::to_string(received.sequence);
    case Column::Kind::Length:
      return std::to_string(received.Message().size());
    case Column::Kind::Checksum:
      return message.isUas ? st0601::ChecksumStateName(message.checksum) : "-";
    default:
      return ItemCell(*column.item, message);
  }
}

// --- Columns -----------------------------------------------------------------------------------------

std::string Title(const Column& column) {
  if (column.kind == Column::Kind::Sequence) return "SEQ";
  std::string title(ColumnName(column));
  if (title.starts_with("frame_center")) title.replace(0, 12, "frame");
  for (char& character : title) {
    if (character == '_') character = ' ';
    if (character >= 'a' && character <= 'z') character = static_cast<char>(character - 'a' + 'A');
  }
  return title;
}

std::string Unit(const Column& column) {
  return column.kind == Column::Kind::Item ? column.item->unit : "";
}

bool IsRight(const Column& column) {
  if (column.kind == Column::Kind::Item) {
    return IsReal(*column.item) || column.item->kind == Kind::Integer || column.item->kind == Kind::SignedWhole;
  }
  return column.kind == Column::Kind::Sequence || column.kind == Column::Kind::Length;
}

size_t ItemWidth(const Item& item) {
  constexpr size_t kTime = 12;
  constexpr size_t kText = 16;
  constexpr size_t kSet = 40;
  switch (item.kind) {
    case Kind::Unsigned:
    case Kind::Signed:
    case Kind::Imap:
      return std::max(NumberText(item, item.min).size(), NumberText(item, item.max).size());
    case Kind::Integer:
    case Kind::SignedWhole:
      return item.size == 0 ? kTime : size_t{3} * item.size;
    case Kind::Time:
      return kTime;
    case Kind::Checksum:
      return 6;
    case Kind::SecuritySet:
      return kSet;
    default:
      return kText;
  }
}

size_t CellWidth(const Column& column) {
  switch (column.kind) {
    case Column::Kind::Arrival:
      return 12;
    case Column::Kind::Sequence:
      return 3;
    case Column::Kind::Length:
      return 6;
    case Column::Kind::Checksum:
      return 9;
    case Column::Kind::Item:
      return ItemWidth(*column.item);
    default:
      return 0;
  }
}

std::string WithoutBlanksAtTheEnd(std::string text) {
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

}  // namespace

size_t OutputWidth(int fd) {
  const char* const wanted = std::getenv("COLUMNS");
  if (wanted != nullptr) {
    if (const auto width = value_text::ParseWholeNumber(wanted, kLeastWidth, kMostWidth)) {
      return static_cast<size_t>(*width);
    }
  }
  winsize size{};
  return ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualWidth;
}

// --- Table -------------------------------------------------------------------------------------------

size_t Table::WidthOf(const Column& column) const {
  const size_t cell = column.kind == Column::Kind::Source ? m_settings.nameWidth : CellWidth(column);
  return std::max({cell, Title(column).size(), Unit(column).size()});
}

Table::Table(Settings settings) : m_settings(std::move(settings)) {
  for (const Column& column : m_settings.columns) m_widths.push_back(WidthOf(column));
}

void Table::Fit(size_t width) {
  m_width = width;
  m_shown = 0;
  size_t used = 0;
  for (const size_t column : m_widths) {
    used += column + (m_shown == 0 ? 0 : 1);
    if (m_settings.isCut && used > width && m_shown != 0) return;
    ++m_shown;
  }
}

std::string Table::Header() {
  Fit(m_settings.width());
  std::string titles;
  std::string units;
  for (size_t i = 0; i < m_shown; ++i) {
    const Column& column = m_settings.columns[i];
    const char* const gap = i == 0 ? "" : " ";
    titles += gap + Pad(Title(column), m_widths[i], IsRight(column));
    units += gap + Pad(Unit(column), m_widths[i], IsRight(column));
  }
  return WithoutBlanksAtTheEnd(titles) + '\n' + WithoutBlanksAtTheEnd(units);
}

std::string Table::Row(const Received& received, const st0601::Message& message) {
  const std::string header = m_settings.width() == m_width ? "" : Header() + '\n';
  std::string row;
  for (size_t i = 0; i < m_shown; ++i) {
    const Column& column = m_settings.columns[i];
    const size_t width = m_widths[i];
    std::string cell = Cell(column, received, message);
    if (m_settings.isCut) cell = Cut(std::move(cell), width);
    row += (i == 0 ? "" : " ") + Pad(cell, width, IsRight(column));
  }
  row = WithoutBlanksAtTheEnd(std::move(row));
  if (!message.isUas) {
    const auto start = received.Message().first(std::min(klv_walk::kKeySize, received.Message().size()));
    row += " not ST 0601: " + st0601::Hex(start);
  } else if (!message.isComplete) {
    row += " (" + message.error + ")";
  }
  return header + Cut(std::move(row), m_settings.isCut ? m_width : std::numeric_limits<size_t>::max());
}

}  // namespace mdencoder
