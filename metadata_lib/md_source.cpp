// The source record and its helpers. See the header.
#include "md_source.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

// =====================================================================================================
// The record. Opener and closer; nobody else uses a record that is being made or freed.
// =====================================================================================================

BOOL _AllocKLVInserts(MDATA_SRC_HANDLE pHandle) {
  const MDATA_SRC_CFG* pCfg = &pHandle->Config;
  pHandle->pSecurityMDataSet = nullptr;
  if (pCfg->bClassifyMission) {
    pHandle->pSecurityMDataSet =
        AllocSecurityMetadata(pCfg->enClassification, pCfg->szClassifyingCountry, pCfg->szObjectCountry);
    if (pHandle->pSecurityMDataSet == nullptr) return FALSE;
    pHandle->nSecurityMDataSetSize = pHandle->pSecurityMDataSet->Length + 2;
  }
  if (pCfg->szMissionID[0] == '\0') return TRUE;
  pHandle->pMissionID = AllocMissionID(pCfg->szMissionID);
  if (pHandle->pMissionID == nullptr) {
    free(pHandle->pSecurityMDataSet);
    pHandle->pSecurityMDataSet = nullptr;
    return FALSE;
  }
  pHandle->nMissionIDElementSize = pHandle->pMissionID->cLength + 2;
  return TRUE;
}

template <size_t nSize>
static void _Terminate(char (&szText)[nSize]) {
  szText[nSize - 1] = '\0';
}

MDATA_SRC_HANDLE _AllocSource(const MDATA_SRC_CFG* pCfg) {
  const MDATA_SRC_HANDLE pHandle = static_cast<MDATA_SRC_HANDLE>(calloc(1, sizeof(tagMDATA_SRC_HANDLE)));
  if (pHandle == nullptr) return nullptr;
  FastInitNode(&pHandle->DNode, pHandle);
  memcpy(&pHandle->dwSignature, "HMDT", sizeof(pHandle->dwSignature));
  pHandle->iFD = -1;
  pHandle->iFDv6 = -1;
  pHandle->Config = *pCfg;
  _Terminate(pHandle->Config.szMissionID);
  _Terminate(pHandle->Config.szClassifyingCountry);
  _Terminate(pHandle->Config.szObjectCountry);
  if (pCfg->enDataType == MDATA_DATA_COT) _Terminate(pHandle->Config.format.CoT.szSpiUid);
  _AllocKLVInserts(pHandle);  // KEPT: the result is ignored; a source without its inserts still receives
  __AllocCounterRateTable(5, "Metadata", &pHandle->hOutputRate);
  return pHandle;
}

void _FreeSource(MDATA_SRC_HANDLE pHandle) {
  free(pHandle->pSecurityMDataSet);
  free(pHandle->pMissionID);
  if (pHandle->hOutputRate != nullptr) DeleteCounterRateTable(pHandle->hOutputRate);
  free(pHandle);
}

// =====================================================================================================
// Capture files
// =====================================================================================================

// Returns whether an open file is a regular one that belongs to this user and has no second name.
static bool _IsOurOwnFile(int iFD) {
  struct stat Info = {};
  return fstat(iFD, &Info) == 0 && S_ISREG(Info.st_mode) && Info.st_uid == geteuid() && Info.st_nlink == 1;
}

FILE* _OpenCaptureFile(const char* szPath) {
  const int iFD = open(szPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (iFD < 0) return nullptr;
  FILE* pFile = nullptr;
  if (_IsOurOwnFile(iFD) && ftruncate(iFD, 0) == 0) pFile = fdopen(iFD, "w");
  if (pFile == nullptr) close(iFD);
  return pFile;
}
