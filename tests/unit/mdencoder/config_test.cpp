// SPDX-License-Identifier: Apache-2.0
#include "config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host_serial.h"
#include "options.h"
#include "recording_name.h"
#include "values.h"

namespace mdencoder::config_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

Config Read(const std::string& text) {
  return MakeConfig(ParseIni(text), "/conf/demo.ini");
}
const MDATA_SRC_CFG& Record(const Config& config) {
  return config.sources.at(0).record;
}

// Returns the complaint about a configuration, which is one line.
std::string Complaint(const std::string& text) {
  try {
    Read(text);
  } catch (const ConfigError& error) {
    EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
    return error.what();
  }
  return "accepted";
}

constexpr char kUdp[] = "[udp]\ninput = udp\nport = 5000\n";

// --- sources -----------------------------------------------------------------------------------------

TEST(Source, UdpWithEverythingElseByDefault) {
  const Config config = Read(kUdp);
  ASSERT_EQ(config.sources.size(), 1U);
  EXPECT_EQ(config.sources[0].name, "udp");
  EXPECT_EQ(config.sources[0].input, "udp");
  EXPECT_EQ(config.sources[0].data, "klv");
  MDATA_SRC_CFG expected{};
  expected.nSize = sizeof(expected);
  expected.nIndex = 1;
  expected.enInputType = MDATA_INPUT_NETWORK;
  expected.in.Network.usUDPPort = 5000;
  EXPECT_EQ(std::memcmp(&Record(config), &expected, sizeof(expected)), 0);
  EXPECT_EQ(config.encoder.capabilities, METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT);
}

TEST(Encoder, ExtendedTagsAreOnUnlessSwitchedOff) {
  EXPECT_TRUE(Read(kUdp).encoder.extendedTags);
  EXPECT_TRUE(Read(std::string("[encoder]\nextended_tags = yes\n") + kUdp).encoder.extendedTags);
  EXPECT_FALSE(Read(std::string("[encoder]\nextended_tags = no\n") + kUdp).encoder.extendedTags);
  EXPECT_THAT(Complaint(std::string("[encoder]\nextended_tags = maybe\n") + kUdp),
              HasSubstr("extended_tags must be yes or no, not \"maybe\""));
}

TEST(Source, GroupsSendersAndInterfacesOfUdp) {
  const Config one = Read(std::string(kUdp) + "address = 239.1.2.3\n");
  EXPECT_EQ(one.sources[0].reception, HostReception{}) << "the library asks for it";
  const Config several = Read(std::string(kUdp) + "address = 239.1.2.3, ff02::7%eth2\ninterface = eth1\n");
  EXPECT_EQ(Record(several).in.Network.iSrcAddressFamily, 0);
  EXPECT_EQ(Record(several).in.Network.acSrcAddress[0], 0) << "of any sender";
  const HostReception& reception = several.sources[0].reception;
  EXPECT_EQ(reception.interface, "eth1");
  ASSERT_EQ(reception.groups.size(), 2U);
  EXPECT_EQ(reception.groups[0].family, AF_INET);
  EXPECT_EQ(reception.groups[0].interface, "");
  EXPECT_EQ(reception.groups[1].family, AF_INET6);
  EXPECT_EQ(reception.groups[1].interface, "eth2");
  const Config specific = Read(std::string(kUdp) + "address = 232.1.2.3\nsender = 10.0.0.5\n");
  EXPECT_EQ(AddressText(AF_INET, Record(specific).in.Network.acSrcAddress), "10.0.0.5") << "the library filters, too";
  EXPECT_EQ(specific.sources[0].reception.sender.family, AF_INET);
  EXPECT_EQ(specific.sources[0].reception.groups.size(), 1U);
  const Config neighbour = Read(std::string(kUdp) + "address = fe80::1%eth3\n");
  EXPECT_EQ(neighbour.sources[0].reception.interface, "eth3");
  EXPECT_EQ(AddressText(AF_INET6, Record(neighbour).in.Network.acSrcAddress), "fe80::1");
}

TEST(Source, DifferentGroupsShareAPort) {
  const std::string one = std::string(kUdp) + "address = 239.1.2.3, 239.1.2.4\n";
  EXPECT_EQ(Complaint(one + "[v]\ninput = udp\nport = 5000\naddress = 239.1.2.5\n"), "accepted");
  EXPECT_THAT(Complaint(one + "[v]\ninput = udp\nport = 5000\naddress = 239.1.2.4\n"), HasSubstr("port of its own"));
  EXPECT_THAT(Complaint(one + "[v]\ninput = udp\nport = 5000\n"), HasSubstr("port of its own"));
}

