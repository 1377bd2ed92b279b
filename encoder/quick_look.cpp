// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Command line   of both
//   Decode         prints messages as they are found
//   Run            does what the command line says
#include "quick_look.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "columns.h"
#include "inspection.h"
#include "klv_file.h"
#include "klv_walk.h"
#include "presentation.h"
#include "printable_text.h"
#include "recording_index.h"
#include "stream_input.h"
#include "stream_url.h"
#include "table.h"
#include "value_text.h"

namespace mdencoder {
namespace {

// --- Command line ------------------------------------------------------------------------------------

constexpr double kMostSeconds = 86400;
constexpr double kUsualSeconds = 5;

struct Wishes {
  std::string name;
  std::string format;
  std::string columns;
  std::string items;
  std::string authorities;
  bool isWide = false;
  double seconds = 0;  // 0: no limit
  double gap = 2;
  uint64_t messages = 0;
};

constexpr char kInputHelp[] =
    "A file (KLV, a recording, a transport stream or another container), '-' for KLV on the standard input, or a URL "
    "(udp://ADDRESS:PORT, or what libavformat reads)";

void AddCommon(CLI::App& app, Wishes& wishes) {
  app.add_option("input", wishes.name, kInputHelp)->type_name("FILE|URL")->required();
  app.add_option("--messages", wishes.messages, "Stop after N messages; 0 for no limit (0)")->type_name("N");
  app.add_option("--tls-ca", wishes.authorities,
                 "Of https://: the authorities (PEM) that may sign the server's certificate, in place of the system's")
      ->type_name("FILE");
  app.get_formatter()->column_width(34);
}

void SetUpInspect(CLI::App& app, Wishes& wishes) {
  wishes.format = "text";
  wishes.seconds = kUsualSeconds;
  AddCommon(app, wishes);
  app.add_option("--format", wishes.format, "How the report is printed (text)")
      ->type_name("text|json")
      ->check(CLI::IsMember({"text", "json"}));
  app.add_option("--seconds", wishes.seconds, "How long to look at a URL (5)")
      ->type_name("S")
      ->check(CLI::Range(0.1, kMostSeconds));
  app.add_option("--gap", wishes.gap, "Seconds without a message that count as a gap (2)")
      ->type_name("S")
      ->check(CLI::Range(0.0, kMostSeconds));
}

void SetUpDecode(CLI::App& app, Wishes& wishes) {
  wishes.format = "table";
  AddCommon(app, wishes);
  app.add_option("--format", wishes.format, "How messages are printed: rows, JSON lines, CSV (table)")
      ->type_name("table|json|csv")
      ->check(CLI::IsMember({"table", "json", "csv"}));
  app.add_option("--seconds", wishes.seconds, "How long to read a URL; 0 for no limit (0)")
      ->type_name("S")
      ->check(CLI::Range(0.0, kMostSeconds));
  app.add_option("--columns", wishes.columns, "Columns of the table, as of a run")->type_name("LIST");
  app.add_option("--items", wishes.items, "Items of JSON lines and CSV, as of a run")->type_name("LIST");
  app.add_flag("--wide", wishes.isWide, "Do not fit the table to the terminal; without --columns, show every item");
}

void CheckAuthorities(const Wishes& wishes) {
  const std::string& file = wishes.authorities;
  if (file.empty()) return;
  if (stream_url::Scheme(wishes.name) != "https") throw CLI::ValidationError("--tls-ca is allowed only with https://");
  if (access(file.c_str(), R_OK) == 0) return;
  throw CLI::ValidationError(value_text::Refusal("--tls-ca", file, "a file that can be read") + ": " +
                             std::strerror(errno));
}

// Returns the index of a recording, which is empty for everything else.
common::RecordingIndex IndexOf(const std::string& name) {
  return common::RecordingIndex(stream_url::IsUrl(name) || name == "-" ? "" : name + ".json");
}

PresentationSettings PresentationOf(const Wishes& wishes) {
  PresentationSettings settings;
  if (wishes.format == "json") settings.format = Format::Json;
  if (wishes.format == "csv") settings.format = Format::Csv;
  settings.isWide = wishes.isWide;
  if (!wishes.columns.empty()) {
    const auto columns = ParseColumns(wishes.columns);
    if (!columns) throw CLI::ValidationError(value_text::Refusal("--columns", wishes.columns, kColumnsAllowed));
    settings.columns = *columns;
  } else if (!wishes.isWide) {
    // What is known of a message that was received is not known of one in a file.
    for (const Column& column : UsualColumns()) {
      const bool isKnown = column.kind == Column::Kind::Item || column.kind == Column::Kind::Checksum ||
                           (column.kind == Column::Kind::Arrival && IndexOf(wishes.name).Header());
      if (isKnown) settings.columns.push_back(column);
    }
  }
  if (!wishes.items.empty()) {
    const auto items = ParseItems(wishes.items);
    if (!items) throw CLI::ValidationError(value_text::Refusal("--items", wishes.items, kItemsAllowed));
    settings.items = *items;
  }
  return settings;
}

StreamInputSettings InputOf(const Wishes& wishes, bool onlyData) {
  StreamInputSettings settings;
  settings.name = wishes.name;
  settings.onlyData = onlyData;
  settings.authorities = wishes.authorities;
  if (wishes.seconds > 0) settings.longest = std::chrono::duration<double>(wishes.seconds);
  return settings;
}

// --- Decode ------------------------------------------------------------------------------------------

void PrintLine(const std::string& line) {
  if (std::fputs(line.c_str(), stdout) < 0 || std::fputc('\n', stdout) < 0) {
    throw std::runtime_error("cannot write to standard output");
  }
}

// Prints each message when it is found. Faults are those of an inspection.
class Decoding : public StreamSink {
 public:
  Decoding(const Wishes& wishes, Presentation presentation)
      : m_inspection({wishes.gap, wishes.messages}),
        m_most(wishes.messages),
        m_presentation(std::move(presentation)),
        m_index(IndexOf(wishes.name)) {}

