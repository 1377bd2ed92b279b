// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Text        of answers that the library of HTTP does not write
//   Streams     give the library a request, and take its answer
//   Core        accepts clients, and answers them
#include "http/server.h"

#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <list>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "annotated_mutex.h"
#include "http/connection.h"
#include "http/leaver.h"
#include "http/query.h"
#include "owned_fd.h"
#include "source_keeper.h"
#include "tls.h"
#include "values.h"

namespace mdencoder::http {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kHandshakeTime = std::chrono::seconds(10);
constexpr auto kHeadTime = std::chrono::seconds(10);  // of a request, from its first byte on
constexpr auto kIdleTime = std::chrono::seconds(15);  // between two requests
constexpr size_t kMostRequests = 1000;                // of a connection
constexpr size_t kCrowd = Server::kMostConnections * 3 / 4;
constexpr auto kLeaveTime = std::chrono::seconds(1);        // for a client that is turned away, to read why
constexpr auto kSecureLeaveTime = std::chrono::seconds(3);  // likewise under TLS, with the handshake
constexpr size_t kMostLeaving = 256;
// Handshakes with clients that are turned away, which cost memory and time of the processor.
constexpr double kSecureLeaversAtOnce = 20;
constexpr auto kSecureLeaverEach = std::chrono::milliseconds(50);
constexpr auto kFlowTime = std::chrono::milliseconds(500);  // for flows to end, when everything ends
constexpr auto kReapTime = std::chrono::milliseconds(500);
constexpr int kBacklog = 128;

// --- Text --------------------------------------------------------------------------------------------

using Fields = std::vector<std::pair<std::string, std::string>>;

Fields SafetyFields(const std::string& tiles) {
  return {{"Content-Security-Policy", ContentPolicy(tiles)},
          {"X-Content-Type-Options", "nosniff"},
          {"Referrer-Policy", "no-referrer"},
          {"Cross-Origin-Resource-Policy", "same-origin"},
          {"Cross-Origin-Opener-Policy", "same-origin"}};
}

const char* ReasonOf(int status) {
  switch (status) {
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 413:
      return "Content Too Large";
    case 414:
      return "URI Too Long";
    case 417:
      return "Expectation Failed";
    case 431:
      return "Request Header Fields Too Large";
    case 503:
      return "Service Unavailable";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Bad Request";
  }
}

// Returns the whole text of an answer after which the connection ends.
std::string LastAnswer(const Refusal& refusal, const Fields& fields) {
  const Answer answer = RefusalAnswer(refusal);
  std::string text = "HTTP/1.1 " + std::to_string(refusal.status) + " " + ReasonOf(refusal.status) + "\r\n";
  for (const auto& [name, value] : fields) text += name + ": " + value + "\r\n";
  if (refusal.status == 405) text += "Allow: GET, HEAD\r\n";
  if (refusal.status == 503) text += "Retry-After: 5\r\n";
  return text + "Content-Type: " + answer.type + "\r\nContent-Length: " + std::to_string(answer.body.size()) +
         "\r\nConnection: close\r\n\r\n" + answer.body;
}

constexpr char kLoginPage[] =
    "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
    "<meta name=\"color-scheme\" content=\"light dark\">\n<title>mdencoder</title>\n</head>\n<body>\n<main>\n"
    "<h1>mdencoder</h1>\n<form action=\"/login\">\n<p><label for=\"token\">Token</label></p>\n"
    "<p><input id=\"token\" name=\"token\" type=\"password\" autocomplete=\"current-password\" required></p>\n"
    "<p><button>Log in</button></p>\n</form>\n</main>\n</body>\n</html>\n";

// --- Streams -----------------------------------------------------------------------------------------

// Gives the library the head of a request, and the connection its answer.
class HeadStream : public httplib::Stream {
 public:
  HeadStream(std::string head, Connection& connection) : m_head(std::move(head)), m_connection(connection) {}

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* to, size_t size) override {
    const size_t count = std::min(size, m_head.size() - m_at);
    std::memcpy(to, m_head.data() + m_at, count);
    m_at += count;
    return static_cast<ssize_t>(count);
  }
  ssize_t write(const char* bytes, size_t size) override {
    return m_connection.Write({bytes, size}) ? static_cast<ssize_t>(size) : -1;
  }
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    ip = m_connection.Remote().address;
    port = m_connection.Remote().port;
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    ip = m_connection.Local().address;
    port = m_connection.Local().port;
  }
  // The library only looks whether it can select() on it, and never does.
  socket_t socket() const override { return 0; }

 private:
  const std::string m_head;
  Connection& m_connection;
  size_t m_at = 0;
};

