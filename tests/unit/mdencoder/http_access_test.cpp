// SPDX-License-Identifier: Apache-2.0
// Who may ask for what: heads of requests, hosts, tokens, parameters and the keys of the configuration.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config.h"
#include "http/access.h"
#include "http/leaver.h"
#include "http/query.h"
#include "http/server.h"
#include "http/settings.h"
#include "owned_fd.h"

namespace mdencoder::http::http_access_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char kToken[] = "0123456789abcdef-token";

// Returns the status with which a head is refused, or 0.
int StatusOf(const std::string& text) {
  Head head;
  const auto refusal = ParseHead(text, head);
  return refusal ? refusal->status : 0;
}

std::string Get(const std::string& target, const std::string& fields = "") {
  return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + fields + "\r\n";
}

TEST(Head, IsTakenApart) {
  const std::string text =
      "GET /api/v1/info?a=b HTTP/1.1\r\nhost:  localhost:80 \r\nX-Other: 1\r\nAccept-Encoding: br, gzip\r\n\r\n";
  Head head;
  ASSERT_FALSE(ParseHead(text, head));
  EXPECT_EQ(head.method, "GET");
  EXPECT_EQ(head.target, "/api/v1/info?a=b");
  EXPECT_EQ(head.Field("Host"), "localhost:80");
  EXPECT_EQ(head.Field("Cookie"), "");
  EXPECT_TRUE(head.KeepsAlive());
  EXPECT_EQ(head.Reduced(), "GET /api/v1/info?a=b HTTP/1.1\r\nHost: localhost:80\r\nAccepts-Gzip: 1\r\n\r\n")
      << "what nothing reads does not reach the library";
}

TEST(Head, CannotGiveFieldsOfOurOwn) {
  const std::string text = Get("/", "Accepts-Gzip: 1\r\nRange: bytes=0-0,1-1\r\n");
  Head head;
  ASSERT_FALSE(ParseHead(text, head));
  EXPECT_EQ(head.Reduced(), Get("/"));
}

TEST(Head, KeepsAHostWithoutAName) {
  Head head;
  ASSERT_FALSE(ParseHead("GET / HTTP/1.1\r\nhost:\r\nCookie:\r\n\r\n", head));
  EXPECT_EQ(head.Reduced(), "GET / HTTP/1.1\r\nHost: \r\n\r\n") << "a request without Host has another form";
}

TEST(Head, SaysWhetherTheConnectionStays) {
  const auto keeps = [](const std::string& text) {
    Head head;
    EXPECT_FALSE(ParseHead(text, head));
    return head.KeepsAlive();
  };
  EXPECT_FALSE(keeps(Get("/", "Connection: Close\r\n")));
  EXPECT_FALSE(keeps("GET / HTTP/1.0\r\nHost: a\r\n\r\n"));
  EXPECT_TRUE(keeps("GET / HTTP/1.0\r\nHost: a\r\nConnection: Keep-Alive\r\n\r\n"));
}

TEST(Head, OfAnotherFormIsRefused) {
  EXPECT_EQ(StatusOf(Get("/")), 0);
  EXPECT_EQ(StatusOf("HEAD / HTTP/1.1\r\nHost: a\r\n\r\n"), 0);
  EXPECT_EQ(StatusOf("POST / HTTP/1.1\r\nHost: a\r\n\r\n"), 405);
  EXPECT_EQ(StatusOf("get / HTTP/1.1\r\nHost: a\r\n\r\n"), 405);
  EXPECT_EQ(StatusOf("GET / HTTP/2.0\r\nHost: a\r\n\r\n"), 505);
  for (const char* const line :
       {"", " ", "GET", "GET /", "GET  / HTTP/1.1", "GET / a HTTP/1.1", "GET / HTTP/1.1 ", "GET / http/1.1",
        "GET a HTTP/1.1", "GET http://a/ HTTP/1.1", "G(T / HTTP/1.1", "GET /\t HTTP/1.1", "GET /\x80 HTTP/1.1",
        "GET /% HTTP/1.1", "GET /%4 HTTP/1.1", "GET /%zz HTTP/1.1", "GET /%00 HTTP/1.1", "GET /%1f HTTP/1.1"}) {
    EXPECT_EQ(StatusOf(std::string(line) + "\r\nHost: a\r\n\r\n"), 400) << line;
  }
  EXPECT_EQ(StatusOf(Get("/" + std::string(kLongestTarget, 'a'))), 414);
  EXPECT_EQ(StatusOf(Get("/" + std::string(kLongestTarget - 1, 'a'))), 0);
}