  void OnStream(size_t stream, const StreamInfo& info) override {
    m_inspection.OnStream(stream, info);
    if (!info.mayHoldKlv) return;
    const std::string name = info.id >= 0 ? "pid" + std::to_string(info.id) : "stream" + std::to_string(stream);
    m_walks[stream] =
        std::make_unique<klv_walk::Walk>([this, name](const klv_walk::Found& found) { return OnMessage(name, found); });
  }
  void OnData(size_t stream, st0601::ByteView bytes, std::optional<double> seconds, bool isDamaged) override {
    m_inspection.OnData(stream, bytes, seconds, isDamaged);
    const auto walk = m_walks.find(stream);
    if (walk != m_walks.end()) walk->second->Push(bytes);
  }
  void OnMissing(size_t stream, uint64_t packets) override { m_inspection.OnMissing(stream, packets); }
  bool IsEnough() const override { return m_most != 0 && m_printed >= m_most; }

  const Inspection& Finish() {
    for (const auto& [stream, walk] : m_walks) walk->Finish();
    m_inspection.Finish();
    return m_inspection;
  }

 private:
  bool OnMessage(const std::string& name, const klv_walk::Found& found) {
    if (IsEnough()) return true;
    ++m_printed;
    m_buffer.assign(MDATA_STREAM_HEADER_SIZE, 0);
    m_buffer.insert(m_buffer.end(), found.message.begin(), found.message.end());
    Received received;
    received.name = name;
    received.sequence = found.sequence.value_or(0);
    received.headerLength = static_cast<uint16_t>(found.message.size());
    received.buffer = m_buffer;
    if (const auto line = LineOf(found)) {
      received.timeUs = static_cast<uint64_t>(std::max<int64_t>(line->timeUs, 0));
      received.timeStamp = line->timestamp.value_or(0);
    }
    PrintLine(m_presentation.render(received));
    const st0601::Message message = st0601::Parse(found.message);
    return !message.isUas || (message.isComplete && message.checksum != st0601::ChecksumState::Bad);
  }

  // An index has the places of stream headers, if there are any.
  std::optional<klv_file::IndexLine> LineOf(const klv_walk::Found& found) {
    if (!m_index.Header()) return std::nullopt;
    const uint64_t before = m_index.Header()->hasStreamHeaders ? MDATA_STREAM_HEADER_SIZE : 0;
    return found.offset < before ? std::nullopt : m_index.Find(found.offset - before);
  }

  Inspection m_inspection;
  const uint64_t m_most;
  const Presentation m_presentation;
  common::RecordingIndex m_index;
  std::map<size_t, std::unique_ptr<klv_walk::Walk>> m_walks;
  st0601::Bytes m_buffer;
  uint64_t m_printed = 0;
};

// --- Run ---------------------------------------------------------------------------------------------

int Result(const Inspection& inspection) {
  if (std::fflush(stdout) != 0) throw std::runtime_error("cannot write to standard output");
  return inspection.Messages() != 0 && inspection.Faults() == 0 ? 0 : 1;
}

int Inspect(const Wishes& wishes) {
  Inspection inspection({wishes.gap, wishes.messages});
  const std::string container = ReadStreams(InputOf(wishes, false), inspection);
  inspection.Finish();
  if (wishes.format == "json") {
    PrintLine(inspection.Json(wishes.name, container));
  } else {
    for (const std::string& line : inspection.Text(wishes.name, container)) PrintLine(line);
  }
  return Result(inspection);
}

int Decode(const Wishes& wishes, const PresentationSettings& settings) {
  constexpr size_t kNameWidth = 8;
  Presentation presentation = MakePresentation(settings, kNameWidth, [] { return OutputWidth(STDOUT_FILENO); });
  if (!presentation.header.empty()) PrintLine(presentation.header);
  Decoding decoding(wishes, std::move(presentation));
  ReadStreams(InputOf(wishes, true), decoding);
  const Inspection& inspection = decoding.Finish();
  const int result = Result(inspection);
  if (inspection.Messages() == 0)
    std::fprintf(stderr, "mdencoder: %s has no KLV\n", PrintableText(wishes.name).c_str());
  return result;
}

}  // namespace

std::optional<int> RunQuickLook(int argc, const char* const* argv) {
  const std::string_view command = argc > 1 ? argv[1] : "";
  const bool isInspect = command == "inspect";
  if (!isInspect && command != "decode") return std::nullopt;
  CLI::App app(isInspect ? "mdencoder inspect - tells what is in a file or a live source: streams, standards, items, "
                           "rates, faults and gaps."
                         : "mdencoder decode - prints the messages of a file or a live source.",
               "mdencoder " + std::string(command));
  app.footer("\nExit codes: 0 there were messages and no faults; 1 nothing, or faults; 2 usage.");
  Wishes wishes;
  PresentationSettings presentation;
  try {
    isInspect ? SetUpInspect(app, wishes) : SetUpDecode(app, wishes);
    app.parse(argc - 1, argv + 1);
    presentation = PresentationOf(wishes);
    CheckAuthorities(wishes);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  try {
    return isInspect ? Inspect(wishes) : Decode(wishes, presentation);
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "mdencoder: %s\n", PrintableText(error.what()).c_str());
    return 1;
  }
}

}  // namespace mdencoder
