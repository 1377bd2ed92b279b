// SPDX-License-Identifier: Apache-2.0
#include "sender.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <optional>

namespace mdfeed {
namespace {

using std::chrono::duration;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

class Clockwork {
 public:
  explicit Clockwork(const SendOptions& options) : m_options(options) {}

  bool IsOver(uint64_t ticks) const {
    if (StopRequested()) return true;
    if (m_options.count != 0 && ticks >= m_options.count) return true;
    return IsLate(Due(ticks));
  }
  // Waits for the batch, which may have a time of its own. Returns false if that is after the end.
  bool WaitFor(uint64_t tick, std::optional<std::chrono::microseconds> due) const {
    if (due && IsLate(m_start + *due)) return false;
    if (due) {
      SleepUntil(m_start + *due);
    } else if (m_options.rate > 0) {
      SleepUntil(Due(tick));
    }
    return !StopRequested();
  }
  milliseconds Elapsed() const { return duration_cast<milliseconds>(Clock::now() - m_start); }

 private:
  bool IsLate(Clock::time_point due) const {
    return m_options.duration > 0 && due >= m_start + Seconds(m_options.duration);
  }
  static Clock::duration Seconds(double seconds) { return duration_cast<Clock::duration>(duration<double>(seconds)); }
  Clock::time_point Due(uint64_t tick) const {
    if (m_options.rate <= 0) return Clock::now();
    return m_start + Seconds(static_cast<double>(tick) / m_options.rate);
  }

  const SendOptions& m_options;
  Clock::time_point m_start = Clock::now();
};

}  // namespace

Progress::Progress(const char* what) : m_what(what), m_terminal(isatty(STDERR_FILENO) != 0) {}

void Progress::Waiting(const char* forWhat) {
  if (m_terminal) std::fprintf(stderr, "waiting for %s\n", forWhat);
  m_start = Clock::now();
}

void Progress::Update(const SendResult& result) {
  const auto now = Clock::now();
  if (!m_terminal || now - m_shown < milliseconds(200)) return;
  m_shown = now;
  Show(result);
}

void Progress::Finish(const SendResult& result) {
  if (!m_terminal) return;
  Show(result);
  std::fputc('\n', stderr);
}

void Progress::Show(const SendResult& result) const {
  const double seconds = duration<double>(Clock::now() - m_start).count();
  std::fprintf(stderr, "\r\033[K%s: %llu sent, %.1f kB, %.1f/s, %.1f s", m_what,
               static_cast<unsigned long long>(result.messages), static_cast<double>(result.bytes) / 1000.0,
               seconds > 0 ? static_cast<double>(result.messages) / seconds : 0.0, seconds);
  std::fflush(stderr);
}

SendResult SendTraffic(Traffic& traffic, Output& output, SendOptions options, Progress& progress) {
  SendResult result;
  const Clockwork clock(options);
  while (!clock.IsOver(result.ticks)) {
    const auto batch = traffic.Next();
    if (!batch) break;
    if (!clock.WaitFor(result.ticks, traffic.Due())) break;
    if (const auto ttl = options.ttl.PopDue(clock.Elapsed())) output.SetTtl(*ttl);
    if (const auto tos = options.tos.PopDue(clock.Elapsed())) output.SetTos(*tos);
    for (const Bytes& message : *batch) {
      output.Send(message);
      ++result.messages;
      result.bytes += message.size();
    }
    ++result.ticks;
    progress.Update(result);
  }
  return result;
}

}  // namespace mdfeed