// The connection that this thread serves, for the handler of its request.
thread_local const Connection* t_connection = nullptr;

common::OwnedFD Listen(const HttpSettings& settings) {
  const auto fail = [&settings]() {
    const std::string why = errno == EADDRINUSE ? "the port is in use" : std::strerror(errno);
    throw std::runtime_error("the page cannot be served at " + settings.Url() + ": " + why);
  };
  const auto address = ParseAddress(settings.address);
  if (!address) throw std::runtime_error("no address to serve the page at");
  sockaddr_storage local{};
  socklen_t size = sizeof(sockaddr_in);
  if (address->family == AF_INET) {
    auto& v4 = reinterpret_cast<sockaddr_in&>(local);
    v4.sin_family = AF_INET;
    v4.sin_port = htons(settings.port);
    std::memcpy(&v4.sin_addr, address->bytes.data(), sizeof(v4.sin_addr));
  } else {
    auto& v6 = reinterpret_cast<sockaddr_in6&>(local);
    size = sizeof(v6);
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(settings.port);
    std::memcpy(&v6.sin6_addr, address->bytes.data(), sizeof(v6.sin6_addr));
  }
  common::OwnedFD fd(socket(address->family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.IsOpen()) fail();
  const int on = 1;
  setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), size) != 0) fail();
  if (listen(fd.Get(), kBacklog) != 0) fail();
  return fd;
}

}  // namespace

std::string ContentPolicy(const std::string& tiles) {
  const std::string origin = TileOrigin(tiles);
  return "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:" +
         (origin.empty() ? "" : " " + origin) +
         "; connect-src 'self'; media-src 'self' blob:; font-src 'self'; worker-src 'self'; manifest-src 'self'; "
         "base-uri 'none'; form-action 'self'; frame-ancestors 'none'";
}

// --- Core --------------------------------------------------------------------------------------------

class Server::Core : private httplib::Server {
 public:
  Core(const HttpSettings& settings, const Api& api, Say say)
      : m_api(api),
        m_say(std::move(say)),
        m_fields(SafetyFields(settings.tiles)),
        m_access(ReadToken(settings.token), settings.hosts, !settings.certificate.empty()),
        m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!settings.certificate.empty()) m_tls = std::make_unique<TlsServer>(settings.certificate, settings.key);
    m_listener = Listen(settings);
    svr_sock_ = m_listener.Get();  // the library takes the server for stopped without one
    httplib::Headers headers;
    for (const auto& field : m_fields) headers.insert(field);
    set_default_headers(std::move(headers));
    set_keep_alive_timeout(kIdleTime.count());
    set_keep_alive_max_count(kMostRequests);
    set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
      Respond(request, response);
      return HandlerResponse::Handled;
    });
  }
  ~Core() override { Stop(); }

  void Start() {
    m_thread = std::thread([this] { Run(); });
  }
  void Stop();
  ServerCounts Counts() const;

 private:
  struct Client {
    std::unique_ptr<Connection> connection;
    std::thread thread;
    std::atomic<bool> isDone{false};
  };
  void Run();
  void Accept();
  void Admit(common::OwnedFD socket);
  void TurnAway(common::OwnedFD socket);
  void TellCrowd(const std::string& line);
  void Reap();
  void SeeOff();
  bool IsCrowded() const { return m_open.load() > kCrowd; }

  void Serve(Client& client);
  bool ServeOne(Connection& connection, size_t number);
  void Refuse(Connection& connection, const Refusal& refusal);
  void Respond(const httplib::Request& request, httplib::Response& response);
  Answer Decide(const httplib::Request& request);
  Answer Login(const Parameters& query) const;
  void SetFlow(Answer& answer, bool isOld, httplib::Response& response);
  bool Pass(Flow& flow, httplib::DataSink& sink, const Connection& connection) const;
  void TellSlow();

  const Api& m_api;
  const Say m_say;
  const Fields m_fields;
  const Access m_access;
  std::unique_ptr<TlsServer> m_tls;
  common::OwnedFD m_listener;
  const common::OwnedFD m_wake;
  std::thread m_thread;
  std::atomic<bool> m_isStopping{false};

  std::list<Client> m_clients;  // accepting thread; Stop, after its end
  // Accepting thread.
  std::deque<std::unique_ptr<Leaver>> m_leaving;
  Allowance m_secureLeavers{kSecureLeaversAtOnce, kSecureLeaverEach};
  Allowance m_crowdLines{kLinesAtOnce, kLineEach};

  common::Mutex m_mutex;  // leaf
  common::Condition m_flowEnded;
  Allowance m_slowLines GUARDED_BY(m_mutex){kLinesAtOnce, kLineEach};

  std::atomic<uint64_t> m_open{0};
  std::atomic<uint64_t> m_accepted{0};
  std::atomic<uint64_t> m_turnedAway{0};
  std::atomic<uint64_t> m_requests{0};
  std::atomic<uint64_t> m_refused{0};
  std::atomic<uint64_t> m_flows{0};
  std::atomic<uint64_t> m_slow{0};
};

