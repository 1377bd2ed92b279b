// SPDX-License-Identifier: Apache-2.0
// Implements the fake host's language: records, claims, clock, failures and the lockstep of the metadata thread.
#include "fake_host.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <utility>

#include "fake_impl.h"

extern HDBG g_hMetaDataLibDbg;
extern HDBG g_hCoTConvDbg;

Host& host() {
  static Host instance;
  return instance;
}

Host::Host() : impl(new Impl) {}

Host::~Host() {
  Finish();
  if (!impl->folder.empty()) std::filesystem::remove_all(impl->folder);
  delete impl;
}

void Host::Finish() {
  g_testUnderWay = false;
}

void Host::Reset() {
  Finish();
  ResetLibrary();
  if (!impl->folder.empty()) std::filesystem::remove_all(impl->folder);
  delete impl;
  impl = new Impl;
  static_cast<HostRecords&>(*this) = HostRecords();
  const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string name = std::string(base) + "/fake_host_XXXXXX";
  impl->folder = mkdtemp(name.data());
  for (const char* sub : {"/tmp", "/etc", "/usr/share/vendor/data"})
    std::filesystem::create_directories(impl->folder + sub);
  setenv("TZ", "UTC", 1);
  tzset();
  impl->wallMicroseconds = 1704164645L * 1000000;  // 2024-01-02 03:04:05 UTC
  impl->upMilliseconds = 1000 * 1000;
  _DoDbgInit("METADATALIB", &g_hMetaDataLibDbg);
  _DoDbgInit("COTCONVERTER", &g_hCoTConvDbg);
  __atomic_store_n(&g_bThreadStateDebuggingEnabled, FALSE, __ATOMIC_RELAXED);
  g_testUnderWay = true;
}

void Host::Verify() {
  std::lock_guard guard(impl->lock);
  for (const LogLine& line : impl->logs) {
    bool allowed = line.claimed || line.level > 5;
    for (const auto& [level, part] : impl->allowed)
      allowed = allowed || (line.level == level && line.text.find(part) != std::string::npos);
    if (!allowed)
      ADD_FAILURE() << "unclaimed log line, level " << line.level << ", " << line.function << ": " << line.text;
  }
  for (const Assertion& assertion : impl->assertions)
    if (!assertion.claimed) ADD_FAILURE() << "unclaimed assertion in " << assertion.function << ": " << assertion.text;
  impl->VerifyNothingIsLeft();
  for (const auto& [text, act] : impl->acts) ADD_FAILURE() << "nothing happened at a line never written: " << text;
  for (auto& [name, queue] : impl->failures)
    for (const Failure& failure : queue)
      if (failure.times > 0) ADD_FAILURE() << "a failure asked for " << name << " never happened";
  for (const auto& [name, action] : impl->actions) ADD_FAILURE() << "an action waits for " << name << " in vain";
}

void Host::Impl::VerifyNothingIsLeft() {
  for (const auto& [fd, state] : fds)  // a mailbox closes its own descriptor
    if (!state.closed && state.kind != "mailbox")
      ADD_FAILURE() << "descriptor " << fd << " (" << state.kind << ") left open";
  for (const auto& [fd, path] : openFiles) ADD_FAILURE() << "the file " << path << " was left open";
  for (const auto& [file, path] : openStreams) ADD_FAILURE() << "the stream of " << path << " was left open";
  EXPECT_TRUE(sets.empty()) << "a descriptor set was left open";
  EXPECT_TRUE(mailboxes.empty()) << "a mailbox was left open";
  EXPECT_TRUE(messages.empty()) << "a mailbox message was left over";
  EXPECT_TRUE(rates.empty()) << "a rate table was left over";
  EXPECT_TRUE(conditions.empty()) << "a wait condition was left over";
  EXPECT_FALSE(running) << "the metadata thread was left running";
  EXPECT_TRUE(threads.empty()) << "a thread was not joined";
  const std::string left = DescribeBlocks();
  EXPECT_TRUE(left.empty()) << "blocks were left allocated:\n" << left;
}

// --- log ---------------------------------------------------------------------------------------------

