// SPDX-License-Identifier: Apache-2.0
// st0601_items.h - the items of MISB ST 0601 and the elements of MISB ST 0102: names, units, codings, and the
// reading and writing of whole messages. Shared by the programs that show or make metadata.
//
// CONTENTS
//   Items         look up items in the tables
//   Values        convert an item's bytes to a value and back
//   Messages      read a whole message, and tolerate faulty ones
//   Building      write a whole message
//
// All functions are pure, and any thread may call them.
#ifndef ST0601_ITEMS_H
#define ST0601_ITEMS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace st0601 {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

// --- Items -------------------------------------------------------------------------------------------

enum class Kind : uint8_t {
  Unsigned,     // linear: 0 .. 2^n - 1 maps to min .. max
  Signed,       // linear: -(2^(n-1) - 1) .. 2^(n-1) - 1 maps to min .. max; -2^(n-1) means "out of range"
  Integer,      // unsigned whole number, 1 to 8 bytes
  SignedWhole,  // two's complement whole number, 1 to 8 bytes
  Code,         // whole number; CodeText gives the meaning of its values
  Imap,         // MISB ST 1201 IMAPB over min .. max, 1 to 8 bytes
  Text,         // UTF-8 (ASCII in most items)
  Text16,       // UTF-16, big-endian
  Time,         // microseconds since 1970 UTC, without leap seconds, 8 bytes
  SecuritySet,  // a nested MISB ST 0102 local set
  Checksum,     // the running sum of the message
  Raw           // nested sets and packs that are shown as hexadecimal digits
};

struct Item {
  uint16_t tag;
  const char* name;  // as in the standard
  const char* key;   // short form, lower case with underscores; unique in its table
  const char* unit;  // "" if the item has none
  Kind kind;
  uint8_t size;  // bytes of the value; 0 if its length varies
  double min;    // of Unsigned, Signed and Imap; otherwise 0
  double max;
};

constexpr uint16_t kChecksumTag = 1;
constexpr uint16_t kTimeStampTag = 2;
constexpr uint16_t kMissionIdTag = 3;
constexpr uint16_t kSecuritySetTag = 48;

// Return all items of ST 0601 (tags 1 to 143) and all elements of ST 0102, in the order of their tags.
std::span<const Item> Items();
std::span<const Item> SecurityElements();

// Return the item or element, or nullptr.
const Item* FindItem(uint32_t tag);
const Item* FindItem(std::string_view key);
const Item* FindSecurityElement(uint32_t tag);

// --- Values ------------------------------------------------------------------------------------------

enum class ValueState : uint8_t {
  Ok,
  OutOfRange,  // the bit pattern that is reserved for it
  BadLength    // the item needs another length; text holds the hexadecimal digits
};

struct Value {
  ValueState state = ValueState::Ok;
  bool isNumber = false;  // number is valid
  bool isWhole = false;   // the value is a count, code or time, and whole is valid too
  double number = 0;
  int64_t whole = 0;
  std::string text;  // for display, without the unit: "60.17682297", "2008-10-24T00:13:29.913Z", "SECRET"; a
                     // sender's text is escaped as printable_text.h says
};

// Reads one value. It never fails: an unreadable value becomes BadLength with its hexadecimal digits.
Value Decode(const Item& item, ByteView value);

// Encodes a number, rounded to the nearest step of the item. For a value outside min .. max, and for NaN, Signed items
// give the "out of range" pattern and all others return nothing, as do items that hold no number. An item of varying
// size gets the fewest bytes that hold a whole number; Imap items get `size` bytes.
std::optional<Bytes> Encode(const Item& item, double value, size_t size = 0);
// Does the same for whole numbers that do not fit into a double: times and counts.
std::optional<Bytes> EncodeWhole(const Item& item, int64_t value);
// Encodes the characters of a text item; for Text16, each byte is one character.
Bytes EncodeText(const Item& item, std::string_view text);

// Returns the smallest difference that the item can express, or 0 if it holds no number.
double Resolution(const Item& item);

// Returns the meaning of a Code value, or "" if the standard gives it none.
std::string_view CodeText(const Item& item, int64_t code);

// Returns "value unit" for a table.
std::string Display(const Item& item, const Value& value);

// Returns two upper-case digits per byte, without spaces.
std::string Hex(ByteView bytes);

// --- Messages ----------------------------------------------------------------------------------------

// 06 0E 2B 34 02 0B 01 01 0E 01 03 01 01 00 00 00
extern const uint8_t kUasKey[16];

struct Element {
  uint32_t tag = 0;
  ByteView value;              // points into the bytes that were parsed
  const Item* item = nullptr;  // nullptr for a tag that the standard does not define
};

enum class ChecksumState : uint8_t { Ok, Bad, Missing, Misplaced };

struct Message {
  bool isUas = false;       // the message begins with kUasKey
  bool isComplete = false;  // the length is readable and within the bytes, and the items fill it exactly
  std::string error;        // the reason if isComplete is false
  size_t headerSize = 0;    // key and length field
  size_t totalSize = 0;     // header and body, according to the length field
  std::vector<Element> elements;
  ChecksumState checksum = ChecksumState::Missing;
  uint16_t storedChecksum = 0;
  uint16_t computedChecksum = 0;

  const Element* Find(uint32_t tag) const;  // returns the first such element, or nullptr
};

// Reads a message and keeps everything up to the first fault. It never reads outside `bytes`.
Message Parse(ByteView bytes);

// Reads the elements of a local set without a key, such as the value of item 48.
std::vector<Element> ParseSecuritySet(ByteView value);

// Returns "ok", "bad", "missing" or "misplaced": item 1 is not the last one, or its length is not 2.
const char* ChecksumStateName(ChecksumState state);

// Returns the 16-bit running sum: bytes at even positions count as high bytes, those at odd ones as low bytes.
uint16_t RunningSum(ByteView bytes);

// --- Building ----------------------------------------------------------------------------------------

// Collects items and makes a message of them: key, BER length, items in the order of their addition, checksum.
class Builder {
 public:
  Builder& Add(uint32_t tag, ByteView value);
  // Adds nothing if the item cannot hold the value.
  Builder& Add(uint32_t tag, double value);
  Builder& AddWhole(uint32_t tag, int64_t value);
  Builder& AddText(uint32_t tag, std::string_view text);
  // Returns the local set so far, without key and checksum, as the value of a nested set.
  const Bytes& Body() const { return m_body; }
  Bytes Finish(bool withChecksum = true) const;

 private:
  Bytes m_body;
};

// Appends a BER length: the short form below 128, otherwise the shortest long form.
void AppendBerLength(Bytes& out, size_t length);

}  // namespace st0601

#endif
