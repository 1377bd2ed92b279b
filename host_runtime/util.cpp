// SPDX-License-Identifier: Apache-2.0
// Times, texts, the library's INI keys, and tag names.
#define HOST_MODULE "util"

#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "ini_text.h"
#include "runtime_state.h"
#include "st0601_items.h"
#include "text_file.h"

using namespace host_runtime;

bool HostRuntime_TimeDifference(int64_t* microseconds) {
  if (g_timeDifference.isKnown) *microseconds = g_timeDifference.microseconds;
  return g_timeDifference.isKnown;
}

extern "C" {

BOOL GetSystemUPTime(UINT32* pnSeconds) {
  timespec now{};
  if (pnSeconds == nullptr || clock_gettime(CLOCK_BOOTTIME, &now) != 0) return FALSE;
  *pnSeconds = static_cast<UINT32>(now.tv_sec);
  return TRUE;
}

// Writes UTC, as in "2008-10-24 00:13:29".
char* GenTimeStamp(time_t tTime, char* szBuffer, int nSize) {
  if (szBuffer == nullptr || nSize <= 0) return szBuffer;
  struct tm parts {};
  if (gmtime_r(&tTime, &parts) == nullptr ||
      strftime(szBuffer, static_cast<size_t>(nSize), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
    CopyString(szBuffer, "?", nSize);
  }
  return szBuffer;
}

void CalcTimeOfDayDiff(const struct timeval* pStart, const struct timeval* pEnd, struct timeval* pDiff) {
  timeval difference{0, 0};
  if (timercmp(pEnd, pStart, >)) timersub(pEnd, pStart, &difference);
  *pDiff = difference;
}

void CalcTimeOfDayAbsDiff(const struct timeval* pA, const struct timeval* pB, struct timeval* pDiff) {
  // Field by field: both fields read at once would have to wait until the clock's stores are done.
  constexpr int64_t kMicroseconds = 1'000'000;
  const int64_t signedDifference =
      (int64_t{pA->tv_sec} - pB->tv_sec) * kMicroseconds + (int64_t{pA->tv_usec} - pB->tv_usec);
  const int64_t difference = std::abs(signedDifference);
  g_timeDifference = {true, difference};
  pDiff->tv_sec = difference / kMicroseconds;
  pDiff->tv_usec = difference % kMicroseconds;
}

int PrintToString(char* szBuffer, int nSize, const char* szFormat, ...) {
  if (szBuffer == nullptr || nSize <= 0) return 0;
  va_list arguments;
  va_start(arguments, szFormat);
  const int nLength = vsnprintf(szBuffer, static_cast<size_t>(nSize), szFormat, arguments);
  va_end(arguments);
  if (nLength < 0) {
    *szBuffer = '\0';
    return 0;
  }
  return nLength < nSize ? nLength : nSize - 1;
}

void CopyString(char* szDestination, const char* szSource, int nSize) {
  if (szDestination == nullptr || nSize <= 0) return;
  const size_t nLength = szSource == nullptr ? 0 : strnlen(szSource, static_cast<size_t>(nSize) - 1);
  if (nLength != 0) memmove(szDestination, szSource, nLength);
  szDestination[nLength] = '\0';
}

BOOL CfgFile_GetStringValue(const char* szFile, const char* szSection, const char* szKey, char* szOut, int* pnSize,
                            const char* szDefault) {
  if (szFile == nullptr || szSection == nullptr || szKey == nullptr || szOut == nullptr || pnSize == nullptr) {
    return FALSE;
  }
  const auto found = NoThrow(std::optional<std::string>(), [&] {
    const auto config = Config();
    const auto mapped = config->configFiles.find(szFile);
    const std::string path = mapped == config->configFiles.end() ? szFile : mapped->second;
    std::string text;
    std::string problem = ReadTextFile(path, &text);
    const ini::Contents contents = ini::Parse(text);
    std::optional<std::string> value;
    for (const ini::Entry& entry : contents.entries) {
      if (entry.section == szSection && entry.key == szKey) value = entry.value;
    }
    if (problem.empty() && contents.fault) {
      problem = path + ":" + std::to_string(contents.fault->line) + ": " + contents.fault->text;
    }
    // A file that does not exist is the usual case. The readable lines of a damaged one count.
    if (!problem.empty()) HOST_LOG(access(path.c_str(), F_OK) == 0 ? 3 : 6, "%s.\n", problem.c_str());
    const auto otherwise = config->configDefaults.find({szFile, szSection, szKey});
    if (!value && otherwise != config->configDefaults.end()) value = otherwise->second;
    return value;
  });
  CopyString(szOut, found ? found->c_str() : szDefault, *pnSize);
  *pnSize = *pnSize > 0 ? static_cast<int>(strlen(szOut)) : 0;
  return found ? TRUE : FALSE;
}

const char* GetUAVTagName(BYTE cTag) {
  const st0601::Item* pItem = st0601::FindItem(uint32_t{cTag});
  return pItem == nullptr ? "Unknown" : pItem->name;
}

const char* GetSecurityTagName(BYTE cTag) {
  const st0601::Item* pItem = st0601::FindSecurityElement(uint32_t{cTag});
  return pItem == nullptr ? "Unknown" : pItem->name;
}

}  // extern "C"
