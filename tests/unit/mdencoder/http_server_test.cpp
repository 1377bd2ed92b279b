// SPDX-License-Identifier: Apache-2.0
// Connections on a pair of sockets, and the server on a port of the loopback interface: limits, order and ends.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "http/access.h"
#include "http/api.h"
#include "http/assets.h"
#include "http/connection.h"
#include "http/hub.h"
#include "http/server.h"
#include "http/settings.h"
#include "http/snapshot.h"
#include "loopback.h"
#include "owned_fd.h"

namespace mdencoder::http::http_server_test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kToken[] = "0123456789abcdef-token";
constexpr auto kLong = 300s;  // nothing takes so long

std::string Get(const std::string& path, const std::string& fields = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n" + fields + "\r\n";
}

void Send(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0) return;  // the server may have gone already
    text.remove_prefix(static_cast<size_t>(count));
  }
}

// Reads until the end, or until the text has `until`.
std::string Read(int fd, std::string_view until = {}) {
  std::string all;
  char piece[65536];
  while (until.empty() || all.find(until) == std::string::npos) {
    const ssize_t count = recv(fd, piece, sizeof(piece), 0);
    if (count <= 0) break;
    all.append(piece, static_cast<size_t>(count));
  }
  return all;
}

size_t CountOf(const std::string& text, std::string_view part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// --- Connections -------------------------------------------------------------------------------------

class ConnectionTest : public testing::Test {
 protected:
  using Outcome = Connection::Outcome;

  ConnectionTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    m_client = common::OwnedFD(ends[0]);
    EXPECT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
    m_connection = std::make_unique<Connection>(common::OwnedFD(ends[1]), nullptr, m_isStopping);
  }
  Outcome ReadHead(std::string& head) { return m_connection->ReadHead(head, Connection::Clock::now() + kLong, kLong); }

  std::atomic<bool> m_isStopping{false};
  common::OwnedFD m_client;
  std::unique_ptr<Connection> m_connection;
};

TEST_F(ConnectionTest, HeadsAreReadOneByOne) {
  Send(m_client.Get(), "\r\n\r\n" + Get("/a") + "\r\n" + Get("/b") + "GET /c");
  std::string head;
  EXPECT_EQ(ReadHead(head), Outcome::Done);
  EXPECT_EQ(head, Get("/a"));
  EXPECT_TRUE(m_connection->HasPart());
  EXPECT_EQ(ReadHead(head), Outcome::Done);
  EXPECT_EQ(head, Get("/b"));
  EXPECT_EQ(m_connection->ReadHead(head, Connection::Clock::now() + kLong, 0s), Outcome::TimeOver);
  EXPECT_TRUE(m_connection->HasPart());
  m_client.Reset();
  EXPECT_EQ(ReadHead(head), Outcome::Ended);
}

TEST_F(ConnectionTest, AHeadMayComeInPieces) {
  const std::string text = Get("/a");
  std::thread client([&] {
    for (const char c : text) Send(m_client.Get(), {&c, 1});
  });
  std::string head;
  EXPECT_EQ(ReadHead(head), Outcome::Done);
  EXPECT_EQ(head, text);
  EXPECT_FALSE(m_connection->HasPart());
  client.join();
}

TEST_F(ConnectionTest, WhoSaysNothingHasItsTime) {
  std::string head;
  EXPECT_EQ(m_connection->ReadHead(head, Connection::Clock::now() - 1s, kLong), Outcome::TimeOver);
  EXPECT_FALSE(m_connection->HasPart());
  Send(m_client.Get(), "\r\n\r\n");
  EXPECT_EQ(m_connection->ReadHead(head, Connection::Clock::now() - 1s, kLong), Outcome::TimeOver);
  EXPECT_FALSE(m_connection->HasPart()) << "empty lines are no part of a request";
}

