// SPDX-License-Identifier: Apache-2.0
#include "ts_mux.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ts_reader.h"

namespace ts {
namespace {

using video::Codec;

Bytes Text(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

Bytes Pattern(size_t size, unsigned seed = 1) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + seed);
  return bytes;
}

// A frame that has its delimiter.
Bytes FrameOf(size_t size) {
  Bytes frame = {0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1, 0x65};
  const Bytes rest = Pattern(size, 3);
  frame.insert(frame.end(), rest.begin(), rest.end());
  return frame;
}

Bytes Packet(const Bytes& stream, size_t number) {
  const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(number * kPacketSize);
  return Bytes(begin, begin + kPacketSize);
}

Bytes Filled(Bytes begin, uint8_t filler = 0xFF, size_t size = kPacketSize) {
  begin.resize(size, filler);
  return begin;
}

ts_reader::Reader ReadAll(const Bytes& stream) {
  ts_reader::Reader reader;
  reader.Read(stream);
  reader.Finish();
  return reader;
}

TEST(TsMux, TheChecksumIsThatOfTheStandard) {
  EXPECT_EQ(Crc32(Text("123456789")), 0x0376E6E7u);  // the check value of CRC-32/MPEG-2
  EXPECT_EQ(Crc32({}), 0xFFFFFFFFu);
}

TEST(TsMux, TheTablesAreThoseOfTheStandardByteByByte) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  mux.AddTrack();
  Bytes out;
  mux.PutClock(0, out);
  ASSERT_EQ(out.size(), 3 * kPacketSize);
  const Bytes association = {0x47, 0x40, 0x00, 0x10, 0x00,        // start, PID 0, payload, counter 0, pointer
                             0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1,  // table 0 of 13 bytes, stream 1, version 0, current
                             0x00, 0x00, 0x00, 0x01, 0xF0, 0x00,  // section 0 of 0, program 1 in PID 0x1000
                             0x2A, 0xB1, 0x04, 0xB2};
  EXPECT_EQ(Packet(out, 0), Filled(association));
  const Bytes map = {0x47, 0x50, 0x00, 0x10, 0x00,                                      // PID 0x1000
                     0x02, 0xB0, 0x2D, 0x00, 0x01, 0xC1, 0x00, 0x00,                    // table 2 of 45 bytes
                     0xE1, 0x00, 0xF0, 0x00,                                            // clock in PID 0x100
                     0x1B, 0xE1, 0x00, 0xF0, 0x00,                                      // H.264 in PID 0x100
                     0x15, 0xE1, 0x01, 0xF0, 0x16,                                      // metadata in PID 0x101
                     0x26, 0x09, 0x01, 0x00, 0xFF, 0x4B, 0x4C, 0x56, 0x41, 0x00, 0x0F,  // format "KLVA", service 0
                     0x27, 0x09, 0xC0, 0x27, 0x10, 0xC0, 0x00, 0x80, 0xC0, 0x00, 0x00};
  const Bytes packet = Packet(out, 1);
  EXPECT_EQ(Bytes(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(map.size())), map);
  EXPECT_EQ(ts_reader::SlowCrc(std::span(packet).subspan(5, 3 + 45)), 0u);
  // Clock reference 0 in a packet without a payload.
  EXPECT_EQ(Packet(out, 2), Filled({0x47, 0x01, 0x00, 0x2F, 0xB7, 0x10, 0, 0, 0, 0, 0x7E, 0x00}));
}

TEST(TsMux, AsynchronousTracksHaveTheRegistration) {
  Mux mux(Codec::H265, Carriage::Asynchronous);
  mux.AddTrack();
  mux.AddTrack();
  Bytes out;
  mux.PutClock(0, out);
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  ASSERT_EQ(reader.tracks.size(), 3u);
  EXPECT_EQ(reader.tracks.at(0x100).type, 0x24);
  for (const uint16_t pid : std::initializer_list<uint16_t>{0x101, 0x102}) {
    EXPECT_EQ(reader.tracks.at(pid).type, 0x06);
    EXPECT_EQ(reader.tracks.at(pid).descriptors, (Bytes{0x05, 0x04, 'K', 'L', 'V', 'A'}));
  }
}

