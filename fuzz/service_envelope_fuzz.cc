// What a service controls in its answer: the status, the content headers and the body, read
// by the untyped envelope (plain, sealed, raw) and by the typed one into a forecast. Any
// input ends in a payload, an error or nothing; a failure never comes with a payload.
#include <cstdlib>
#include <string_view>

#include "forecast_model.h"
#include "kp/service/encryption.h"
#include "kp/service/tarvix_web_service.h"

namespace {

const std::string kKey(kp::kClientInfoResponseDecryptionKey);

// The input's first line as the content headers' values, the rest as the body (also sealed
// with the key, so that the envelope behind the cipher is reached).
struct Answer {
  std::map<std::string, std::string> headers;
  kp::Data body;
  int status = 200;
};

Answer answerOf(std::string_view text) {
  Answer answer;
  const std::size_t newline = std::min(text.find('\n'), text.size());
  const std::string_view head = text.substr(0, newline);
  answer.status = !head.empty() && head.front() == '3' ? 304 : 200;
  for (const auto* name : {"Tarvix-Content-Format", "tarvix-content-max-age", "Tarvix-Content-Created"}) {
    answer.headers[name] = std::string(head);
  }
  answer.body = kp::Data::fromString(text.substr(std::min(newline + 1, text.size())));
  return answer;
}

template <class Request>
void prime(Request& request, const Answer& answer, const kp::Data& body) {
  auto handler = std::dynamic_pointer_cast<kp::HttpRequestHandler>(request->handler());
  handler->request = request;
  handler->receivedData = body;
  handler->result->response = std::make_shared<kp::HttpResponse>();
  handler->result->response->statusCode = answer.status;
  handler->result->response->headers = answer.headers;
}

void openUntyped(const Answer& answer, const kp::Data& body, std::optional<std::string> key, bool raw) {
  kp::TarvixWebService service("https://h");
  service.encryptionDetails.responseDecryptionKey = std::move(key);
  auto request = service.createRequestFor("forecast");
  request->skipResponseParsing = raw;
  prime(request, answer, body);
  auto& handler = static_cast<kp::TarvixServiceRequestHandler&>(*request->handler());
  const std::any payload = handler.processReceivedData();
  if (handler.result->error && payload.has_value()) std::abort();
}

void openTyped(const Answer& answer, const kp::Data& body, std::optional<std::string> key) {
  kp::DecodableTarvixWebService service("https://h");
  service.encryptionDetails.responseDecryptionKey = std::move(key);
  auto request = service.createRequest<kp::weather::Forecast>("forecast");
  prime(request, answer, body);
  auto& handler = static_cast<kp::HttpRequestHandler&>(*request->handler());
  handler.result->data = handler.processReceivedData();
  const auto result = kp::DecodableTarvixServiceResult<kp::weather::Forecast>::from(*handler.result);
  if (result.error && result.data) std::abort();
  (void)result.asResult();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Answer answer = answerOf(std::string_view(reinterpret_cast<const char*>(data), size));
  const auto sealed = kp::TarvixServiceEncryptionHelper::encryptData(answer.body.bytes(), kKey);
  openUntyped(answer, answer.body, std::nullopt, false);
  openUntyped(answer, answer.body, kKey, false);
  openUntyped(answer, *sealed, kKey, false);
  openUntyped(answer, *sealed, kKey, true);
  openTyped(answer, answer.body, std::nullopt);
  openTyped(answer, *sealed, kKey);
  return 0;
}