TEST(Head, WithOtherFieldsIsRefused) {
  for (const char* const line : {"name", ": value", "na me: value", "name : value", " name: value", "name: a\x01",
                                 "name: a\nb", "name: \x7f", "Host: b"}) {
    EXPECT_EQ(StatusOf(Get("/", std::string(line) + "\r\n")), 400) << line;
  }
  EXPECT_EQ(StatusOf("GET / HTTP/1.1\r\n\r\n"), 400) << "no host";
  EXPECT_EQ(StatusOf(Get("/") + "more"), 400);
  EXPECT_EQ(StatusOf("GET / HTTP/1.1\r\nHost: a\r\n"), 400) << "no end";
  EXPECT_EQ(StatusOf(Get("/", "Content-Length: 0\r\n")), 0);
  EXPECT_EQ(StatusOf(Get("/", "Content-Length: 1\r\n")), 413);
  EXPECT_EQ(StatusOf(Get("/", "Transfer-Encoding: chunked\r\n")), 413);
  EXPECT_EQ(StatusOf(Get("/", "Expect: 100-continue\r\n")), 417);
  std::string many;
  for (size_t i = 0; i < kMostFields; ++i) many += "a: b\r\n";
  EXPECT_EQ(StatusOf(Get("/", many)), 431);
  EXPECT_EQ(StatusOf(Get("/", many.substr(6))), 0);
  EXPECT_EQ(StatusOf(Get("/", "a: " + std::string(kLongestHead, 'b') + "\r\n")), 431);
}

TEST(Access, AllowsHostsThatThisMachineIsCalledBy) {
  const Access access("", {"camera.example"}, false);
  for (const char* const host : {"localhost", "LocalHost:8080", "127.0.0.1:8080", "[::1]:8080", "192.0.2.7:1",
                                 "camera.example", "Camera.Example:443"}) {
    EXPECT_TRUE(access.AllowsHost(host, "192.0.2.7")) << host;
  }
  for (const char* const host : {"", "evil.example", "localhost.evil.example", "192.0.2.8", "[::1", "localhost:80a",
                                 "localhost:123456", "[::1]x", "camera.example.", "a@localhost", "::1"}) {
    EXPECT_FALSE(access.AllowsHost(host, "192.0.2.7")) << host;
  }
}

TEST(Access, AsksForTheToken) {
  const Access open("", {}, false);
  EXPECT_TRUE(open.AllowsToken("", ""));
  EXPECT_FALSE(open.IsRight(""));
  const Access access(kToken, {}, true);
  EXPECT_FALSE(access.AllowsToken("", ""));
  EXPECT_FALSE(access.AllowsToken("Bearer ", ""));
  EXPECT_FALSE(access.AllowsToken("Bearer 0123456789abcdef-tokeN", ""));
  EXPECT_FALSE(access.AllowsToken(std::string("Basic ") + kToken, ""));
  EXPECT_TRUE(access.AllowsToken(std::string("bearer  ") + kToken, ""));
  EXPECT_TRUE(access.IsRight(kToken));
}

TEST(Access, LetsABrowserInByItsCookie) {
  const Access access(kToken, {}, true);
  const std::string field = access.CookieField();
  EXPECT_THAT(field, HasSubstr("; Path=/; HttpOnly; SameSite=Strict; Secure"));
  EXPECT_THAT(field, Not(HasSubstr(kToken))) << "who reads the cookie does not know the token";
  const std::string pair = field.substr(0, field.find(';'));
  EXPECT_TRUE(access.AllowsToken("", pair));
  EXPECT_TRUE(access.AllowsToken("", "other=1; " + pair + " ;more=2"));
  EXPECT_FALSE(access.AllowsToken("", pair + "0"));
  EXPECT_FALSE(access.AllowsToken("", std::string("mdencoder_token=") + kToken));
  EXPECT_FALSE(access.AllowsToken("", "x" + pair));
  EXPECT_FALSE(Access("another-token-of-a-run", {}, true).AllowsToken("", pair));
}