TEST(Source, SerialSettings) {
  const Config config = Read(
      "[line]\ninput = serial\ndata = cot\nindex = 9\ndevice = /dev/ttyUSB0\nbaud = 57600\nparity = even\nflow = hardware\nstop = 2\nbits = 7\n"
      "cot_delta_ms = 250\ncot_sensor = EO-1\ncot_discovery = yes\ncapture = on\ncapture_limit_kb = 64\n");
  const MDATA_SRC_CFG& record = Record(config);
  EXPECT_EQ(record.enInputType, MDATA_INPUT_SERIAL);
  EXPECT_EQ(record.enDataType, MDATA_DATA_COT);
  EXPECT_EQ(record.nIndex, 9U);
  EXPECT_EQ(config.sources[0].device, "/dev/ttyUSB0");
  EXPECT_EQ(record.in.Serial.nBaudRate, 57600);
  EXPECT_EQ(record.in.Serial.enParity, HOST_SERIAL_PARITY_EVEN);
  EXPECT_EQ(record.in.Serial.enFlowControl, HOST_SERIAL_FLOW_HARDWARE);
  EXPECT_EQ(record.in.Serial.enStopBits, HOST_SERIAL_STOP_2);
  EXPECT_EQ(record.in.Serial.nDataBits, 7);
  EXPECT_EQ(record.format.CoT.nMaxAirCraftSPITimeDeltaInMs, 250U);
  EXPECT_STREQ(record.format.CoT.szSpiUid, "EO-1");
  EXPECT_EQ(record.format.CoT.bSensorDiscovery, TRUE);
  EXPECT_EQ(record.bCaptureToDisk, TRUE);
  EXPECT_EQ(record.nMaxCaptureSizeInKBytes, 64);
  EXPECT_NE(config.encoder.capabilities & METADATALIB_CAPS_COT_SUPPORT, 0U);
}

TEST(Source, TheUsualDeltaIsShorterThanThePairsOfAFastSenderAreApart) {
  EXPECT_EQ(Record(Read(std::string(kUdp) + "data = cot\n")).format.CoT.nMaxAirCraftSPITimeDeltaInMs, 40U);
}

TEST(Source, VideoSettings) {
  const Config config = Read("[sdi]\ninput = video\ninterface = 3\ndecimation = 5\n");
  EXPECT_EQ(Record(config).in.Video.enInputInterface, 3);
  EXPECT_EQ(Record(config).nDecimationFactor, 5U);
}

TEST(Source, AnAddressSettlesTheFamily) {
  const MDATA_SRC_CFG four = Record(Read(std::string(kUdp) + "address = 239.1.2.3\n"));
  EXPECT_EQ(four.in.Network.iSrcAddressFamily, AF_INET);
  EXPECT_EQ(AddressText(AF_INET, four.in.Network.acSrcAddress), "239.1.2.3");
  const MDATA_SRC_CFG six = Record(Read(std::string(kUdp) + "family = ipv6\naddress = fd00::7\n"));
  EXPECT_EQ(six.in.Network.iSrcAddressFamily, AF_INET6);
  EXPECT_EQ(AddressText(AF_INET6, six.in.Network.acSrcAddress), "fd00::7");
  EXPECT_EQ(Record(Read(std::string(kUdp) + "family = ipv4\n")).in.Network.iSrcAddressFamily, AF_INET);
}

TEST(Source, RewritingSettings) {
  const Config config = Read(std::string(kUdp) +
                             "mission_id = MISSION 7\nclassification = top-secret\nclassifying_country = DEU\n"
                             "object_country = DEU;USA\nkeep_tags = 2, 13-15, ls_version, 127\n"
                             "keep_security_tags = 1-3, version\n");
  const MDATA_SRC_CFG& record = Record(config);
  EXPECT_STREQ(record.szMissionID, "MISSION 7");
  EXPECT_EQ(record.bClassifyMission, TRUE);
  EXPECT_EQ(record.enClassification, 5);
  EXPECT_STREQ(record.szClassifyingCountry, "DEU");
  EXPECT_STREQ(record.szObjectCountry, "DEU;USA");
  EXPECT_EQ(record.bFilterUASTags, TRUE);
  EXPECT_THAT(record.UASTagFilter, ElementsAre(1U << 2 | 7U << 13, 0U, 1U << 1, 1U << 31));
  EXPECT_EQ(record.bFilterUASSecurityTags, TRUE);
  EXPECT_EQ(record.UASSecurityTagFilter[0], 7U << 1 | 1U << 22);
}

TEST(Source, KeepingNoTagIsAFilterToo) {
  const MDATA_SRC_CFG record = Record(Read(std::string(kUdp) + "keep_tags = none\n"));
  EXPECT_EQ(record.bFilterUASTags, TRUE);
  EXPECT_THAT(record.UASTagFilter, ElementsAre(0U, 0U, 0U, 0U));
}

TEST(Source, RelaysInTheOrderOfTheirNumbers) {
  const Config config = Read(std::string(kUdp) +
                             "relay8 = [ff02::1]:6000 ttl=4\nrelay1 = 239.0.0.1:5000 ttl=16 tos=follow\n"
                             "relay2 = 10.0.0.2:5001 tos=0x88 ttl=follow\n");
  const MDATA_SRC_CFG& record = Record(config);
  ASSERT_EQ(record.nNumOfRelays, 3U);
  EXPECT_EQ(record.Relays[0].iDestAddressFamily, AF_INET);
  EXPECT_EQ(record.Relays[0].usUDPPort, 5000);
  EXPECT_EQ(record.Relays[0].IpTTL, 16);
  EXPECT_EQ(record.Relays[0].IpTOS, -1);
  EXPECT_EQ(record.Relays[1].IpTTL, -1);
  EXPECT_EQ(record.Relays[1].IpTOS, 0x88);
  EXPECT_EQ(record.Relays[2].iDestAddressFamily, AF_INET6);
  EXPECT_EQ(record.Relays[2].IpTTL, 4);
  EXPECT_EQ(record.Relays[2].IpTOS, 0);
}

