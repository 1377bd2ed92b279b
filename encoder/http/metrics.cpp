// SPDX-License-Identifier: Apache-2.0
#include "http/metrics.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>
#include <vector>

#include "http/snapshot.h"

namespace mdencoder::http {
namespace {

// A number in the report of a source.
struct Metric {
  const char* name;
  const char* type;
  const char* help;
  const char* pointer;  // in the report
  double scale = 1;
};

constexpr char kCounter[] = "counter";
constexpr char kGauge[] = "gauge";

constexpr Metric kMetrics[] = {
    {"messages_total", kCounter, "Messages that the library delivered.", "/messages"},
    {"message_bytes_total", kCounter, "Bytes of the delivered messages.", "/bytes"},
    {"received_bytes_total", kCounter, "Bytes that the library received.", "/statistics/rx_bytes"},
    {"received_messages_total", kCounter, "Messages that the library received whole.", "/statistics/rx_ok_messages"},
    {"corrupt_messages_total", kCounter, "Messages that the library discarded.", "/statistics/rx_corrupt_messages"},
    {"bit_rate_bits_per_second", kGauge, "Bit rate that the library measures.", "/statistics/bit_rate_kbps", 1000},
    {"message_rate_per_second", kGauge, "Messages a second over the last five seconds.", "/rate_per_s"},
    {"sequence_gaps_total", kCounter, "Jumps of the sequence number.", "/stream_sequence_gaps"},
    {"sequence_missing_total", kCounter, "Sequence numbers that these jumps skipped.", "/stream_sequence_missing"},
    {"dropped_messages_total", kCounter, "Messages refused with the queue full.", "/dropped"},
    {"kernel_drops_total", kCounter, "Datagrams that the kernel dropped at the sockets.", "/kernel_drops"},
    {"cut_at_buffer_total", kCounter, "Datagrams as long as the library's buffer.", "/cut_at_buffer"},
    {"reopened_total", kCounter, "How often the source was opened again.", "/reopened"},
    {"last_message_age_seconds", kGauge, "Time since the last message.", "/last_message_age_s"},
    {"not_st0601_total", kCounter, "Messages that are not ST 0601 sets.", "/not_st0601"},
    {"incomplete_total", kCounter, "ST 0601 sets whose items do not fill their length.", "/incomplete"},
    {"faults_total", kCounter, "Everything lost, dropped or corrupt.", "/faults"},
    {"recorded_messages_total", kCounter, "Messages in the files of the recording.", "/recording/messages"},
    {"recording_lost_messages_total", kCounter, "Messages that could not be recorded.", "/recording/lost"},
    {"recording_files_total", kCounter, "Files of the recording.", "/recording/files"},
    {"cot_out_events_total", kCounter, "Events of Cursor-on-Target that were sent.", "/cot_out/events"},
    {"cot_out_lost_total", kCounter, "Events of Cursor-on-Target that could not be sent.", "/cot_out/lost"},
    {"ttl", kGauge, "Time to live of the received datagrams, -1 if unknown.", "/statistics/ttl/value"},
    {"tos", kGauge, "Type of service of the received datagrams, -1 if unknown.", "/statistics/tos/value"},
    {"uas_messages_total", kCounter, "UAS messages that were rewritten.", "/statistics/klv/uas_messages"},
    {"invalid_uas_messages_total", kCounter, "UAS messages too broken to rewrite.",
     "/statistics/klv/invalid_uas_messages"},
    {"cot_sensor_point_events_total", kCounter, "Sensor point events received.", "/statistics/cot/sensor_point_events"},
    {"cot_aircraft_events_total", kCounter, "Aircraft events received.", "/statistics/cot/aircraft_events"},
    {"cot_filtered_events_total", kCounter, "Sensor point events of other sensors.",
     "/statistics/cot/filtered_sensor_point_events"},
    {"cot_converted_messages_total", kCounter, "Messages converted from events.", "/statistics/cot/converted_messages"},
};

constexpr Metric kStreamMetrics[] = {
    {"stream_frames_total", kCounter, "Frames in the stream.", "/frames"},
    {"stream_frames_late_total", kCounter, "Frames that were left out because this machine was too slow.",
     "/frames_late"},
    {"stream_messages_total", kCounter, "Messages in the stream.", "/messages"},
    {"stream_lost_messages_total", kCounter, "Messages for which the stream had no room.", "/lost"},
    {"stream_clock_seconds", kGauge, "Time of the stream's last frame.", "/clock"},
    {"stream_wall_offset_seconds", kGauge, "How far the time of day has moved against the stream's clock.",
     "/wall_offset_ms", 0.001},
};

constexpr Metric kTrackMetrics[] = {
    {"stream_source_messages_total", kCounter, "Messages of a source in the stream.", "/messages"},
    {"stream_source_late_messages_total", kCounter, "Messages that came too late for their own time.", "/late"},
    {"stream_source_by_arrival_total", kCounter, "Messages without a time that could be used.", "/by_arrival"},
    {"stream_source_offset_seconds", kGauge, "What is added to the times of a source's messages.", "/offset_ms", 0.001},
    {"stream_source_difference_seconds", kGauge, "From the source's clock to this one, with the time on the way.",
     "/difference_ms", 0.001},
    {"stream_source_drift_ratio", kGauge, "Drift of the source's clock, seconds a second.", "/drift_ppm", 1e-6},
};

constexpr Metric kOutputMetrics[] = {
    {"stream_output_bytes_total", kCounter, "Bytes that an output of the stream took.", "/bytes"},
    {"stream_output_lost_bytes_total", kCounter, "Bytes that an output of the stream did not take.", "/lost"},
};

std::string Escaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\n') {
      escaped += "\\n";
    } else {
      if (c == '\\' || c == '"') escaped += '\\';
      escaped += c;
    }
  }
  return escaped;
}