// Flows that are at their end get a moment to say so.
void Server::Core::Stop() {
  {
    const auto end = Clock::now() + kFlowTime;
    const common::Lock lock(m_mutex);
    while (m_flows.load() != 0 && m_flowEnded.WaitUntil(m_mutex, end)) {
    }
  }
  m_isStopping.store(true);
  eventfd_write(m_wake.Get(), 1);
  if (m_thread.joinable()) m_thread.join();
  for (Client& client : m_clients) {
    if (client.thread.joinable()) client.thread.join();
  }
  m_clients.clear();
  m_leaving.clear();
}

ServerCounts Server::Core::Counts() const {
  return {m_open.load(),    m_accepted.load(), m_turnedAway.load(), m_requests.load(),
          m_refused.load(), m_flows.load(),    m_slow.load()};
}

void Server::Core::Run() {
  pthread_setname_np(pthread_self(), "PageServer");
  std::vector<pollfd> set;
  while (!m_isStopping.load()) {
    set = {{m_listener.Get(), POLLIN, 0}, {m_wake.Get(), POLLIN, 0}};
    for (const auto& leaver : m_leaving) set.push_back(leaver->Wanted());
    const bool isIdle = m_clients.empty() && m_leaving.empty();
    const int ready = poll(set.data(), set.size(), isIdle ? -1 : static_cast<int>(kReapTime.count()));
    Reap();
    SeeOff();
    if (ready > 0 && set[0].revents != 0) Accept();
  }
}

void Server::Core::Accept() {
  for (int i = 0; i < kBacklog && !m_isStopping.load(); ++i) {
    common::OwnedFD socket(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.IsOpen()) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EAGAIN) return;
      // Out of descriptors or memory: what is there must not be asked for all the time.
      TellCrowd(std::string("clients of the page wait: ") + std::strerror(errno));
      pollfd wake = {m_wake.Get(), POLLIN, 0};
      poll(&wake, 1, static_cast<int>(kReapTime.count()));
      return;
    }
    ++m_accepted;
    if (m_clients.size() >= kMostConnections) Reap();
    if (m_clients.size() < kMostConnections) {
      Admit(std::move(socket));
    } else {
      TurnAway(std::move(socket));
    }
  }
}

void Server::Core::Admit(common::OwnedFD socket) try {
  auto connection = std::make_unique<Connection>(std::move(socket), m_tls.get(), m_isStopping);
  Client& client = m_clients.emplace_back();
  client.connection = std::move(connection);
  ++m_open;
  try {
    client.thread = std::thread([this, &client] { Serve(client); });
  } catch (const std::system_error&) {
    --m_open;
    m_clients.pop_back();
    throw;
  }
} catch (const std::exception& error) {
  ++m_turnedAway;
  TellCrowd(std::string("a client of the page cannot be served: ") + error.what());
}

void Server::Core::TellCrowd(const std::string& line) {
  if (m_crowdLines.Take(Clock::now())) m_say(line);
}