TEST(Source, RelaysToNamesAndInterfaces) {
  const Config config = Read(std::string(kUdp) +
                             "relay1 = map.example.org:5000 tos=follow\nrelay2 = [fe80::1%eth1]:5001\n"
                             "relay3 = [ff12::1%eth1]:5002\nrelay4 = 10.0.0.2:5003\n");
  const SourceSettings& source = config.sources.at(0);
  EXPECT_THAT(source.relayHosts, ElementsAre("map.example.org", "", "", ""));
  EXPECT_EQ(source.record.Relays[0].iDestAddressFamily, 0);
  EXPECT_EQ(source.record.Relays[0].usUDPPort, 5000);
  EXPECT_EQ(source.record.Relays[0].IpTOS, -1);
  EXPECT_EQ(source.record.Relays[1].iDestAddressFamily, AF_INET6);
  EXPECT_EQ(source.reception.relayInterface, "eth1");
  EXPECT_EQ(RelayText(source, 0), "map.example.org:5000");
  EXPECT_EQ(RelayText(source, 1), "[fe80::1]:5001");
}

TEST(Source, AServerOfHttpsMayHaveAuthoritiesOfItsOwn) {
  const Config config = Read("[a]\nurl = https://camera/x.ts\ntls_ca = /etc/ca.pem\n[b]\nurl = https://camera/x.ts\n");
  EXPECT_EQ(config.sources.at(0).capture->authorities, "/etc/ca.pem");
  EXPECT_EQ(config.sources.at(1).capture->authorities, "");
  EXPECT_THAT(
      Complaint("[a]\nurl = http://camera/x.ts\ntls_ca = /etc/ca.pem\n"),
      HasSubstr("[a] tls_ca is allowed only with url = tls:// and data = cot, with url = https://, or with cot_out = "
                "tls://"));
}

TEST(Source, RelaysThatNobodyCanSendTo) {
  for (const char* relay :
       {"1.2.3:5", "300.1.1.1:5", "-x:5", ".x:5", "a b:5", "a/b:5", "name:0", "name", ":5", "[name]:5",
        "fe80::1%eth0:5", "[fe80::1%]:5", "[2001:db8::1%eth0]:5", "[fe80::1%a-name-much-too-long]:5", "10.0.0.1%eth0:5",
        "[ff15::1%eth0]:5", "[fe80::1%eth0]:5 ttl=follow"}) {
    EXPECT_FALSE(ParseRelay(relay)) << relay;
  }
  EXPECT_FALSE(ParseRelay(std::string(250, 'a') + ".org:5"));
}

// --- encoder section ---------------------------------------------------------------------------------

TEST(Encoder, EverySetting) {
  const EncoderSettings settings =
      Read(
          std::string("[encoder]\ncapabilities = ipv4, cot\nlibrary = a.so\nhost_config = host.ini\noutput_dir = out\n"
                      "stream_header = yes\nformat = json\nlive = yes\nlog_level = 6\n"
                      "log_levels = METADATALIB:7, COTCONVERTER:3\nstatus_interval = 0.5\nstats_interval = 2\n"
                      "stats_json = s.json\nstats_file = kept.json\nsummary = sum.json\nduration = 1.5\nmessages = 10\n"
                      "messages_each = 5\nqueue = 100\n") +
          kUdp)
          .encoder;
  EXPECT_EQ(settings.capabilities, METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_COT_SUPPORT);
  EXPECT_EQ(settings.library, "/conf/a.so");
  EXPECT_EQ(settings.hostConfig, "/conf/host.ini");
  EXPECT_EQ(settings.outputDir, "/conf/out");
  EXPECT_TRUE(settings.streamHeader);
  EXPECT_EQ(settings.presentation.format, Format::Json);
  EXPECT_TRUE(settings.live);
  EXPECT_EQ(settings.logLevel, 6);
  EXPECT_THAT(settings.moduleLevels, ElementsAre(Pair("METADATALIB", 7), Pair("COTCONVERTER", 3)));
  EXPECT_EQ(settings.statusInterval, 0.5);
  EXPECT_EQ(settings.statsInterval, 2);
  EXPECT_EQ(settings.statsJson, "/conf/s.json");
  EXPECT_EQ(settings.statsFile, "/conf/kept.json");
  EXPECT_EQ(settings.summary, "/conf/sum.json");
  EXPECT_EQ(settings.duration, 1.5);
  EXPECT_EQ(settings.messages, 10U);
  EXPECT_EQ(settings.messagesEach, 5U);
  EXPECT_EQ(settings.queue, 100U);
}

TEST(Example, TheShippedConfigurationIsRight) {
  constexpr char kPath[] = METADATA_SOURCE_DIR "/encoder/mdencoder.example.ini";
  std::ifstream file(kPath);
  size_t sections = 0;
  for (std::string line; std::getline(file, line);) sections += line.starts_with("[") ? 1 : 0;
  const Config config = LoadConfig(kPath);
  EXPECT_EQ(config.sources.size() + config.streams.size() + 1, sections) << "one section is [encoder]";
}

// --- complaints --------------------------------------------------------------------------------------

struct Bad {
  const char* text;
  const char* complaint;
};
class BadConfig : public testing::TestWithParam<Bad> {};
TEST_P(BadConfig, NamesKeyValueAndWhatIsAllowed) {
  EXPECT_EQ(Complaint(GetParam().text), GetParam().complaint);
}