using Labels = std::vector<std::pair<const char*, std::string>>;

class Writer {
 public:
  void Begin(const std::string& name, const char* type, const std::string& help) {
    m_name = "metadata_" + name;
    m_heading = "# HELP " + m_name + " " + help + "\n# TYPE " + m_name + " " + type + "\n";
  }
  void Add(const Labels& labels, double value) {
    m_text += std::exchange(m_heading, {}) + m_name;
    for (size_t i = 0; i < labels.size(); ++i) {
      m_text += (i == 0 ? "{" : ",") + std::string(labels[i].first) + "=\"" + Escaped(labels[i].second) + "\"";
    }
    char number[40];
    std::snprintf(number, sizeof(number), "%s %.17g\n", labels.empty() ? "" : "}", value);
    m_text += number;
  }
  void One(const std::string& name, const char* type, const std::string& help, double value) {
    Begin(name, type, help);
    Add({}, value);
  }
  std::string Text() { return std::move(m_text); }

 private:
  std::string m_name;
  std::string m_heading;  // in front of the first value
  std::string m_text;
};

std::string NameOf(const Json& source) {
  return source.at("name").get<std::string>();
}

// Returns the value at a place of a report, or null.
const Json& At(const Json& json, const char* pointer) {
  static const Json kNone;
  const Json::json_pointer place(pointer);
  return json.contains(place) ? json.at(place) : kNone;
}

// Adds the metrics of a table, with a value for each object that has the number. `labelsOf` tells its labels.
template <size_t kCount, typename LabelsOf>
void AddTable(Writer& writer, const Metric (&table)[kCount], const Json& objects, const LabelsOf& labelsOf) {
  for (const Metric& metric : table) {
    writer.Begin(metric.name, metric.type, metric.help);
    for (const Json& object : objects) {
      const Json& value = At(object, metric.pointer);
      if (value.is_number()) writer.Add(labelsOf(object), value.get<double>() * metric.scale);
    }
  }
}

void AddSources(Writer& writer, const Json& sources) {
  writer.Begin("source_open", kGauge, "Whether the source is open.");
  for (const Json& source : sources) {
    const Labels labels = {{"source", NameOf(source)},
                           {"input", source.at("input").get<std::string>()},
                           {"data", source.at("data").get<std::string>()}};
    writer.Add(labels, source.at("state") == "open" ? 1 : 0);
  }
  AddTable(writer, kMetrics, sources, [](const Json& source) { return Labels{{"source", NameOf(source)}}; });
}

// Returns the entries of a list in each stream, with the stream's name and their number in it.
Json Parts(const Json& streams, const char* list) {
  Json parts = Json::array();
  for (const Json& stream : streams) {
    const Json& entries = At(stream, list);
    for (size_t i = 0; i < entries.size(); ++i) {
      parts.push_back(entries[i]);
      parts.back()["stream"] = NameOf(stream);
      parts.back()["number"] = std::to_string(i + 1);
    }
  }
  return parts;
}

void AddStreams(Writer& writer, const Json& streams) {
  const auto labels = [](const Json& stream) { return Labels{{"stream", NameOf(stream)}}; };
  writer.Begin("stream_has_video", kGauge, "Whether pictures are coming.");
  for (const Json& stream : streams) writer.Add(labels(stream), At(stream, "/has_video") == true ? 1 : 0);
  AddTable(writer, kStreamMetrics, streams, labels);
  AddTable(writer, kTrackMetrics, Parts(streams, "/tracks"), [](const Json& track) {
    return Labels{{"stream", track.at("stream").get<std::string>()}, {"source", track.at("source").get<std::string>()}};
  });
  const Json outputs = Parts(streams, "/outputs");
  const auto outputLabels = [](const Json& output) {
    return Labels{{"stream", output.at("stream").get<std::string>()},
                  {"output", output.at("number").get<std::string>()},
                  {"destination", NameOf(output)}};
  };
  writer.Begin("stream_output_good", kGauge, "Whether an output of the stream can be written.");
  for (const Json& output : outputs) writer.Add(outputLabels(output), output.at("good") == true ? 1 : 0);
  AddTable(writer, kOutputMetrics, outputs, outputLabels);
}

