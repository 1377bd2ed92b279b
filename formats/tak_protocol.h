// SPDX-License-Identifier: Apache-2.0
// The TAK protocol in version 1: protobuf messages that hold one Cursor-on-Target event each, behind the header of a
// datagram (0xBF, version, 0xBF) or of a stream (0xBF, length). Version and length are varints. No I/O.
//
// The fields are those of the published takproto files. Fields that are not listed here are skipped.
#ifndef TAK_PROTOCOL_H
#define TAK_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tak {

constexpr uint8_t kMagic = 0xBF;
constexpr uint64_t kXmlVersion = 0;       // behind the header of a datagram stands XML
constexpr uint64_t kProtobufVersion = 1;  // or a message as below

// An element of <detail> whose attributes have fields of their own.
struct DetailElement {
  std::string name;
  struct Attribute {
    std::string name;
    std::string value;
    bool operator==(const Attribute&) const = default;
  };
  std::vector<Attribute> attributes;
  bool operator==(const DetailElement&) const = default;
};

// Times are milliseconds since 1970. Texts are whatever the sender wrote: neither their encoding nor their length is
// checked.
struct Event {
  std::string type;
  std::string access;
  std::string qos;
  std::string opex;
  std::string uid;
  uint64_t sendTime = 0;
  uint64_t startTime = 0;
  uint64_t staleTime = 0;
  std::string how;
  double lat = 0;
  double lon = 0;
  double hae = 0;
  double ce = 0;
  double le = 0;
  std::string xmlDetail;                // children of <detail>, as XML
  std::vector<DetailElement> elements;  // further children, in the order of their fields
  bool operator==(const Event&) const = default;
};

struct Message {
  bool isValid = false;        // the bytes are a message
  std::optional<Event> event;  // a message may have none
};

// Reads a message without its header.
Message ParseMessage(std::span<const uint8_t> bytes);
// Does the reverse. Elements and attributes that have no field are left out.
std::vector<uint8_t> FormatMessage(const Event& event);

// A number of 7 bits a byte, the lowest first.
struct Varint {
  uint64_t value = 0;
  size_t size = 0;  // bytes that it takes; 0 if the bytes end before it does
  bool isValid = true;
};
Varint ParseVarint(std::span<const uint8_t> bytes);

// The headers, for senders.
std::vector<uint8_t> FormatDatagram(const Event& event);
std::vector<uint8_t> FormatStreamMessage(const Event& event);

// Tells what a datagram holds. `payload` is what follows the header, or everything without one.
struct Datagram {
  enum class Kind { Xml, Protobuf, Unknown } kind = Kind::Unknown;
  std::span<const uint8_t> payload;
};
Datagram ParseDatagram(std::span<const uint8_t> bytes);

}  // namespace tak

#endif  // TAK_PROTOCOL_H