#define UDP "[u]\ninput = udp\nport = 5000\n"
INSTANTIATE_TEST_SUITE_P(
    Outputs, BadConfig,
    testing::Values(
        Bad{"[encoder]\ncolumns = time, latitude\n",
            "[encoder] columns must be a list of arrival, source, sequence, length, checksum, item names, tags 1 to 143, "
            "ranges of them, and all, not \"time, latitude\""},
        Bad{"[encoder]\nitems = arrival\n",
            "[encoder] items must be a list of item names, tags 1 to 143, ranges of them, and all, not \"arrival\""},
        Bad{"[encoder]\ntrack_format = shp\n", "[encoder] track_format must be one of geojson, kml, gpx, not \"shp\""},
        Bad{"[encoder]\ntrack_interval = -1\n",
            "[encoder] track_interval must be a number from 0 to 86400, not \"-1\""},
        Bad{UDP "cot_out = 239.2.3.1:6969\n",
            "[u] cot_out must be udp://HOST:PORT, tak://HOST:PORT, tcp://HOST:PORT or tls://HOST:PORT, not \"239.2.3.1:6969\""},
        Bad{UDP "cot_out_rate = 2\n", "[u] cot_out_rate is allowed only with cot_out"},
        Bad{UDP "cot_out = udp://a:1\ncot_out_rate = 0\n",
            "[u] cot_out_rate must be a number from 0.01 to 50, not \"0\""},
        Bad{UDP "cot_out = udp://a:1\ncot_out_type = b-m\n",
            "[u] cot_out_type must be a type of an atom as \"a-f-A-M-F-Q\", not \"b-m\""},
        Bad{UDP "track = a.json\n", "[u] track must be a name that ends in .geojson, .kml or .gpx, not \"a.json\""},
        Bad{UDP "track = /x.kml\n[v]\ninput = video\ntrack = /x.kml\n",
            "[v] track must be a file of its own, and [u] has \"/x.kml\""}));

INSTANTIATE_TEST_SUITE_P(
    Values, BadConfig,
    testing::Values(
        Bad{"[u]\ninput = udp\nport = 70000\n", "[u] port must be a whole number from 1 to 65535, not \"70000\""},
        Bad{"[u]\ninput = udp\nport = 5000x\n", "[u] port must be a whole number from 1 to 65535, not \"5000x\""},
        Bad{"[u]\ninput = udp\n", "[u] port is missing; it must be a whole number from 1 to 65535"},
        Bad{"[u]\nport = 1\n", "[u] input is missing; it must be one of serial, udp, video"},
        Bad{"[u]\ninput = tcp\n", "[u] input must be one of serial, udp, video, not \"tcp\""},
        Bad{"[u]\ninput = video\ndata = cot\n", "[u] data must be klv with input = video, not \"cot\""},
        Bad{"[u]\ninput = video\ninterface = 4\n", "[u] interface must be a whole number from 0 to 3, not \"4\""},
        Bad{UDP "baud = 9600\n", "[u] baud is allowed only with input = serial"},
        Bad{UDP "decimation = 2\n", "[u] decimation is allowed only with input = video"},
        Bad{UDP "cot_delta_ms = 5\n", "[u] cot_delta_ms is allowed only with data = cot"},
        Bad{UDP "object_country = USA\n", "[u] object_country is allowed only with a classification"},
        Bad{UDP "capture_limit_kb = 5\n", "[u] capture_limit_kb is allowed only with capture = yes"},
        Bad{UDP "data = cot\ncot_delta_ms = 2147484\n",
            "[u] cot_delta_ms must be a whole number from 0 to 2147483, not \"2147484\""},
        Bad{UDP "data = cot\ncot_sensor = 12345678901234567890123456789012\n",
            "[u] cot_sensor must be 1 to 31 characters long, not \"12345678901234567890123456789012\""},
        Bad{UDP "capture = maybe\n", "[u] capture must be yes or no, not \"maybe\""},
        Bad{UDP "classification = secret\n",
            "[u] classifying_country must be a country code of three letters, not \"\""},
        Bad{UDP "classification = secret\nclassifying_country = US\n",
            "[u] classifying_country must be a country code of three letters, not \"US\""},
        Bad{UDP "classification = secret\nclassifying_country = U5A\n",
            "[u] classifying_country must be a country code of three letters, not \"U5A\""},
        Bad{"[s]\ninput = serial\nbaud = 115201\n",
            "[s] baud must be one of 50, 75, 110, 134, 150, 200, 300, 600, 1200, 1800, 2400, 4800, 9600, 19200, 38400, "
            "57600, 115200, 230400, 460800, 500000, 576000, 921600, 1000000, 1152000, 1500000, 2000000, 2500000, 3000000, "
            "3500000, 4000000, not \"115201\""},
        Bad{UDP "keep_tags = 2, 128\n",
            "[u] keep_tags must be a list of tags 0 to 127, ranges and item names, or none, not \"2, 128\""},
        Bad{UDP "keep_tags = 15-13\n",
            "[u] keep_tags must be a list of tags 0 to 127, ranges and item names, or none, not \"15-13\""},
        Bad{UDP "keep_security_tags = 32\n",
            "[u] keep_security_tags must be a list of tags 0 to 31, ranges and element names, or none, not \"32\""},
        Bad{UDP "address = ff02::1, fd00::1\n",
            "[u] address must be the sender's numeric IPv4 or IPv6 address of the family given, or up to 16 groups with commas "
            "between them, not \"ff02::1, fd00::1\""},
        Bad{UDP "family = ipv6\naddress = 10.0.0.1\n",
            "[u] address must be the sender's numeric IPv4 or IPv6 address of the family given, or up to 16 groups with commas "
            "between them, not \"10.0.0.1\""},
        Bad{UDP "address = 239.1.1.1, ff02::1\nsender = 10.0.0.1\n",
            "[u] sender must be a numeric address of the family of all groups, not \"10.0.0.1\""},
        Bad{UDP "address = 10.0.0.1\nsender = 10.0.0.1\n",
            "[u] sender is allowed only with input = udp and groups as the address"},
        Bad{"[a b]\ninput = video\n", "[a b] must be a source name of up to 49 letters, digits, '_', '-' and '.'"},
        Bad{"[encoder]\nformat = xml\n", "[encoder] format must be one of table, json, csv, none, not \"xml\""},
        Bad{"[encoder]\ncapabilities = cot\n",
            "[encoder] capabilities must be a list with ipv4 or ipv6 in it, not \"cot\""},
        Bad{"[encoder]\ncapabilities = ipv5\n",
            "[encoder] capabilities must be a list of cot, ipv4 and ipv6, not \"ipv5\""},
        Bad{"[encoder]\nlog_levels = METADATALIB\n",
            "[encoder] log_levels must be a list of MODULE:LEVEL with levels 0 to 8, not \"METADATALIB\""},
        Bad{"[encoder]\nduration = -1\n", "[encoder] duration must be a number from 0 to 1e+09, not \"-1\""},
        Bad{"[encoder]\nduration = 1,5\n", "[encoder] duration must be a number from 0 to 1e+09, not \"1,5\""}));