// Adds a metric with a label for each count of an object.
void AddCounts(Writer& writer, const Json& sources, const char* name, const char* help, const char* label,
               const char* pointer) {
  writer.Begin(name, kCounter, help);
  for (const Json& source : sources) {
    const Json& counts = At(source, pointer);
    if (!counts.is_object()) continue;
    for (const auto& [key, value] : counts.items()) {
      if (value.is_number()) writer.Add({{"source", NameOf(source)}, {label, key}}, value.get<double>());
    }
  }
}

void AddRelays(Writer& writer, const Json& sources) {
  constexpr std::pair<const char*, const char*> kCounts[] = {{"messages", "Messages that were relayed."},
                                                             {"bytes", "Bytes that were relayed."},
                                                             {"errors", "Messages that could not be relayed."}};
  for (const auto& [key, help] : kCounts) {
    writer.Begin(std::string("relay_") + key + "_total", kCounter, help);
    for (const Json& source : sources) {
      int number = 0;
      for (const Json& relay : At(source, "/statistics/relays")) {
        const Labels labels = {{"source", NameOf(source)},
                               {"relay", std::to_string(++number)},
                               {"destination", relay.at("destination").get<std::string>()}};
        writer.Add(labels, relay.at(key).get<double>());
      }
    }
  }
}

void AddSensors(Writer& writer, const Json& sources) {
  writer.Begin("cot_sensors", kGauge, "Sensors of Cursor-on-Target that were discovered.");
  for (const Json& source : sources) {
    const Json& sensors = At(source, "/statistics/cot/sensors");
    if (sensors.is_array()) writer.Add({{"source", NameOf(source)}}, static_cast<double>(sensors.size()));
  }
}

void AddProgram(Writer& writer, const MetricsInput& input) {
  writer.Begin("build_info", kGauge, "The program's version; always 1.");
  writer.Add({{"version", input.version}}, 1);
  writer.One("start_time_seconds", kGauge, "When the program was started, in seconds since 1970.", input.startSeconds);
  writer.One("healthy", kGauge, "Whether nothing is wrong, as /healthz says it.", input.state.troubles.empty() ? 1 : 0);
  writer.One("queue_messages", kGauge, "Messages that wait for the recorder.",
             static_cast<double>(input.state.waiting));
  if (input.state.silentFor) {
    writer.One("thread_silence_seconds", kGauge, "Time since the last sign of the metadata thread.",
               *input.state.silentFor);
  }
}

void AddPage(Writer& writer, const MetricsInput& input) {
  const auto count = [&](const char* name, const char* help, uint64_t value) {
    writer.One(name, kCounter, help, static_cast<double>(value));
  };
  count("page_messages_total", "Messages that the page could show.", input.hub.taken);
  count("page_left_out_total", "Messages that were left out of the page because it was behind.", input.hub.leftOut);
  writer.One("page_lag_seconds", kGauge, "Time from the newest message's arrival to the page.", input.hub.lag);
  writer.One("http_connections", kGauge, "Open connections.", static_cast<double>(input.server.connections));
  writer.One("http_flows", kGauge, "Clients of events and streams.", static_cast<double>(input.server.flows));
  count("http_accepted_total", "Connections that were accepted.", input.server.accepted);
  count("http_turned_away_total", "Connections that were turned away because there were too many.",
        input.server.turnedAway);
  count("http_requests_total", "Requests that were answered.", input.server.requests);
  count("http_refused_total", "Requests that were refused.", input.server.refused);
  count("http_slow_total", "Clients that were closed because they did not read.", input.server.slow);
}

}  // namespace

std::string MetricsText(const MetricsInput& input) {
  Writer writer;
  const Json& sources = input.state.sources;
  AddProgram(writer, input);
  AddSources(writer, sources);
  AddCounts(writer, sources, "checksums_total", "Messages by the state of their checksum.", "state", "/checksum");
  AddCounts(writer, sources, "capture_total", "Counts of a video input's capture, by kind.", "count", "/capture");
  AddCounts(writer, sources, "tak_total", "Counts of the front end of a TAK network, by kind.", "count", "/tak");
  AddRelays(writer, sources);
  AddSensors(writer, sources);
  AddStreams(writer, input.streams == nullptr ? Json::array() : *input.streams);
  AddPage(writer, input);
  return writer.Text();
}

}  // namespace mdencoder::http
