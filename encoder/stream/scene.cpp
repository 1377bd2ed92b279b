// SPDX-License-Identifier: Apache-2.0
#include "scene.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace mdencoder {
namespace {

constexpr char kFont[] = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf";
constexpr char kKey[] = "line";  // of the picture's metadata, with the number of the line

AVFilterContext* Add(AVFilterGraph* graph, const char* filter, const char* name, const std::string& arguments) {
  AVFilterContext* made = nullptr;
  av::Require(avfilter_graph_create_filter(&made, av::Require(avfilter_get_by_name(filter), filter), name,
                                           arguments.empty() ? nullptr : arguments.c_str(), nullptr, graph),
              filter);
  return made;
}

av::Graph MakeGraph() {
  av::Graph graph(av::Require(avfilter_graph_alloc(), "filters"));
  graph->nb_threads = 1;
  return graph;
}

void Link(AVFilterContext* from, AVFilterContext* to) {
  av::Require(avfilter_link(from, 0, to, 0), "filters");
}

std::string Rate(double rate) {
  return std::to_string(std::lround(rate * 1000)) + "/1000";
}

std::string PositionText(const st0601::Position& position) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.6f %c  %.6f %c", std::abs(position.latitude), position.latitude < 0 ? 'S' : 'N',
                std::abs(position.longitude), position.longitude < 0 ? 'W' : 'E');
  return text;
}

std::string TimeText(uint64_t timeUs) {
  const auto seconds = static_cast<time_t>(timeUs / 1'000'000);
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[64];
  const size_t used = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
  std::snprintf(text + used, sizeof(text) - used, ".%03uZ", static_cast<unsigned>(timeUs / 1000 % 1000));
  return text;
}

}  // namespace

Scene::Scene(const SceneSettings& settings)
    : m_plain(av::Require(av_frame_alloc(), "picture")),
      m_written(av::Require(av_frame_alloc(), "picture")),
      m_hasText(access(kFont, R_OK) == 0) {
  MakeBackground(settings);
  if (m_hasText) MakeText(settings);
}

void Scene::MakeBackground(const SceneSettings& settings) {
  m_background = MakeGraph();
  AVFilterContext* const picture = Add(m_background.get(), "testsrc2", "picture",
                                       "size=" + std::to_string(settings.width) + "x" +
                                           std::to_string(settings.height) + ":rate=" + Rate(settings.rate));
  AVFilterContext* const format = Add(m_background.get(), "format", "format", "pix_fmts=yuv420p");
  m_backgroundEnd = Add(m_background.get(), "buffersink", "end", "");
  Link(picture, format);
  Link(format, m_backgroundEnd);
  av::Require(avfilter_graph_config(m_background.get(), nullptr), "filters");
}

// The text is in the picture's metadata, so that no character of it is a command of the filter.
void Scene::MakeText(const SceneSettings& settings) {
  m_text = MakeGraph();
  m_textBegin = Add(m_text.get(), "buffer", "begin",
                    "video_size=" + std::to_string(settings.width) + "x" + std::to_string(settings.height) +
                        ":pix_fmt=yuv420p:time_base=1/90000:pixel_aspect=1/1");
  AVFilterContext* last = m_textBegin;
  const int size = std::max(10, settings.height / 20);
  for (size_t line = 0; line < kLines; ++line) {
    const std::string name = kKey + std::to_string(line);
    AVFilterContext* const text = Add(
        m_text.get(), "drawtext", name.c_str(),
        std::string("fontfile=") + kFont + ":text='%{metadata:" + name + "}':fontcolor=white:box=1:boxcolor=black@0.6" +
            ":boxborderw=4:x=8:y=" + std::to_string(8 + static_cast<int>(line) * (size + 9)) +
            ":fontsize=" + std::to_string(size));
    Link(last, text);
    last = text;
  }
  m_textEnd = Add(m_text.get(), "buffersink", "end", "");
  Link(last, m_textEnd);
  av::Require(avfilter_graph_config(m_text.get(), nullptr), "filters");
}

AVFrame* Scene::Next(const std::array<std::string, kLines>& lines) {
  av_frame_unref(m_plain.get());
  av::Require(av_buffersink_get_frame(m_backgroundEnd, m_plain.get()), "picture");
  if (!m_hasText) return m_plain.get();
  for (size_t line = 0; line < kLines; ++line) {
    // A blank takes the place of nothing, which the filter would not draw but say so.
    const char* const text = lines.at(line).empty() ? " " : lines.at(line).c_str();
    av::Require(av_dict_set(&m_plain->metadata, (kKey + std::to_string(line)).c_str(), text, 0), "picture");
  }
  av_frame_unref(m_written.get());
  av::Require(av_buffersrc_add_frame(m_textBegin, m_plain.get()), "picture");
  av::Require(av_buffersink_get_frame(m_textEnd, m_written.get()), "picture");
  return m_written.get();
}

std::array<std::string, Scene::kLines> SceneLines(const std::string& stream, uint64_t timeUs,
                                                  const st0601::Observation& seen) {
  std::array<std::string, Scene::kLines> lines;
  lines[0] = stream + "  " + TimeText(timeUs);
  lines[1] = seen.platform ? PositionText(*seen.platform) : "no position";
  char text[96];
  int used = 0;
  if (seen.heading) used = std::snprintf(text, sizeof(text), "heading %.1f deg", *seen.heading);
  if (seen.platform && seen.platform->altitude) {
    used += std::snprintf(text + used, sizeof(text) - static_cast<size_t>(used), "%saltitude %.0f m",
                          used == 0 ? "" : "  ", *seen.platform->altitude);
  }
  if (used != 0) lines[2] = text;
  if (seen.timeUs) lines[3] = "message " + TimeText(*seen.timeUs);
  return lines;
}

}  // namespace mdencoder
