// kp::weather::WeatherService: the local weather service on a socket. It serves the protocol
// of weather_protocol.h over HTTP/1.1 (HTTPS when given a certificate) with keep-alive, for
// the command `kpcore serve`, the tests and the benchmarks. Never installed; only for use on
// this machine.
//
// Connections. A few threads run one event loop that drives every connection, so a
// connection costs a thread only while its answer is made, never while its peer is slow or
// idle: slow or silent clients cannot keep others from being served. The limits:
//   - a request's head and body must arrive within the request time limit (10 s by default)
//     of its first byte, and a TLS handshake within the same time; a connection that does not
//     make it is closed without an answer;
//   - the head (request line and fields) is at most 8 KiB (431 beyond), the body at most
//     1 MiB (413, answered as soon as the head announces more); bodies being received share
//     64 MiB, beyond which a request is refused with 503;
//   - a length the service cannot trust (two different Content-Length values, a negative or
//     unreadable one, Content-Length beside Transfer-Encoding, a transfer coding other than
//     chunked) is refused with 400 and the connection closed;
//   - an idle keep-alive connection is closed after 5 s; an answer must be taken within 10 s;
//   - at most 4096 connections are open at once (fewer when the process may open fewer
//     files); at the limit, connections idle after an answer are closed to make room, and new
//     ones wait in the listen queue (4096 long) until there is;
//   - Range is ignored: every answer is whole (status 200 or the refusal's status).
// Refusals of the transport carry the service's failure envelope and close the connection.
//
// Faults. With options.faults set (faults.h), the service spoils a share of its answers:
// delays them, dribbles them, cuts or resets their connections, answers 500 or 503, sends
// the failure envelope, seals them with another key, oversizes them or gets their length
// wrong. It counts what it injected (faults()), and answers GET /_faults, never spoiled, with
// those counts: {"answers":N,"seed":S,"injected":{"delay":n,...}}.
//
// Thread safety: start() and stop() from one owning thread; the accessors from any thread
// after start() returned. The access log is called on the serving threads, possibly at once.
//
// Example:
//   kp::weather::WeatherService service({.port = 0});
//   service.start();                         // throws std::runtime_error when it cannot bind
//   std::string base = service.baseUrl();    // "http://127.0.0.1:41234"
//   ...
//   service.stop();
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "weather_protocol.h"

namespace kp::weather {

class ServiceTransport;

class WeatherService {
 public:
  // Called after each answer with the HTTP method, target and status ("-" for the method
  // and target of a request whose head could not be read).
  using AccessLog = std::function<void(const std::string& method, const std::string& target, int status)>;

  // Throws std::runtime_error when the certificate or key cannot be loaded.
  explicit WeatherService(WeatherServiceOptions options, AccessLog log = nullptr);
  ~WeatherService();
  WeatherService(const WeatherService&) = delete;
  WeatherService& operator=(const WeatherService&) = delete;

  // Binds and starts serving on threads of its own. Throws std::runtime_error when the
  // address cannot be bound.
  void start();
  // Stops accepting, closes the connections that are not being answered, lets the answers
  // under way finish and joins the serving threads.
  void stop();

  [[nodiscard]] int port() const noexcept { return port_; }
  [[nodiscard]] bool isTls() const noexcept { return tls_; }
  // "http://127.0.0.1:41234" ("https" with TLS; IPv6 hosts in brackets).
  [[nodiscard]] std::string baseUrl() const;
  [[nodiscard]] const WeatherProtocol& protocol() const noexcept { return protocol_; }
  // The faults planned and injected so far; null without faults.
  [[nodiscard]] const FaultPlan* faults() const noexcept;

 private:
  WeatherProtocol protocol_;
  AccessLog log_;
  std::unique_ptr<ServiceTransport> transport_;
  bool tls_ = false;
  int port_ = 0;
};

}  // namespace kp::weather
