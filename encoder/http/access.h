// SPDX-License-Identifier: Apache-2.0
// Who may ask for what: the form of a request's head, the host that it names, and the token. No I/O.
#ifndef MDENCODER_HTTP_ACCESS_H
#define MDENCODER_HTTP_ACCESS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/answer.h"

namespace mdencoder::http {

constexpr size_t kLongestHead = 16384;  // bytes of the request line and all fields
constexpr size_t kLongestTarget = 4096;
constexpr size_t kMostFields = 100;

// The head of a request. The views point into the text that was read.
struct Head {
  std::string_view method;
  std::string_view target;
  std::string_view version;
  std::vector<std::pair<std::string_view, std::string_view>> fields;

  // Returns the value of the first such field, or "". Names are compared without case.
  std::string_view Field(std::string_view name) const;
  bool KeepsAlive() const;
  // Returns the head with only those fields that something here reads, as the library of HTTP gets it.
  std::string Reduced() const;
};

// Stands in a reduced head if the client takes gzip.
constexpr char kGzipField[] = "Accepts-Gzip";

// Reads the head of a request, up to and with the empty line. It must be GET or HEAD, without a body, in the strict form of
// HTTP/1.1 or 1.0, and name one host. Returns why it is refused, or nothing.
std::optional<Refusal> ParseHead(std::string_view text, Head& head);

constexpr size_t kShortestToken = 16;
constexpr size_t kLongestToken = 256;
extern const char kTokenAllowed[];
// Returns whether text, without the white space around it, may be a token.
bool IsToken(std::string_view text);

class Access {
 public:
  // Without a token everybody may ask. `hosts` are names that clients may call this program by, in lower case.
  Access(std::string token, std::vector<std::string> hosts, bool isSecure);

  // Tells whether the value of "Host" is one that a client of this program uses: a name of this machine's loopback, one of
  // the names that were given, or the address on which the client came in. A page of another site whose name was pointed
  // here has another one.
  bool AllowsHost(std::string_view host, std::string_view localAddress) const;
  bool HasToken() const { return !m_token.empty(); }
  // Tells whether the fields "Authorization" or "Cookie" have the token. Takes the same time wherever a wrong one differs.
  bool AllowsToken(std::string_view authorization, std::string_view cookie) const;
  bool IsRight(std::string_view token) const;
  // Returns the value of "Set-Cookie" that lets a browser in.
  std::string CookieField() const;

 private:
  const std::string m_token;
  const std::vector<std::string> m_hosts;
  const bool m_isSecure;
  const std::string m_cookie;  // stands for the token, which it does not give away
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_ACCESS_H
