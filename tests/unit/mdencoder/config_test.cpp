#include "config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>

#include "host_serial.h"
#include "options.h"
#include "values.h"

namespace mdencoder {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

Config Read(const std::string& text) {
  return MakeConfig(ParseIni(text));
}
const MDATA_SRC_CFG& Record(const Config& config) {
  return config.sources.at(0).record;
}

/* The complaint about a configuration; one line. */
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

/* ---------------------------------------------------------------- sources */

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
  EXPECT_THAT(Complaint(std::string("[encoder]\nextended_tags = maybe\n") + kUdp), HasSubstr("extended_tags = maybe"));
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

/* ---------------------------------------------------------------- encoder section */

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
  EXPECT_EQ(settings.library, "a.so");
  EXPECT_EQ(settings.hostConfig, "host.ini");
  EXPECT_EQ(settings.outputDir, "out");
  EXPECT_TRUE(settings.streamHeader);
  EXPECT_EQ(settings.format, Format::Json);
  EXPECT_TRUE(settings.live);
  EXPECT_EQ(settings.logLevel, 6);
  EXPECT_THAT(settings.moduleLevels, ElementsAre(Pair("METADATALIB", 7), Pair("COTCONVERTER", 3)));
  EXPECT_EQ(settings.statusInterval, 0.5);
  EXPECT_EQ(settings.statsInterval, 2);
  EXPECT_EQ(settings.statsJson, "s.json");
  EXPECT_EQ(settings.statsFile, "kept.json");
  EXPECT_EQ(settings.summary, "sum.json");
  EXPECT_EQ(settings.duration, 1.5);
  EXPECT_EQ(settings.messages, 10U);
  EXPECT_EQ(settings.messagesEach, 5U);
  EXPECT_EQ(settings.queue, 100U);
}

TEST(Example, TheShippedConfigurationIsRight) {
  const Config config = LoadConfig(METADATA_SOURCE_DIR "/encoder/mdencoder.example.ini");
  EXPECT_EQ(config.sources.size(), 5U);
}

/* ---------------------------------------------------------------- complaints */

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
    Values, BadConfig,
    testing::Values(
        Bad{"[u]\ninput = udp\nport = 70000\n", "[u] port = 70000: allowed is a whole number from 1 to 65535"},
        Bad{"[u]\ninput = udp\nport = 5000x\n", "[u] port = 5000x: allowed is a whole number from 1 to 65535"},
        Bad{"[u]\ninput = udp\n", "[u] port is missing: allowed is a whole number from 1 to 65535"},
        Bad{"[u]\nport = 1\n", "[u] input is missing: allowed is serial, udp, video"},
        Bad{"[u]\ninput = tcp\n", "[u] input = tcp: allowed is serial, udp, video"},
        Bad{"[u]\ninput = video\ndata = cot\n", "[u] data = cot: allowed is klv with input = video"},
        Bad{"[u]\ninput = video\ninterface = 4\n", "[u] interface = 4: allowed is a whole number from 0 to 3"},
        Bad{UDP "baud = 9600\n", "[u] baud = 9600: allowed is only with input = serial"},
        Bad{UDP "decimation = 2\n", "[u] decimation = 2: allowed is only with input = video"},
        Bad{UDP "cot_delta_ms = 5\n", "[u] cot_delta_ms = 5: allowed is only with data = cot"},
        Bad{UDP "object_country = USA\n", "[u] object_country = USA: allowed is only with a classification"},
        Bad{UDP "capture_limit_kb = 5\n", "[u] capture_limit_kb = 5: allowed is only with capture = yes"},
        Bad{UDP "data = cot\ncot_delta_ms = 2147484\n",
            "[u] cot_delta_ms = 2147484: allowed is a whole number from 0 to 2147483"},
        Bad{UDP "data = cot\ncot_sensor = 12345678901234567890123456789012\n",
            "[u] cot_sensor = 12345678901234567890123456789012: allowed is 1 to 31 characters"},
        Bad{UDP "capture = maybe\n", "[u] capture = maybe: allowed is yes or no"},
        Bad{UDP "classification = secret\n", "[u] classifying_country = : allowed is a country code of three letters"},
        Bad{UDP "classification = secret\nclassifying_country = US\n",
            "[u] classifying_country = US: allowed is a country code of three letters"},
        Bad{UDP "keep_tags = 2, 128\n",
            "[u] keep_tags = 2, 128: allowed is a list of tags 0 to 127, ranges and item names, or none"},
        Bad{UDP "keep_tags = 15-13\n",
            "[u] keep_tags = 15-13: allowed is a list of tags 0 to 127, ranges and item names, or none"},
        Bad{UDP "keep_security_tags = 32\n",
            "[u] keep_security_tags = 32: allowed is a list of tags 0 to 31, ranges and element names, or none"},
        Bad{UDP "address = ff02::1\n",
            "[u] address = ff02::1: allowed is the sender's numeric IPv4 or IPv6 address of the family given, or an "
            "IPv4 group"},
        Bad{UDP "family = ipv6\naddress = 10.0.0.1\n",
            "[u] address = 10.0.0.1: allowed is the sender's numeric IPv4 or IPv6 address of the family given, or an "
            "IPv4 group"},
        Bad{"[a b]\ninput = video\n", "[a b]: allowed is a source name of up to 64 letters, digits, '_', '-' and '.'"},
        Bad{"[encoder]\nformat = xml\n", "[encoder] format = xml: allowed is table, json, none"},
        Bad{"[encoder]\ncapabilities = cot\n",
            "[encoder] capabilities = cot: allowed is a list with ipv4 or ipv6 in it"},
        Bad{"[encoder]\ncapabilities = ipv5\n",
            "[encoder] capabilities = ipv5: allowed is a list of cot, ipv4 and ipv6"},
        Bad{"[encoder]\nlog_levels = METADATALIB\n",
            "[encoder] log_levels = METADATALIB: allowed is a list of MODULE:LEVEL with levels 0 to 8"},
        Bad{"[encoder]\nduration = -1\n", "[encoder] duration = -1: allowed is a number from 0 to 1e+09"},
        Bad{"[encoder]\nduration = 1,5\n", "[encoder] duration = 1,5: allowed is a number from 0 to 1e+09"}));