INSTANTIATE_TEST_SUITE_P(
    Together, BadConfig,
    testing::Values(Bad{"[encoder]\nformat = json\n",
                        "there is no source; each source is a section with at least its input"},
                    Bad{UDP "[v]\ninput = udp\ndata = cot\nport = 5000\n",
                        "[v] port must be a port of its own, or one of other groups, and [u] has 5000"},
                    Bad{"[a]\ninput = serial\n[b]\ninput = serial\ndata = cot\n",
                        "[b] input = serial is allowed for one source only, and [a] has it"},
                    Bad{UDP "output = x\n[v]\ninput = video\noutput = x\n",
                        "[v] output must be a file of its own, and [u] has \"/conf/x\""},
                    Bad{"[encoder]\ncapabilities = ipv4\n" UDP "family = ipv6\n",
                        "[u] family = ipv6 is allowed only with ipv6 among the capabilities"},
                    Bad{"[encoder]\ncapabilities = ipv4\n" UDP "data = cot\n",
                        "[u] data = cot is allowed only with cot among the capabilities"}));

INSTANTIATE_TEST_SUITE_P(
    Recordings, BadConfig,
    testing::Values(Bad{UDP "rotate_size = 12\n",
                        "[u] rotate_size must be a number of bytes from 1024, which may end in k, M or G, not \"12\""},
                    Bad{UDP "rotate_time = 2678401\n",
                        "[u] rotate_time must be a whole number from 0 to 2678400, not \"2678401\""},
                    Bad{UDP "output = /a.klv\nrotate_time = 60\n",
                        "[u] output must be a name with %n in it, because the recording is rotated, not \"/a.klv\""},
                    Bad{"[encoder]\nrotate_size = 1M\n" UDP "output = /a_%Y%m%dT%H%M%SZ.klv\n",
                        "[u] output must be a name with %n in it, because the recording is rotated, not "
                        "\"/a_%Y%m%dT%H%M%SZ.klv\""},
                    Bad{UDP "output = /%Q.klv\n",
                        "[u] output must be a name with only %Y %m %d %H %M %S, %n and %% in it, not \"/%Q.klv\""}));

INSTANTIATE_TEST_SUITE_P(
    Lines, BadConfig,
    testing::Values(
        Bad{"port = 1\n", "key \"port\" stands before the first [section]"},
        Bad{"[u]\nnonsense\n", "line 2: neither [section] nor key = value"},
        Bad{UDP "port = 5001\n",
            "[u] port = 5001: given twice, or continued on an indented line; one line per key is allowed"}));
#undef UDP

TEST(Recordings, SourcesHaveTheSettingsOfTheEncoderUnlessTheyHaveTheirOwn) {
  const Config config = MakeConfig(ParseIni("[a]\ninput = udp\nport = 1\nrotate_size = 0\n[encoder]\noutput_dir = /o\n"
                                            "rotate_size = 2M\nrotate_time = 60\n[b]\ninput = udp\nport = 2\n"
                                            "rotate_time = 0\noutput = /x/b_%n\n[c]\ninput = udp\nport = 3\n"
                                            "rotate_time = 0\nrotate_size = 0\n"),
                                   "-");
  EXPECT_EQ(config.sources[0].rotateSize, 0u);
  EXPECT_EQ(config.sources[0].rotateTime, 60u);
  EXPECT_EQ(config.sources[1].rotateSize, 2u << 20);
  EXPECT_EQ(config.sources[1].rotateTime, 0u);
  EXPECT_EQ(RecordingPath(config.sources[0], config.encoder), "/o/a_%Y%m%dT%H%M%SZ_%n.klv");
  EXPECT_EQ(RecordingPath(config.sources[1], config.encoder), "/x/b_%n");
  EXPECT_EQ(RecordingPath(config.sources[2], config.encoder), "/o/c.klv");
}