// Under TLS nothing can be said without a handshake. Clients for which there is none are closed at once.
void Server::Core::TurnAway(common::OwnedFD socket) try {
  ++m_turnedAway;
  TellCrowd(std::to_string(kMostConnections) + " clients of the page are connected; more are turned away");
  const auto now = Clock::now();
  if (m_tls != nullptr && !m_secureLeavers.Take(now)) return;
  if (m_leaving.size() >= kMostLeaving) m_leaving.pop_front();
  auto leaver = std::make_unique<Leaver>(std::move(socket), m_tls.get(),
                                         LastAnswer({503, "there are too many clients; try again later"}, m_fields),
                                         now + (m_tls != nullptr ? kSecureLeaveTime : kLeaveTime));
  if (leaver->Step(now)) m_leaving.push_back(std::move(leaver));
} catch (const std::exception& error) {
  TellCrowd(std::string("a client of the page cannot be told that there are too many: ") + error.what());
}

void Server::Core::SeeOff() {
  const auto now = Clock::now();
  std::erase_if(m_leaving, [now](const auto& leaver) { return !leaver->Step(now); });
}

void Server::Core::Reap() {
  for (auto it = m_clients.begin(); it != m_clients.end();) {
    if (!it->isDone.load()) {
      ++it;
      continue;
    }
    it->thread.join();
    it = m_clients.erase(it);
  }
}

void Server::Core::Serve(Client& client) {
  pthread_setname_np(pthread_self(), "PageClient");
  Connection& connection = *client.connection;
  try {
    bool goesOn = connection.Handshake(Clock::now() + kHandshakeTime) == Connection::Outcome::Done;
    for (size_t i = 0; goesOn && !m_isStopping.load(); ++i) goesOn = ServeOne(connection, i);
  } catch (const std::exception&) {
    ++m_refused;  // out of memory, most likely; the connection ends
  }
  t_connection = nullptr;
  client.connection.reset();
  --m_open;
  client.isDone.store(true);
}

// Answers one request. Returns whether another one may follow.
bool Server::Core::ServeOne(Connection& connection, size_t number) {
  std::string text;
  const auto idle = number == 0 ? kHeadTime : IsCrowded() ? std::chrono::seconds(1) : kIdleTime;
  const auto outcome = connection.ReadHead(text, Clock::now() + idle, kHeadTime);
  if (outcome == Connection::Outcome::TooLong) Refuse(connection, {431, "the request's head is too long"});
  if (outcome == Connection::Outcome::TimeOver && connection.HasPart()) {
    Refuse(connection, {408, "the request did not come in time"});
  }
  if (outcome != Connection::Outcome::Done) return false;
  Head head;
  if (const auto refusal = ParseHead(text, head)) {
    Refuse(connection, *refusal);
    return false;
  }
  const bool keeps = head.KeepsAlive() && number + 1 < kMostRequests && !IsCrowded() && !m_isStopping.load();
  HeadStream stream(head.Reduced(), connection);
  t_connection = &connection;
  bool isClosed = false;
  ++m_requests;
  const bool isWritten = process_request(stream, !keeps, isClosed, {});
  if (connection.IsTimedOut()) TellSlow();
  if (connection.HasFailed()) return false;
  if (isWritten && keeps && !isClosed) return true;
  connection.Finish();
  return false;
}

void Server::Core::Refuse(Connection& connection, const Refusal& refusal) {
  ++m_refused;
  if (connection.Write(LastAnswer(refusal, m_fields))) connection.Finish();
}

void Server::Core::TellSlow() {
  ++m_slow;
  {
    const common::Lock lock(m_mutex);
    if (!m_slowLines.Take(Clock::now())) return;
  }
  m_say("a client of the page does not read and is closed");
}

void Server::Core::Respond(const httplib::Request& request, httplib::Response& response) {
  Answer answer;
  try {
    answer = Decide(request);
  } catch (const Refusal& refusal) {
    answer = RefusalAnswer(refusal);
  } catch (const std::exception& error) {
    answer = RefusalAnswer({500, error.what()});
  }
  if (answer.status >= 400) ++m_refused;
  response.status = answer.status;
  if (answer.status == 401) response.set_header("WWW-Authenticate", "Bearer");
  if (answer.status == 503) response.set_header("Retry-After", "5");
  for (const auto& [name, value] : answer.fields) response.set_header(name, value);
  if (answer.flow) {
    SetFlow(answer, request.version == "HTTP/1.0", response);
  } else if (!answer.body.empty()) {
    response.set_content(answer.body, answer.type);
  }
}