INSTANTIATE_TEST_SUITE_P(Together, BadConfig,
                         testing::Values(Bad{"[encoder]\nformat = json\n",
                                             "no source: allowed is one section per source with at least its input"},
                                         Bad{UDP "[v]\ninput = udp\ndata = cot\nport = 5000\n",
                                             "[v] port = 5000: allowed is one source per port, and [u] has it"},
                                         Bad{"[a]\ninput = serial\n[b]\ninput = serial\ndata = cot\n",
                                             "[b] input = serial: allowed is one serial source, and [a] is one"},
                                         Bad{UDP "output = x\n[v]\ninput = video\noutput = x\n",
                                             "[v] output = x: allowed is a file per source, and [u] has this one"},
                                         Bad{"[encoder]\ncapabilities = ipv4\n" UDP "family = ipv6\n",
                                             "[u] family = ipv6: allowed only with ipv6 among the capabilities"},
                                         Bad{"[encoder]\ncapabilities = ipv4\n" UDP "data = cot\n",
                                             "[u] data = cot: allowed only with cot among the capabilities"}));

INSTANTIATE_TEST_SUITE_P(
    Lines, BadConfig,
    testing::Values(
        Bad{"port = 1\n", "key \"port\" stands before the first [section]"},
        Bad{"[u]\nnonsense\n", "line 2: allowed are \"[section]\", \"key = value\" and comments"},
        Bad{UDP "port = 5001\n",
            "[u] port = 5001: given twice, or continued on an indented line; one line per key is allowed"}));
#undef UDP

TEST(Complaints, UnknownKeysComeWithASuggestion) {
  const std::string complaint = Complaint(std::string(kUdp) + "prot = 5000\n");
  EXPECT_THAT(complaint, HasSubstr("[udp] prot = 5000: unknown key, did you mean \"port\"?; allowed are input, data,"));
  EXPECT_THAT(Complaint(std::string(kUdp) + "xyzzy = 1\n"), HasSubstr("xyzzy = 1: unknown key; allowed are input"));
  EXPECT_THAT(Complaint("[encoder]\nformt = json\n"), HasSubstr("did you mean \"format\"?"));
}

TEST(Complaints, LinesThatTheReaderWouldCutAreRefused) {
  EXPECT_EQ(Complaint("[u]\nkeep_tags = " + std::string(200, '1') + "\n"),
            "line 2: 212 characters: allowed are up to 198");
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
                         testing::Values("", "10.0.0.1", "10.0.0.1:0", "10.0.0.1:65536", "host:5000", "ff02::1:5000",
                                         "[10.0.0.1]:5000", "10.0.0.1:5000 ttl=256", "10.0.0.1:5000 ttl=-1",
                                         "10.0.0.1:5000 ttl=", "10.0.0.1:5000 ttl=1 ttl=2", "10.0.0.1:5000 hops=1",
                                         "[ff02::1]:5000 ttl=follow", "[ff02::1]:5000 tos=follow"));

TEST(Number, DecimalAndHexadecimalWholeTextOnly) {
  EXPECT_EQ(ParseNumber("12", 0, 20), 12);
  EXPECT_EQ(ParseNumber("0x1F", 0, 255), 31);
  EXPECT_EQ(ParseNumber("010", 0, 20), 10);
  for (const char* text : {"", " 1", "1 ", "+1", "0x", "0x-1", "1e3", "99999999999999999999"}) {
    EXPECT_FALSE(ParseNumber(text, -100, 100000)) << text;
  }
}

/* ---------------------------------------------------------------- command line */

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
  EXPECT_TRUE(options.check);
  EXPECT_THAT(options.overrides,
              testing::UnorderedElementsAre(Pair("format", "json"), Pair("stats_interval", "2"), Pair("live", "yes")));
}

TEST(CommandLine, HelpIsNoErrorAndMisuseIsTwo) {
  Options options;
  EXPECT_EQ(Parse({"--help"}, options), 0);
  EXPECT_EQ(Parse({"--version"}, options), 0);
  EXPECT_EQ(Parse({}, options), 2);
  EXPECT_EQ(Parse({"a.ini", "--no-such-option"}, options), 2);
  EXPECT_EQ(Parse({"a.ini", "--format"}, options), 2);
}

TEST(CommandLine, OptionsWinOverTheFile) {
  const std::string path = testing::TempDir() + "mdencoder_override.ini";
  std::FILE* file = std::fopen(path.c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fprintf(file, "%s[encoder]\nformat = table\nmessages = 3\n", kUdp);
  std::fclose(file);
  const Config config = LoadConfig(path, {{"format", "none"}, {"queue", "7"}});
  EXPECT_EQ(config.encoder.format, Format::None);
  EXPECT_EQ(config.encoder.messages, 3U);
  EXPECT_EQ(config.encoder.queue, 7U);
  EXPECT_THROW(LoadConfig(path, {{"queue", "0"}}), ConfigError);
  std::remove(path.c_str());
}

}  // namespace
}  // namespace mdencoder