TEST(Silence, IsThatOfTheEncoderUnlessASourceHasItsOwn) {
  const Config config = MakeConfig(ParseIni("[a]\ninput = udp\nport = 1\nsilence = 0\n[encoder]\nsilence = 2.5\n"
                                            "[b]\ninput = udp\nport = 2\n"),
                                   "-");
  EXPECT_EQ(config.sources[0].silence, 0.0);
  EXPECT_EQ(config.sources[1].silence, 2.5);
}

TEST(Complaints, UnknownKeysComeWithASuggestion) {
  const std::string complaint = Complaint(std::string(kUdp) + "prot = 5000\n");
  EXPECT_THAT(complaint, HasSubstr("[udp] prot = 5000: unknown key, did you mean \"port\"?; allowed are input, data,"));
  EXPECT_THAT(Complaint(std::string(kUdp) + "xyzzy = 1\n"), HasSubstr("xyzzy = 1: unknown key; allowed are input"));
  EXPECT_THAT(Complaint("[encoder]\nformt = json\n"), HasSubstr("did you mean \"format\"?"));
}

TEST(Complaints, LinesThatTheReaderWouldCutAreRefused) {
  EXPECT_EQ(Complaint("[u]\nkeep_tags = " + std::string(200, '1') + "\n"),
            "line 2: line too long, at most 197 characters are allowed");
}

TEST(Complaints, NamesOfSectionsThatTheReaderWouldCutAreRefused) {
  EXPECT_EQ(Read("[" + std::string(49, 'x') + "]\ninput = video\n").sources[0].name, std::string(49, 'x'));
  EXPECT_EQ(Complaint("; no source\n [" + std::string(50, 'x') + "]\ninput = video\n"),
            "line 2: name of a section too long, at most 49 characters are allowed");
}

TEST(Complaints, AZeroByteIsRefused) {
  EXPECT_EQ(Complaint(std::string("[u]\ninput = udp\0\n", 16)), "contains a zero byte; a text file is expected");
}

TEST(Complaints, AFolderIsNoConfiguration) {
  try {
    ReadIni(testing::TempDir());
    FAIL() << "accepted";
  } catch (const ConfigError& error) {
    EXPECT_EQ(error.what(), testing::TempDir() + ": cannot be read");
  }
}

TEST(Complaints, AFileThatIsNotThere) {
  EXPECT_THROW(
      {
        try {
          LoadConfig("/nonexistent/x.ini");
        } catch (const ConfigError& error) {
          EXPECT_STREQ(error.what(), "/nonexistent/x.ini: cannot be read");
          throw;
        }
      },
      ConfigError);
}

class BadRelay : public testing::TestWithParam<const char*> {};
TEST_P(BadRelay, IsRefused) {
  EXPECT_FALSE(ParseRelay(GetParam()));
}
INSTANTIATE_TEST_SUITE_P(Relays, BadRelay,
                         testing::Values("", "10.0.0.1", "10.0.0.1:0", "10.0.0.1:65536", "host/x:5000", "ff02::1:5000",
                                         "[10.0.0.1]:5000", "10.0.0.1:5000 ttl=256", "10.0.0.1:5000 ttl=-1",
                                         "10.0.0.1:5000 ttl=", "10.0.0.1:5000 ttl=1 ttl=2", "10.0.0.1:5000 hops=1",
                                         "[ff02::1]:5000 ttl=follow", "[ff02::1]:5000 tos=follow"));

// --- command line ------------------------------------------------------------------------------------

int Parse(std::vector<const char*> arguments, Options& options) {
  arguments.insert(arguments.begin(), "mdencoder");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int result = ParseOptions(static_cast<int>(arguments.size()), arguments.data(), options);
  testing::internal::GetCapturedStdout();
  testing::internal::GetCapturedStderr();
  return result;
}

TEST(CommandLine, OptionsAreKeysOfTheEncoderSection) {
  Options options;
  EXPECT_EQ(Parse({"demo.ini", "--format", "json", "--stats-interval=2", "--live", "--check"}, options), -1);
  EXPECT_EQ(options.config, "demo.ini");
  EXPECT_EQ(options.check, Check::All);
  EXPECT_THAT(options.overrides,
              testing::UnorderedElementsAre(Pair("format", "json"), Pair("stats_interval", "2"), Pair("live", "yes")));
}

TEST(CommandLine, ACheckIsOfEverythingOrOfTheText) {
  Options options;
  EXPECT_EQ(Parse({"demo.ini"}, options), -1);
  EXPECT_EQ(options.check, Check::None);
  EXPECT_EQ(Parse({"--check-text", "demo.ini"}, options), -1);
  EXPECT_EQ(options.check, Check::Text);
}

TEST(CommandLine, HelpIsNoErrorAndMisuseIsTwo) {
  Options options;
  EXPECT_EQ(Parse({"--help"}, options), 0);
  EXPECT_EQ(Parse({"--version"}, options), 0);
  EXPECT_EQ(Parse({}, options), 2);
  EXPECT_EQ(Parse({"a.ini", "--no-such-option"}, options), 2);
  EXPECT_EQ(Parse({"a.ini", "--format"}, options), 2);
}

