// SPDX-License-Identifier: Apache-2.0
#include "builders.h"

#include <fstream>
#include <iterator>

Bytes Hex(const std::string& text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text)
    if (c != ' ' && c != '\n') digits += c;
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<BYTE>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

Bytes Text(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

Bytes operator+(const Bytes& left, const Bytes& right) {
  Bytes sum = left;
  sum.insert(sum.end(), right.begin(), right.end());
  return sum;
}

WORD OwnChecksum(const Bytes& bytes, size_t length) {
  unsigned sum = 0;
  for (size_t i = 0; i < length; ++i) sum += i % 2 == 0 ? bytes[i] * 256u : bytes[i];
  return static_cast<WORD>(sum);
}

static Bytes BerLength(size_t length) {
  if (length < 0x80) return {static_cast<BYTE>(length)};
  if (length < 0x100) return {0x81, static_cast<BYTE>(length)};
  return {0x82, static_cast<BYTE>(length >> 8), static_cast<BYTE>(length)};
}

UasMessage& UasMessage::Key(const Bytes& key) {
  m_key = key;
  return *this;
}

UasMessage& UasMessage::Item(BYTE tag, const Bytes& value) {
  m_body = m_body + Bytes{tag} + BerLength(value.size()) + value;
  return *this;
}

UasMessage& UasMessage::Raw(const Bytes& bytes) {
  m_body = m_body + bytes;
  return *this;
}

UasMessage& UasMessage::Checksum() {
  m_body = m_body + Bytes{1, 2, 0, 0};
  m_checksum = true;
  return *this;
}

UasMessage& UasMessage::LengthForm(Length form) {
  m_form = form;
  return *this;
}

Bytes UasMessage::Build() const {
  const size_t size = m_body.size();
  Bytes length = BerLength(size);
  if (m_form == Length::Long1) length = {0x81, static_cast<BYTE>(size)};
  if (m_form == Length::Long2) length = {0x82, static_cast<BYTE>(size >> 8), static_cast<BYTE>(size)};
  Bytes message = m_key + length + m_body;
  if (m_checksum) {
    const WORD sum = OwnChecksum(message, message.size() - 2);
    message[message.size() - 2] = static_cast<BYTE>(sum >> 8);
    message[message.size() - 1] = static_cast<BYTE>(sum);
  }
  return message;
}

Bytes WellFormedMessage() {
  return UasMessage()
      .Item(2, Hex("00 04 59 F4 A6 AA 4A A8"))
      .Item(13, Hex("55 95 B6 6D"))
      .Item(14, Hex("5B 53 60 C4"))
      .Item(15, Hex("C2 21"))
      .Checksum()
      .Build();
}

const std::string& GridOfZeros() {
  static std::string text;
  if (text.empty())
    for (int i = 0; i < 1038961; ++i) text += "0\n";
  return text;
}

std::optional<Bytes> LoadRecording(const std::string& folder, const std::string& name) {
  std::ifstream file(folder + "/" + name, std::ios::binary);
  if (!file) return {};
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

std::vector<Bytes> SplitMessages(const Bytes& bytes) {
  std::vector<Bytes> messages;
  size_t at = 0;
  while (at + 17 <= bytes.size()) {
    const BYTE first = bytes[at + 16];
    size_t header = 17;
    size_t length = first;
    if (first == 0x81) {
      header = 18;
      length = bytes[at + 17];
    } else if (first == 0x82) {
      header = 19;
      length = bytes[at + 17] * 256u + bytes[at + 18];
    }
    if (at + header + length > bytes.size()) break;
    const auto begin = bytes.begin() + static_cast<long>(at);
    messages.emplace_back(begin, begin + static_cast<long>(header + length));
    at += header + length;
  }
  return messages;
}