TEST(TsMux, AFrameIsByteByByteThatOfTheStandard) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  Bytes out;
  const Bytes frame = {0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1, 0x65, 0xAA};
  mux.PutFrame({frame, 2, 1, true}, out);
  ASSERT_EQ(out.size(), 3 * kPacketSize);
  const Bytes packet = Packet(out, 2);
  const size_t field = 184 - 19 - frame.size();
  Bytes expected = {0x47, 0x41, 0x00, 0x30, static_cast<uint8_t>(field - 1), 0x50, 0, 0, 0, 0, 0xFE, 0x00};
  expected = Filled(expected, 0xFF, 4 + field);
  const Bytes pes = {0x00, 0x00, 0x01, 0xE0, 0x00, 0x00, 0x84, 0xC0, 0x0A,  // video of any length, aligned, both times
                     0x31, 0x00, 0x05, 0xBF, 0x25,                          // 90002
                     0x11, 0x00, 0x05, 0xBF, 0x23};                         // 90001
  expected.insert(expected.end(), pes.begin(), pes.end());
  expected.insert(expected.end(), frame.begin(), frame.end());
  EXPECT_EQ(packet, expected);
}

TEST(TsMux, AMessageIsACellOrIsBare) {
  const Bytes message = {0x06, 0x0E, 0x2B, 0x34};
  for (const Carriage carriage : {Carriage::Synchronous, Carriage::Asynchronous}) {
    Mux mux(Codec::H264, carriage);
    const size_t track = mux.AddTrack().value();
    Bytes out;
    mux.PutClock(0, out);
    EXPECT_TRUE(mux.PutMessage(track, {message, 200, 90}, out));
    const auto reader = ReadAll(out);
    EXPECT_EQ(reader.faults, std::vector<std::string>());
    ASSERT_EQ(reader.packets.size(), 1u);
    const ts_reader::Pes& pes = reader.packets.front();
    const bool isCell = carriage == Carriage::Synchronous;
    EXPECT_EQ(pes.streamId, isCell ? 0xFC : 0xBD);
    EXPECT_EQ(pes.pts, 90u + 90000u);
    EXPECT_FALSE(pes.dts);
    EXPECT_EQ(pes.payload, isCell ? (Bytes{0, 200, 0xDF, 0, 4, 0x06, 0x0E, 0x2B, 0x34}) : message);
  }
}

TEST(TsMux, EveryLengthComesBack) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  const size_t track = mux.AddTrack().value();
  Bytes out;
  mux.PutClock(0, out);
  for (size_t size = 0; size < 600; ++size) {
    mux.PutMessage(track, {Pattern(size), static_cast<uint8_t>(size), 0}, out);
    mux.PutFrame({FrameOf(size), static_cast<int64_t>(size) * 3000, static_cast<int64_t>(size) * 3000, size % 10 == 0},
                 out);
  }
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  const auto messages = reader.Of(0x101);
  const auto frames = reader.Of(0x100);
  ASSERT_EQ(messages.size(), 600u);
  ASSERT_EQ(frames.size(), 600u);
  for (size_t size = 0; size < 600; ++size) {
    EXPECT_EQ(Bytes(messages[size].payload.begin() + 5, messages[size].payload.end()), Pattern(size));
    EXPECT_EQ(messages[size].payload[1], static_cast<uint8_t>(size));
    EXPECT_EQ(frames[size].payload, FrameOf(size));
    EXPECT_EQ(frames[size].isRandomAccess, size % 10 == 0);
  }
}

TEST(TsMux, LongMessagesAreFragmentsWithNumbersOfTheirOwn) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  const size_t track = mux.AddTrack().value();
  const Bytes message = Pattern(65535 + 19);
  Bytes out;
  mux.PutClock(0, out);
  mux.PutMessage(track, {message, 255, 0}, out);
  mux.PutMessage(track, {Pattern(3), 0, 0}, out);
  mux.PutMessage(track, {Pattern(65522), 1, 0}, out);
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  const auto cells = reader.Of(0x101);
  ASSERT_EQ(cells.size(), 4u);
  const std::array<std::array<uint8_t, 5>, 4> headers = {{{0, 255, 0x9F, 0xFF, 0xF2},  // first
                                                          {0, 0, 0x5F, 0x00, 0x20},    // last
                                                          {0, 1, 0xDF, 0x00, 0x03},    // whole
                                                          {0, 2, 0xDF, 0xFF, 0xF2}}};
  Bytes both;
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_TRUE(std::equal(headers.at(i).begin(), headers.at(i).end(), cells[i].payload.begin())) << i;
    if (i < 2) both.insert(both.end(), cells[i].payload.begin() + 5, cells[i].payload.end());
  }
  EXPECT_EQ(both, message);
}

