// SPDX-License-Identifier: Apache-2.0
#include "http/live_page.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <utility>

#include "wall_clock.h"

namespace mdencoder::http {
namespace {

std::string NewRun() {
  char text[16];
  std::snprintf(text, sizeof(text), "%08x", std::random_device()());
  return text;
}

}  // namespace

LivePage::LivePage(LivePageSettings settings)
    : m_lines(kLinesAtOnce, kLineEach),
      m_say(settings.say),
      m_hub(std::move(settings.presenter)),
      m_api(MakeApiSettings(settings), m_hub, m_assets),
      m_server(settings.http, m_api, m_say) {}

LivePage::~LivePage() {
  Stop();
}

// What clients can cause as often as they like is said now and then.
ApiSettings LivePage::MakeApiSettings(LivePageSettings& settings) {
  ApiSettings api;
  api.version = settings.version;
  api.run = NewRun();
  api.startUs = common::WallClockUs();
  api.tiles = settings.http.tiles;
  api.attribution = settings.http.attribution;
  std::sort(settings.folders.begin(), settings.folders.end());
  settings.folders.erase(std::unique(settings.folders.begin(), settings.folders.end()), settings.folders.end());
  api.folders = std::move(settings.folders);
  api.streams = std::move(settings.streams);
  api.say = [this](const std::string& line) {
    {
      const common::Lock lock(m_mutex);
      if (!m_lines.Take(std::chrono::steady_clock::now())) return;
    }
    m_say(line);
  };
  return api;
}

void LivePage::Stop() {
  m_hub.Stop();
  m_server.Stop();
}

}  // namespace mdencoder::http
