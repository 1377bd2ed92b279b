// SPDX-License-Identifier: Apache-2.0
// Keeps a call site from flooding the log: each has a token bucket and a count of suppressed lines.
#ifndef HOST_LOG_LIMITER_H
#define HOST_LOG_LIMITER_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace host_runtime {

// It has no lock of its own; the log's mutex guards it.
class LogLimiter {
 public:
  // A call site with copies of its texts, because the library may be unloaded before the counts are reported.
  struct Site {
    std::string module;
    std::string file;
    int line = 0;
  };
  struct Suppressed {
    Site site;
    std::string function;
    int level = 0;
    uint64_t count = 0;
  };

  // Allows `burst` lines at once and `perSecond` lines after that; 0 turns the limit off.
  void SetLimit(unsigned burst, unsigned perSecond);

  // Returns whether a line may be written at `now` (monotonic nanoseconds). If so, *left becomes the number of lines of
  // this site that were suppressed before it.
  bool Allow(std::string_view module, std::string_view file, int line, std::string_view function, int level,
             int64_t now, uint64_t* left);

  // Return, and clear, the counts of suppressed lines: of sites that have become silent, at most once a second, or of
  // all sites of a module that closes.
  std::vector<Suppressed> PopSilent(int64_t now);
  std::vector<Suppressed> PopModule(std::string_view module);

 private:
  struct Bucket {
    std::string function;
    int level = 0;
    double tokens = 0;
    int64_t filled = 0;  // time of the last filling
    int64_t seen = 0;    // time of the last line, written or not
    uint64_t suppressed = 0;
  };
  struct Less {
    using is_transparent = void;  // NOLINT(readability-identifier-naming): the name that std::map looks for
    struct View {
      std::string_view module;
      std::string_view file;
      int line;
    };
    static View Of(const Site& site) { return {site.module, site.file, site.line}; }
    static View Of(const View& view) { return view; }
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const {
      const View x = Of(a);
      const View y = Of(b);
      if (x.line != y.line) return x.line < y.line;
      if (x.file != y.file) return x.file < y.file;
      return x.module < y.module;
    }
  };

  template <typename Wanted>
  std::vector<Suppressed> Pop(Wanted wanted);

  unsigned m_burst = 20;
  unsigned m_perSecond = 10;
  int64_t m_lastRound = 0;
  std::map<Site, Bucket, Less> m_buckets;
};

}  // namespace host_runtime

#endif  // HOST_LOG_LIMITER_H