void Host::SetLevel(const std::string& module, int level) {
  std::lock_guard guard(impl->lock);
  impl->levels[module] = level;
  __atomic_store_n(&impl->modules[module].nMaxLevel, level, __ATOMIC_RELAXED);
}

std::vector<LogLine> Host::Logs() const {
  std::lock_guard guard(impl->lock);
  return impl->logs;
}

std::vector<DumpLine> Host::Dumps() const {
  std::lock_guard guard(impl->lock);
  return impl->dumps;
}

std::vector<Assertion> Host::Assertions() const {
  std::lock_guard guard(impl->lock);
  return impl->assertions;
}

void Host::AtLog(const std::string& text, std::function<void()> act) {
  std::lock_guard guard(impl->lock);
  impl->acts[text] = std::move(act);
}

void Host::ClearLogs() {
  std::lock_guard guard(impl->lock);
  impl->logs.clear();
  impl->dumps.clear();
  impl->assertions.clear();
}

void Host::AllowLogs(int level, const std::string& part) {
  std::lock_guard guard(impl->lock);
  impl->allowed.emplace_back(level, part);
}

bool Host::ClaimLog(int level, const std::string& text, bool whole) {
  std::lock_guard guard(impl->lock);
  for (LogLine& line : impl->logs) {
    const bool matches = whole ? line.text == text : line.text.find(text) != std::string::npos;
    if (!line.claimed && line.level == level && matches) return line.claimed = true;
  }
  return false;
}

bool Host::ClaimAssertion(const std::string& text, bool isText) {
  std::lock_guard guard(impl->lock);
  for (Assertion& assertion : impl->assertions)
    if (!assertion.claimed && assertion.text == text && assertion.isText == isText) return assertion.claimed = true;
  return false;
}

namespace {

std::string Recent() {
  std::ostringstream text;
  const std::vector<LogLine> logs = host().Logs();
  const size_t first = logs.size() > 25 ? logs.size() - 25 : 0;
  for (size_t i = first; i < logs.size(); ++i)
    text << "  " << logs[i].level << (logs[i].claimed ? " (claimed) " : " ") << logs[i].function << ": "
         << logs[i].text;
  for (const Assertion& assertion : host().Assertions()) text << "  assertion " << assertion.text << "\n";
  return text.str();
}

void Fail(const Where& where, const std::string& text) {
  GTEST_MESSAGE_AT_(where.file, where.line, text.c_str(), ::testing::TestPartResult::kNonFatalFailure);
}

}  // namespace

void ExpectLog(int level, const std::string& text, Where where) {
  if (!host().ClaimLog(level, text, true))
    Fail(where, "no log line of level " + std::to_string(level) + ": " + text + "\nlogged:\n" + Recent());
}

void ExpectLogContaining(int level, const std::string& part, Where where) {
  if (!host().ClaimLog(level, part, false))
    Fail(where, "no log line of level " + std::to_string(level) + " with: " + part + "\nlogged:\n" + Recent());
}

void ExpectNoLog(const std::string& text, Where where) {
  for (const LogLine& line : host().Logs())
    if (!line.claimed && line.text == text) Fail(where, "logged: " + text);
}

void ExpectAssertion(const std::string& expression, Where where) {
  if (!host().ClaimAssertion(expression, false))
    Fail(where, "no assertion \"" + expression + "\"\nlogged:\n" + Recent());
}

void ExpectTextAssertion(const std::string& text, Where where) {
  if (!host().ClaimAssertion(text, true)) Fail(where, "no text assertion \"" + text + "\"\nlogged:\n" + Recent());
}

void ExpectDump(int level, const std::string& title, const Bytes& bytes, Where where) {
  for (const DumpLine& dump : host().Dumps())
    if (dump.level == level && dump.title == title && dump.bytes == bytes) return;
  Fail(where, "no dump of level " + std::to_string(level) + " titled \"" + title + "\" with these " +
                  std::to_string(bytes.size()) + " bytes");
}

void AllowLogs(int level, const std::string& part) {
  host().AllowLogs(level, part);
}

