// SPDX-License-Identifier: Apache-2.0
// The printer on a pipe whose reader is slow, stops, or goes.
#include "printer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "owned_fd.h"
#include "st0601_items.h"

namespace mdencoder::printer_test {
namespace {

using std::chrono::milliseconds;

std::string Name(const Received& received) {
  return std::string(received.name) + " " + std::to_string(received.buffer.size());
}

class PrinterTest : public testing::Test {
 protected:
  PrinterTest() {
    std::signal(SIGPIPE, SIG_IGN);
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    m_reader.Reset(ends[0]);
    m_writer.Reset(ends[1]);
    EXPECT_EQ(fcntl(ends[0], F_SETPIPE_SZ, 4096), 4096);
    fcntl(m_reader.Get(), F_SETFL, O_NONBLOCK);
    m_received.name = "udp";
    m_received.buffer = m_buffer;
  }
  std::string Read() {
    std::string text;
    char buffer[4096];
    for (ssize_t got = read(m_reader.Get(), buffer, sizeof(buffer)); got > 0;
         got = read(m_reader.Get(), buffer, sizeof(buffer))) {
      text.append(buffer, static_cast<size_t>(got));
    }
    return text;
  }
  static size_t Rows(const std::string& text) {
    size_t rows = 0;
    for (size_t at = text.find("udp "); at != std::string::npos; at = text.find("udp ", at + 1)) ++rows;
    return rows;
  }

  common::OwnedFD m_reader;
  common::OwnedFD m_writer;
  const st0601::Bytes m_buffer = st0601::Bytes(1000);
  Received m_received;
};

TEST_F(PrinterTest, KeepsTheOrderOfRowsAndLines) {
  Printer printer(m_writer.Get(), false);
  printer.PutLines({"title"});
  printer.PutRow(m_received, Name);
  printer.PutLines({"a", "b"});
  printer.Drain({});
  EXPECT_EQ(Read(), "title\nudp 1000\na\nb\n");
}

TEST_F(PrinterTest, RowsThatDoNotFitAreDroppedAndLinesStillWait) {
  Printer printer(m_writer.Get(), false);
  const size_t rows = 2 * Printer::kMostRowBytes / 1000;
  for (size_t i = 0; i < rows; ++i) printer.PutRow(m_received, Name);
  EXPECT_GT(printer.RowsDropped(), rows / 3);
  printer.PutLines({"statistics"});
  std::thread reader([this, &printer] {
    std::string text;
    while (text.find("statistics\n") == std::string::npos) text += Read();
    EXPECT_EQ(Rows(text) + printer.RowsDropped(), 2 * Printer::kMostRowBytes / 1000);
  });
  printer.Drain({milliseconds(20000), false, {}});
  reader.join();
}

TEST_F(PrinterTest, AtTheEndRowsAreDroppedBeforeLines) {
  Printer printer(m_writer.Get(), false);
  for (int i = 0; i < 5000; ++i) printer.PutRow(m_received, Name);
  printer.PutLines({"statistics"});
  const auto begin = std::chrono::steady_clock::now();
  printer.Drain({milliseconds(100), false, {}});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  printer.DropRows();
  const uint64_t dropped = printer.RowsDropped();
  std::string text;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (text.find("statistics\n") == std::string::npos && std::chrono::steady_clock::now() < end) text += Read();
  // A row that was cut counts as dropped, and is completed all the same.
  EXPECT_GE(Rows(text) + dropped, 5000u);
  EXPECT_LE(Rows(text) + dropped, 5001u);
  EXPECT_EQ(text.find("statistics"), text.size() - 11);
  EXPECT_EQ(text[text.size() - 12], '\n');
}

TEST_F(PrinterTest, WaitsForAReaderThatReadsUntilItIsToldToHurry) {
  Printer printer(m_writer.Get(), false);
  for (int i = 0; i < 3000; ++i) printer.PutRow(m_received, Name);
  std::string text;
  std::thread reader([&] {
    while (Rows(text) < 3000) {
      text += Read();
      std::this_thread::sleep_for(milliseconds(20));
    }
  });
  printer.Drain({milliseconds(150), true, {}});
  reader.join();
  for (int i = 0; i < 3000; ++i) printer.PutRow(m_received, Name);
  const auto begin = std::chrono::steady_clock::now();
  printer.Drain({milliseconds(60000), true, [] { return true; }});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(PrinterTest, SaysHowManyLinesAreMissing) {
  Printer printer(m_writer.Get(), true);
  const std::vector<std::string> line = {std::string(999, 'x')};
  const size_t lines = Printer::kMostLineBytes / 1000 + 100;
  for (size_t i = 0; i < lines; ++i) printer.PutLines(line);
  const uint64_t dropped = printer.LinesDropped();
  EXPECT_GT(dropped, 50u);
  std::string text;
  const std::string wanted =
      "mdencoder: " + std::to_string(dropped) + " lines were left out because nobody read these\n";
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (text.find(wanted) == std::string::npos && std::chrono::steady_clock::now() < end) text += Read();
  EXPECT_EQ(text.size(), (lines - dropped) * 1000 + wanted.size());
}

TEST_F(PrinterTest, AReaderThatHasGoneIsAFailure) {
  Printer printer(m_writer.Get(), false);
  m_reader.Reset();
  printer.PutLines({"x"});
  pollfd failed = {printer.FailureDescriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&failed, 1, 20000), 1);
  EXPECT_TRUE(printer.HasFailed());
  printer.PutRow(m_received, Name);
  printer.Drain({});
  EXPECT_EQ(printer.RowsDropped(), 0u) << "the failure says it all";
}

}  // namespace
}  // namespace mdencoder::printer_test
