// Keeps one call site from flooding the log: a token bucket for each, and a count of what was left out.
#ifndef HOST_LOG_LIMITER_H
#define HOST_LOG_LIMITER_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace host_runtime {

// Not locked: the log's mutex guards it.
class LogLimiter {
 public:
  // A call site, by content: the library's literals may be gone when its counts are reported.
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

  // burst lines at once, then perSecond lines; perSecond 0 turns the limit off.
  void SetLimit(unsigned burst, unsigned perSecond);

  // Whether a line may be written at `now` (nanoseconds, monotonic). When it may, *left gets the number of lines of
  // this site that were left out before it.
  bool Allow(std::string_view module, std::string_view file, int line, std::string_view function, int level,
             int64_t now, uint64_t* left);

  // Takes the counts of sites that fell silent after lines were left out: at most one round a second, or all of
  // a module's sites at once when it closes.
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