TEST(Source, NamesOfFilesAreRelativeToTheConfiguration) {
  const Config config = Read("[line]\ninput = serial\ndevice = ../pty\noutput = out/line.klv\n");
  EXPECT_EQ(config.sources[0].device, "/pty");
  EXPECT_EQ(config.sources[0].output, "/conf/out/line.klv");
}

TEST(Source, SwitchesAreTheSameWordsAsInTheHostsFile) {
  EXPECT_EQ(Record(Read(std::string(kUdp) + "capture = Yes\n")).bCaptureToDisk, TRUE);
  EXPECT_EQ(Record(Read(std::string(kUdp) + "capture = OFF\n")).bCaptureToDisk, FALSE);
}

TEST(CommandLine, NamesOfFilesInOptionsAreRelativeToTheWorkingDirectory) {
  const std::string path = testing::TempDir() + "mdencoder_paths.ini";
  std::ofstream(path) << kUdp << "[encoder]\nsummary = a.json\nstats_file = b.json\n";
  const EncoderSettings settings = LoadConfig(path, {{"summary", "c.json"}}).encoder;
  EXPECT_EQ(settings.summary, "c.json");
  EXPECT_EQ(settings.statsFile, testing::TempDir() + "b.json");
  std::filesystem::remove(path);
}

