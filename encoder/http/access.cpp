// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Heads     are taken apart, or refused
//   Access    is for hosts and tokens
#include "http/access.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>

namespace mdencoder::http {
namespace {

constexpr char kCookieName[] = "mdencoder_token";

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsSame(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return Lower(x) == Lower(y); });
}

std::string LowerText(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), Lower);
  return lower;
}

bool IsNameCharacter(char c) {
  const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  return isLetter || (c >= '0' && c <= '9') || std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool IsName(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsNameCharacter);
}

bool IsHexDigit(char c) {
  return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

std::string_view WithoutSpaces(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

// --- Heads -------------------------------------------------------------------------------------------

constexpr char kBadLine[] = "the request line must be METHOD /PATH HTTP/1.1";

// Every character is printable, and every percent sign begins two digits that are no control character.
bool IsTarget(std::string_view target) {
  if (!target.starts_with('/')) return false;
  for (size_t i = 0; i < target.size(); ++i) {
    if (target[i] <= ' ' || target[i] > '~') return false;
    if (target[i] != '%') continue;
    if (i + 2 >= target.size() || !IsHexDigit(target[i + 1]) || !IsHexDigit(target[i + 2])) return false;
    if (target[i + 1] <= '1') return false;
  }
  return true;
}

std::optional<Refusal> ParseRequestLine(std::string_view line, Head& head) {
  const size_t first = line.find(' ');
  const size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return Refusal{400, kBadLine};
  head.method = line.substr(0, first);
  head.target = line.substr(first + 1, last - first - 1);
  head.version = line.substr(last + 1);
  if (!IsName(head.method)) return Refusal{400, kBadLine};
  if (!head.version.starts_with("HTTP/") || head.version.size() != 8) return Refusal{400, kBadLine};
  if (head.version != "HTTP/1.1" && head.version != "HTTP/1.0") return Refusal{505, "only HTTP/1.1 is spoken here"};
  if (head.method != "GET" && head.method != "HEAD") return Refusal{405, "only GET and HEAD are allowed"};
  if (head.target.size() > kLongestTarget) return Refusal{414, "the request's target is too long"};
  if (!IsTarget(head.target)) return Refusal{400, kBadLine};
  return std::nullopt;
}

std::optional<Refusal> ParseField(std::string_view line, Head& head) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos || !IsName(line.substr(0, colon))) {
    return Refusal{400, "a field must be NAME: VALUE"};
  }
  const std::string_view value = WithoutSpaces(line.substr(colon + 1));
  const auto isControl = [](char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F; };
  if (std::any_of(value.begin(), value.end(), isControl)) return Refusal{400, "a field has a control character"};
  if (head.fields.size() == kMostFields) return Refusal{431, "there are too many fields"};
  head.fields.emplace_back(line.substr(0, colon), value);
  return std::nullopt;
}

std::optional<Refusal> JudgeFields(const Head& head) {
  const auto isHost = [](const auto& field) { return IsSame(field.first, "Host"); };
  if (std::count_if(head.fields.begin(), head.fields.end(), isHost) != 1) {
    return Refusal{400, "there must be one field Host"};
  }
  for (const auto& [name, value] : head.fields) {
    const bool isLength = IsSame(name, "Content-Length") && value != "0";
    if (isLength || IsSame(name, "Transfer-Encoding")) return Refusal{413, "a request has no body here"};
    if (IsSame(name, "Expect")) return Refusal{417, "nothing is expected here"};
  }
  return std::nullopt;
}

}  // namespace

std::string_view Head::Field(std::string_view name) const {
  for (const auto& [each, value] : fields) {
    if (IsSame(each, name)) return value;
  }
  return {};
}

bool Head::KeepsAlive() const {
  const std::string_view connection = Field("Connection");
  if (version == "HTTP/1.0") return IsSame(connection, "keep-alive");
  return LowerText(connection).find("close") == std::string::npos;
}

std::string Head::Reduced() const {
  std::string text(method);
  text.append(" ").append(target).append(" ").append(version).append("\r\n");
  text.append("Host: ").append(Field("Host")).append("\r\n");  // which is always there, and may have no name in it
  for (const char* const name : {"Accept", "Authorization", "Cookie", "If-None-Match", "Last-Event-ID"}) {
    const std::string_view value = Field(name);
    if (!value.empty()) text.append(name).append(": ").append(value).append("\r\n");
  }
  if (LowerText(Field("Accept-Encoding")).find("gzip") != std::string::npos) text.append(kGzipField).append(": 1\r\n");
  return text + "\r\n";
}

