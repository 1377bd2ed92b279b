#include "ini_file.h"

#include <ini.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace host_runtime {
namespace {

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};

struct Reading {
  FILE* file;
  const IniHandler& handler;
  int line = 0;       // of the line handed out last
  int errorLine = 0;  // first error; nothing is handed out after it
  std::string problem;

  void Fail(std::string text) {
    if (errorLine != 0) return;
    errorLine = line;
    problem = std::move(text);
  }
};

// Runs below C code: nothing may be thrown from here on.
char* ReadLine(char* buffer, int size, void* user) noexcept {
  auto* reading = static_cast<Reading*>(user);
  if (reading->errorLine != 0 || fgets(buffer, size, reading->file) == nullptr) return nullptr;
  ++reading->line;
  const std::size_t length = strlen(buffer);
  if (length + 1 == static_cast<std::size_t>(size) && buffer[length - 1] != '\n') {
    const int next = fgetc(reading->file);
    if (next != EOF) {
      reading->Fail("line too long, at most " + std::to_string(size - 3) + " characters are allowed");
      return nullptr;
    }
  }
  return buffer;
}

int TakeKey(void* user, const char* section, const char* key, const char* value) noexcept {
  auto* reading = static_cast<Reading*>(user);
  if (reading->errorLine != 0) return 0;
  std::string problem = reading->handler(section, key, value == nullptr ? "" : value);
  if (problem.empty()) return 1;
  reading->Fail(std::move(problem));
  return 0;
}

}  // namespace

bool ReadIniFile(const std::string& path, const IniHandler& handler, std::string* error) {
  const std::unique_ptr<FILE, CloseFile> file(fopen(path.c_str(), "re"));
  if (file == nullptr) {
    *error = "cannot read \"" + path + "\": " + strerror(errno);
    return false;
  }
  Reading reading{file.get(), handler, 0, 0, {}};
  const int result = ini_parse_stream(ReadLine, &reading, TakeKey, &reading);
  if (ferror(file.get()) != 0) {
    *error = "cannot read \"" + path + "\": it is no text file";
    return false;
  }
  if (reading.errorLine == 0 && result == 0) return true;
  if (reading.errorLine == 0) {
    reading.errorLine = result;
    reading.problem = "neither [section] nor key = value";
  }
  *error = path + ":" + std::to_string(reading.errorLine) + ": " + reading.problem;
  return false;
}

}  // namespace host_runtime