TEST(CommandLine, OptionsWinOverTheFile) {
  const std::string path = testing::TempDir() + "mdencoder_override.ini";
  std::FILE* file = std::fopen(path.c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fprintf(file, "%s[encoder]\nformat = table\nmessages = 3\n", kUdp);
  std::fclose(file);
  const Config config = LoadConfig(path, {{"format", "none"}, {"queue", "7"}});
  EXPECT_EQ(config.encoder.presentation.format, Format::None);
  EXPECT_EQ(config.encoder.messages, 3U);
  EXPECT_EQ(config.encoder.queue, 7U);
  EXPECT_THROW(LoadConfig(path, {{"queue", "0"}}), ConfigError);
  std::remove(path.c_str());
}

// --- URLs --------------------------------------------------------------------------------------------

TEST(Url, AStreamOrFileTakesAVideoInput) {
  const Config config = Read(
      "[cam]\nurl = udp://239.1.2.3:5000\n[sdi]\ninput = video\ninterface = 0\n"
      "[file]\nurl = flight.ts\nspeed = 0\nloop = yes\n");
  ASSERT_EQ(config.sources.size(), 3U);
  const SourceSettings& cam = config.sources[0];
  EXPECT_EQ(cam.input, "video");
  ASSERT_TRUE(cam.capture);
  EXPECT_EQ(cam.capture->kind, HostCaptureConfig::Kind::Media);
  EXPECT_EQ(cam.capture->path, "udp://239.1.2.3:5000");
  EXPECT_EQ(cam.record.in.Video.enInputInterface, 1) << "another source has input 0";
  EXPECT_FALSE(config.sources[1].capture);
  const SourceSettings& file = config.sources[2];
  EXPECT_EQ(file.capture->path, "/conf/flight.ts");
  EXPECT_EQ(file.capture->speed, 0);
  EXPECT_TRUE(file.capture->loop);
  EXPECT_EQ(file.record.in.Video.enInputInterface, 2);
  HostRuntimeConfig host;
  host.captures[0].path = "other";
  EXPECT_EQ(CaptureOf(cam, host).path, "udp://239.1.2.3:5000");
  EXPECT_EQ(CaptureOf(config.sources[1], host).path, "other");
}

TEST(Url, ACaptureFileIsReceivedFromThisMachine) {
  const Config config = Read("[a]\nurl = a.pcapng\nfilter = udp port 5000\ndata = cot\n[b]\nurl = b.pcap\nspeed = 2\n");
  ASSERT_EQ(config.sources.size(), 2U) << "neither has a port yet";
  EXPECT_EQ(config.sources[0].input, "udp");
  EXPECT_EQ(config.sources[0].data, "cot");
  ASSERT_TRUE(config.sources[0].replay);
  EXPECT_EQ(config.sources[0].replay->path, "/conf/a.pcapng");
  EXPECT_EQ(config.sources[0].replay->filter, "udp port 5000");
  EXPECT_EQ(config.sources[1].replay->speed, 2);
  const MDATA_INET_SRC_CFG& network = config.sources[0].record.in.Network;
  EXPECT_EQ(network.iSrcAddressFamily, AF_INET);
  EXPECT_EQ(network.acSrcAddress[0], 127);
}

constexpr char kFour[] = "[a]\nurl = a.ts\n[b]\nurl = b.ts\n[c]\nurl = c.ts\n[d]\ninput = video\ninterface = 3\n";

std::vector<std::string> InputsOf(const Config& config) {
  std::vector<std::string> inputs;
  for (const SourceSettings& source : config.sources) inputs.push_back(source.name + " " + source.input);
  return inputs;
}

TEST(Url, OneWithoutAVideoInputIsFedFromThisMachine) {
  const Config config =
      Read(std::string(kFour) +
           "[e]\nurl = e.ts\nspeed = 0\nrelay1 = [fe80::1%lo]:7000\n[f]\nurl = srt://h:1\ninput = video\n");
  EXPECT_THAT(InputsOf(config), ElementsAre("a video", "b video", "c video", "d video", "e url", "f url"));
  const SourceSettings& fed = config.sources[4];
  EXPECT_TRUE(IsFed(fed));
  EXPECT_FALSE(IsFed(config.sources[0]));
  EXPECT_EQ(fed.record.enInputType, MDATA_INPUT_NETWORK);
  EXPECT_EQ(fed.record.in.Network.usUDPPort, 0) << "it is found later";
  EXPECT_EQ(fed.record.in.Network.iSrcAddressFamily, AF_INET);
  EXPECT_EQ(fed.record.in.Network.acSrcAddress[0], 127);
  EXPECT_TRUE(fed.reception.onlyLoopback);
  EXPECT_EQ(fed.reception.relayInterface, "lo") << "what is not about its reception stays";
  EXPECT_EQ(fed.capture->path, "/conf/e.ts");
  EXPECT_EQ(fed.capture->speed, 0);
  EXPECT_EQ(CaptureOf(fed, {}).path, "/conf/e.ts");
  EXPECT_EQ(Complaint(std::string("[encoder]\ncapabilities = ipv6\n") + kFour + "[e]\nurl = e.ts\n"),
            "[e] url is allowed only with ipv4 among the capabilities");
}

TEST(Url, OneThatIsThinnedHasAVideoInputFirst) {
  const std::string thinned = "[e]\nurl = e.ts\ndecimation = 2\n";
  EXPECT_THAT(InputsOf(Read(kFour + thinned)), ElementsAre("a video", "b video", "c url", "d video", "e video"));
  EXPECT_EQ(
      Complaint("[w]\nurl = w.ts\ndecimation = 2\n[x]\nurl = x.ts\ndecimation = 2\n[y]\nurl = y.ts\ndecimation = 2\n"
                "[d]\ninput = video\ninterface = 3\n" +
                thinned),
      "[e] decimation is allowed only with a video input, and the 4 are taken by other sources");
}

TEST(Url, VideoInputsStayWithTheSourcesThatRunWithThem) {
  const Config running = Read(std::string(kFour) + "[e]\nurl = e.ts\n");
  Config fresh = Read("[new]\nurl = n.ts\n[e]\nurl = e.ts\n[c]\nurl = c.ts\n[b]\nurl = b.ts\n[a]\nurl = a.ts\n");
  EXPECT_THAT(InputsOf(fresh), ElementsAre("new video", "e video", "c video", "b video", "a url"));
  GiveInputs(fresh.sources, running.sources);
  EXPECT_THAT(InputsOf(fresh), ElementsAre("new video", "e url", "c video", "b video", "a video"));
  EXPECT_EQ(fresh.sources[2].record.in.Video.enInputInterface, 0);
  EXPECT_EQ(fresh.sources[0].record.in.Video.enInputInterface, 3);
  EXPECT_FALSE(fresh.sources[4].reception.onlyLoopback) << "nothing is left of what it was";
}

TEST(Url, ASerialDeviceMayBeAServer) {
  EXPECT_EQ(Read("[a]\ninput = serial\ndevice = tcp://[::1]:4001\n").sources[0].device, "tcp://[::1]:4001");
  for (const char* bad : {"udp://h:1", "tcp://h", "tcp://:4"}) {
    EXPECT_EQ(Complaint(std::string("[a]\ninput = serial\ndevice = ") + bad + "\n"),
              std::string("[a] device must be a serial device, or tcp://HOST:PORT, not \"") + bad + "\"");
  }
}

TEST(Url, WhatDoesNotFitIsRefused) {
  EXPECT_THAT(Complaint("[a]\nurl = gopher://x\n"), HasSubstr("[a] url must be a file, or a URL that begins with udp"));
  EXPECT_THAT(Complaint("[a]\nurl = udp://camera:5000\n"), HasSubstr("[a] url must be udp://ADDRESS:PORT"));
  EXPECT_EQ(Complaint("[a]\nurl = a.ts\ninput = udp\n"),
            "[a] input must be video with this url, or left out, not \"udp\"");
  EXPECT_EQ(Complaint("[a]\nurl = a.pcap\ninput = video\n"),
            "[a] input must be udp with this url, or left out, not \"video\"");
  EXPECT_EQ(Complaint("[a]\nurl = a.ts\ndata = cot\n"), "[a] data must be klv with this url, not \"cot\"");
  EXPECT_EQ(Complaint("[a]\nurl = srt://h:1\nspeed = 2\n"), "[a] speed is allowed only with url of a file");
  EXPECT_EQ(Complaint("[a]\nurl = a.ts\nfilter = udp\n"), "[a] filter is allowed only with url of a capture file");
  EXPECT_EQ(Complaint("[a]\nurl = a.ts\ninterface = 1\n"),
            "[a] interface is allowed only with input = udp, with input = video and without url, or with url = tak://");
  EXPECT_EQ(Complaint("[a]\nurl = a.pcap\nport = 5000\n"), "[a] port is allowed only with input = udp and without url");
  EXPECT_EQ(Complaint("[a]\nurl = a.ts\nspeed = -1\n"), "[a] speed must be a number from 0 to 1000, not \"-1\"");
}

}  // namespace
}  // namespace mdencoder::config_test
