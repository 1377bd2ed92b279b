// SPDX-License-Identifier: Apache-2.0
// The addresses of those relays of a source whose destinations are names of hosts. A name is looked up before the source is
// opened, and again while sending to its address fails. Nobody waits for an answer.
#ifndef MDENCODER_RELAY_NAMES_H
#define MDENCODER_RELAY_NAMES_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "config.h"
#include "metadata_lib.h"
#include "resolver.h"
#include "values.h"

namespace mdencoder {

// A question that was asked, of which a test may be the asker.
struct NameQuestion {
  std::function<std::optional<Resolution>()> take;      // takes the answer, if it has come
  std::function<void(std::chrono::milliseconds)> wait;  // until there is one, and no longer than that
};
using AskName = std::function<NameQuestion(const std::string& host, uint16_t port)>;
NameQuestion AskSystem(const std::string& host, uint16_t port);

class RelayNames {
 public:
  using Clock = std::chrono::steady_clock;

  explicit RelayNames(AskName ask) : m_ask(std::move(ask)) {}

  // Begins with the relays of a configuration. What is known of names that stay is kept.
  void Configure(const SourceSettings& settings);
  bool IsEmpty() const { return m_names.empty(); }
  // Takes the answers that have come, and asks for the names that have no address.
  void Update(Clock::time_point now);
  // Waits for the answers that are due, all together no longer than this.
  void Wait(std::chrono::milliseconds most);
  bool AreKnown() const;
  bool IsAsking() const;
  // Returns why a name has no address; "" while it is asked for and that takes no longer than usual.
  std::string Fault(Clock::time_point now) const;
  // Asks again for the names of relays whose errors have increased since the last call, or since Forget.
  void Look(const MDATA_SRC_STATS& statistics, Clock::time_point now);
  void ForgetErrors();
  void ForgetAddresses();
  // Puts the addresses into the record. Returns the numbers of the relays that have changed by it.
  std::vector<size_t> Fill(SourceSettings& settings) const;
  bool WouldChange(const SourceSettings& settings) const;

 private:
  struct Name {
    size_t relay = 0;
    std::string host;
    uint16_t port = 0;
    bool isIPv4 = false;    // only an address of IPv4 will do
    std::string interface;  // of link-local addresses
    std::optional<Address> address;
    std::string fault;
    std::optional<NameQuestion> question;
    std::optional<Clock::time_point> asked;  // last
    std::chrono::seconds pause{};            // until it may be asked for again
    std::optional<ULONG> errors;
  };

  void Ask(Name& name, Clock::time_point now);
  static void Take(Name& name, const Resolution& resolution);

  const AskName m_ask;
  std::vector<Name> m_names;
};

}  // namespace mdencoder

#endif  // MDENCODER_RELAY_NAMES_H