TEST_F(ConnectionTest, AHeadIsAsLongAsItMayBe) {
  const std::string most = Get("/", "a: " + std::string(kLongestHead - Get("/", "a: \r\n").size(), 'b') + "\r\n");
  ASSERT_EQ(most.size(), kLongestHead);
  std::thread client([&] { Send(m_client.Get(), most + Get("/", std::string(kLongestHead, 'c'))); });
  std::string head;
  EXPECT_EQ(ReadHead(head), Outcome::Done);
  EXPECT_EQ(head, most);
  EXPECT_EQ(ReadHead(head), Outcome::TooLong);
  client.join();
}

TEST_F(ConnectionTest, AHeadThatIsOneByteTooLongIsRefused) {
  const std::string more = Get("/", "a: " + std::string(kLongestHead + 1 - Get("/", "a: \r\n").size(), 'b') + "\r\n");
  Send(m_client.Get(), more);
  std::string head;
  EXPECT_EQ(ReadHead(head), Outcome::TooLong);
}

TEST_F(ConnectionTest, EverythingIsWritten) {
  const std::string text(size_t{8} << 20, 'x');
  std::string got;
  std::thread client([&] { got = Read(m_client.Get()); });
  EXPECT_TRUE(m_connection->Write(text));
  m_connection.reset();
  client.join();
  EXPECT_EQ(got.size(), text.size());
}

TEST_F(ConnectionTest, AClientThatHasGoneIsGivenUp) {
  EXPECT_FALSE(m_connection->IsGone());
  m_client.Reset();
  EXPECT_TRUE(m_connection->IsGone());
  EXPECT_FALSE(m_connection->Write("text"));
  EXPECT_TRUE(m_connection->HasFailed());
  EXPECT_FALSE(m_connection->IsTimedOut());
  EXPECT_FALSE(m_connection->Write("more"));
}

TEST_F(ConnectionTest, NobodyWaitsWhenEverythingEnds) {
  const std::string text(size_t{8} << 20, 'x');
  m_isStopping.store(true);
  std::string head;
  EXPECT_EQ(ReadHead(head), Outcome::TimeOver);
  EXPECT_FALSE(m_connection->Write(text)) << "nobody reads";
  EXPECT_TRUE(m_connection->HasFailed());
  EXPECT_FALSE(m_connection->IsTimedOut()) << "it is not the client's fault";
}

TEST_F(ConnectionTest, ItIsSaidThatNothingFollows) {
  EXPECT_TRUE(m_connection->Write("bye"));
  std::string got;
  std::thread client([&] {
    got = Read(m_client.Get());
    m_client.Reset();
  });
  m_connection->Finish();
  client.join();
  EXPECT_EQ(got, "bye");
}

TEST_F(ConnectionTest, ACancelledOneEnds) {
  m_connection->Cancel();
  std::string head;
  EXPECT_EQ(ReadHead(head), Outcome::Ended);
  EXPECT_FALSE(m_connection->Write("x"));
}

// --- Server ------------------------------------------------------------------------------------------

class ServerTest : public testing::Test {
 protected:
  ServerTest() {
    Snapshot snapshot;
    snapshot.at = Hub::Clock::now();
    m_hub.Update(std::move(snapshot));
  }
  ~ServerTest() override {
    m_hub.Stop();
    if (m_server) m_server->Stop();
    std::remove(m_tokenFile.c_str());
  }

