// What each fault makes of an answer. The random bits of the fault choose its variant and
// where it strikes, so that a seed gives the same bytes again.
#include "fault_answers.h"

#include <boost/beast/http/write.hpp>
#include <sstream>

#include "kp/crypto/base64.h"
#include "kp/service/encryption.h"

namespace kp::weather::faulty {
namespace {

namespace http = boost::beast::http;

// A key of the right length that no client of the service holds.
constexpr std::string_view kWrongKey = "not-the-key-of-this-service-0000";

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string sealed(std::string_view text, std::string_view key) {
  const auto cipher = aes256Encrypt(bytesOf(text), key);
  return cipher ? base64Encode(cipher->bytes()) : std::string(text);
}

std::string head(const http::response<http::string_body>& response) {
  std::ostringstream out;
  out << response.base();
  return std::move(out).str();
}

std::string failureEnvelope(int code, std::string_view message) {
  const std::string text(message);
  return R"({"success":false,"message":")" + text + R"(","meta":{"statusCode":)" + std::to_string(code) +
         R"(,"code":)" + std::to_string(code) + R"(,"message":")" + text + R"("}})";
}

}  // namespace

bool changesAnswer(FaultKind kind) noexcept {
  return kind == FaultKind::status500 || kind == FaultKind::status503 || kind == FaultKind::envelopeError ||
         kind == FaultKind::wrongKey;
}

std::chrono::milliseconds delayOf(const Fault& fault, const FaultSpec& spec) noexcept {
  const auto longest = static_cast<std::uint64_t>(spec.longestDelay.count());
  return std::chrono::milliseconds(longest == 0 ? 0 : fault.bits % (longest + 1));
}

ServiceAnswer spoiledAnswer(const Fault& fault, ServiceAnswer answer, std::string_view responseKey) {
  switch (fault.kind) {
    case FaultKind::status500:
    case FaultKind::status503: {
      const int status = fault.kind == FaultKind::status500 ? 500 : 503;
      ServiceAnswer out{.status = status};
      if (fault.bits % 2 == 0) {
        out.contentType = "application/json";
        out.body = failureEnvelope(status, "The service failed (HTTP status " + std::to_string(status) + ").");
      } else {
        out.contentType = "text/plain";
        out.body = status == 500 ? "Internal Server Error\n" : "Service Unavailable\n";
      }
      if (status == 503) out.headers.emplace_back("Retry-After", "1");
      return out;
    }
    case FaultKind::envelopeError: {
      const std::string envelope = failureEnvelope(500, "The service could not make this answer.");
      if (responseKey.empty()) return {.status = 200, .contentType = "application/json", .body = envelope};
      return {.status = 200, .contentType = "application/octet-stream", .body = sealed(envelope, responseKey)};
    }
    case FaultKind::wrongKey: {
      // The answer's own body, sealed (once more, when it was) with a key the client lacks.
      if (answer.body.empty()) return answer;
      std::erase_if(answer.headers, [](const auto& field) { return field.first == "ETag"; });
      answer.body = sealed(answer.body, kWrongKey);
      answer.contentType = "application/octet-stream";
      return answer;
    }
    default:
      return answer;
  }
}

RawAnswer rawAnswer(const Fault& fault, const FaultSpec& spec, http::response<http::string_body>& response) {
  RawAnswer out;
  const std::uint64_t variant = fault.bits >> 8;
  switch (fault.kind) {
    case FaultKind::dribble: {
      out.bytes = head(response) + response.body();
      out.pieceSize = 1;
      // Pauses of a millisecond, as many as fit into the time the answer is spread over.
      constexpr auto kPause = std::chrono::milliseconds(1);
      const auto pauses = static_cast<std::size_t>(std::max<std::int64_t>(1, spec.dribbleTime / kPause));
      out.pauseEvery = std::max<std::size_t>(1, out.bytes.size() / pauses);
      out.pause = kPause;
      out.ending = RawAnswer::Ending::asUsual;
      return out;
    }
    case FaultKind::cut: {
      const std::string top = head(response);
      const std::string& body = response.body();
      // Somewhere inside the body, or inside the head of an answer without one.
      const std::size_t end = body.empty() ? fault.bits % top.size() : top.size() + fault.bits % body.size();
      out.bytes = (top + body).substr(0, end);
      return out;
    }
    case FaultKind::reset: {
      const std::string whole = head(response) + response.body();
      out.bytes = whole.substr(0, fault.bits % whole.size());
      out.ending = RawAnswer::Ending::reset;
      return out;
    }
    case FaultKind::oversize: {
      response.result(http::status::ok);
      response.body().clear();
      response.set(http::field::content_type, "application/octet-stream");
      response.erase(http::field::etag);
      out.chunked = fault.bits % 2 == 1;
      if (out.chunked) {
        response.erase(http::field::content_length);
        response.set(http::field::transfer_encoding, "chunked");
      } else {
        response.content_length(spec.oversizeBytes);
      }
      out.bytes = head(response);
      out.filler = spec.oversizeBytes;
      return out;
    }
    case FaultKind::wrongLength: {
      const std::string body = response.body();
      const std::size_t size = body.size();
      switch (size == 0 ? 0 : variant % 3) {
        case 0:  // longer than the body: the client waits for bytes that never come
          response.content_length(size + 1 + variant % 1024);
          break;
        case 1:  // shorter: the client takes part of the body, and the rest follows it
          response.content_length(size - 1 - variant % size);
          break;
        default:  // two lengths: which one frames the body cannot be known
          response.content_length(size);
          response.insert(http::field::content_length, std::to_string(size + 1 + variant % 64));
          break;
      }
      out.bytes = head(response) + body;
      return out;
    }
    default:
      out.bytes = head(response) + response.body();
      out.ending = RawAnswer::Ending::asUsual;
      return out;
  }
}

}  // namespace kp::weather::faulty
