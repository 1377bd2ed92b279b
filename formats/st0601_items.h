// st0601_items.h - the items of MISB ST 0601 and the elements of MISB ST 0102: names, units, codings, and the
// reading and writing of whole messages. Shared by the programs that show or make metadata.
//
// CONTENTS
//   Items         the tables and their look-up
//   Values        one item's bytes to a value and back
//   Messages      reading a whole message, tolerant to bad input
//   Building      writing a whole message
//
// Everything here is a pure function of its arguments and may run on any thread.
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
  Unsigned,     // linear: 0 .. 2^n - 1 stands for min .. max
  Signed,       // linear: -(2^(n-1) - 1) .. 2^(n-1) - 1 stands for min .. max, -2^(n-1) for "out of range"
  Integer,      // unsigned whole number as it stands, 1 to 8 bytes
  SignedWhole,  // two's complement whole number as it stands, 1 to 8 bytes
  Code,         // whole number with a meaning per value, see CodeText
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
  const char* name;  // the standard's
  const char* key;   // short form, lower case with underscores; unique in its table
  const char* unit;  // "" when it has none
  Kind kind;
  uint8_t size;  // bytes of the value; 0 when its length varies
  double min;    // of kUnsigned, kSigned, kImap; else 0
  double max;
};

constexpr uint16_t kChecksumTag = 1;
constexpr uint16_t kTimeStampTag = 2;
constexpr uint16_t kMissionIdTag = 3;
constexpr uint16_t kSecuritySetTag = 48;

// All items of ST 0601 (tags 1 to 143), all elements of ST 0102, in the order of their tags.
std::span<const Item> Items();
std::span<const Item> SecurityElements();

// One of them, or nullptr.
const Item* FindItem(uint32_t tag);
const Item* FindItem(std::string_view key);
const Item* FindSecurityElement(uint32_t tag);

// --- Values ------------------------------------------------------------------------------------------

enum class ValueState : uint8_t {
  Ok,
  OutOfRange,  // the reserved bit pattern that says so
  BadLength    // the value has not the length that its item needs; text holds its hexadecimal digits
};

struct Value {
  ValueState state = ValueState::Ok;
  bool isNumber = false;  // number is valid
  bool isWhole = false;   // a count, code or time: whole is valid too
  double number = 0;
  int64_t whole = 0;
  std::string text;  // for display, without the unit: "60.17682297", "2008-10-24T00:13:29.913Z", "SECRET"; what a
                     // sender wrote is escaped as printable_text.h says
};

// Reads one value. Never fails: what cannot be read comes back as kBadLength with its hexadecimal digits.
Value Decode(const Item& item, ByteView value);

// Writes a number the item's way: rounded to the nearest step. Outside min .. max, and for a number that is no
// number, kSigned items give the "out of range" pattern and all others nothing. Items without a number give
// nothing. Items of varying size take the least bytes that hold a whole number, or `size` bytes for kImap.
std::optional<Bytes> Encode(const Item& item, double value, size_t size = 0);
// The same for whole numbers that a double would cut: times, counts.
std::optional<Bytes> EncodeWhole(const Item& item, int64_t value);
// Text items: the characters (kText16: each byte as one character).
Bytes EncodeText(const Item& item, std::string_view text);

// The smallest difference that the item can express; 0 when it holds no number.
double Resolution(const Item& item);

// What a kCode value means; "" when the standard gives it no meaning.
std::string_view CodeText(const Item& item, int64_t code);

// "value unit", the way a table shows it.
std::string Display(const Item& item, const Value& value);

// Two digits a byte, upper case, without spaces.
std::string Hex(ByteView bytes);

// --- Messages ----------------------------------------------------------------------------------------

// 06 0E 2B 34 02 0B 01 01 0E 01 03 01 01 00 00 00
extern const uint8_t kUasKey[16];

struct Element {
  uint32_t tag = 0;
  ByteView value;              // inside the bytes that were parsed
  const Item* item = nullptr;  // nullptr for a tag that the standard does not know
};

enum class ChecksumState : uint8_t { Ok, Bad, Missing, Misplaced };

struct Message {
  bool isUas = false;       // begins with kUasKey
  bool isComplete = false;  // the length could be read, lies inside the bytes, and the items fill it exactly
  std::string error;        // why isComplete is false
  size_t headerSize = 0;    // key and length field
  size_t totalSize = 0;     // header and body as the length field says
  std::vector<Element> elements;
  ChecksumState checksum = ChecksumState::Missing;
  uint16_t storedChecksum = 0;
  uint16_t computedChecksum = 0;

  const Element* Find(uint32_t tag) const;  // the first such element, or nullptr
};

// Reads a message: everything up to the first fault is kept. Never reads outside `bytes`.
Message Parse(ByteView bytes);

// Reads the elements of a local set without key (for example the value of item 48).
std::vector<Element> ParseSecuritySet(ByteView value);

// "ok", "bad", "missing", "misplaced" (an item 1 that is not the last one, or not of two bytes).
const char* ChecksumStateName(ChecksumState state);

// The 16-bit running sum over bytes: even positions count as the high byte, odd ones as the low byte.
uint16_t RunningSum(ByteView bytes);

// --- Building ----------------------------------------------------------------------------------------

// Collects items and closes them into a message: key, BER length, items in the order added, checksum.
class Builder {
 public:
  Builder& Add(uint32_t tag, ByteView value);
  // Items that cannot hold the value are left out.
  Builder& Add(uint32_t tag, double value);
  Builder& AddWhole(uint32_t tag, int64_t value);
  Builder& AddText(uint32_t tag, std::string_view text);
  // The local set so far, without key and checksum: the value of a nested set.
  const Bytes& Body() const { return m_body; }
  Bytes Finish(bool withChecksum = true) const;

 private:
  Bytes m_body;
};

// Appends a length in BER: short form below 128, else the shortest long form.
void AppendBerLength(Bytes& out, size_t length);

}  // namespace st0601

#endif