TEST(Target, IsDecoded) {
  Parameters query;
  EXPECT_EQ(ParseTarget("/a%20b/c+d?x=1&y=%26+z&&x=&flag", query), "/a b/c+d");
  EXPECT_THAT(query, ElementsAre(testing::Pair("flag", ""), testing::Pair("x", "1"), testing::Pair("x", ""),
                                 testing::Pair("y", "& z")));
  EXPECT_THROW(ParseTarget("/%g0", query), Refusal);
  std::string many = "/?";
  for (int i = 0; i < 64; ++i) many += "a&";
  Parameters fresh;
  EXPECT_EQ(ParseTarget(many, fresh), "/");
  Parameters more;
  EXPECT_THROW(ParseTarget(many + "a", more), Refusal);
}

TEST(Query, ReadsWhatIsAllowed) {
  const Parameters parameters = {{"n", "7"}, {"r", "2.5"}, {"s", "yes"}, {"c", "two"}, {"t", "a, b"}, {"t", "c"}};
  Query query(parameters);
  EXPECT_EQ(query.Number("n", 1, 10, 5), 7);
  EXPECT_EQ(query.Number("missing", 1, 10, 5), 5);
  EXPECT_DOUBLE_EQ(query.Real("r", 0, 10, 1), 2.5);
  EXPECT_TRUE(query.Switch("s"));
  EXPECT_FALSE(query.Switch("missing"));
  const std::vector<std::pair<std::string, bool>> switches = {{"", true}, {"1", true}, {"0", false}, {"no", false}};
  for (const auto& [text, isOn] : switches) {
    const Parameters one = {{"s", text}};
    EXPECT_EQ(Query(one).Switch("s"), isOn) << text;
  }
  constexpr std::string_view kChoices[] = {"one", "two"};
  EXPECT_EQ(query.Choice("c", kChoices, 0), 1U);
  EXPECT_THROW(query.Finish(), Refusal) << "t was not read";
  EXPECT_THAT(query.Texts("t", 3), ElementsAre("a", "b", "c"));
  query.Finish();
}

TEST(Query, RefusesTheRest) {
  for (const char* const text : {"", "a", "1a", "0", "11", "1.5", "-1", "99999999999999999999"}) {
    const Parameters parameters = {{"n", text}};
    EXPECT_THROW(Query(parameters).Number("n", 1, 10), Refusal) << text;
  }
  for (const char* const text : {"", "a", "nan", "inf", "-1", "11"}) {
    const Parameters parameters = {{"r", text}};
    EXPECT_THROW(Query(parameters).Real("r", 0, 10, 1), Refusal) << text;
  }
  const Parameters twice = {{"n", "1"}, {"n", "2"}};
  EXPECT_THROW(Query(twice).Number("n", 1, 10), Refusal);
  EXPECT_THROW(Query(twice).Texts("n", 1), Refusal);
  EXPECT_THROW(Query(twice).Switch("n"), Refusal);
}

// --- Configuration -----------------------------------------------------------------------------------

HttpSettings Settings(const std::string& keys) {
  return MakeConfig(ParseIni("[encoder]\n" + keys + "[a]\ninput = udp\nport = 1\n"), "/etc/a.ini").encoder.http;
}

std::string FaultOf(const std::string& keys) {
  try {
    Settings(keys);
  } catch (const ConfigError& error) {
    return error.what();
  }
  return "";
}