int CountLogs(int level, const std::string& text) {
  int count = 0;
  for (const LogLine& line : host().Logs()) count += line.level == level && line.text == text ? 1 : 0;
  return count;
}

// --- clock and failures ------------------------------------------------------------------------------

void Host::Advance(long milliseconds) {
  std::lock_guard guard(impl->lock);
  impl->wallMicroseconds += milliseconds * 1000;
  impl->upMilliseconds += milliseconds;
}

void Host::SetWallClock(long seconds, long microseconds) {
  std::lock_guard guard(impl->lock);
  impl->wallMicroseconds = seconds * 1000000 + microseconds;
}

void Host::SetCoarseClockLag(long microseconds) {
  std::lock_guard guard(impl->lock);
  impl->coarseLagMicroseconds = microseconds;
}

long Host::NowSeconds() const {
  std::lock_guard guard(impl->lock);
  return impl->wallMicroseconds / 1000000;
}

void Host::FailNext(const std::string& name, Failure failure) {
  std::lock_guard guard(impl->lock);
  impl->failures[name].push_back(failure);
}

void Host::StopFailing(const std::string& name) {
  std::lock_guard guard(impl->lock);
  impl->failures.erase(name);
}

void Host::WhenCalled(const std::string& name, std::function<void()> action, int skip) {
  std::lock_guard guard(impl->lock);
  impl->actions[name] = {std::move(action), skip};
}

int Host::Calls(const std::string& name) const {
  std::lock_guard guard(impl->lock);
  const auto found = impl->calls.find(name);
  return found == impl->calls.end() ? 0 : found->second;
}

std::optional<Failure> Host::Impl::Call(const std::string& name) {
  std::lock_guard guard(lock);
  ++calls[name];
  Act(name);
  const auto found = failures.find(name);
  if (found == failures.end() || found->second.empty()) return {};
  Failure& failure = found->second.front();
  if (failure.skip > 0) {
    --failure.skip;
    return {};
  }
  const Failure now = failure;
  if (--failure.times <= 0) found->second.pop_front();
  errno = now.error;
  return now;
}

void Host::Impl::Act(const std::string& name) {
  const auto found = actions.find(name);
  if (found == actions.end() || found->second.skip-- > 0) return;
  const std::function<void()> action = std::move(found->second.action);
  actions.erase(found);
  action();
}

// --- descriptors -------------------------------------------------------------------------------------

int Host::Impl::NewFD(const std::string& kind) {
  const int fd = nextFD++;
  fds[fd].kind = kind;
  return fd;
}

const FakeFD& Host::FD(int fd) const {
  std::lock_guard guard(impl->lock);
  return impl->fds.at(fd);
}

std::vector<int> Host::FDsOfKind(const std::string& kind) const {
  std::lock_guard guard(impl->lock);
  std::vector<int> found;
  for (const auto& [fd, state] : impl->fds)
    if (state.kind == kind) found.push_back(fd);
  return found;
}

int Host::LastFD(const std::string& kind) const {
  const std::vector<int> found = FDsOfKind(kind);
  return found.empty() ? -1 : found.back();
}

void Host::FeedDatagram(int fd, const Bytes& bytes, const DatagramInfo& info) {
  std::lock_guard guard(impl->lock);
  impl->fds.at(fd).datagrams.push_back({bytes, info});
}

void Host::FeedSerial(int fd, const Bytes& bytes) {
  std::lock_guard guard(impl->lock);
  FDState& state = impl->fds.at(fd);
  state.serial.insert(state.serial.end(), bytes.begin(), bytes.end());
}

void Host::HangUp(int fd) {
  std::lock_guard guard(impl->lock);
  impl->fds.at(fd).hungUp = true;
}

void Host::FeedCapture(int interface, const Bytes& bytes, UINT64 timestamp, std::optional<int> length) {
  std::lock_guard guard(impl->lock);
  impl->captures[interface].push_back({bytes, timestamp, length});
}

// --- files -------------------------------------------------------------------------------------------

std::string Host::RealPath(const std::string& path) const {
  for (const char* prefix : {"/tmp/", "/usr/share/vendor/", "/etc/hostos.ini"})
    if (path.rfind(prefix, 0) == 0) return impl->folder + path;
  return path;
}

