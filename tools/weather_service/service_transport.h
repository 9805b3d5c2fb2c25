// The transport under WeatherService (internal to weather_service.cc): the acceptor, the
// threads that run the event loop, the list of open connections through which stop() and a
// full house reach them, the budget that the bodies being received share, and the fault plan.
// The connections themselves (Session in weather_service.cc) run on the loop.
//
// Thread safety: start() and stop() from the service's owning thread; the rest from any
// thread, the serving threads among them.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core/error.hpp>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "faults.h"
#include "weather_service.h"

namespace kp::weather {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;

// What a connection needs of the service: the protocol, the log, its limits and the list of
// open connections, through which stop() and a full house reach them.
class Connection {
 public:
  virtual ~Connection() = default;
  // Closes the connection unless it is answering (then it closes after the answer).
  // `idleOnly` closes only connections idle after an answer, whose clients know to ask again
  // on a new one; a new connection may hold a request not yet read.
  virtual void close(bool idleOnly) = 0;
};

class ServiceTransport {
 public:
  // What the bodies being received may hold together, so that many clients announcing large
  // bodies cannot take the memory that the per-request limit alone would allow them.
  static constexpr std::uint64_t kBodyBudget = 64 << 20;
  static constexpr std::size_t kMaxConnections = 4096;

  ServiceTransport(const WeatherProtocol& served, const WeatherService::AccessLog& accessLog, bool withTls)
      : protocol(served), log(accessLog), acceptor_(acceptStrand_), retry_(acceptStrand_) {
    if (!protocol.options().faults.empty()) faults = std::make_unique<FaultPlan>(protocol.options().faults);
    if (!withTls) return;
    const auto& options = protocol.options();
    tls.emplace(asio::ssl::context::tls_server);
    tls->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                     asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
    beast::error_code error;
    tls->use_certificate_chain_file(options.certificatePath, error);
    if (!error) tls->use_private_key_file(options.privateKeyPath, asio::ssl::context::pem, error);
    if (error) {
      throw std::runtime_error("cannot load the certificate " + options.certificatePath + " and key " +
                               options.privateKeyPath);
    }
  }
  ~ServiceTransport() { stop(); }
  ServiceTransport(const ServiceTransport&) = delete;
  ServiceTransport& operator=(const ServiceTransport&) = delete;

  // Binds the first address of the host that takes the port and starts serving; the port.
  int start(const std::string& host, int port) {
    stopping = false;
    io_.restart();  // after a stop(), whose loop ran out of work
    beast::error_code error;
    tcp::resolver resolver(io_);
    const auto addresses = resolver.resolve(host, std::to_string(port), tcp::resolver::passive, error);
    for (const auto& address : addresses) {
      error = {};
      acceptor_.open(address.endpoint().protocol(), error);
      // Without SO_REUSEPORT: a port that is in use is refused, never shared.
      if (!error) acceptor_.set_option(asio::socket_base::reuse_address(true), error);
      if (!error) acceptor_.bind(address.endpoint(), error);
      if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
      if (!error) break;
      beast::error_code ignored;
      acceptor_.close(ignored);
    }
    if (!acceptor_.is_open()) return -1;
    const int bound = acceptor_.local_endpoint().port();
    accept();
    const unsigned threads = std::clamp(std::thread::hardware_concurrency(), 2u, 4u);
    for (unsigned i = 0; i < threads; ++i) threads_.emplace_back([this] { run(); });
    return bound;
  }

  void stop() {
    if (threads_.empty()) return;
    stopping = true;
    asio::post(acceptStrand_, [this] {
      beast::error_code ignored;
      acceptor_.close(ignored);
      retry_.cancel();
    });
    closeAll(false);
    for (auto& thread : threads_) thread.join();
    threads_.clear();
  }

  void opened(Connection* connection, std::weak_ptr<Connection> handle) {
    std::lock_guard lock(mutex_);
    open_.emplace(connection, std::move(handle));
  }
  void closed(Connection* connection) {
    std::lock_guard lock(mutex_);
    open_.erase(connection);
  }

  bool reserveBody(std::uint64_t bytes) {
    std::uint64_t held = bodyBytes_.load();
    do {
      if (bytes > kBodyBudget - held) return false;
    } while (!bodyBytes_.compare_exchange_weak(held, held + bytes));
    return true;
  }
  void releaseBody(std::uint64_t bytes) { bodyBytes_ -= bytes; }

  const WeatherProtocol& protocol;
  const WeatherService::AccessLog& log;
  std::optional<asio::ssl::context> tls;
  std::unique_ptr<FaultPlan> faults;
  std::atomic<bool> stopping{false};

 private:
  // The most connections open at once: the limit, or fewer when the process may open fewer
  // files (some are kept for everything else).
  static std::size_t connectionLimit() {
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur == RLIM_INFINITY) return kMaxConnections;
    return std::clamp<std::size_t>(files.rlim_cur > 128 ? files.rlim_cur - 64 : files.rlim_cur / 2, 1, kMaxConnections);
  }

  void run() {
    // A handler that throws (memory ran out) ends its connection, not the service.
    for (;;) {
      try {
        io_.run();
        return;
      } catch (const std::exception&) {
      }
    }
  }

  void accept() {
    acceptor_.async_accept(asio::make_strand(io_), [this](const beast::error_code& error, tcp::socket socket) {
      onAccept(error, std::move(socket));
    });
  }

  void onAccept(const beast::error_code& error, tcp::socket socket);

  // After `delay`, accepts again if there is room; until then new connections wait in the
  // listen queue.
  void acceptLater(std::chrono::milliseconds delay) {
    retry_.expires_after(delay);
    retry_.async_wait([this](const beast::error_code& error) {
      if (error || !acceptor_.is_open()) return;
      if (openCount() >= maxConnections_) {
        closeAll(true);
        return acceptLater(std::chrono::milliseconds(20));
      }
      accept();
    });
  }

  std::size_t openCount() {
    std::lock_guard lock(mutex_);
    return open_.size();
  }

  void closeAll(bool idleOnly) {
    // Held outside the lock: dropping the last reference destroys a connection, which
    // takes the lock to leave the list.
    std::vector<std::shared_ptr<Connection>> connections;
    {
      std::lock_guard lock(mutex_);
      for (const auto& [raw, handle] : open_) {
        if (auto connection = handle.lock()) connections.push_back(std::move(connection));
      }
    }
    for (const auto& connection : connections) connection->close(idleOnly);
  }

  asio::io_context io_;
  asio::strand<asio::io_context::executor_type> acceptStrand_{asio::make_strand(io_)};
  tcp::acceptor acceptor_;
  asio::steady_timer retry_;
  std::vector<std::thread> threads_;
  const std::size_t maxConnections_ = connectionLimit();
  std::atomic<std::uint64_t> bodyBytes_{0};
  std::mutex mutex_;
  std::unordered_map<Connection*, std::weak_ptr<Connection>> open_;  // GUARDED_BY(mutex_)
};

}  // namespace kp::weather
