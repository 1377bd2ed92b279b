// SPDX-License-Identifier: Apache-2.0
// Shared by the host runtime's tests: a fixture that keeps the log and has a folder of its own.
#ifndef RUNTIME_TEST_H
#define RUNTIME_TEST_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host.h"
#include "host_runtime.h"

#define HERE "_Test", "test", __LINE__

class RuntimeTest : public testing::Test {
 protected:
  RuntimeTest() {
    m_config.console = false;
    m_config.logLevel = 8;
    EXPECT_TRUE(HostRuntime_Apply(m_config));
    HostRuntime_OnLog([log = m_log](const HostLogLine& line) {
      const std::lock_guard guard(log->lock);
      EXPECT_NE(line.function, "operator()") << line.text;
      log->lines.push_back(line);
    });
  }
  ~RuntimeTest() override {
    HostRuntime_OnLog(nullptr);
    HostRuntimeConfig quiet;
    quiet.console = false;
    HostRuntime_Apply(quiet);
    if (!m_folder.empty()) std::filesystem::remove_all(m_folder);
  }

  void Apply() {
    std::string error;
    EXPECT_TRUE(HostRuntime_Apply(m_config, &error)) << error;
  }

  std::vector<HostLogLine> Lines() {
    const std::lock_guard guard(m_log->lock);
    return m_log->lines;
  }
  // Returns the texts of a module's lines.
  std::vector<std::string> Texts(const std::string& module = "HOST") {
    std::vector<std::string> texts;
    for (const HostLogLine& line : Lines()) {
      if (line.module == module) texts.push_back(line.text);
    }
    return texts;
  }

  std::string Folder() {
    if (m_folder.empty()) {
      std::string pattern = testing::TempDir() + "host_runtime_XXXXXX";
      if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "no folder " << pattern;
      m_folder = pattern;
    }
    return m_folder;
  }
  std::string WriteFile(const std::string& name, const std::string& text) {
    std::string path = Folder() + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  HostRuntimeConfig m_config;

 private:
  // A thread of the runtime may be in the middle of a line when the test ends.
  struct Log {
    std::mutex lock;
    std::vector<HostLogLine> lines;
  };
  const std::shared_ptr<Log> m_log = std::make_shared<Log>();
  std::string m_folder;
};

// Waits for the work of another thread, for at most ten seconds.
inline bool Eventually(const std::function<bool()>& done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

#endif  // RUNTIME_TEST_H
