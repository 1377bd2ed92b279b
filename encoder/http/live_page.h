// SPDX-License-Identifier: Apache-2.0
// The page of a run and its interface for programs: everything behind the key http.
#ifndef MDENCODER_HTTP_LIVE_PAGE_H
#define MDENCODER_HTTP_LIVE_PAGE_H

#include <functional>
#include <string>
#include <vector>

#include "annotated_mutex.h"
#include "http/api.h"
#include "http/assets.h"
#include "http/hub.h"
#include "http/server.h"
#include "http/settings.h"
#include "source_keeper.h"

namespace mdencoder::http {

struct LivePageSettings {
  HttpSettings http;
  std::string version;
  std::vector<std::string> folders;  // of recordings
  StreamView streams;
  Hub::Presenter presenter;
  std::function<void(const std::string& line)> say;  // a warning; any thread calls it
};

class LivePage {
 public:
  // Opens the port. Throws ConfigError for a file that cannot be used, std::runtime_error for a port that cannot be had.
  explicit LivePage(LivePageSettings settings);
  ~LivePage();
  LivePage(const LivePage&) = delete;
  LivePage& operator=(const LivePage&) = delete;

  // Takes what there is to show.
  Hub& Inbox() { return m_hub; }
  // Answers clients from now on. Call it after the first snapshot.
  void Start() { m_server.Start(); }
  // Tells the clients that this is the end, and closes their connections.
  void Stop();

 private:
  ApiSettings MakeApiSettings(LivePageSettings& settings);

  common::Mutex m_mutex;  // leaf
  Allowance m_lines GUARDED_BY(m_mutex);
  const std::function<void(const std::string& line)> m_say;
  const Assets m_assets;
  Hub m_hub;
  const Api m_api;
  Server m_server;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_LIVE_PAGE_H