TEST(HttpKeys, AreRead) {
  EXPECT_FALSE(Settings("").IsOn());
  const HttpSettings settings = Settings(
      "http = [::]:8443\nhttp_token = token\nhttp_cert = /c.pem\nhttp_key = k.pem\nhttp_host = A.example, b\n"
      "tiles = https://tiles.example:8/{z}/{x}/{y}.png?k=1\ntiles_attribution = Somebody\n");
  EXPECT_EQ(settings.Url(), "https://[::]:8443/");
  EXPECT_EQ(settings.token, "/etc/token");
  EXPECT_EQ(settings.certificate, "/c.pem");
  EXPECT_EQ(settings.key, "/etc/k.pem");
  EXPECT_THAT(settings.hosts, ElementsAre("a.example", "b"));
  EXPECT_EQ(TileOrigin(settings.tiles), "https://tiles.example:8");
  EXPECT_EQ(settings.attribution, "Somebody");
  EXPECT_EQ(Settings("http = localhost:80\n").Url(), "http://127.0.0.1:80/");
}

TEST(HttpKeys, ThatMakeNoSenseAreRefused) {
  EXPECT_THAT(FaultOf("http = 0.0.0.0:8080\n"), HasSubstr("without an http_token"));
  EXPECT_THAT(FaultOf("http = 192.0.2.1:8080\n"), HasSubstr("without an http_token"));
  EXPECT_THAT(FaultOf("http = [::2]:8080\n"), HasSubstr("without an http_token"));
  EXPECT_EQ(FaultOf("http = 127.255.0.1:8080\n"), "");
  EXPECT_EQ(FaultOf("http = [::1]:8080\n"), "");
  for (const char* const place :
       {"8080", "127.0.0.1", "127.0.0.1:0", "name:80", "127.0.0.1:70000", "224.0.0.1:80", "::1:80"}) {
    EXPECT_THAT(FaultOf(std::string("http = ") + place + "\n"), HasSubstr("http must be ADDRESS:PORT")) << place;
  }
  EXPECT_THAT(FaultOf("http_token = t\n"), HasSubstr("http_token is allowed only with http"));
  EXPECT_THAT(FaultOf("http = 127.0.0.1:80\nhttp_key = k\n"), HasSubstr("http_key is allowed only with http_cert"));
  EXPECT_THAT(FaultOf("http = 127.0.0.1:80\ntiles_attribution = k\n"), HasSubstr("only with tiles"));
  EXPECT_THAT(FaultOf("http = 127.0.0.1:80\nhttp_host = a:80\n"), HasSubstr("http_host must be"));
  const std::string host = "http = 127.0.0.1:80\nhttp_host = ";
  std::string hosts = "a";
  for (int i = 1; i < 32; ++i) hosts += ",a";
  EXPECT_EQ(FaultOf(host + hosts + "\n"), "");
  EXPECT_THAT(FaultOf(host + hosts + ",a\n"), HasSubstr("http_host must be"));
  for (const char* const tiles :
       {"tiles", "ftp://a/{z}/{x}/{y}", "http://a/{z}/{x}", "http://a;b/{z}/{x}/{y}", "http:///{z}/{x}/{y}",
        "http://{s}.a/{z}/{x}/{y}", "http://a:b/{z}/{x}/{y}", "http://a/{z}/{x}/{y}\"", "http://a b/{z}/{x}/{y}"}) {
    EXPECT_THAT(FaultOf(std::string("http = 127.0.0.1:80\ntiles = ") + tiles + "\n"), HasSubstr("tiles must be"))
        << tiles;
  }
}

TEST(Token, ComesFromAFile) {
  const std::string path = testing::TempDir() + "/token";
  const auto write = [&](const std::string& text) { std::ofstream(path) << text; };
  write(std::string(kToken) + "\r\n");
  EXPECT_EQ(ReadToken(path), kToken);
  for (const size_t size : {size_t{16}, size_t{256}}) {
    write(std::string(size, 'a'));
    EXPECT_EQ(ReadToken(path).size(), size);
  }
  for (const std::string& text : {std::string("short"), std::string(257, 'a'), std::string("0123456789 abcdef"),
                                  std::string(), std::string("0123456789abcdef\nmore")}) {
    write(text);
    EXPECT_THROW(ReadToken(path), ConfigError) << text;
  }
  EXPECT_THROW(ReadToken(path + ".absent"), ConfigError);
  EXPECT_THROW(ReadToken(testing::TempDir()), ConfigError) << "a folder";
  EXPECT_EQ(ReadToken(""), "");
}

