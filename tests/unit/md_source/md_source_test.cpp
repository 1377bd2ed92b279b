// SPDX-License-Identifier: Apache-2.0
// Tests of the source record (its copy of the configuration, the elements to insert, its release) and of the helpers
// for descriptors and capture files.
#include "md_source.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "fake_host.h"

namespace {

class SourceRecordTest : public HostTest {
 protected:
  static MDATA_SRC_CFG Config() {
    MDATA_SRC_CFG config = {};
    config.nSize = sizeof(config);
    config.nIndex = 7;
    config.enInputType = MDATA_INPUT_NETWORK;
    config.enDataType = MDATA_DATA_KLV;
    return config;
  }
};

TEST_F(SourceRecordTest, StartsEmptyWithACopyOfTheConfiguration) {
  const MDATA_SRC_CFG config = Config();
  const MDATA_SRC_HANDLE record = _AllocSource(&config);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(memcmp(&record->dwSignature, "HMDT", 4), 0);
  EXPECT_EQ(record->DNode.pvObject, record);
  EXPECT_EQ(record->iFD, -1);
  EXPECT_EQ(record->iFDv6, -1);
  EXPECT_EQ(record->Config.nIndex, 7);
  EXPECT_EQ(record->CaptureFP, nullptr);
  EXPECT_EQ(record->pMissionID, nullptr);
  EXPECT_EQ(record->pSecurityMDataSet, nullptr);
  EXPECT_NE(record->hOutputRate, nullptr);
  EXPECT_EQ(host().rateName, "Metadata");
  EXPECT_EQ(host().rateSamples, 5);
  _FreeSource(record);
}

TEST_F(SourceRecordTest, TextsOfTheCopyAreTerminated) {
  MDATA_SRC_CFG config = Config();
  config.enDataType = MDATA_DATA_COT;
  memset(config.szMissionID, 'A', sizeof(config.szMissionID));
  memset(config.format.CoT.szSpiUid, 'B', sizeof(config.format.CoT.szSpiUid));
  const MDATA_SRC_HANDLE record = _AllocSource(&config);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(strlen(record->Config.szMissionID), sizeof(config.szMissionID) - 1);
  EXPECT_EQ(strlen(record->Config.format.CoT.szSpiUid), sizeof(config.format.CoT.szSpiUid) - 1);
  EXPECT_EQ(config.szMissionID[sizeof(config.szMissionID) - 1], 'A') << "the caller's stays as it is";
  _FreeSource(record);
}

TEST_F(SourceRecordTest, NoRecordIsMadeIfOutOfMemory) {
  const MDATA_SRC_CFG config = Config();
  host().FailNext("calloc");
  EXPECT_EQ(_AllocSource(&config), nullptr);
}

TEST_F(SourceRecordTest, InsertsCarryTheirSizesAndAreFreed) {
  MDATA_SRC_CFG config = Config();
  strcpy(config.szMissionID, "MISSION");
  config.bClassifyMission = TRUE;
  strcpy(config.szClassifyingCountry, "FRA");
  strcpy(config.szObjectCountry, "FRA");
  const MDATA_SRC_HANDLE record = _AllocSource(&config);
  ASSERT_NE(record, nullptr);
  ASSERT_NE(record->pMissionID, nullptr);
  EXPECT_EQ(record->nMissionIDElementSize, 9);
  ASSERT_NE(record->pSecurityMDataSet, nullptr);
  EXPECT_EQ(record->nSecurityMDataSetSize, record->pSecurityMDataSet->Length + 2);
  _FreeSource(record);  // the sanitizer reports what it does not free
}

TEST_F(SourceRecordTest, InvalidCountryLeavesNoInserts) {
  MDATA_SRC_CFG config = Config();
  strcpy(config.szMissionID, "MISSION");
  config.bClassifyMission = TRUE;
  strcpy(config.szClassifyingCountry, "FR");
  const MDATA_SRC_HANDLE record = _AllocSource(&config);
  ASSERT_NE(record, nullptr) << "a source without its inserts still receives";
  EXPECT_EQ(record->pSecurityMDataSet, nullptr);
  EXPECT_EQ(record->pMissionID, nullptr);
  EXPECT_FALSE(_AllocKLVInserts(record));
  ExpectLog(3, "Unsupported country length=2.\n");
  ExpectLog(3, "Unsupported country length=2.\n");
  _FreeSource(record);
}

TEST(SourceHelpersTest, DescriptorIsClosedOnce) {
  int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const int number = fd;
  _CloseDescriptor(fd);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(fcntl(number, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
  _CloseDescriptor(fd);
  EXPECT_EQ(fd, -1);
}

TEST(SourceHelpersTest, FileIsClosedOnce) {
  char* text = nullptr;
  size_t size = 0;
  FILE* file = open_memstream(&text, &size);
  fputs("abc", file);
  _CloseFile(file);
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(std::string(text, size), "abc") << "closing wrote it";
  _CloseFile(file);
  free(text);
}

class CaptureFileTest : public HostTest {};

TEST_F(CaptureFileTest, OnlyTheOwnerMayReadANewFile) {
  FILE* file = _OpenCaptureFile("/tmp/capture.txt");
  ASSERT_NE(file, nullptr);
  struct stat info = {};
  EXPECT_EQ(fstat(fileno(file), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  _CloseFile(file);
}

TEST_F(CaptureFileTest, ExistingFileIsTruncated) {
  host().WriteFile("/tmp/capture.txt", "earlier");
  FILE* file = _OpenCaptureFile("/tmp/capture.txt");
  ASSERT_NE(file, nullptr);
  fputs("now", file);
  _CloseFile(file);
  EXPECT_EQ(host().ReadFile("/tmp/capture.txt"), "now");
}

TEST_F(CaptureFileTest, PlantedFilesAreNotWritten) {
  host().WriteFile("/tmp/linked.txt", "theirs");
  host().PlantLink("/tmp/link.txt", "/tmp/linked.txt");
  host().WriteFile("/tmp/other.txt", "theirs");
  host().PlantHardLink("/tmp/second.txt", "/tmp/other.txt");
  host().PlantFifo("/tmp/pipe.txt");
  EXPECT_EQ(_OpenCaptureFile("/tmp/link.txt"), nullptr);
  EXPECT_EQ(_OpenCaptureFile("/tmp/second.txt"), nullptr);
  EXPECT_EQ(_OpenCaptureFile("/tmp/pipe.txt"), nullptr);
  EXPECT_EQ(host().ReadFile("/tmp/linked.txt"), "theirs");
  EXPECT_EQ(host().ReadFile("/tmp/other.txt"), "theirs");
}

TEST_F(CaptureFileTest, FileOfAnotherUserIsLeftUnchanged) {
  host().WriteFile("/tmp/capture.txt", "theirs");
  host().FailNext("geteuid", {.result = 12345});
  EXPECT_EQ(_OpenCaptureFile("/tmp/capture.txt"), nullptr);
  EXPECT_EQ(host().ReadFile("/tmp/capture.txt"), "theirs");
}

}  // namespace
