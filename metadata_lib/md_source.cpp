// SPDX-License-Identifier: Apache-2.0
// The source record and its helpers. See the header.
#include "md_source.h"

#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

constinit MdMutex _g_SrcListLock;
constinit MdMutex _g_SenderLock;

// =====================================================================================================
// The record. Opener and closer; nobody else uses a record that is being made or freed.
// =====================================================================================================

BOOL _AllocKLVInserts(MDATA_SRC_HANDLE hSource) {
  const MDATA_SRC_CFG* config = &hSource->Config;
  hSource->pSecurityMDataSet = nullptr;
  if (config->bClassifyMission) {
    hSource->pSecurityMDataSet =
        AllocSecurityMetadata(config->enClassification, config->szClassifyingCountry, config->szObjectCountry);
    if (hSource->pSecurityMDataSet == nullptr) return FALSE;
    hSource->nSecurityMDataSetSize = hSource->pSecurityMDataSet->Length + 2;
  }
  if (config->szMissionID[0] == '\0') return TRUE;
  hSource->pMissionID = AllocMissionID(config->szMissionID);
  if (hSource->pMissionID == nullptr) {
    free(hSource->pSecurityMDataSet);
    hSource->pSecurityMDataSet = nullptr;
    return FALSE;
  }
  hSource->nMissionIDElementSize = hSource->pMissionID->cLength + 2;
  return TRUE;
}

template <size_t nSize>
static void _Terminate(char (&text)[nSize]) {
  text[nSize - 1] = '\0';
}

MDATA_SRC_HANDLE _AllocSource(const MDATA_SRC_CFG* config) {
  const MDATA_SRC_HANDLE hSource = static_cast<MDATA_SRC_HANDLE>(calloc(1, sizeof(tagMDATA_SRC_HANDLE)));
  if (hSource == nullptr) return nullptr;
  FastInitNode(&hSource->DNode, hSource);
  memcpy(&hSource->dwSignature, "HMDT", sizeof(hSource->dwSignature));
  hSource->iFD = -1;
  hSource->iFDv6 = -1;
  hSource->Config = *config;
  _Terminate(hSource->Config.szMissionID);
  _Terminate(hSource->Config.szClassifyingCountry);
  _Terminate(hSource->Config.szObjectCountry);
  if (config->enDataType == MDATA_DATA_COT) _Terminate(hSource->Config.format.CoT.szSpiUid);
  _AllocKLVInserts(hSource);  // KEPT: the result is ignored; a source without its inserts still receives
  __AllocCounterRateTable(5, "Metadata", &hSource->hOutputRate);
  return hSource;
}

void _FreeSource(MDATA_SRC_HANDLE hSource) {
  free(hSource->pSecurityMDataSet);
  free(hSource->pMissionID);
  if (hSource->hOutputRate != nullptr) DeleteCounterRateTable(hSource->hOutputRate);
  free(hSource);
}

// =====================================================================================================
// Capture files
// =====================================================================================================

// Returns whether an open file is a regular one that belongs to this user and has no second name.
static bool _IsOurOwnFile(int fd) {
  struct stat info = {};
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() && info.st_nlink == 1;
}

FILE* _OpenCaptureFile(const char* path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  FILE* file = nullptr;
  if (_IsOurOwnFile(fd) && ftruncate(fd, 0) == 0) file = fdopen(fd, "w");
  if (file == nullptr) close(fd);
  return file;
}
