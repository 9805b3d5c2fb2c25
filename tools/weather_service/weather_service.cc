// The weather service on Boost.Beast: an acceptor and every connection on one event loop
// that a few threads run. Each connection is a chain of asynchronous steps on a strand of its
// own (wait for a request, read its head, read its body, answer, wait again), so a slow or
// idle peer holds a socket and a small buffer, never a thread.
#include "weather_service.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <cstdio>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <vector>

#include "fault_answers.h"
#include "kp/foundation/text.h"
#include "service_transport.h"

namespace kp::weather {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr std::uint32_t kMaxHead = 8 * 1024;
constexpr std::uint64_t kMaxBody = 1 << 20;
constexpr auto kIdleTime = 5s;
constexpr auto kWriteTime = 10s;
// How long a closing connection reads on (and discards) what its peer still sends, so that
// the refusal already written is not destroyed by a reset.
constexpr auto kDrainTime = 1s;
constexpr std::size_t kFirstRead = 4096;
// The pieces in which an oversized answer's filler goes out.
constexpr std::size_t kFillerPiece = 64 * 1024;
// Where the fault plan tells what it injected, when there is one.
constexpr std::string_view kFaultStatusPath = "/_faults";

// A refusal of the transport itself, in the failure envelope that clients read.
ServiceAnswer refusal(int status) {
  const std::string code = std::to_string(status);
  const std::string message = "The request was refused (HTTP status " + code + ").";
  return {.status = status,
          .contentType = "application/json",
          .body = R"({"success":false,"message":")" + message + R"(","meta":{"statusCode":)" + code + R"(,"code":)" +
                  code + R"(,"message":")" + message + R"("}})"};
}

// The status a parse failure is answered with; nothing when the peer went away or the
// request was cut short, which gets no answer.
std::optional<int> statusForParseError(const beast::error_code& error) {
  if (error.category() != http::make_error_code(http::error::end_of_stream).category()) return std::nullopt;
  switch (static_cast<http::error>(error.value())) {
    case http::error::end_of_stream:
    case http::error::partial_message:
    case http::error::short_read:
      return std::nullopt;
    case http::error::header_limit:
    case http::error::buffer_overflow:
      return 431;
    case http::error::body_limit:
      return 413;
    default:
      return 400;
  }
}

}  // namespace

namespace {

// One connection, over TCP (beast::tcp_stream) or TLS (beast::ssl_stream<beast::tcp_stream>).
// Every step runs on the connection's strand, so its state needs no lock.
template <class Stream>
class Session final : public Connection, public std::enable_shared_from_this<Session<Stream>> {
 public:
  static constexpr bool kTls = !std::is_same_v<Stream, beast::tcp_stream>;

  Session(ServiceTransport& transport, tcp::socket socket) requires(!kTls)
      : transport_(transport), stream_(std::move(socket)) {}
  Session(ServiceTransport& transport, tcp::socket socket) requires kTls
      : transport_(transport),
        stream_(beast::tcp_stream(std::move(socket)), *transport.tls) {}
  ~Session() override {
    transport_.releaseBody(reserved_);
    transport_.closed(this);
  }

  void run() {
    asio::dispatch(lowest().get_executor(), [self = this->shared_from_this()] { self->begin(); });
  }

  void close(bool idleOnly) override {
    asio::post(lowest().get_executor(), [self = this->shared_from_this(), idleOnly] {
      if (self->phase_ == Phase::answering) {
        if (!idleOnly) self->closeAfterAnswer_ = true;
      } else if (!idleOnly || (self->phase_ == Phase::idle && self->answered_)) {
        self->finish();
      }
    });
  }

 private:
  enum class Phase { starting, idle, reading, answering, draining, closed };

  beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream_); }

  template <class Step>
  auto bound(Step step) {
    return beast::bind_front_handler(step, this->shared_from_this());
  }

  void begin() {
    if (phase_ == Phase::closed) return;
    if (transport_.stopping) return finish();
    beast::error_code error;
    const auto peer = lowest().socket().remote_endpoint(error);
    if (!error) remoteAddress_ = peer.address().to_string();
    if constexpr (kTls) {
      phase_ = Phase::reading;
      lowest().expires_after(transport_.protocol.options().requestTimeLimit);
      stream_.async_handshake(asio::ssl::stream_base::server, bound(&Session::onHandshake));
    } else {
      awaitRequest();
    }
  }

  void onHandshake(const beast::error_code& error) {
    if (phase_ == Phase::closed) return;
    if (error) return finish();
    awaitRequest();
  }

  // Waits for the first byte of the next request under the idle limit; the request's own
  // limit starts with it.
  void awaitRequest() {
    if (transport_.stopping || closeAfterAnswer_) return finish();
    phase_ = Phase::idle;
    parser_.reset();
    if (buffer_.size() > 0) return readHead();  // the next request came with the last
    buffer_.shrink_to_fit();
    lowest().expires_after(kIdleTime);
    stream_.async_read_some(buffer_.prepare(kFirstRead), bound(&Session::onFirstBytes));
  }

  void onFirstBytes(const beast::error_code& error, std::size_t size) {
    if (phase_ == Phase::closed) return;
    if (error) return finish();
    buffer_.commit(size);
    readHead();
  }

  void readHead() {
    phase_ = Phase::reading;
    parser_.emplace();
    parser_->header_limit(kMaxHead);
    parser_->body_limit(kMaxBody);
    lowest().expires_after(transport_.protocol.options().requestTimeLimit);
    http::async_read_header(stream_, buffer_, *parser_, bound(&Session::onHead));
  }

  void onHead(const beast::error_code& error, std::size_t) {
    if (phase_ == Phase::closed) return;
    if (error) return refuse(error);
    const auto& request = parser_->get();
    // A transfer coding other than chunked leaves the body's end unknown.
    if (request.count(http::field::transfer_encoding) != 0 && !parser_->chunked()) return send(refusal(400), false);
    const std::uint64_t body = parser_->chunked() ? kMaxBody : parser_->content_length().value_or(0);
    if (body > 0) {
      if (!transport_.reserveBody(body)) return send(refusal(503), false);
      reserved_ = body;
    }
    if (!parser_->is_done() && beast::iequals(request[http::field::expect], "100-continue")) {
      continue_ = {http::status::continue_, request.version()};
      return http::async_write(stream_, continue_, bound(&Session::onContinue));
    }
    readBody();
  }

  void onContinue(const beast::error_code& error, std::size_t) {
    if (phase_ == Phase::closed) return;
    if (error) return finish();
    readBody();
  }

  void readBody() {
    if (parser_->is_done()) return answer();
    http::async_read(stream_, buffer_, *parser_, bound(&Session::onBody));
  }

  void onBody(const beast::error_code& error, std::size_t) {
    if (phase_ == Phase::closed) return;
    if (error) return refuse(error);
    answer();
  }

  void refuse(const beast::error_code& error) {
    if (const auto status = statusForParseError(error)) return send(refusal(*status), false);
    finish();
  }

  void answer() {
    const auto& request = parser_->get();
    ServiceCall call{.httpMethod = std::string(request.method_string()),
                     .target = std::string(request.target()),
                     .body = request.body(),
                     .remoteAddress = remoteAddress_};
    if (const auto tag = request.find(http::field::if_none_match); tag != request.end()) {
      call.ifNoneMatch = std::string(tag->value());
    }
    if (const auto agent = request.find(http::field::user_agent); agent != request.end()) {
      call.userAgent = std::string(agent->value());
    }
    ServiceAnswer answer;
    auto* const faults = transport_.faults.get();
    if (faults && call.target == kFaultStatusPath) {
      return send({.status = 200, .contentType = "application/json", .body = faults->countsJson()},
                  request.keep_alive());
    }
    try {
      answer = transport_.protocol.answer(call);
    } catch (const std::exception&) {
      answer = refusal(500);
    }
    if (faults) {
      if (const auto fault = faults->next()) return inject(*fault, std::move(answer), call, request.keep_alive());
    }
    send(answer, request.keep_alive());
  }

  // Writes the answer to the request being read (its head may be unreadable).
  void send(const ServiceAnswer& answer, bool keepAlive) {
    prepare(answer, keepAlive);
    http::async_write(stream_, response_, bound(&Session::onWritten));
  }

  // Makes response_ the answer to the request being read.
  void prepare(const ServiceAnswer& answer, bool keepAlive) {
    phase_ = Phase::answering;
    const bool headRead = parser_ && parser_->is_header_done();
    const auto* request = headRead ? &parser_->get() : nullptr;
    method_ = request ? std::string(request->method_string()) : "-";
    target_ = request ? std::string(request->target()) : "-";
    response_ = {};
    response_.version(request && request->version() == 10 ? 10 : 11);
    response_.result(static_cast<unsigned>(answer.status));
    for (const auto& [name, value] : answer.headers) response_.set(name, value);
    if (!answer.contentType.empty()) {
      response_.set(http::field::content_type, answer.contentType);
      response_.body() = answer.body;
    }
    response_.keep_alive(keepAlive && !transport_.stopping && !closeAfterAnswer_);
    const auto kind = http::to_status_class(response_.result());
    if (kind != http::status_class::informational && response_.result() != http::status::no_content &&
        response_.result() != http::status::not_modified) {
      response_.prepare_payload();
    }
    if (request && request->method() == http::verb::head) response_.body().clear();  // the length stays
    lowest().expires_after(kWriteTime);
  }

  void onWritten(const beast::error_code& error, std::size_t) {
    ended();
    if (phase_ == Phase::closed) return;
    if (error) return finish();
    if (!response_.keep_alive()) return closeGracefully();
    answered_ = true;
    awaitRequest();
  }

  // The answer is out (or given up): logged, and its body's share of the budget returned.
  void ended() {
    if (transport_.log) transport_.log(method_, target_, static_cast<int>(response_.result_int()));
    transport_.releaseBody(reserved_);
    reserved_ = 0;
  }

  // ---- faults (fault_answers.h) ----

  void inject(const Fault& fault, ServiceAnswer answer, const ServiceCall& call, bool keepAlive) {
    const FaultSpec& spec = transport_.faults->spec();
    if (fault.kind == FaultKind::delay) {
      phase_ = Phase::answering;
      delayed_ = std::move(answer);
      delayedKeepAlive_ = keepAlive;
      pause_.expires_after(faulty::delayOf(fault, spec));
      return pause_.async_wait(bound(&Session::onDelayed));
    }
    if (faulty::changesAnswer(fault.kind)) {
      return send(faulty::spoiledAnswer(fault, std::move(answer), transport_.protocol.responseKey(call)), keepAlive);
    }
    prepare(answer, keepAlive);
    raw_ = faulty::rawAnswer(fault, spec, response_);
    rawOffset_ = 0;
    sincePause_ = 0;
    writeRaw();
  }

  void onDelayed(const beast::error_code&) {
    if (phase_ == Phase::closed) return;
    send(delayed_, delayedKeepAlive_);
  }

  void writeRaw() {
    if (phase_ == Phase::closed) return;
    if (transport_.stopping) {
      ended();
      return finish();
    }
    lowest().expires_after(kWriteTime);
    if (rawOffset_ < raw_.bytes.size()) {
      std::size_t size = raw_.bytes.size() - rawOffset_;
      if (raw_.pieceSize > 0) size = std::min(size, raw_.pieceSize);
      return asio::async_write(stream_, asio::buffer(raw_.bytes.data() + rawOffset_, size),
                               bound(&Session::onRawWritten));
    }
    if (raw_.filler > 0) {
      static const std::string filler(kFillerPiece, '.');
      const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(raw_.filler, kFillerPiece));
      raw_.filler -= size;
      if (!raw_.chunked) {
        return asio::async_write(stream_, asio::buffer(filler.data(), size), bound(&Session::onFillerWritten));
      }
      char length[32];
      std::snprintf(length, sizeof length, "%zx\r\n", size);
      chunk_ = length + filler.substr(0, size) + "\r\n" + (raw_.filler == 0 ? "0\r\n\r\n" : "");
      return asio::async_write(stream_, asio::buffer(chunk_), bound(&Session::onFillerWritten));
    }
    endRaw();
  }

  void onRawWritten(const beast::error_code& error, std::size_t size) {
    if (phase_ == Phase::closed) return;
    if (error) {
      ended();
      return finish();
    }
    rawOffset_ += size;
    sincePause_ += size;
    if (raw_.pauseEvery > 0 && sincePause_ >= raw_.pauseEvery && rawOffset_ < raw_.bytes.size()) {
      sincePause_ = 0;
      pause_.expires_after(raw_.pause);
      return pause_.async_wait([self = this->shared_from_this()](const beast::error_code&) { self->writeRaw(); });
    }
    writeRaw();
  }

  void onFillerWritten(const beast::error_code& error, std::size_t) {
    if (phase_ == Phase::closed) return;
    if (error) {
      ended();
      return finish();  // the client gave up on the answer, as it should
    }
    writeRaw();
  }

  void endRaw() {
    ended();
    switch (raw_.ending) {
      case faulty::RawAnswer::Ending::asUsual:
        if (!response_.keep_alive()) return closeGracefully();
        answered_ = true;
        return awaitRequest();
      case faulty::RawAnswer::Ending::close:
        return closeGracefully();
      case faulty::RawAnswer::Ending::reset: {
        // A zero linger time makes the close a reset.
        beast::error_code ignored;
        lowest().socket().set_option(asio::socket_base::linger(true, 0), ignored);
        phase_ = Phase::closed;
        lowest().close();
        return;
      }
    }
  }

  // Ends the connection after an answer: TLS says so; TCP stops sending and reads on for a
  // moment, so that a request body still arriving does not reset the answer away.
  void closeGracefully() {
    phase_ = Phase::draining;
    lowest().expires_after(kDrainTime);
    if constexpr (kTls) {
      stream_.async_shutdown([self = this->shared_from_this()](const beast::error_code&) { self->finish(); });
    } else {
      beast::error_code ignored;
      lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
      drain();
    }
  }

  void drain() {
    buffer_.clear();
    lowest().async_read_some(buffer_.prepare(kFirstRead),
                             [self = this->shared_from_this()](const beast::error_code& error, std::size_t) {
                               if (error || self->phase_ == Phase::closed) return self->finish();
                               self->drain();
                             });
  }

  void finish() {
    if (phase_ == Phase::closed) return;
    phase_ = Phase::closed;
    beast::error_code ignored;
    lowest().socket().shutdown(tcp::socket::shutdown_both, ignored);
    lowest().close();
  }

  ServiceTransport& transport_;
  Stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  http::response<http::empty_body> continue_;
  http::response<http::string_body> response_;
  std::string remoteAddress_;
  std::string method_;
  std::string target_;
  std::uint64_t reserved_ = 0;
  // A fault's state: the delayed answer, or the bytes being written and where they stand.
  asio::steady_timer pause_{lowest().get_executor()};
  ServiceAnswer delayed_;
  bool delayedKeepAlive_ = false;
  faulty::RawAnswer raw_;
  std::size_t rawOffset_ = 0;
  std::size_t sincePause_ = 0;
  std::string chunk_;
  Phase phase_ = Phase::starting;
  bool answered_ = false;
  bool closeAfterAnswer_ = false;
};

