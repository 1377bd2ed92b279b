// SPDX-License-Identifier: Apache-2.0
// Sources on TAK networks: their keys, the lookup of hosts, and the front end between sockets of this machine.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config.h"
#include "ini_file.h"
#include "library.h"
#include "loopback.h"
#include "owned_fd.h"
#include "relay_graph.h"
#include "reload.h"
#include "resolver.h"
#include "source_keeper.h"
#include "statistics.h"
#include "tak_input.h"
#include "tak_protocol.h"
#include "tak_settings.h"
#include "tls.h"

namespace mdencoder::tak_test {
namespace {

using namespace std::chrono_literals;
using common::OwnedFD;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kMesh[] = "[t]\ndata = cot\nurl = tak://239.2.3.1:6969\n";

Config Read(const std::string& text) {
  return MakeConfig(ParseIni(text), "/conf/demo.ini");
}

std::string Complaint(const std::string& text) {
  try {
    Read(text);
  } catch (const ConfigError& error) {
    return error.what();
  }
  return "accepted";
}

// --- Keys --------------------------------------------------------------------------------------------

TEST(TakUrl, HasASchemeAHostAndAPort) {
  const auto mesh = ParseTakUrl("tak://239.2.3.1:6969");
  ASSERT_TRUE(mesh);
  EXPECT_EQ(mesh->transport, TakSettings::Transport::Udp);
  EXPECT_EQ(mesh->host, "239.2.3.1");
  EXPECT_EQ(mesh->port, 6969);
  EXPECT_EQ(ParseTakUrl("tak://:4242")->host, "");
  EXPECT_EQ(ParseTakUrl("tak://[ff02::1%eth0]:6969")->host, "ff02::1%eth0");
  EXPECT_EQ(ParseTakUrl("tcp://tak.example.org:8087")->transport, TakSettings::Transport::Tcp);
  EXPECT_EQ(ParseTakUrl("tls://[2001:db8::1]:8089")->host, "2001:db8::1");
  EXPECT_EQ(ParseTakUrl("tls://192.0.2.1:8089")->transport, TakSettings::Transport::Tls);
}

TEST(TakUrl, IsRefusedOtherwise) {
  for (const std::string url :
       {"", "tak://", "tak://239.2.3.1", "tak://239.2.3.1:0", "tak://239.2.3.1:65536", "tak://host:6969",
        "udp://1.2.3.4:5", "tcp://:8087", "tcp://ho st:8087", "tcp://-host:8087", "tcp://2001:db8::1:8087",
        "tls://[host]:8089", "tls://[192.0.2.1]:8089", "tcp://a%b:8087", "tcp://host/:8087", "tcp://user@host:8087"}) {
    EXPECT_FALSE(ParseTakUrl(url)) << url;
  }
}

TEST(TakSource, ReceivesOverTheLoopbackInterface) {
  const Config config = Read(kMesh);
  const SourceSettings& source = config.sources.at(0);
  ASSERT_TRUE(source.tak);
  EXPECT_EQ(source.input, "tak");
  EXPECT_EQ(source.record.enInputType, MDATA_INPUT_NETWORK);
  EXPECT_EQ(source.record.enDataType, MDATA_DATA_COT);
  EXPECT_EQ(source.record.in.Network.usUDPPort, 0) << "found when it is opened";
  EXPECT_EQ(AddressText(source.record.in.Network.iSrcAddressFamily, source.record.in.Network.acSrcAddress),
            "127.0.0.1");
  const MDATA_INET_SRC_CFG reception = ReceptionOf(source.record, source.tak);
  EXPECT_EQ(reception.usUDPPort, 6969);
  EXPECT_EQ(AddressText(reception.iSrcAddressFamily, reception.acSrcAddress), "239.2.3.1");
}

TEST(TakSource, FilesOfTlsAreRelativeToTheConfiguration) {
  const Config config = Read(
      "[t]\ndata = cot\nurl = tls://tak.example.org:8089\ntls_ca = ca.pem\ntls_certificate = /c.p12\ntls_password = secret\n"
      "tls_name = tak\ncot_aircraft = HAWK\ncot_delta_ms = 100\n");
  const TakSettings& tak = *config.sources.at(0).tak;
  EXPECT_EQ(tak.tls.ca, "/conf/ca.pem");
  EXPECT_EQ(tak.tls.certificate, "/c.p12");
  EXPECT_EQ(tak.tls.password, "secret");
  EXPECT_EQ(tak.tls.name, "tak");
  EXPECT_EQ(tak.aircraft, "HAWK");
}

TEST(TakSource, KeysOfOtherSourcesAreRefused) {
  const std::string mesh = kMesh;
  EXPECT_THAT(Complaint(mesh + "input = serial\n"), HasSubstr("[t] input must be udp with this url, or left out"));
  EXPECT_THAT(Complaint(mesh + "port = 5\n"), HasSubstr("[t] port is allowed only with input = udp and without url"));
  EXPECT_THAT(
      Complaint(mesh + "tls_ca = x\n"),
      HasSubstr("[t] tls_ca is allowed only with url = tls:// and data = cot, with url = https://, or with cot_out = "
                "tls://"));
  EXPECT_THAT(Complaint("[t]\ndata = cot\nurl = tls://h:1\ntls_key = x\n"),
              HasSubstr("[t] tls_key is allowed only with a tls_certificate"));
  EXPECT_THAT(
      Complaint("[t]\ndata = cot\nurl = tcp://h:1\ninterface = eth0\n"),
      HasSubstr("[t] interface is allowed only with input = udp, with input = video and without url, or with url = "
                "tak://"));
  EXPECT_THAT(Complaint("[t]\ninput = udp\nport = 1\ndata = cot\ncot_aircraft = x\n"),
              HasSubstr("[t] cot_aircraft is allowed only with data = cot and url = tak://, tcp:// or tls://"));
  EXPECT_THAT(Complaint("[t]\ndata = cot\nurl = ftp://h:1\n"), HasSubstr("[t] url must be tak://GROUP:PORT, tcp://"));
  EXPECT_THAT(Complaint("[encoder]\ncapabilities = cot, ipv6\n" + mesh),
              HasSubstr("[t] url is allowed only with ipv4 among the capabilities"));
}

TEST(TakSource, GroupsOfTakNetworksShareAPort) {
  const std::string mesh = kMesh;
  EXPECT_EQ(Complaint(mesh + "[u]\ndata = cot\nurl = tak://239.2.3.2:6969\n"), "accepted");
  EXPECT_EQ(Complaint(mesh + "[u]\ninput = udp\nport = 6969\naddress = 239.2.3.2\n"), "accepted");
  EXPECT_EQ(Complaint("[t]\ndata = cot\nurl = tcp://h:6969\n[u]\ndata = cot\nurl = tls://h:6969\n"), "accepted");
  EXPECT_THAT(Complaint(mesh + "[u]\ninput = udp\nport = 6969\n"), HasSubstr("port must be a port of its own"));
  EXPECT_THAT(Complaint(mesh + "[u]\ndata = cot\nurl = tak://:6969\n"), HasSubstr("port must be a port of its own"));
}

TEST(TakSource, ARelayToItsOwnGroupIsRefused) {
  const auto complaint = [](const std::string& relay) -> std::string {
    try {
      CheckRelays(Read(kMesh + ("relay1 = " + relay + "\n")), Machine{{}, [](const Address& to) { return to; }});
    } catch (const ConfigError& error) {
      return error.what();
    }
    return "accepted";
  };
  EXPECT_THAT(complaint("239.2.3.1:6969"), HasSubstr("[t] -> 239.2.3.1:6969 -> [t]"));
  EXPECT_EQ(complaint("239.2.3.2:6969"), "accepted");
  EXPECT_EQ(complaint("239.2.3.1:6970"), "accepted");
}

TEST(TakSource, AnotherUrlIsAChange) {
  const CheckedConfig running{Read(kMesh), {}};
  EXPECT_THAT(Compare(running, {Read(kMesh), {}}).changed, IsEmpty());
  const ConfigDifference difference = Compare(running, {Read("[t]\ndata = cot\nurl = tcp://h:8087\n"), {}});
  EXPECT_EQ(difference.changed.size(), 1U);
}

TEST(TakSource, TlsFilesAreNamedWithTheirFault) {
  TlsSettings settings;
  settings.ca = "/nonexistent/ca.pem";
  try {
    const TlsClient client(settings);
    FAIL() << "accepted";
  } catch (const ConfigError& error) {
    EXPECT_STREQ(error.what(), "tls_ca = /nonexistent/ca.pem: No such file or directory");
  }
}

// --- Hosts -------------------------------------------------------------------------------------------

TEST(Resolve, NumericAddressesAreTakenAsTheyAre) {
  const Resolution four = Resolve("192.0.2.1", 8087, SOCK_STREAM);
  ASSERT_EQ(four.addresses.size(), 1U);
  EXPECT_EQ(HostAddressText(four.addresses[0]), "192.0.2.1:8087");
  const Resolution six = Resolve("fe80::1%lo", 8087, SOCK_STREAM);
  ASSERT_EQ(six.addresses.size(), 1U);
  EXPECT_EQ(HostAddressText(six.addresses[0]), "[fe80::1%lo]:8087");
}

TEST(Resolve, ANameThatCannotBeIsAFault) {
  const Resolution none = Resolve("no such host", 1, SOCK_STREAM);
  EXPECT_THAT(none.addresses, IsEmpty());
  EXPECT_THAT(none.fault, HasSubstr("the address of no such host cannot be found: "));
}

TEST(Resolve, AnswersLaterOnAThreadOfItsOwn) {
  Resolver resolver;
  EXPECT_FALSE(resolver.Take());
  resolver.Ask("127.0.0.1", 7, SOCK_STREAM);
  pollfd set = {resolver.Descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&set, 1, 60000), 1);
  const auto answer = resolver.Take();
  ASSERT_TRUE(answer);
  EXPECT_EQ(HostAddressText(answer->addresses.at(0)), "127.0.0.1:7");
  EXPECT_FALSE(resolver.Take());
  EXPECT_EQ(poll(&set, 1, 0), 0) << "the answer was taken";
  resolver.Ask("192.0.2.1", 7, SOCK_STREAM);  // and nobody waits for the answer
}

TEST(Resolve, ANewQuestionForgetsAnAnswerThatNobodyTook) {
  Resolver resolver;
  pollfd set = {resolver.Descriptor(), POLLIN, 0};
  for (const char* host : {"192.0.2.1", "192.0.2.2"}) {
    resolver.Ask(host, 7, SOCK_STREAM);
    ASSERT_EQ(poll(&set, 1, 60000), 1);
  }
  const auto answer = resolver.Take();
  ASSERT_TRUE(answer);
  EXPECT_EQ(HostAddressText(answer->addresses.at(0)), "192.0.2.2:7");
  EXPECT_FALSE(resolver.Take());
}

// --- Input -------------------------------------------------------------------------------------------

// A socket of this machine, bound to a port that is free or given.
OwnedFD Bound(int type, uint16_t& port) {
  OwnedFD fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  sockaddr_in address = Loopback(port);
  socklen_t size = sizeof(address);
  EXPECT_EQ(bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  port = ntohs(address.sin_port);
  return fd;
}

// Returns the next datagram, within a minute.
std::string Receive(const OwnedFD& fd) {
  pollfd set = {fd.Get(), POLLIN, 0};
  if (poll(&set, 1, 60000) != 1) return "nothing";
  std::array<char, 65536> buffer;
  const ssize_t size = recv(fd.Get(), buffer.data(), buffer.size(), 0);
  return size < 0 ? "error" : std::string(buffer.data(), static_cast<size_t>(size));
}

std::string Event(const std::string& type, const std::string& uid) {
  return "<event version='2.0' uid='" + uid + "' type='" + type +
         "' time='2024-05-06T07:08:09Z'><point lat='1' lon='2' hae='3' ce='4' le='5'/></event>";
}

TEST(TakInput, ForwardsEachEventOfADatagramByItself) {
  uint16_t port = 0;
  { const OwnedFD free = Bound(SOCK_DGRAM, port); }
  TakSettings settings = *ParseTakUrl("tak://127.0.0.1:" + std::to_string(port));
  settings.aircraft = "HAWK";
  TakInput input(settings, true);
  uint16_t inputPort = input.Port();
  const OwnedFD library = Bound(SOCK_DGRAM, inputPort);
  input.Start();
  const OwnedFD sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in to = Loopback(port);
  const std::string text = Event("a-f-A", "HAWK") + Event("a-f-A", "OTHER") + Event("a-f-G", "GROUND") + "<event/>" +
                           Event("b-m-p-s-p-i", "SENSOR");
  // The socket of the input may not be there yet.
  pollfd answer = {library.Get(), POLLIN, 0};
  unsigned sent = 0;
  while (poll(&answer, 1, 10) == 0 && ++sent < 6000) {
    sendto(sender.Get(), text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  }
  EXPECT_THAT(Receive(library), HasSubstr("uid=\"HAWK\""));
  EXPECT_THAT(Receive(library), HasSubstr("uid=\"SENSOR\""));
  input.Stop();
  const TakCounts counts = input.Counts();
  EXPECT_EQ(counts.events, counts.datagrams * 5);
  EXPECT_EQ(counts.bytes, counts.datagrams * text.size());
  EXPECT_EQ(counts.forwarded, counts.datagrams * 2);
  EXPECT_EQ(counts.otherKinds, counts.datagrams);
  EXPECT_EQ(counts.otherAircraft, counts.datagrams);
  EXPECT_EQ(counts.faulty, counts.datagrams);
  EXPECT_EQ(input.Trouble(), "");
}

TEST(TakInput, ReadsAStreamThroughItsEndAndTellsWhyNothingComes) {
  uint16_t port = 0;
  const OwnedFD listener = Bound(SOCK_STREAM, port);
  ASSERT_EQ(listen(listener.Get(), 1), 0);
  TakInput input(*ParseTakUrl("tcp://127.0.0.1:" + std::to_string(port)), false);
  uint16_t inputPort = input.Port();
  const OwnedFD library = Bound(SOCK_DGRAM, inputPort);
  input.Start();
  OwnedFD server(accept(listener.Get(), nullptr, nullptr));
  ASSERT_TRUE(server.IsOpen());
  tak::Event event;
  event.type = "b-m-p-s-p-i";
  event.uid = "SENSOR";
  event.sendTime = 1714979290250;
  const std::vector<uint8_t> message = tak::FormatStreamMessage(event);
  std::string text = Event("a-f-A", "HAWK");
  text.append(message.begin(), message.end());
  ASSERT_EQ(send(server.Get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  EXPECT_THAT(Receive(library), HasSubstr("uid=\"HAWK\""));
  EXPECT_THAT(Receive(library), HasSubstr("uid=\"SENSOR\""));
  server.Reset();
  const auto end = std::chrono::steady_clock::now() + 60s;
  while (!input.HasGivenUp() && std::chrono::steady_clock::now() < end) poll(nullptr, 0, 1);
  EXPECT_EQ(input.Trouble(), "tcp://127.0.0.1:" + std::to_string(port) + ": the server ended the connection");
  EXPECT_TRUE(input.HasGivenUp());
  EXPECT_EQ(input.Counts().connections, 1U);
}

TEST(TakInput, EndsWhileItWaitsForItsPeer) {
  uint16_t port = 0;
  const OwnedFD listener = Bound(SOCK_STREAM, port);
  ASSERT_EQ(listen(listener.Get(), 1), 0);
  for (const std::string scheme : {"tcp", "tls"}) {
    TakInput input(*ParseTakUrl(scheme + "://127.0.0.1:" + std::to_string(port)), true);
    input.Start();
    const OwnedFD server(accept(listener.Get(), nullptr, nullptr));
    EXPECT_TRUE(server.IsOpen());
  }
}

TEST(TakInput, AnInterfaceThatIsAwayIsNamed) {
  std::string fault;
  TakSettings settings = *ParseTakUrl("tak://239.2.3.1:0x1B39");
  settings.interface = "nowhere0";
  EXPECT_FALSE(OpenTakSocket(settings, fault).IsOpen());
  EXPECT_EQ(fault, "there is no interface nowhere0");
}

// --- Keeper and statistics ---------------------------------------------------------------------------

std::optional<MDATA_SRC_CFG> g_opened;

TEST(TakKeeper, GivesTheLibraryAPortAndKeepsTheCounts) {
  g_opened.reset();
  Library library{};
  library.openSource = [](const MDATA_SRC_CFG* record, HMDATASRC* handle) -> BOOL {
    g_opened = *record;
    *handle = reinterpret_cast<HMDATASRC>(&*g_opened);
    return TRUE;
  };
  library.closeSource = [](HMDATASRC*) -> BOOL { return TRUE; };
  library.getSourceStats = [](HMDATASRC, MDATA_SRC_STATS*) -> BOOL { return TRUE; };
  library.setSourceStats = [](HMDATASRC, const MDATA_SRC_STATS*) -> BOOL { return TRUE; };
  uint16_t port = 0;
  OwnedFD listener = Bound(SOCK_STREAM, port);  // which does not listen
  const Config config = Read("[t]\ndata = cot\nurl = tcp://127.0.0.1:" + std::to_string(port) + "\n");
  std::vector<std::string> lines;
  const Reach reach{[](const auto&, const auto&) { return std::string(); },
                    [](const auto&, const auto&) { return Place{}; },
                    [](const auto&, const auto&, const Place&) { return Health{}; }};
  SourceKeeper keeper(
      library, [](MDATA_BUFFER*, void*, void*) -> BOOL { return TRUE; }, nullptr, {}, reach,
      [&](bool, const std::string& line) { lines.push_back(line); });
  keeper.Add(config.sources[0], config.encoder.capabilities);
  auto now = SourceKeeper::Clock::time_point{} + 1h;
  ASSERT_EQ(keeper.OpenAll(now), nullptr);
  ASSERT_TRUE(g_opened);
  EXPECT_NE(g_opened->in.Network.usUDPPort, 0);
  EXPECT_EQ(g_opened->in.Network.acSrcAddress[0], 127);
  const auto end = std::chrono::steady_clock::now() + 60s;
  while (lines.empty() && std::chrono::steady_clock::now() < end) {
    keeper.Tick(now);
    poll(nullptr, 0, 1);
  }
  EXPECT_THAT(lines, ElementsAre("source t waits: tcp://127.0.0.1:" + std::to_string(port) + ": Connection refused"));
  const std::vector<Report> reports = keeper.Reports(true);
  EXPECT_STREQ(reports.at(0).state, "cut off");
  ASSERT_TRUE(reports.at(0).tak);
  EXPECT_EQ(reports.at(0).tak->connections, 0U);
  keeper.CloseAll();
  EXPECT_TRUE(keeper.Reports(true).at(0).tak);
}

TEST(TakStatistics, NameWhatWasNotForwarded) {
  const Config config = Read(kMesh);
  Report report;
  report.settings = &config.sources[0];
  report.tak.emplace();
  report.tak->bytes = 1000;
  report.tak->events = 10;
  report.tak->forwarded = 5;
  report.tak->otherKinds = 3;
  report.tak->faulty = 2;
  EXPECT_THAT(StatisticsTable({report}),
              testing::Contains("    TAK network: 1000 bytes, 10 events, 5 forwarded, 3 of other kinds, 2 faulty"));
  EXPECT_THAT(StatisticsLine({report}, 0), HasSubstr("\"events\":10,\"forwarded\":5,"));
  report.tak.reset();
  EXPECT_THAT(StatisticsTable({report}), Not(testing::Contains(HasSubstr("TAK network"))));
}

}  // namespace
}  // namespace mdencoder::tak_test
