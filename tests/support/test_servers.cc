#include "support/test_servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <stdexcept>
#include <vector>

extern char** environ;

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
  // stop() waits for idle keep-alive connections to time out; the default 5 s made every
  // test that used a connection last at least that long.
  server_->set_keep_alive_timeout(1);
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

bool acceptsConnections(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

// The length a request head announces for its body, 0 without one.
std::size_t announcedLength(const std::string& head) {
  std::string lower = head;
  for (auto& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const auto at = lower.find("\r\ncontent-length:");
  if (at == std::string::npos) return 0;
  return static_cast<std::size_t>(std::strtoull(lower.c_str() + at + 17, nullptr, 10));
}
}  // namespace

std::optional<std::filesystem::path> Http2Server::binary() {
  for (const char* folder : {"/usr/sbin", "/usr/bin", "/usr/local/sbin", "/usr/local/bin"}) {
    const auto path = std::filesystem::path(folder) / "nghttpd";
    if (::access(path.c_str(), X_OK) == 0) return path;
  }
  return std::nullopt;
}

Http2Server::Http2Server(const std::filesystem::path& folder, const SelfSignedCertificate& certificate) {
  const auto program = binary();
  if (!program) throw std::runtime_error("nghttpd is not installed");
  // The port comes free from the system and is taken by nghttpd a moment later; another
  // process may take it in between, so a server that ends at once is tried again.
  // The system's table of media types may be missing on a bare machine.
  const auto mimeTypes = folder / ".mime.types";
  std::ofstream(mimeTypes) << "application/json json\ntext/plain txt\n";
  for (int attempt = 0; attempt < 3; ++attempt) {
    port_ = closedPort();
    std::vector<std::string> arguments = {program->string(),
                                          "-a",
                                          "127.0.0.1",
                                          "-d",
                                          folder.string(),
                                          std::to_string(port_),
                                          certificate.keyPath().string(),
                                          certificate.certificatePath().string()};
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, program->c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) throw std::runtime_error("cannot start nghttpd");
    pid_ = pid;
    for (int i = 0; i < 500; ++i) {
      if (acceptsConnections(port_)) return;
      int status = 0;
      if (::waitpid(pid, &status, WNOHANG) == pid) {
        pid_ = -1;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (pid_ > 0) break;
  }
  stop();
  throw std::runtime_error("nghttpd did not come up");
}

Http2Server::~Http2Server() { stop(); }

void Http2Server::stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  for (int i = 0; i < 200; ++i) {
    if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::string Http2Server::url(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(port_) + path;
}

RawServer::RawServer(std::function<void(const Writer&)> answer)
    : RawServer([answer = std::move(answer)](const std::string&, const Writer& write) { answer(write); }) {}

RawServer::RawServer(std::function<void(const std::string&, const Writer&)> answer) : answer_(std::move(answer)) {
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
    std::string request;
    char buffer[4096];
    auto complete = [&] {
      const auto end = request.find("\r\n\r\n");
      return end != std::string::npos && request.size() >= end + 4 + announcedLength(request.substr(0, end + 2));
    };
    while (!complete() && request.size() < (1u << 20)) {
      pollfd readable{client, POLLIN, 0};
      if (::poll(&readable, 1, 2000) <= 0) break;
      const auto n = ::recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      request.append(buffer, static_cast<size_t>(n));
    }
    bool gone = false;
    answer_(request, [&](const std::string& bytes) {
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