std::optional<Refusal> ParseHead(std::string_view text, Head& head) {
  if (text.size() > kLongestHead) return Refusal{431, "the request's head is too long"};
  bool isFirst = true;
  for (;;) {
    const size_t end = text.find("\r\n");
    if (end == std::string_view::npos) return Refusal{400, "the request's head has no end"};
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 2);
    if (line.empty() && !isFirst) break;
    const auto refusal = isFirst ? ParseRequestLine(line, head) : ParseField(line, head);
    if (refusal) return refusal;
    isFirst = false;
  }
  if (!text.empty()) return Refusal{400, "something follows the request's head"};
  return JudgeFields(head);
}

// --- Access ------------------------------------------------------------------------------------------

namespace {

using Digest = std::array<uint8_t, 32>;

// Digests have one length, so that neither the length of a token nor the place of a difference shows in the time.
Digest DigestOf(std::string_view text) {
  Digest digest{};
  EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  return digest;
}

bool IsEqual(std::string_view given, std::string_view wanted) {
  const Digest a = DigestOf(given);
  const Digest b = DigestOf(wanted);
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string CookieOf(const std::string& token) {
  constexpr std::string_view kPurpose = "mdencoder cookie";
  Digest digest{};
  HMAC(EVP_sha256(), token.data(), static_cast<int>(token.size()), reinterpret_cast<const uint8_t*>(kPurpose.data()),
       kPurpose.size(), digest.data(), nullptr);
  std::string text;
  for (const uint8_t byte : digest) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", byte);
    text += digits;
  }
  return text;
}

// Returns the host of "HOST", "HOST:PORT" or "[ADDRESS]:PORT" in lower case, without brackets; "" if it is none of them.
std::string HostOf(std::string_view field) {
  std::string_view host = field;
  std::string_view rest;
  if (field.starts_with('[')) {
    const size_t end = field.find(']');
    if (end == std::string_view::npos) return {};
    host = field.substr(1, end - 1);
    rest = field.substr(end + 1);
  } else if (const size_t colon = field.find(':'); colon != std::string_view::npos) {
    host = field.substr(0, colon);
    rest = field.substr(colon);
  }
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  if (!rest.empty() && (rest[0] != ':' || rest.size() > 6 || !std::all_of(rest.begin() + 1, rest.end(), isDigit))) {
    return {};
  }
  return LowerText(host);
}

}  // namespace

const char kTokenAllowed[] = "a file with a token of 16 to 256 letters, digits, '-', '.', '_', '~', '+', '/' and '='";

bool IsToken(std::string_view text) {
  const auto fits = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("-._~+/=").find(c) != std::string_view::npos;
  };
  return text.size() >= kShortestToken && text.size() <= kLongestToken && std::all_of(text.begin(), text.end(), fits);
}

Access::Access(std::string token, std::vector<std::string> hosts, bool isSecure)
    : m_token(std::move(token)), m_hosts(std::move(hosts)), m_isSecure(isSecure), m_cookie(CookieOf(m_token)) {}

bool Access::AllowsHost(std::string_view host, std::string_view localAddress) const {
  const std::string name = HostOf(host);
  if (name.empty()) return false;
  if (name == "localhost" || name == "127.0.0.1" || name == "::1" || name == localAddress) return true;
  return std::find(m_hosts.begin(), m_hosts.end(), name) != m_hosts.end();
}

bool Access::IsRight(std::string_view token) const {
  return HasToken() && IsEqual(token, m_token);
}

bool Access::AllowsToken(std::string_view authorization, std::string_view cookie) const {
  if (!HasToken()) return true;
  constexpr std::string_view kScheme = "bearer ";
  if (authorization.size() > kScheme.size() && IsSame(authorization.substr(0, kScheme.size()), kScheme)) {
    return IsEqual(WithoutSpaces(authorization.substr(kScheme.size())), m_token);
  }
  while (!cookie.empty()) {
    const size_t end = std::min(cookie.find(';'), cookie.size());
    const std::string_view pair = WithoutSpaces(cookie.substr(0, end));
    const size_t equals = pair.find('=');
    if (equals != std::string_view::npos && pair.substr(0, equals) == kCookieName &&
        IsEqual(pair.substr(equals + 1), m_cookie)) {
      return true;
    }
    cookie.remove_prefix(std::min(end + 1, cookie.size()));
  }
  return false;
}

std::string Access::CookieField() const {
  return std::string(kCookieName) + "=" + m_cookie + "; Path=/; HttpOnly; SameSite=Strict" +
         (m_isSecure ? "; Secure" : "");
}

}  // namespace mdencoder::http