TEST(TsMux, LongAsynchronousMessagesAreSeveralPackets) {
  Mux mux(Codec::H264, Carriage::Asynchronous);
  const size_t track = mux.AddTrack().value();
  const Bytes message = Pattern(65535 + 19);
  Bytes out;
  mux.PutClock(0, out);
  mux.PutMessage(track, {message, 0, 0}, out);
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  Bytes all;
  for (const auto& pes : reader.packets) all.insert(all.end(), pes.payload.begin(), pes.payload.end());
  EXPECT_EQ(reader.packets.size(), 2u);
  EXPECT_EQ(all, message);
}

TEST(TsMux, ClockReferencesAreAtMostFortyMillisecondsApart) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  Bytes out;
  for (int64_t time = 0; time < 20 * kClock; time += 13000) mux.PutFrame({FrameOf(10), time, time, true}, out);
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  EXPECT_GE(reader.references.size(), 20u * 25u);
}

TEST(TsMux, FramesThatAreOftenEnoughHaveTheClockReferences) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  Bytes out;
  mux.PutFrame({FrameOf(10), 0, 0, true}, out);
  const size_t before = out.size();
  mux.PutFrame({FrameOf(10), kReferenceInterval, kReferenceInterval, false}, out);
  EXPECT_EQ(out.size() - before, kPacketSize);
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.references, (std::vector<uint64_t>{0, kReferenceInterval}));
  EXPECT_FALSE(reader.Of(0x100)[1].dts) << "it is the other time";
}

TEST(TsMux, ALongPauseIsADiscontinuity) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  Bytes out;
  mux.PutClock(0, out);
  mux.PutClock(3600 * kClock, out);
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  EXPECT_EQ(reader.references, (std::vector<uint64_t>{0, 3600 * kClock}));
}

TEST(TsMux, TimesGoOnBeyondThirtyThreeBits) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  const size_t track = mux.AddTrack().value();
  constexpr int64_t kEnd = int64_t{1} << 33;
  Bytes out;
  for (int64_t time = kEnd - 36000; time <= kEnd + 36000; time += 3600) {
    mux.PutFrame({FrameOf(10), time, time, true}, out);
    EXPECT_TRUE(mux.PutMessage(track, {Pattern(4), 0, time}, out));
  }
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  EXPECT_EQ(reader.references.back(), 36000u);
  EXPECT_EQ(reader.Of(0x101).back().pts, 36000u + 90000u);
  EXPECT_EQ(reader.Of(0x100).front().pts, 90000u - 36000u);
}

TEST(TsMux, TimesHaveAllTheirBits) {
  for (int bit = 0; bit < 33; ++bit) {
    Mux mux(Codec::H264, Carriage::Synchronous);
    Bytes out;
    const int64_t time = int64_t{1} << bit;
    mux.PutFrame({FrameOf(10), time - kDelay, time - kDelay, true}, out);
    const auto reader = ReadAll(out);
    EXPECT_EQ(reader.Of(0x100).front().pts, static_cast<uint64_t>(time)) << bit;
  }
}

TEST(TsMux, AMessageThatIsTooLateHasTheEarliestTime) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  const size_t track = mux.AddTrack().value();
  Bytes out;
  for (int64_t time = 0; time <= 180000; time += 3600) mux.PutFrame({FrameOf(10), time, time, true}, out);
  EXPECT_FALSE(mux.PutMessage(track, {Pattern(4), 0, 100}, out));
  EXPECT_TRUE(mux.PutMessage(track, {Pattern(4), 1, 150000}, out));
  EXPECT_FALSE(mux.PutMessage(track, {Pattern(4), 2, 149999}, out));
  const auto messages = ReadAll(out).Of(0x101);
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0].pts, 180000u);  // no earlier than the last clock reference
  EXPECT_EQ(messages[1].pts, 240000u);
  EXPECT_EQ(messages[2].pts, 240000u);
}

TEST(TsMux, AFrameWithoutADelimiterGetsOne) {
  for (const Codec codec : {Codec::H264, Codec::H265}) {
    Mux mux(codec, Carriage::Synchronous);
    Bytes out;
    const Bytes frame = {0, 0, 0, 1, static_cast<uint8_t>(codec == Codec::H264 ? 0x65 : 0x26), 1, 2};
    mux.PutFrame({frame, 0, 0, true}, out);
    const auto frames = ReadAll(out).Of(0x100);
    ASSERT_EQ(frames.size(), 1u);
    Bytes expected = codec == Codec::H264 ? Bytes{0, 0, 0, 1, 0x09, 0xF0} : Bytes{0, 0, 0, 1, 0x46, 0x01, 0x50};
    expected.insert(expected.end(), frame.begin(), frame.end());
    EXPECT_EQ(frames.front().payload, expected);
  }
}