void Host::WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(RealPath(path), std::ios::binary) << text;
}

std::string Host::ReadFile(const std::string& path) const {
  std::ifstream file(RealPath(path), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool Host::FileExists(const std::string& path) const {
  return std::filesystem::exists(RealPath(path));
}

void Host::PlantLink(const std::string& path, const std::string& target) {
  std::filesystem::create_symlink(RealPath(target), RealPath(path));
}

void Host::PlantHardLink(const std::string& path, const std::string& target) {
  std::filesystem::create_hard_link(RealPath(target), RealPath(path));
}

void Host::PlantFifo(const std::string& path) {
  mkfifo(RealPath(path).c_str(), 0600);
}

void Host::SetConfig(const std::string& file, const std::string& section, const std::string& key,
                     const std::string& value) {
  std::lock_guard guard(impl->lock);
  impl->config[file + "\n" + section + "\n" + key] = value;
}

// --- lockstep ----------------------------------------------------------------------------------------

bool Host::Impl::Readable(int fd) {
  const auto found = fds.find(fd);
  if (found == fds.end() || found->second.closed) return false;
  const FDState& state = found->second;
  if (state.kind == "mailbox") {
    for (const tagHOST_MBOX* mailbox : mailboxes)
      if (mailbox->fd == fd) return !mailbox->queue.empty();
    return false;
  }
  if (state.kind == "capture") return !captures[state.interface].empty();
  return !state.datagrams.empty() || !state.serial.empty() || state.hungUp;
}

bool Host::Impl::AnyReadable() {
  if (currentSet == nullptr) return false;
  for (const SetEntry& entry : currentSet->entries)
    if (Readable(entry.fd)) return true;
  return false;
}

void Host::Impl::Grant(bool timeOutPass) {
  std::unique_lock guard(lock);
  changed.wait(guard, [&] { return atSelect || !running; });
  if (!running) return;
  granted = true;
  atSelect = false;
  timeOut = timeOutPass;
  changed.notify_all();
  changed.wait(guard, [&] { return atSelect || !running; });
}

bool Host::Impl::GrantAsReal() {
  bool timeOutPass = false;
  {
    std::unique_lock guard(lock);
    changed.wait(guard, [&] { return atSelect || !running; });
    if (!running) return true;
    timeOutPass = !AnyReadable();
    if (timeOutPass) {
      if (currentSet == nullptr || !currentSet->interval) return false;
      host().Advance(currentSet->interval->tv_sec * 1000 + currentSet->interval->tv_usec / 1000);
    }
  }
  Grant(timeOutPass);
  return true;
}

void Host::Pass() {
  impl->Grant(false);
}

void Host::PassUntilIdle() {
  for (int i = 0; i < 10000; ++i) {
    {
      std::unique_lock guard(impl->lock);
      impl->changed.wait(guard, [&] { return impl->atSelect || !impl->running; });
      if (!impl->running || !impl->AnyReadable()) return;
    }
    impl->Grant(false);
  }
  ADD_FAILURE() << "the metadata thread never became idle";
}

void Host::SelectTimesOut() {
  if (!SelectInterval()) ADD_FAILURE() << "no time-out is set";
  impl->Grant(true);
}

void Host::HoldThread(bool hold) {
  std::lock_guard guard(impl->lock);
  impl->hold = hold;
}

bool Host::ThreadRuns() const {
  std::lock_guard guard(impl->lock);
  return impl->running;
}

std::optional<timeval> Host::SelectInterval() const {
  std::unique_lock guard(impl->lock);
  impl->changed.wait(guard, [&] { return impl->atSelect || !impl->running; });
  return impl->currentSet == nullptr ? std::nullopt : impl->currentSet->interval;
}

std::vector<int> Host::SetDescriptors() const {
  std::lock_guard guard(impl->lock);
  std::vector<int> found;
  if (impl->currentSet != nullptr)
    for (const SetEntry& entry : impl->currentSet->entries) found.push_back(entry.fd);
  return found;
}
