// The weather service on cpp-httplib.
#include "weather_service.h"

#include <httplib.h>
#include <sys/socket.h>

#include <chrono>
#include <stdexcept>

#include "request/header_text.h"

namespace kp::weather {
namespace {

constexpr std::size_t kMaxBody = 1 << 20;

ServiceCall callOf(const httplib::Request& request) {
  ServiceCall call;
  call.httpMethod = request.method;
  call.target = request.target;
  call.body = request.body;
  call.remoteAddress = request.remote_addr;
  if (request.has_header("If-None-Match")) call.ifNoneMatch = request.get_header_value("If-None-Match");
  if (request.has_header("User-Agent")) call.userAgent = request.get_header_value("User-Agent");
  return call;
}

void send(const ServiceAnswer& answer, httplib::Response& response) {
  response.status = answer.status;
  for (const auto& [name, value] : answer.headers) response.set_header(name, value);
  if (!answer.contentType.empty()) response.set_content(answer.body, answer.contentType);
}

// Host names do not depend on case; the URL shows them in lower case.
WeatherServiceOptions withCanonicalHost(WeatherServiceOptions options) {
  options.host = internal::asciiLowercased(options.host);
  return options;
}

}  // namespace

WeatherService::WeatherService(WeatherServiceOptions options, AccessLog log)
    : protocol_(withCanonicalHost(std::move(options))), log_(std::move(log)) {
  const auto& settings = protocol_.options();
  tls_ = !settings.certificatePath.empty() || !settings.privateKeyPath.empty();
  if (tls_) {
    auto server =
        std::make_unique<httplib::SSLServer>(settings.certificatePath.c_str(), settings.privateKeyPath.c_str());
    if (!server->is_valid()) {
      throw std::runtime_error("cannot load the certificate " + settings.certificatePath + " and key " +
                               settings.privateKeyPath);
    }
    server_ = std::move(server);
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  // Without it every keep-alive answer waits for the peer's delayed acknowledgement.
  server_->set_tcp_nodelay(true);
  // The library's default also sets SO_REUSEPORT, which lets a second service bind a port
  // that is in use and share its connections; an explicit port must be refused instead.
  server_->set_socket_options([](int socket) {
    int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  server_->set_payload_max_length(kMaxBody);
  server_->set_read_timeout(5, 0);
  server_->set_write_timeout(5, 0);
  server_->set_keep_alive_max_count(1000);
  // stop() waits for idle keep-alive connections to time out; a short idle time keeps it
  // quick and costs nothing to back-to-back calls.
  server_->set_keep_alive_timeout(1);
  const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    send(protocol_.answer(callOf(request)), response);
  };
  // Every verb reaches the protocol, which refuses those it does not serve in its own words.
  server_->Get(".*", handler).Post(".*", handler).Put(".*", handler);
  server_->Delete(".*", handler).Patch(".*", handler).Options(".*", handler);
  // What the transport refuses itself (oversized bodies, broken request lines) gets the
  // failure envelope too.
  server_->set_error_handler([](const httplib::Request&, httplib::Response& response) {
    if (!response.body.empty()) return;
    const std::string code = std::to_string(response.status);
    const std::string message = "The request was refused (HTTP status " + code + ").";
    response.set_content(R"({"success":false,"message":")" + message + R"(","meta":{"statusCode":)" + code +
                             R"(,"code":)" + code + R"(,"message":")" + message + R"("}})",
                         "application/json");
  });
  server_->set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
    response.status = 500;
    response.set_content(R"({"success":false,"message":"Internal error.","meta":{"statusCode":500,"code":500,)"
                         R"("message":"Internal error."}})",
                         "application/json");
  });
  if (log_) {
    server_->set_logger([this](const httplib::Request& request, const httplib::Response& response) {
      log_(request.method, request.target, response.status);
    });
  }
}

WeatherService::~WeatherService() { stop(); }

void WeatherService::start() {
  const auto& settings = protocol_.options();
  if (settings.port == 0) {
    port_ = server_->bind_to_any_port(settings.host);
  } else {
    port_ = server_->bind_to_port(settings.host, settings.port) ? settings.port : -1;
  }
  if (port_ <= 0) {
    throw std::runtime_error("cannot listen on " + settings.host + " port " + std::to_string(settings.port));
  }
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void WeatherService::stop() {
  if (!thread_.joinable()) return;
  server_->stop();
  thread_.join();
}

std::string WeatherService::baseUrl() const {
  const std::string& host = protocol_.options().host;
  const std::string authority = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  return std::string(tls_ ? "https" : "http") + "://" + authority + ":" + std::to_string(port_);
}

}  // namespace kp::weather
