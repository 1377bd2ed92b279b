// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Core      is the queue and what the thread does with it
//   Printer   starts and ends the thread
#include "printer.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <utility>

#include "annotated_mutex.h"
#include "outlet.h"
#include "owned_fd.h"

namespace mdencoder {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMostAtOnce = 16384;  // bytes that are rendered before they are written
constexpr size_t kRowOverhead = 128;   // what a waiting row needs besides its message
constexpr auto kGlance = std::chrono::milliseconds(50);
constexpr auto kHurry = std::chrono::milliseconds(1000);
constexpr auto kEndTime = std::chrono::milliseconds(100);  // for a thread that is asked to end

}  // namespace

// --- Core --------------------------------------------------------------------------------------------

class Printer::Core {
 public:
  Core(int fd, bool announces)
      : m_fd(fd),
        m_announces(announces),
        m_outlet(fd),
        m_giveUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
        m_failure(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  void Run() {
    pthread_setname_np(pthread_self(), "Printer");
    while (Take()) {
      Compose();
      WriteOut();
    }
    const common::Lock lock(m_mutex);
    m_done = true;
    m_changed.NotifyAll();
  }

  void PutLines(const std::vector<std::string>& lines) {
    const common::Lock lock(m_mutex);
    if (m_finished || m_failed) return;
    for (const std::string& line : lines) {
      if (m_lineBytes + line.size() > kMostLineBytes) {
        ++m_linesDropped;
        continue;
      }
      m_lineBytes += line.size() + 1;
      m_entries.emplace_back();
      m_entries.back().bytes = line;
    }
    m_work.NotifyOne();
  }

  void PutRow(const Received& received, const Render& render) {
    const common::Lock lock(m_mutex);
    if (m_failed) return;
    const size_t size = received.buffer.size() + kRowOverhead;
    if (m_finished || m_noRows || m_rowBytes + size > kMostRowBytes) {
      ++m_rowsDropped;
      return;
    }
    m_rowBytes += size;
    Entry& entry = m_entries.emplace_back();
    entry.bytes.assign(reinterpret_cast<const char*>(received.buffer.data()), received.buffer.size());
    entry.name = received.name;
    entry.received = received;
    entry.render = render;
    m_work.NotifyOne();
  }

  void Status(std::vector<std::string> lines) {
    const common::Lock lock(m_mutex);
    if (m_finished || m_failed) return;
    m_status = std::move(lines);
    m_redraw = true;
    m_work.NotifyOne();
  }

  void Drain(const Limit& limit) {
    common::Lock lock(m_mutex);
    auto end = Clock::now() + limit.most;
    bool moves = limit.asLongAsItMoves;
    uint64_t seen = m_written;
    while (!m_done && !m_failed && (!m_entries.empty() || m_busy || m_redraw)) {
      const auto now = Clock::now();
      if (now >= end) return;
      m_changed.WaitUntil(m_mutex, std::min(end, now + kGlance));
      if (moves && m_written != seen) end = Clock::now() + limit.most;
      seen = m_written;
      if (!limit.hurry || !moves) continue;
      lock.Pause();
      const bool hurry = limit.hurry();
      lock.Resume();
      if (!hurry) continue;
      moves = false;
      end = Clock::now() + kHurry;
    }
  }

  void DropRows() {
    const common::Lock lock(m_mutex);
    m_noRows = true;
    m_rowsDropped += m_rowsInHand;
    m_rowsInHand = 0;
    m_rowsDropped += std::erase_if(m_entries, [](const Entry& entry) { return entry.render != nullptr; });
    m_rowBytes = 0;
  }

  // Returns true when the thread has ended or will not touch anything but this object any more.
  bool Finish() {
    common::Lock lock(m_mutex);
    m_finished = true;
    m_work.NotifyOne();
    eventfd_write(m_giveUp.Get(), 1);
    const auto end = Clock::now() + kEndTime;
    while (!m_done && m_changed.WaitUntil(m_mutex, end)) continue;
    return m_done;
  }

  bool HasRowRoom() {
    const common::Lock lock(m_mutex);
    return m_failed || m_finished || m_noRows || m_rowBytes < kMostRowBytes / 2;
  }

  uint64_t RowsDropped() {
    const common::Lock lock(m_mutex);
    return m_rowsDropped;
  }
  uint64_t LinesDropped() {
    const common::Lock lock(m_mutex);
    return m_linesDropped;
  }
  bool HasFailed() {
    const common::Lock lock(m_mutex);
    return m_failed;
  }
  int FailureDescriptor() const { return m_failure.Get(); }

 private:
  // A line, or a row with the message that it will show.
  struct Entry {
    std::string bytes;
    std::string name;
    Received received;  // its views refer to bytes and name while it is rendered
    Render render;
  };
  struct Piece {
    size_t end;  // in m_text
    bool isRow;
  };

  // Takes over entries for one write, and waits for some. Returns false at the end.
  bool Take() {
    common::Lock lock(m_mutex);
    m_busy = false;
    m_changed.NotifyAll();
    while (!m_finished && m_entries.empty() && !m_redraw) m_work.Wait(m_mutex);
    if (m_finished) return false;
    m_busy = true;
    m_redraw = false;
    m_hand.clear();
    m_rowsInHand = 0;
    for (size_t bytes = 0; !m_entries.empty() && bytes < kMostAtOnce; m_entries.pop_front()) {
      Entry& entry = m_entries.front();
      const size_t size = entry.bytes.size();
      bytes += entry.render == nullptr ? size : 4 * size;  // a row is longer than its message
      if (entry.render == nullptr) {
        m_lineBytes -= size + 1;
      } else {
        m_rowBytes -= size + kRowOverhead;
        ++m_rowsInHand;
      }
      m_hand.push_back(std::move(entry));
    }
    if (m_announces && m_entries.empty() && m_linesDropped != m_linesAnnounced) {
      m_hand.emplace_back();
      m_hand.back().bytes = "mdencoder: " + std::to_string(m_linesDropped - m_linesAnnounced) +
                            " lines were left out because nobody read these";
      m_linesAnnounced = m_linesDropped;
    }
    m_block = m_status;
    return true;
  }

  // Renders what was taken. The cursor is at the end of the block: it is moved up to the first line, and the rest of the
  // screen is cleared.
  void Compose() {
    m_text.clear();
    m_pieces.clear();
    if (m_drawn > 1) m_text += "\033[" + std::to_string(m_drawn - 1) + "A";
    if (m_drawn > 0) m_text += "\r\033[J";
    if (!m_text.empty()) m_pieces.push_back({m_text.size(), false});
    for (Entry& entry : m_hand) {
      if (entry.render != nullptr) {
        entry.received.name = entry.name;
        entry.received.buffer = {reinterpret_cast<const uint8_t*>(entry.bytes.data()), entry.bytes.size()};
      }
      m_text += entry.render == nullptr ? entry.bytes : entry.render(entry.received);
      m_text += '\n';
      m_pieces.push_back({m_text.size(), entry.render != nullptr});
    }
    m_drawn = m_block.size();
    if (m_drawn == 0) return;
    winsize size{};
    const size_t width = ioctl(m_fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
    for (size_t i = 0; i < m_drawn; ++i) {
      if (i != 0) m_text += '\n';
      m_text += m_block[i].substr(0, width - 1);
    }
    m_pieces.push_back({m_text.size(), false});
  }

  void WriteOut() {
    size_t at = 0;
    for (size_t next = 0; next < m_pieces.size();) {
      const bool noRows = RowsAreOver();
      const Piece& piece = m_pieces[next];
      // A row that was begun is completed, so that the next line starts where a line starts.
      if (noRows && piece.isRow && at <= (next == 0 ? 0 : m_pieces[next - 1].end)) {
        at = piece.end;
        ++next;
        continue;
      }
      const size_t end = noRows ? piece.end : m_text.size();
      const ssize_t written = m_outlet.Write(m_text.data() + at, end - at);
      if (written < 0) return Fail();
      if (written == 0 && !WaitForReader()) return;
      at += static_cast<size_t>(written);
      next = Passed(next, at, written != 0);
    }
  }

  bool RowsAreOver() {
    const common::Lock lock(m_mutex);
    return m_noRows;
  }

  // Counts the pieces that are written. Returns the first that is not.
  size_t Passed(size_t next, size_t begin, bool moved) {
    const common::Lock lock(m_mutex);
    if (moved) ++m_written;
    for (; next < m_pieces.size() && m_pieces[next].end <= begin; ++next) {
      if (m_pieces[next].isRow && m_rowsInHand > 0) --m_rowsInHand;
    }
    return next;
  }

  // Returns false if the rest is given up.
  bool WaitForReader() {
    pollfd set[] = {{m_outlet.Descriptor(), POLLOUT, 0}, {m_giveUp.Get(), POLLIN, 0}};
    return poll(set, 2, -1) < 0 || set[1].revents == 0;
  }

  void Fail() {
    const common::Lock lock(m_mutex);
    m_failed = true;
    m_entries.clear();
    m_rowBytes = m_lineBytes = m_rowsInHand = 0;
    eventfd_write(m_failure.Get(), 1);
    m_changed.NotifyAll();
  }

  const int m_fd;
  const bool m_announces;
  common::Outlet m_outlet;  // thread
  const common::OwnedFD m_giveUp;
  const common::OwnedFD m_failure;
  std::deque<Entry> m_hand;          // thread: taken, and being written
  std::vector<std::string> m_block;  // thread: the status lines that are drawn below them
  size_t m_drawn = 0;                // thread: status lines on the screen
  std::string m_text;                // thread
  std::vector<Piece> m_pieces;       // thread: of m_text

  common::Mutex m_mutex;     // leaf
  common::Condition m_work;  // for the thread
  common::Condition m_changed;
  std::deque<Entry> m_entries GUARDED_BY(m_mutex);
  std::vector<std::string> m_status GUARDED_BY(m_mutex);
  bool m_redraw GUARDED_BY(m_mutex) = false;
  bool m_busy GUARDED_BY(m_mutex) = false;
  bool m_noRows GUARDED_BY(m_mutex) = false;
  bool m_finished GUARDED_BY(m_mutex) = false;
  bool m_failed GUARDED_BY(m_mutex) = false;
  bool m_done GUARDED_BY(m_mutex) = false;
  size_t m_rowBytes GUARDED_BY(m_mutex) = 0;
  size_t m_lineBytes GUARDED_BY(m_mutex) = 0;
  size_t m_rowsInHand GUARDED_BY(m_mutex) = 0;
  uint64_t m_written GUARDED_BY(m_mutex) = 0;  // changes with every write
  uint64_t m_rowsDropped GUARDED_BY(m_mutex) = 0;
  uint64_t m_linesDropped GUARDED_BY(m_mutex) = 0;
  uint64_t m_linesAnnounced GUARDED_BY(m_mutex) = 0;
};

// --- Printer -----------------------------------------------------------------------------------------

Printer::Printer(int fd, bool announces)
    : m_core(std::make_shared<Core>(fd, announces)), m_thread([core = m_core] { core->Run(); }) {}

Printer::~Printer() {
  Finish();
}

void Printer::PutLines(const std::vector<std::string>& lines) {
  m_core->PutLines(lines);
}
void Printer::PutRow(const Received& received, const Render& render) {
  m_core->PutRow(received, render);
}
void Printer::Status(std::vector<std::string> lines) {
  m_core->Status(std::move(lines));
}
void Printer::Drain(const Limit& limit) {
  m_core->Drain(limit);
}
void Printer::DropRows() {
  m_core->DropRows();
}

void Printer::Finish() {
  if (!m_thread.joinable()) return;
  if (m_core->Finish()) {
    m_thread.join();
  } else {
    m_thread.detach();  // it is inside a write, which nothing ends, and keeps what it needs
  }
}

bool Printer::HasRowRoom() const {
  return m_core->HasRowRoom();
}

uint64_t Printer::RowsDropped() const {
  return m_core->RowsDropped();
}
uint64_t Printer::LinesDropped() const {
  return m_core->LinesDropped();
}
bool Printer::HasFailed() const {
  return m_core->HasFailed();
}
int Printer::FailureDescriptor() const {
  return m_core->FailureDescriptor();
}

}  // namespace mdencoder