Answer Server::Core::Decide(const httplib::Request& request) {
  if (!m_access.AllowsHost(request.get_header_value("Host"), request.local_addr)) {
    throw Refusal{403, "this host's name is not allowed; http_host adds it"};
  }
  Request asked;
  asked.path = ParseTarget(request.target, asked.query);
  asked.knownTag = request.get_header_value("If-None-Match");
  asked.lastEventId = request.get_header_value("Last-Event-ID");
  asked.acceptsGzip = request.has_header(kGzipField);
  asked.wantsPage = request.get_header_value("Accept").find("text/html") != std::string::npos;
  if (asked.path == "/login") return Login(asked.query);
  const bool isAllowed =
      m_access.AllowsToken(request.get_header_value("Authorization"), request.get_header_value("Cookie"));
  if (!isAllowed && asked.path != "/healthz") {
    if (!asked.wantsPage) throw Refusal{401, "a token is needed"};
    Answer answer;
    answer.status = 303;
    answer.fields = {{"Location", "/login"}, {"Cache-Control", "no-store"}};
    return answer;
  }
  Answer answer = m_api.Handle(asked, Counts());
  // Whoever has no token learns no names.
  if (!isAllowed)
    answer.body = answer.status == 200 ? R"({"status":"ok","reasons":[]})" : R"({"status":"failing","reasons":[]})";
  return answer;
}

Answer Server::Core::Login(const Parameters& query) const {
  Query parameters(query);
  const std::string token = parameters.Text("token");
  parameters.Finish();
  Answer answer;
  answer.fields = {{"Cache-Control", "no-store"}};
  if (!m_access.HasToken() || m_access.IsRight(token)) {
    answer.status = 303;
    answer.fields.emplace_back("Location", "/");
    if (m_access.HasToken()) answer.fields.emplace_back("Set-Cookie", m_access.CookieField());
    return answer;
  }
  answer.status = token.empty() ? 200 : 401;
  answer.type = "text/html; charset=utf-8";
  answer.body = kLoginPage;
  return answer;
}

// Clients of flows stay, and must leave room for the others.
void Server::Core::SetFlow(Answer& answer, bool isOld, httplib::Response& response) {
  const auto release = [this](bool) {
    const common::Lock lock(m_mutex);
    --m_flows;
    m_flowEnded.NotifyAll();
  };
  if (++m_flows > kMostFlows) {
    --m_flows;
    ++m_refused;
    answer = RefusalAnswer({503, "there are too many clients of events and streams; try again later"});
    response.status = answer.status;
    response.set_header("Retry-After", "5");
    response.set_content(answer.body, answer.type);
    return;
  }
  const std::shared_ptr<Flow> flow = std::move(answer.flow);
  const Connection& connection = *t_connection;
  const auto pass = [this, flow, &connection](size_t, httplib::DataSink& sink) {
    return Pass(*flow, sink, connection);
  };
  response.set_header("Cache-Control", "no-store");
  if (isOld) {
    response.set_content_provider(answer.type, pass, release);
  } else {
    response.set_chunked_content_provider(answer.type, pass, release);
  }
}

bool Server::Core::Pass(Flow& flow, httplib::DataSink& sink, const Connection& connection) const {
  std::string piece;
  const bool goesOn = flow.Next(piece);
  if (!piece.empty() && !sink.write(piece.data(), piece.size())) return false;
  if (!goesOn) {
    sink.done();
    return true;
  }
  return !m_isStopping.load() && !connection.IsGone();
}

Server::Server(const HttpSettings& settings, const Api& api, Say say)
    : m_core(std::make_unique<Core>(settings, api, std::move(say))) {}

Server::~Server() = default;

void Server::Start() {
  m_core->Start();
}

void Server::Stop() {
  m_core->Stop();
}

ServerCounts Server::Counts() const {
  return m_core->Counts();
}

}  // namespace mdencoder::http
