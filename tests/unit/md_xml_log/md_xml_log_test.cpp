// SPDX-License-Identifier: Apache-2.0
// Tests of the capture of CoT XML: numbering, the last byte, lost events, write errors, replacing the file.
#include "md_xml_log.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <string>
#include <thread>

#include "fake_host.h"
#include "md_atomic.h"

namespace {

class XmlLogTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    g_nXMLEventCount = 0;
  }
  void TearDown() override {
    _ReplaceXMLOutFile(nullptr);
    free(m_text);
    HostTest::TearDown();
  }

  void Open() { _ReplaceXMLOutFile(open_memstream(&m_text, &m_size)); }
  // Opens a file on which every write fails at once.
  static void OpenFullDisk() {
    FILE* fp = fopen("/dev/full", "w");
    ASSERT_NE(fp, nullptr);
    setvbuf(fp, nullptr, _IONBF, 0);
    _ReplaceXMLOutFile(fp);
  }
  std::string Close() {
    _ReplaceXMLOutFile(nullptr);
    return {m_text, m_size};
  }
  static void LogEvent(const std::string& message) {
    Bytes bytes(message.begin(), message.end());
    MDATA_BUFFER buffer = {};
    buffer.pcData = bytes.data();
    buffer.nDataSize = static_cast<int>(bytes.size());
    _LogXMLEvent(&buffer);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), message);
  }
  static std::string TimeText() {
    char text[40];
    return GenTimeStamp(host().NowSeconds(), text, sizeof(text));
  }

  char* m_text = nullptr;
  size_t m_size = 0;
};

constexpr char kDiskFull[] = "Unable to write to the XML event log, errno=28, \"No space left on device\".\n";

TEST_F(XmlLogTest, EventsAreNumberedAndALostOneIsCounted) {
  Open();
  LogEvent("U#1<a/>\n");
  _LogLostXMLEvent(7);
  host().Advance(5000);
  const std::string later = TimeText();
  LogEvent("U#1<b/>\n");
  host().Advance(-5000);
  EXPECT_EQ(g_nXMLEventCount, 3);
  EXPECT_EQ(Close(), "XML Event #1 at " + TimeText() + "\nU#1<a/>\n\n" + "\nLOST XML Event #7\n" + "XML Event #3 at " +
                         later + "\nU#1<b/>\n\n");
}

TEST_F(XmlLogTest, LastByteIsOmittedAndTheTextEndsAtAZero) {
  Open();
  LogEvent("U");
  LogEvent(std::string("U#1<a/>\0<b/>>", 13));
  EXPECT_EQ(Close(), "XML Event #1 at " + TimeText() + "\n\n\n" + "XML Event #2 at " + TimeText() + "\nU#1<a/>\n\n");
}

TEST_F(XmlLogTest, EventsAreNotNumberedWithoutACapture) {
  LogEvent("U#1<a/>");
  _LogLostXMLEvent(1);
  EXPECT_EQ(g_nXMLEventCount, 0);
}

TEST_F(XmlLogTest, NumbersContinueInTheNextCapture) {
  Open();
  LogEvent("U#1<a/>");
  Close();
  free(m_text);
  m_text = nullptr;
  Open();
  LogEvent("U#1<b/>");
  EXPECT_EQ(Close(), "XML Event #2 at " + TimeText() + "\nU#1<b/\n\n");
}

TEST_F(XmlLogTest, ReplacingClosesThePreviousFile) {
  Open();
  LogEvent("U#1<a/>");
  char* text = nullptr;
  size_t size = 0;
  _ReplaceXMLOutFile(open_memstream(&text, &size));
  EXPECT_NE(m_size, 0u);  // a memory stream reports its size when it is closed
  LogEvent("U#1<b/>");
  _ReplaceXMLOutFile(nullptr);
  EXPECT_EQ(g_XMLOutFP, nullptr);
  EXPECT_EQ(std::string(m_text, m_size).find("<b/"), std::string::npos);
  EXPECT_NE(std::string(text, size).find("<b/"), std::string::npos);
  free(text);
}

TEST_F(XmlLogTest, WriteErrorIsReportedOncePerFileUnderTheLinksName) {
  OpenFullDisk();
  LogEvent("U#1<a/>");
  ExpectLog(3, kDiskFull);
  EXPECT_EQ(host().Logs().back().file, "cot_support");
  EXPECT_EQ(host().Logs().back().module, "METADATALIB");
  LogEvent("U#1<b/>");
  _LogLostXMLEvent(1);
  EXPECT_EQ(CountLogs(3, kDiskFull), 1);
  OpenFullDisk();
  _LogLostXMLEvent(2);
  ExpectLog(3, kDiskFull);
  EXPECT_EQ(CountLogs(3, kDiskFull), 2);
}

TEST_F(XmlLogTest, CaptureMayBeReplacedWhileEventsAreWritten) {
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    while (!stop) {
      LogEvent("U#1<a/>");
      _LogLostXMLEvent(1);
    }
  });
  for (int i = 0; i < 500; ++i) {
    _ReplaceXMLOutFile(fopen("/dev/null", "w"));
    std::this_thread::yield();
    if (i % 3 == 0) _ReplaceXMLOutFile(nullptr);
  }
  stop = true;
  writer.join();
  EXPECT_GE(MdLoad(g_nXMLEventCount), 0);
}

}  // namespace
