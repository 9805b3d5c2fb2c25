// kp::weather::WeatherService: the local weather service on a socket. It serves the protocol
// of weather_protocol.h over HTTP/1.1 (HTTPS when given a certificate) with keep-alive, for
// the command `kpcore serve`, the tests and the benchmarks. Never installed; only for use on
// this machine.
//
// Each connection is served on a thread of a small pool; a request is limited to 1 MiB of
// body and 5 s of silence, so a hostile client costs a thread for a bounded time. Idle
// keep-alive connections close after 1 s.
//
// Thread safety: start() and stop() from one owning thread; the accessors from any thread
// after start() returned.
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
#include <thread>

#include "weather_protocol.h"

namespace httplib {
class Server;
}

namespace kp::weather {

class WeatherService {
 public:
  // Called after each answer with the HTTP method, target and status.
  using AccessLog = std::function<void(const std::string& method, const std::string& target, int status)>;

  // Throws std::runtime_error when the certificate or key cannot be loaded.
  explicit WeatherService(WeatherServiceOptions options, AccessLog log = nullptr);
  ~WeatherService();
  WeatherService(const WeatherService&) = delete;
  WeatherService& operator=(const WeatherService&) = delete;

  // Binds and starts serving on a thread of its own. Throws std::runtime_error when the
  // address cannot be bound.
  void start();
  // Stops accepting, finishes the requests in progress and joins the serving thread.
  void stop();

  [[nodiscard]] int port() const noexcept { return port_; }
  [[nodiscard]] bool isTls() const noexcept { return tls_; }
  // "http://127.0.0.1:41234" ("https" with TLS; IPv6 hosts in brackets).
  [[nodiscard]] std::string baseUrl() const;
  [[nodiscard]] const WeatherProtocol& protocol() const noexcept { return protocol_; }

 private:
  WeatherProtocol protocol_;
  AccessLog log_;
  std::unique_ptr<httplib::Server> server_;
  bool tls_ = false;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace kp::weather
