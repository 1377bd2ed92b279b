// Time, text, lists and tag names.
#include <stdarg.h>
#include <sys/time.h>
#include <time.h>

#include <cstdio>
#include <cstring>

#include "runtime.h"
#include "st0601_items.h"

extern "C" {

BOOL GetSystemUPTime(UINT32* pnSeconds) {
  timespec now;
  if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) return FALSE;
  *pnSeconds = static_cast<UINT32>(now.tv_sec);
  return TRUE;
}

char* GenTimeStamp(time_t tTime, char* szBuffer, int nSize) {
  tm broken;
  if (nSize <= 0) return szBuffer;
  szBuffer[0] = '\0';
  if (localtime_r(&tTime, &broken) != nullptr)
    strftime(szBuffer, static_cast<size_t>(nSize), "%Y-%m-%d %H:%M:%S", &broken);
  return szBuffer;
}

void CalcTimeOfDayDiff(const struct timeval* pStart, const struct timeval* pEnd, struct timeval* pDiff) {
  *pDiff = {0, 0};
  if (timercmp(pEnd, pStart, >)) timersub(pEnd, pStart, pDiff);
}

void CalcTimeOfDayAbsDiff(const struct timeval* pA, const struct timeval* pB, struct timeval* pDiff) {
  if (timercmp(pA, pB, >))
    timersub(pA, pB, pDiff);
  else
    timersub(pB, pA, pDiff);
}

int PrintToString(char* szBuffer, int nSize, const char* szFormat, ...) {
  if (nSize <= 0) return 0;
  va_list arguments;
  va_start(arguments, szFormat);
  const int length = vsnprintf(szBuffer, static_cast<size_t>(nSize), szFormat, arguments);
  va_end(arguments);
  if (length < 0) szBuffer[0] = '\0';
  return length < 0 ? 0 : (length < nSize ? length : nSize - 1);
}

void CopyString(char* szDestination, const char* szSource, int nSize) {
  if (nSize <= 0) return;
  const size_t length = strnlen(szSource, static_cast<size_t>(nSize) - 1);
  memcpy(szDestination, szSource, length);
  szDestination[length] = '\0';
}

const char* GetUAVTagName(BYTE cTag) {
  const st0601::Item* item = st0601::FindItem(cTag);
  return item == nullptr ? "Unknown" : item->name;
}

const char* GetSecurityTagName(BYTE cTag) {
  const st0601::Item* element = st0601::FindSecurityElement(cTag);
  return element == nullptr ? "Unknown" : element->name;
}

void FastInitNode(FNODE_D* pNode, void* pvObject) {
  *pNode = {nullptr, nullptr, pvObject};
}

void FastLinkD(FLIST_D* pList, FNODE_D* pNode) {
  pNode->pNext = nullptr;
  pNode->pPrev = pList->pTail;
  (pList->pTail != nullptr ? pList->pTail->pNext : pList->pHead) = pNode;
  pList->pTail = pNode;
}

void FastUnlinkD(FLIST_D* pList, FNODE_D* pNode) {
  (pNode->pPrev != nullptr ? pNode->pPrev->pNext : pList->pHead) = pNode->pNext;
  (pNode->pNext != nullptr ? pNode->pNext->pPrev : pList->pTail) = pNode->pPrev;
  pNode->pNext = pNode->pPrev = nullptr;
}

}  // extern "C"
