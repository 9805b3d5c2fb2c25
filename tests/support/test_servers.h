// Test helpers: HTTP and HTTPS servers on 127.0.0.1 (cpp-httplib), an HTTP/2 server (nghttpd)
// serving a folder, a raw TCP server that answers every connection with fixed bytes, and a
// self-signed certificate made at run time. Only the request tests link these.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace kp::test {

// A certificate and key for 127.0.0.1 and "localhost", valid for a day, in a fresh folder.
class SelfSignedCertificate {
 public:
  SelfSignedCertificate();
  ~SelfSignedCertificate();
  [[nodiscard]] std::filesystem::path certificatePath() const { return folder_ / "cert.pem"; }
  [[nodiscard]] std::filesystem::path keyPath() const { return folder_ / "key.pem"; }

 private:
  std::filesystem::path folder_;
};

// Routes are added through server() before start(); stop() (or the destructor) ends it.
class TestServer {
 public:
  // With a certificate the server speaks HTTPS.
  explicit TestServer(const SelfSignedCertificate* certificate = nullptr);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  httplib::Server& server() { return *server_; }
  void start();
  void stop();
  [[nodiscard]] int port() const { return port_; }
  // "http://127.0.0.1:PORT" + path (https with a certificate).
  [[nodiscard]] std::string url(const std::string& path) const;

 private:
  std::unique_ptr<httplib::Server> server_;
  bool tls_;
  int port_ = 0;
  std::thread thread_;
};

// nghttpd on 127.0.0.1, speaking only HTTP/2 over TLS, serving the files of a folder with
// lower-case header names as HTTP/2 requires. Started by the constructor (which throws when
// it does not come up within a few seconds), killed by the destructor.
class Http2Server {
 public:
  // Where nghttpd is installed, if it is.
  [[nodiscard]] static std::optional<std::filesystem::path> binary();

  Http2Server(const std::filesystem::path& folder, const SelfSignedCertificate& certificate);
  ~Http2Server();
  Http2Server(const Http2Server&) = delete;
  Http2Server& operator=(const Http2Server&) = delete;
  [[nodiscard]] std::string url(const std::string& path) const;

 private:
  void stop();
  int pid_ = -1;
  int port_ = 0;
};

// Accepts connections one after another; reads the request head (and a body as long as its
// Content-Length says), then calls `answer` with a function that writes bytes to the client;
// the connection closes when `answer` returns.
class RawServer {
 public:
  using Writer = std::function<bool(const std::string&)>;
  explicit RawServer(std::function<void(const Writer&)> answer);
  // `answer` also gets the request as received: head, blank line and body.
  explicit RawServer(std::function<void(const std::string& request, const Writer&)> answer);
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;
  [[nodiscard]] std::string url(const std::string& path) const;
  // Connections whose client went away before `answer` finished writing.
  [[nodiscard]] int clientsGone() const { return clientsGone_.load(); }

 private:
  void run();
  std::function<void(const std::string&, const Writer&)> answer_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> clientsGone_{0};
  std::thread thread_;
};

// A port on 127.0.0.1 where nothing listens.
[[nodiscard]] int closedPort();

}  // namespace kp::test