TEST(TsMux, ALaterTrackHasANewMapAtOnce) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  mux.AddTrack();
  Bytes out;
  mux.PutFrame({FrameOf(10), 0, 0, true}, out);
  const size_t track = mux.AddTrack().value();
  mux.PutMessage(track, {Pattern(4), 0, 0}, out);
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  EXPECT_EQ(reader.mapVersion, 1);
  EXPECT_EQ(reader.tracks.size(), 3u);
  EXPECT_EQ(reader.Of(0x102).size(), 1u);
}

TEST(TsMux, AnotherCodecHasANewMapAtOnce) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  Bytes out;
  mux.PutFrame({FrameOf(10), 0, 0, true}, out);
  mux.SetCodec(Codec::H264);
  mux.PutFrame({FrameOf(10), 3600, 3600, false}, out);
  EXPECT_EQ(ReadAll(out).mapVersion, 0) << "it is the same";
  for (int64_t change = 1; change < 40; ++change) {
    mux.SetCodec(change % 2 == 1 ? Codec::H265 : Codec::H264);
    mux.PutFrame({FrameOf(10), 3600 + change, 3600 + change, false}, out);
    const auto reader = ReadAll(out);
    EXPECT_EQ(reader.mapVersion, change % 32);
    EXPECT_EQ(reader.tracks.at(0x100).type, change % 2 == 1 ? 0x24 : 0x1B);
  }
}

TEST(TsMux, ChangesOfAMapThatNobodyHasSeenAreOne) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  Bytes out;
  mux.AddTrack();
  mux.PutClock(0, out);
  mux.AddTrack();
  mux.AddTrack();
  mux.PutClock(1, out);
  EXPECT_EQ(ReadAll(out).mapVersion, 1);
}

TEST(TsMux, TheMapOfAllTracksIsOneSection) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  for (size_t track = 0; track < kMostTracks; ++track) EXPECT_EQ(mux.AddTrack(), track);
  EXPECT_FALSE(mux.AddTrack());
  Bytes out;
  mux.PutClock(0, out);
  const auto reader = ReadAll(out);
  EXPECT_EQ(reader.faults, std::vector<std::string>());
  EXPECT_EQ(reader.tracks.size(), kMostTracks + 1);
}

TEST(TsMux, TheTablesComeAgainWithinATenthOfASecond) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  Bytes out;
  size_t tables = 0;
  for (int64_t time = 0; time <= kClock; time += 3600) {
    out.clear();
    mux.PutFrame({FrameOf(10), time, time, false}, out);
    if (out[1] == 0x40 && out[2] == 0) ++tables;
  }
  EXPECT_EQ(tables, 9u);  // every third frame: 120 ms is the first one that is not too early
}

TEST(TsMux, TheTablesAreNotTooEarlyAndNotTooLate) {
  for (const int64_t after : {kTablesInterval - 1, kTablesInterval}) {
    Mux mux(Codec::H264, Carriage::Synchronous);
    Bytes out;
    mux.PutClock(1000, out);
    out.clear();
    mux.PutClock(1000 + after, out);
    EXPECT_EQ(out[1] == 0x40 && out[2] == 0, after == kTablesInterval);
  }
}

TEST(TsMux, TheTablesComeBeforeEveryKeyFrame) {
  for (const bool isKey : {false, true}) {
    Mux mux(Codec::H264, Carriage::Synchronous);
    Bytes out;
    mux.PutClock(0, out);
    out.clear();
    mux.PutFrame({FrameOf(10), 1, 1, isKey}, out);
    EXPECT_EQ(out[1] == 0x40 && out[2] == 0, isKey);
  }
}

TEST(TsMux, TheTablesComeAgainIfTheClockGoesBack) {
  Mux mux(Codec::H264, Carriage::Synchronous);
  Bytes out;
  mux.PutClock(kTablesInterval, out);
  out.clear();
  mux.PutFrame({FrameOf(10), 5, 5, false}, out);
  EXPECT_TRUE(out[1] == 0x40 && out[2] == 0);
}

}  // namespace
}  // namespace ts