template <class Stream>
void startSession(ServiceTransport& transport, tcp::socket socket) {
  auto session = std::make_shared<Session<Stream>>(transport, std::move(socket));
  transport.opened(session.get(), session);
  session->run();
}

}  // namespace

void ServiceTransport::onAccept(const beast::error_code& error, tcp::socket socket) {
  if (!acceptor_.is_open()) return;
  if (error) {
    if (error == asio::error::operation_aborted) return;
    // Out of file descriptors, most likely: make room and try again shortly, rather than
    // spin on a listen queue that cannot be taken from.
    closeAll(true);
    return acceptLater(50ms);
  }
  beast::error_code ignored;
  // Without it every keep-alive answer waits for the peer's delayed acknowledgement.
  socket.set_option(tcp::no_delay(true), ignored);
  if (tls) {
    startSession<beast::ssl_stream<beast::tcp_stream>>(*this, std::move(socket));
  } else {
    startSession<beast::tcp_stream>(*this, std::move(socket));
  }
  if (openCount() >= maxConnections_) {
    closeAll(true);
    return acceptLater(20ms);
  }
  accept();
}

namespace {

// Host names do not depend on case; the URL shows them in lower case.
WeatherServiceOptions withCanonicalHost(WeatherServiceOptions options) {
  options.host = lowercased(options.host);
  return options;
}

}  // namespace

WeatherService::WeatherService(WeatherServiceOptions options, AccessLog log)
    : protocol_(withCanonicalHost(std::move(options))), log_(std::move(log)) {
  const auto& settings = protocol_.options();
  tls_ = !settings.certificatePath.empty() || !settings.privateKeyPath.empty();
  transport_ = std::make_unique<ServiceTransport>(protocol_, log_, tls_);
}

WeatherService::~WeatherService() { stop(); }

void WeatherService::start() {
  const auto& settings = protocol_.options();
  if (settings.host.empty()) throw std::runtime_error("no host to listen on");
  port_ = transport_->start(settings.host, settings.port);
  if (port_ <= 0) {
    throw std::runtime_error("cannot listen on " + settings.host + " port " + std::to_string(settings.port));
  }
}

void WeatherService::stop() { transport_->stop(); }

const FaultPlan* WeatherService::faults() const noexcept { return transport_->faults.get(); }

std::string WeatherService::baseUrl() const {
  const std::string& host = protocol_.options().host;
  const std::string authority = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  return std::string(tls_ ? "https" : "http") + "://" + authority + ":" + std::to_string(port_);
}

}  // namespace kp::weather