// --- Clients that are turned away --------------------------------------------------------------------

class LeaverTest : public testing::Test {
 protected:
  LeaverTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    m_ours = common::OwnedFD(ends[0]);
    m_theirs = common::OwnedFD(ends[1]);
  }
  Leaver Make(const std::string& text) { return {std::move(m_ours), nullptr, text, m_now + std::chrono::seconds(1)}; }
  // Returns what has come to the client, and whether the server's half has ended.
  std::pair<std::string, bool> Read() {
    std::string all;
    char piece[4096];
    for (;;) {
      const ssize_t count = recv(m_theirs.Get(), piece, sizeof(piece), 0);
      if (count <= 0) return {all, count == 0};
      all.append(piece, static_cast<size_t>(count));
    }
  }

  common::OwnedFD m_ours;
  common::OwnedFD m_theirs;
  const Leaver::Clock::time_point m_now = Leaver::Clock::now();
};

TEST_F(LeaverTest, IsToldAtOnceAndHeardUntilItCloses) {
  Leaver leaver = Make("too many");
  EXPECT_EQ(leaver.Wanted().events, POLLIN);
  EXPECT_TRUE(leaver.Step(m_now));
  EXPECT_EQ(Read(), std::make_pair(std::string("too many"), true));
  ASSERT_EQ(send(m_theirs.Get(), "GET", 3, 0), 3);
  EXPECT_TRUE(leaver.Step(m_now));
  EXPECT_TRUE(leaver.Step(m_now));
  EXPECT_EQ(leaver.Wanted().events, POLLIN);
  shutdown(m_theirs.Get(), SHUT_WR);
  EXPECT_FALSE(leaver.Step(m_now));
}

TEST_F(LeaverTest, HasItsTimeAndNoMore) {
  Leaver leaver = Make("too many");
  EXPECT_TRUE(leaver.Step(m_now + std::chrono::milliseconds(999)));
  EXPECT_FALSE(leaver.Step(m_now + std::chrono::seconds(1)));
}

TEST_F(LeaverTest, GetsALongTextInPieces) {
  const std::string text(size_t{8} << 20, 'x');
  Leaver leaver = Make(text);
  std::string all;
  bool isOver = false;
  for (int i = 0; i < 10000 && !isOver; ++i) {
    ASSERT_TRUE(leaver.Step(m_now));
    EXPECT_TRUE(i != 0 || leaver.Wanted().events == POLLOUT);
    const auto [piece, hasEnded] = Read();
    all += piece;
    isOver = hasEnded;
  }
  EXPECT_TRUE(all == text) << all.size();
}

TEST_F(LeaverTest, ThatHasGoneIsForgotten) {
  Leaver leaver = Make("too many");
  m_theirs.Reset();
  EXPECT_FALSE(leaver.Step(m_now));
}

TEST_F(LeaverTest, MayNotSendWithoutEnd) {
  Leaver leaver = Make("too many");
  const std::string piece(4096, 'x');
  size_t steps = 0;
  do {
    ASSERT_EQ(send(m_theirs.Get(), piece.data(), piece.size(), 0), 4096);
  } while (leaver.Step(m_now) && ++steps < 1000);
  EXPECT_EQ(steps, Leaver::kMostRest / piece.size());
}

// --- Policy ------------------------------------------------------------------------------------------

TEST(Policy, AllowsNothingInlineAndOnlyTheGivenTiles) {
  EXPECT_THAT(ContentPolicy(""),
              HasSubstr("default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:;"));
  EXPECT_THAT(ContentPolicy("https://a.example/{z}/{x}/{y}"),
              HasSubstr("img-src 'self' data: blob: https://a.example;"));
  EXPECT_THAT(ContentPolicy(""), Not(HasSubstr("unsafe")));
}

}  // namespace
}  // namespace mdencoder::http::http_access_test
