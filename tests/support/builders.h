// SPDX-License-Identifier: Apache-2.0
// Builders of test input. They have their own checksum code, so that the library's is tested against another one.
#ifndef BUILDERS_H
#define BUILDERS_H

#include <optional>
#include <string>
#include <vector>

#include "fake_host.h"

// Converts "06 0E 2B" to bytes; blanks are skipped.
Bytes Hex(const std::string& text);
Bytes Text(const std::string& text);
Bytes operator+(const Bytes& left, const Bytes& right);

// Returns the MISB ST 0601 running sum over the first 'length' bytes.
WORD OwnChecksum(const Bytes& bytes, size_t length);

inline const Bytes& UasKey() {
  static const Bytes kEy = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x01, 0x01, 0, 0, 0};
  return kEy;
}

// Builds a UAS Local Set message item by item.
class UasMessage {
 public:
  enum class Length { Shortest, Long1, Long2 };  // BER: as short as possible, 81 nn, 82 nn nn

  UasMessage& Key(const Bytes& key);
  UasMessage& Item(BYTE tag, const Bytes& value);  // one-byte tag, shortest BER length
  UasMessage& Raw(const Bytes& bytes);
  UasMessage& Checksum();  // appends a correct checksum item, which must be the last item
  UasMessage& LengthForm(Length form);
  Bytes Build() const;
  Bytes Body() const { return m_body; }

 private:
  Bytes m_key = UasKey();
  Bytes m_body;
  bool m_checksum = false;
  Length m_form = Length::Shortest;
};

// Returns a message with time stamp, position and a correct checksum.
Bytes WellFormedMessage();

// Returns the text of a geoid grid of zeros. It is not inline, because compilers evaluate so long a loop in advance where
// they can, in every source that includes it.
const std::string& GridOfZeros();

// Reads a recording from the folder of shared test data. Returns no bytes if it is absent; the test then reports that
// and returns.
std::optional<Bytes> LoadRecording(const std::string& folder, const std::string& name);
// Splits UAS messages that stand back to back.
std::vector<Bytes> SplitMessages(const Bytes& bytes);

#endif  // BUILDERS_H
