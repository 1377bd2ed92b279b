// SPDX-License-Identifier: Apache-2.0
#include "console.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace mdencoder {
namespace {

bool AreOneFile() {
  struct stat output {};
  struct stat errors {};
  return fstat(STDOUT_FILENO, &output) == 0 && fstat(STDERR_FILENO, &errors) == 0 && output.st_dev == errors.st_dev &&
         output.st_ino == errors.st_ino;
}

constexpr auto kDrainTime = std::chrono::milliseconds(300);

}  // namespace

Console::Console() : m_hasStatus(isatty(STDERR_FILENO) == 1) {
  const bool one = AreOneFile();
  m_output = std::make_unique<Printer>(STDOUT_FILENO, one);
  if (!one) m_errors = std::make_unique<Printer>(STDERR_FILENO, true);
}

Console::~Console() {
  Status({});
  m_output->DropRows();
  m_output->Drain({kDrainTime, false, {}});
  Errors().Drain({kDrainTime, false, {}});
}

void Console::Line(const std::string& line) {
  Lines({line});
}

void Console::Lines(const std::vector<std::string>& lines) {
  m_output->PutLines(lines);
}

void Console::Complain(const std::string& line) {
  Errors().PutLines({line});
}

void Console::Row(const Received& received, const Printer::Render& render) {
  m_output->PutRow(received, render);
}

void Console::Status(std::vector<std::string> lines) {
  if (m_hasStatus) Errors().Status(std::move(lines));
}

uint64_t Console::FinishRows(const Printer::Limit& limit) {
  m_output->Drain(limit);
  m_output->DropRows();
  return m_output->RowsDropped();
}

}  // namespace mdencoder