  // Starts the server on a port that nobody has; another program may take it at the same moment.
  void Start(const std::string& token = "", const std::string& at = "127.0.0.1") {
    HttpSettings settings;
    settings.address = at;
    if (!token.empty()) {
      std::ofstream(m_tokenFile) << token;
      settings.token = m_tokenFile;
    }
    for (int i = 0; !m_server; ++i) try {
        settings.port = m_port = FreePort();
        m_server = std::make_unique<Server>(settings, m_api, [this](const std::string& line) {
          const std::lock_guard lock(m_mutex);
          m_lines.push_back(line);
        });
      } catch (const std::runtime_error&) {
        if (i == 100) throw;
      }
    m_server->Start();
  }
  common::OwnedFD Connect(uint32_t host = INADDR_LOOPBACK) const {
    common::OwnedFD fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = Loopback(m_port);
    address.sin_addr.s_addr = htonl(host);
    EXPECT_EQ(connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return fd;
  }
  // Returns all that comes back.
  std::string Ask(const std::string& request) const {
    const common::OwnedFD fd = Connect();
    Send(fd.Get(), request);
    return Read(fd.Get());
  }
  std::string AskFor(const std::string& path, const std::string& fields = "") const {
    return Ask(Get(path, "Connection: close\r\n" + fields));
  }
  // Connects clients of events, and waits until each has been greeted.
  std::vector<common::OwnedFD> Follow(size_t count) const {
    std::vector<common::OwnedFD> clients;
    for (size_t i = 0; i < count; ++i) {
      clients.push_back(Connect());
      Send(clients.back().Get(), Get("/api/v1/events"));
    }
    for (const auto& client : clients) EXPECT_THAT(Read(client.Get(), "\n\n"), HasSubstr("event: hello"));
    return clients;
  }
  template <typename Condition>
  static void WaitFor(const Condition& condition) {
    while (!condition()) std::this_thread::yield();
  }

  const std::string m_tokenFile = testing::TempDir() + "http_server_test.token";
  uint16_t m_port = 0;
  Hub m_hub;
  const Assets m_assets;
  const Api m_api{{}, m_hub, m_assets};
  std::mutex m_mutex;
  std::vector<std::string> m_lines;
  std::unique_ptr<Server> m_server;
};

TEST_F(ServerTest, AnswersCarryTheRulesOfThePage) {
  Start();
  for (const std::string& answer : {AskFor("/"), AskFor("/nothing"), Ask("POST / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                                    Ask("nonsense\r\n\r\n"), AskFor("/login")}) {
    for (const char* const field :
         {"\r\nContent-Security-Policy: default-src 'none'; ", "\r\nX-Content-Type-Options: nosniff\r\n",
          "\r\nReferrer-Policy: no-referrer\r\n", "\r\nCross-Origin-Resource-Policy: same-origin\r\n",
          "\r\nCross-Origin-Opener-Policy: same-origin\r\n", "\r\nConnection: close\r\n"}) {
      EXPECT_EQ(CountOf(answer, field), 1u) << field << answer.substr(0, 600);
    }
  }
  for (const char* const rule :
       {"frame-ancestors 'none'", "base-uri 'none'", "form-action 'self'", "connect-src 'self';", "script-src 'self';",
        "style-src 'self';", "media-src 'self' blob:;"}) {
    EXPECT_THAT(ContentPolicy("https://a/{z}/{x}/{y}"), HasSubstr(rule));
  }
}

TEST_F(ServerTest, RefusalsSayWhatWouldBeAllowed) {
  Start();
  EXPECT_THAT(
      Ask("POST / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
      AllOf(StartsWith("HTTP/1.1 405 Method Not Allowed\r\n"), HasSubstr("\r\nAllow: GET, HEAD\r\n"),
            HasSubstr("\r\nContent-Type: application/json\r\n"),
            testing::EndsWith("\r\n\r\n{\"error\":{\"status\":405,\"text\":\"only GET and HEAD are allowed\"}}")));
  const std::vector<std::pair<std::string, std::string>> wanted = {
      {"GET /" + std::string(kLongestTarget, 'a') + " HTTP/1.1\r\nHost: a\r\n\r\n", "414 URI Too Long"},
      {Get("/", "Content-Length: 5\r\n"), "413 Content Too Large"},
      {Get("/", "Expect: 100-continue\r\n"), "417 Expectation Failed"},
      {Get("/", "a: " + std::string(kLongestHead, 'a') + "\r\n"), "431 Request Header Fields Too Large"},
      {"GET / HTTP/2.0\r\n\r\n", "505 HTTP Version Not Supported"},
      {"GET / HTTP/1.1\r\n\r\n", "400 Bad Request"}};
  for (const auto& [request, status] : wanted) EXPECT_THAT(Ask(request), StartsWith("HTTP/1.1 " + status + "\r\n"));
  EXPECT_EQ(m_server->Counts().refused, wanted.size() + 1);
  EXPECT_EQ(m_server->Counts().requests, 0u) << "the library of HTTP has seen none of them";
}

TEST_F(ServerTest, RequestsAreCounted) {
  Start();
  AskFor("/healthz");
  AskFor("/nothing");
  Ask(Get("/healthz") + Get("/healthz", "Connection: close\r\n"));
  WaitFor([this] { return m_server->Counts().connections == 0; });
  const ServerCounts counts = m_server->Counts();
  EXPECT_EQ(counts.accepted, 3u);
  EXPECT_EQ(counts.requests, 4u);
  EXPECT_EQ(counts.refused, 1u);
  EXPECT_EQ(counts.turnedAway, 0u);
  EXPECT_EQ(counts.flows, 0u);
  EXPECT_EQ(counts.slow, 0u);
}

TEST_F(ServerTest, AConnectionHasAThousandRequests) {
  Start();
  std::string requests;
  for (int i = 0; i < 1005; ++i) requests += "HEAD /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n";
  const common::OwnedFD client = Connect();
  std::thread sender([&] { Send(client.Get(), requests); });
  const std::string answers = Read(client.Get());
  sender.join();
  EXPECT_EQ(CountOf(answers, "HTTP/1.1 200 OK\r\n"), 1000u);
  EXPECT_EQ(CountOf(answers, "\r\nConnection: close\r\n"), 1u) << "of the last one";
}

TEST_F(ServerTest, OnlyKnownHostsAreServed) {
  Start();
  const std::string own = "127.0.0.1:" + std::to_string(m_port);
  const auto ask = [&](const std::string& host) {
    return Ask("GET /healthz HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n");
  };
  EXPECT_THAT(ask(own), StartsWith("HTTP/1.1 200 "));
  EXPECT_THAT(ask("evil.example"), AllOf(StartsWith("HTTP/1.1 403 "), HasSubstr("http_host adds it")));
}

TEST_F(ServerTest, TheAddressOnWhichAClientComesInIsAKnownHost) {
  Start("", "127.0.0.2");
  const std::vector<std::pair<std::string, std::string>> hosts = {{"127.0.0.2", "200"}, {"127.0.0.3", "403"}};
  for (const auto& [host, status] : hosts) {
    const common::OwnedFD client = Connect(INADDR_LOOPBACK + 1);
    Send(client.Get(), "GET /healthz HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n");
    EXPECT_THAT(Read(client.Get()), StartsWith("HTTP/1.1 " + status)) << host;
  }
}

TEST_F(ServerTest, WhatABrowserHasIsNotSentAgain) {
  Start();
  const std::string page = AskFor("/", "Accept-Encoding: gzip\r\n");
  EXPECT_THAT(page, HasSubstr("\r\nContent-Encoding: gzip\r\n"));
  const size_t at = page.find("\r\nETag: ") + 8;
  const std::string tag = page.substr(at, page.find('\r', at) - at);
  EXPECT_THAT(AskFor("/", "If-None-Match: " + tag + "\r\n"), StartsWith("HTTP/1.1 304 "));
}

TEST_F(ServerTest, EventsGoOnBehindTheLastOneThatABrowserHasSeen) {
  m_hub.Log(Priority::Notice, "", "said");
  uint64_t next = 2;
  while (m_hub.NextId() <= 2) m_hub.Wait(next, 1, Hub::Clock::now() + std::chrono::hours(1));
  Start();
  const common::OwnedFD client = Connect();
  Send(client.Get(), Get("/api/v1/events", "Last-Event-ID: 1\r\n"));
  EXPECT_THAT(Read(client.Get(), "\"said\""), HasSubstr("event: log"));
}

TEST_F(ServerTest, AHeadHasNoBody) {
  Start();
  const std::string answer = Ask("HEAD /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  EXPECT_THAT(answer, AllOf(HasSubstr("\r\nContent-Length: 28\r\n"), testing::EndsWith("\r\n\r\n")));
}

TEST_F(ServerTest, WithoutTheTokenNobodyLearnsAName) {
  Start(kToken);
  Snapshot snapshot;
  snapshot.at = Hub::Clock::now();
  EXPECT_THAT(AskFor("/healthz"), testing::EndsWith("\r\n\r\n{\"status\":\"ok\",\"reasons\":[]}"));
  snapshot.troubles = {"source secret is silent"};
  m_hub.Update(snapshot);
  EXPECT_THAT(AskFor("/healthz"), AllOf(StartsWith("HTTP/1.1 503 "), HasSubstr("\r\nRetry-After: 5\r\n"),
                                        testing::EndsWith("\r\n\r\n{\"status\":\"failing\",\"reasons\":[]}")));
  const std::string bearer = std::string("Authorization: Bearer ") + kToken + "\r\n";
  EXPECT_THAT(AskFor("/healthz", bearer), HasSubstr("source secret is silent"));
  for (const char* const path : {"/", "/api/v1/info", "/metrics", "/stream/a.mp4", "/nothing"}) {
    EXPECT_THAT(AskFor(path), AllOf(StartsWith("HTTP/1.1 401 "), HasSubstr("\r\nWWW-Authenticate: Bearer\r\n")))
        << path;
    EXPECT_THAT(AskFor(path, "Accept: text/html\r\n"),
                AllOf(StartsWith("HTTP/1.1 303 "), HasSubstr("\r\nLocation: /login\r\n"),
                      HasSubstr("\r\nCache-Control: no-store\r\n")));
    EXPECT_THAT(AskFor(path, bearer), Not(StartsWith("HTTP/1.1 401 ")));
  }
  EXPECT_THAT(Ask("GET / HTTP/1.1\r\nHost: evil.example\r\nConnection: close\r\n" + bearer + "\r\n"),
              StartsWith("HTTP/1.1 403 "));
}

TEST_F(ServerTest, TheFormGivesTheCookieForTheTokenOnly) {
  Start(kToken);
  EXPECT_THAT(AskFor("/login"), AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("<form action=\"/login\">"),
                                      HasSubstr("\r\nCache-Control: no-store\r\n"), Not(HasSubstr("Set-Cookie"))));
  EXPECT_THAT(AskFor("/login?token=wrong"),
              AllOf(StartsWith("HTTP/1.1 401 "), HasSubstr("<form"), Not(HasSubstr("Set-Cookie"))));
  EXPECT_THAT(AskFor("/login?more=1"), StartsWith("HTTP/1.1 400 "));
  const std::string answer = AskFor(std::string("/login?token=") + kToken);
  EXPECT_THAT(answer, AllOf(StartsWith("HTTP/1.1 303 "), HasSubstr("\r\nLocation: /\r\n")));
  const size_t at = answer.find("Set-Cookie: ") + 12;
  const std::string cookie = answer.substr(at, answer.find(';', at) - at);
  EXPECT_THAT(AskFor("/api/v1/info", "Cookie: " + cookie + "\r\n"), StartsWith("HTTP/1.1 200 "));
}

TEST_F(ServerTest, WithoutATokenThereIsNothingToLogInTo) {
  Start();
  EXPECT_THAT(AskFor("/login?token=x"),
              AllOf(StartsWith("HTTP/1.1 303 "), HasSubstr("\r\nLocation: /\r\n"), Not(HasSubstr("Set-Cookie"))));
}

TEST_F(ServerTest, ClientsOfEventsLeaveRoomForOthers) {
  Start();
  std::vector<common::OwnedFD> clients = Follow(Server::kMostFlows);
  EXPECT_EQ(m_server->Counts().flows, Server::kMostFlows);
  EXPECT_THAT(AskFor("/api/v1/events"), AllOf(StartsWith("HTTP/1.1 503 "), HasSubstr("\r\nRetry-After: 5\r\n"),
                                              HasSubstr("there are too many clients of events and streams")));
  EXPECT_THAT(AskFor("/healthz"), StartsWith("HTTP/1.1 200 "));
  EXPECT_EQ(m_server->Counts().refused, 1u);
  clients.pop_back();
  WaitFor([this] { return m_server->Counts().flows < Server::kMostFlows; });
  EXPECT_EQ(Follow(1).size(), 1u);
}

TEST_F(ServerTest, InACrowdNobodyStays) {
  Start();
  std::vector<common::OwnedFD> crowd;
  for (size_t i = 0; i < Server::kMostConnections * 3 / 4; ++i) crowd.push_back(Connect());
  WaitFor([&] { return m_server->Counts().connections == crowd.size(); });
  EXPECT_THAT(Ask(Get("/healthz")), AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("\r\nConnection: close\r\n")));
  crowd.pop_back();
  WaitFor([&] { return m_server->Counts().connections == crowd.size(); });
  const common::OwnedFD client = Connect();
  Send(client.Get(), Get("/healthz"));
  EXPECT_THAT(Read(client.Get(), "\r\n\r\n"), Not(HasSubstr("Connection: close")));
}

TEST_F(ServerTest, OneMoreThanAllIsTurnedAway) {
  Start();
  std::vector<common::OwnedFD> crowd;
  for (size_t i = 0; i < Server::kMostConnections; ++i) crowd.push_back(Connect());
  WaitFor([&] { return m_server->Counts().connections == crowd.size(); });
  for (int i = 0; i < 10; ++i) {
    const common::OwnedFD client = Connect();
    EXPECT_THAT(Read(client.Get()),
                AllOf(StartsWith("HTTP/1.1 503 Service Unavailable\r\n"), HasSubstr("\r\nRetry-After: 5\r\n"),
                      HasSubstr("there are too many clients; try again later")));
  }
  EXPECT_EQ(m_server->Counts().turnedAway, 10u);
  EXPECT_EQ(m_server->Counts().accepted, crowd.size() + 10);
  crowd.clear();
  WaitFor([&] { return m_server->Counts().connections == 0; });
  EXPECT_THAT(AskFor("/healthz"), StartsWith("HTTP/1.1 200 "));
  m_server->Stop();
  ASSERT_GE(m_lines.size(), 1u);
  EXPECT_LE(m_lines.size(), 4u);
  EXPECT_EQ(m_lines[0], "128 clients of the page are connected; more are turned away");
}

TEST_F(ServerTest, EventsComeInChunksOrUntilTheEnd) {
  Start();
  const common::OwnedFD chunks = Connect();
  Send(chunks.Get(), Get("/api/v1/events"));
  EXPECT_THAT(
      Read(chunks.Get(), "\n\n"),
      AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), HasSubstr("\r\nTransfer-Encoding: chunked\r\n"),
            HasSubstr("\r\nContent-Type: text/event-stream\r\n"), HasSubstr("\r\nCache-Control: no-store\r\n")));
  const common::OwnedFD old = Connect();
  Send(old.Get(), "GET /api/v1/events HTTP/1.0\r\nHost: localhost\r\n\r\n");
  EXPECT_THAT(Read(old.Get(), "\n\n"), Not(HasSubstr("chunked")));
  m_hub.Stop();
  m_server->Stop();
  EXPECT_THAT(Read(chunks.Get()), AllOf(HasSubstr("the program ends"), testing::EndsWith("0\r\n\r\n")));
  EXPECT_THAT(Read(old.Get()), HasSubstr("the program ends"));
  EXPECT_EQ(m_server->Counts().flows, 0u);
}

TEST_F(ServerTest, ItsEndWaitsForNobody) {
  Start();
  const common::OwnedFD silent = Connect();
  const common::OwnedFD half = Connect();
  Send(half.Get(), "GET / HT");
  const common::OwnedFD stays = Connect();
  Send(stays.Get(), Get("/healthz"));
  Read(stays.Get(), "}");
  m_server->Stop();
  EXPECT_EQ(Read(silent.Get()), "");
  EXPECT_EQ(Read(stays.Get()), "");
}

TEST_F(ServerTest, APortThatIsTakenIsAnError) {
  Start();
  HttpSettings settings;
  settings.address = "127.0.0.1";
  settings.port = m_port;
  try {
    const Server second(settings, m_api, {});
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              "the page cannot be served at http://127.0.0.1:" + std::to_string(m_port) + "/: the port is in use");
  }
}

}  // namespace
}  // namespace mdencoder::http::http_server_test
