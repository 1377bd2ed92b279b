// SPDX-License-Identifier: Apache-2.0
// The front end of a source on a TAK network: receives events as clients and servers send them (datagrams, or streams over
// TCP and TLS, each as XML or as the TAK protocol) and sends those that the library converts to its own UDP source, one
// in a datagram, over the loopback interface.
//
// A thread of its own does all of that, from Start to the destructor. It waits only for its peer and for the library,
// and ends within milliseconds. Everything else is called on the main thread.
#ifndef MDENCODER_TAK_INPUT_H
#define MDENCODER_TAK_INPUT_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <thread>

#include "annotated_mutex.h"
#include "cot_event.h"
#include "owned_fd.h"
#include "resolver.h"
#include "tak_settings.h"
#include "tak_stream.h"
#include "tls.h"

namespace mdencoder {

struct TakCounts {
  uint64_t bytes = 0;          // received
  uint64_t datagrams = 0;      // received, of a source of datagrams
  uint64_t connections = 0;    // made, of a stream
  uint64_t events = 0;         // found, whatever became of them
  uint64_t forwarded = 0;      // sent to the library
  uint64_t otherKinds = 0;     // neither an aircraft nor a sensor point
  uint64_t otherAircraft = 0;  // of another aircraft than cot_aircraft
  uint64_t faulty = 0;         // no events, or without what an event must have; and bytes that are no event
  uint64_t tooLong = 0;        // without room in a datagram of the library
  uint64_t shortened = 0;      // forwarded without all of their details
  uint64_t notSent = 0;        // the library's socket was away
};

class TakInput {
 public:
  using Clock = std::chrono::steady_clock;

  // `retry` tells whether a connection is made again. Throws ConfigError for files of TLS that cannot be used, and
  // std::runtime_error without sockets or a free port.
  TakInput(const TakSettings& settings, bool retry);
  ~TakInput();
  TakInput(const TakInput&) = delete;
  TakInput& operator=(const TakInput&) = delete;

  // The UDP port that the library's source has to have, with 127.0.0.1 as its sender. Nobody has it.
  uint16_t Port() const { return m_port; }
  // Begins to receive. Call it once, after the library's source was opened.
  void Start();
  // Ends the thread. The destructor does it too.
  void Stop();
  // Tries again at once what has failed, and joins the group where there is an interface now.
  void NetworkChanged();

  TakCounts Counts() const;
  // Returns why nothing can arrive, or "".
  std::string Trouble() const;
  // Returns whether it will not try again by itself.
  bool HasGivenUp() const { return m_hasGivenUp.load(); }

 private:
  enum class Count {
    Bytes,
    Datagrams,
    Connections,
    Events,
    Forwarded,
    OtherKinds,
    OtherAircraft,
    Faulty,
    TooLong,
    Shortened,
    NotSent,
    Number
  };

  void Run();
  void Work();
  bool RunDatagrams();
  void ReadDatagrams(int socket);
  void PushDatagram(std::span<const uint8_t> bytes);
  bool RunStream();
  bool FindAddresses(Resolution& resolution);
  common::OwnedFD Connect(const HostAddress& address, std::string& fault);
  bool Secure(int socket, std::unique_ptr<TlsConnection>& tls, const std::string& peer);
  bool ReceiveStream(int socket, TlsConnection* tls, const std::string& peer);
  bool ReadStream(int socket, TlsConnection* tls, tak::StreamReader& reader, std::string& fault);
  void Push(tak::StreamReader::Kind kind, std::span<const uint8_t> bytes);
  void Forward(const cot::Prepared& prepared);
  void AwaitRoom();

  // Waits until the descriptor is ready, the time is over or the input is woken. Returns whether it is ready.
  bool Await(int fd, short events, Clock::time_point until);
  bool IsStopping() const { return m_isStopping.load(); }
  void Add(Count count, uint64_t number = 1);
  uint64_t Get(Count count) const;
  void SetTrouble(const std::string& trouble);

  const TakSettings m_settings;
  const bool m_retry;
  std::unique_ptr<TlsClient> m_tls;
  common::OwnedFD m_out;   // connected to the library's port
  common::OwnedFD m_wake;  // eventfd
  uint16_t m_port = 0;
  Resolver m_resolver;           // thread only
  unsigned m_sentSinceLook = 0;  // thread only
  std::atomic<bool> m_isStopping{false};
  std::atomic<bool> m_isNetworkNew{false};
  std::atomic<bool> m_hasGivenUp{false};
  std::atomic<uint64_t> m_counts[static_cast<size_t>(Count::Number)]{};
  mutable common::Mutex m_lock;  // leaf
  std::string m_trouble GUARDED_BY(m_lock);
  std::thread m_thread;
};

// Opens a socket for the datagrams of a TAK network and joins its group. Returns none, with the reason.
common::OwnedFD OpenTakSocket(const TakSettings& settings, std::string& fault);

// Joins the group of an open socket again where it is not joined. Returns false, with the reason, if it is nowhere.
bool JoinTakGroup(int fd, const TakSettings& settings, std::string& fault);

}  // namespace mdencoder

#endif  // MDENCODER_TAK_INPUT_H
