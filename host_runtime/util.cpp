// Time, text, the INI reader and tag names.
#define HOST_MODULE "util"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "ini_file.h"
#include "runtime_state.h"
#include "st0601_items.h"

using namespace host_runtime;

extern "C" {

BOOL GetSystemUPTime(UINT32* pnSeconds) {
  timespec now{};
  if (pnSeconds == nullptr || clock_gettime(CLOCK_BOOTTIME, &now) != 0) return FALSE;
  *pnSeconds = static_cast<UINT32>(now.tv_sec);
  return TRUE;
}

// UTC, "2008-10-24 00:13:29".
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
  timeval difference{0, 0};
  if (timercmp(pA, pB, >)) {
    timersub(pA, pB, &difference);
  } else {
    timersub(pB, pA, &difference);
  }
  *pDiff = difference;
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
  const auto found = Guarded(std::optional<std::string>(), [&] {
    const auto config = Config();
    const auto mapped = config->configFiles.find(szFile);
    const std::string path = mapped == config->configFiles.end() ? szFile : mapped->second;
    std::optional<std::string> value;
    std::string error;
    const auto take = [&](const std::string& section, const std::string& key, const std::string& text) {
      if (section == szSection && key == szKey) value = text;
      return std::string();
    };
    // A file that is not there is the usual case. In one with a bad line, what stands before it counts.
    if (!ReadIniFile(path, take, &error)) HOST_LOG(access(path.c_str(), F_OK) == 0 ? 3 : 6, "%s.\n", error.c_str());
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
