#include "support/test_servers.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <stdexcept>

namespace kp::test {

SelfSignedCertificate::SelfSignedCertificate() {
  folder_ = std::filesystem::temp_directory_path() / ("kp-cert-" + std::to_string(std::random_device()()));
  std::filesystem::create_directories(folder_);
  const std::string command =
      "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
      "-addext subjectAltName=IP:127.0.0.1,DNS:localhost -keyout '" +
      keyPath().string() + "' -out '" + certificatePath().string() + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("openssl could not make a certificate");
}

SelfSignedCertificate::~SelfSignedCertificate() {
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

TestServer::TestServer(const SelfSignedCertificate* certificate) : tls_(certificate != nullptr) {
  if (certificate) {
    server_ =
        std::make_unique<httplib::SSLServer>(certificate->certificatePath().c_str(), certificate->keyPath().c_str());
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  server_->set_tcp_nodelay(true);
}

TestServer::~TestServer() { stop(); }

void TestServer::start() {
  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("cannot bind a test server");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void TestServer::stop() {
  if (thread_.joinable()) {
    server_->stop();
    thread_.join();
  }
}

std::string TestServer::url(const std::string& path) const {
  return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
}

namespace {
int listenOnLoopback(int& port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 16) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(fd);
    throw std::runtime_error("cannot listen on 127.0.0.1");
  }
  port = ntohs(address.sin_port);
  return fd;
}
}  // namespace

RawServer::RawServer(std::function<void(const Writer&)> answer) : answer_(std::move(answer)) {
  listener_ = listenOnLoopback(port_);
  thread_ = std::thread([this] { run(); });
}

RawServer::~RawServer() {
  stopping_ = true;
  ::shutdown(listener_, SHUT_RDWR);
  thread_.join();
  ::close(listener_);
}

std::string RawServer::url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

void RawServer::run() {
  while (!stopping_) {
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, 50) <= 0) continue;
    const int client = ::accept(listener_, nullptr, nullptr);
    if (client < 0) continue;
    std::string head;
    char buffer[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
      pollfd readable{client, POLLIN, 0};
      if (::poll(&readable, 1, 2000) <= 0) break;
      const auto n = ::recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      head.append(buffer, static_cast<size_t>(n));
    }
    bool gone = false;
    answer_([&](const std::string& bytes) {
      if (gone || stopping_) return false;
      if (::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
        gone = true;
        ++clientsGone_;
      }
      return !gone;
    });
    ::close(client);
  }
}

int closedPort() {
  int port = 0;
  const int fd = listenOnLoopback(port);
  ::close(fd);
  return port;
}

}  // namespace kp::test
