// kpcore service: calls one method of a web service through TarvixWebService and prints the
// answer's payload as JSON on standard output and its content info on standard error.
#include <iostream>

#include "command.h"
#include "kp/coding/json.h"
#include "kp/crypto/base64.h"
#include "kp/foundation/json.h"
#include "kp/service/tarvix_web_service.h"
#include "service_session.h"

namespace {

// What an answer without payload was instead, from its bytes: the failure to tell.
std::string withoutPayload(const kp::TarvixServiceRequest& request, const kp::TarvixServiceRequestResult& result,
                           bool responseKeyGiven) {
  const auto handler = std::dynamic_pointer_cast<kp::HttpRequestHandler>(request.handler());
  const kp::Data* body = handler && handler->receivedData ? &*handler->receivedData : nullptr;
  std::string what =
      "the answer (HTTP " + std::to_string(result.response ? result.response->statusCode.value_or(0) : 0);
  if (!body || body->size() == 0) return what + ") has no body";
  what += ", " + std::to_string(body->size()) + " bytes)";
  if (kp::objectFromJSONData(*body)) return what + " is JSON without a \"data\" payload";
  // Sealed answers are Base64 of whole cipher blocks.
  if (const auto sealed = kp::base64Decode(body->view()); sealed && !sealed->empty() && sealed->size() % 16 == 0) {
    return what + (responseKeyGiven ? " is sealed with another key than --response-key"
                                    : " is sealed: give --response-key to open it");
  }
  return what + " is not JSON: it starts \"" + std::string(body->view().substr(0, 40)) + "\"";
}

int runService(kpcore::Args& args) {
  const auto base = args.option("base");
  const auto queryKey = args.option("query-key");
  const auto bodyKey = args.option("body-key");
  const auto responseKey = args.option("response-key");
  const bool skipcrypt = args.flag("skipcrypt");
  const auto dataFile = args.option("data");
  const bool insecure = args.flag("insecure");
  const auto method = args.positional();
  std::vector<std::pair<std::string, std::string>> parameters;
  while (auto parameter = args.positional()) {
    const auto equals = parameter->find('=');
    if (equals == std::string::npos || equals == 0) {
      throw kpcore::CommandError("parameters are name=value: " + *parameter, 2);
    }
    parameters.emplace_back(parameter->substr(0, equals), parameter->substr(equals + 1));
  }
  args.expectEnd();
  if (!base) throw kpcore::CommandError("missing --base URL", 2);
  if (!method) throw kpcore::CommandError("missing METHOD", 2);
  const auto baseUrl = kp::Url::parse(*base);
  if (!baseUrl || !baseUrl->isAbsolute() || baseUrl->host().empty()) {
    throw kpcore::CommandError("not an absolute URL: " + *base, 2);
  }
  for (const auto* key : {&queryKey, &bodyKey, &responseKey}) {
    if (*key) kpcore::checkKey(**key);
  }

  kpcore::ServiceSession session(insecure);
  kp::TarvixWebService service(*base);
  service.urlSession = session.session();
  if (queryKey) service.encryptionDetails.queryStringEncryptionKey = *queryKey;
  service.encryptionDetails.bodyEncryptionKey = bodyKey;
  service.encryptionDetails.responseDecryptionKey = responseKey;
  service.encryptionDetails.skipEncryptionAndDecryption = skipcrypt;
  std::optional<kp::Data> body;
  if (dataFile) body = kp::Data::fromString(kpcore::readInput(*dataFile));
  auto request = service.createRequestFor(*method, std::move(body));
  if (!request) throw kpcore::CommandError("no URL can be formed from " + *base + " and " + *method, 2);
  for (const auto& [name, value] : parameters) request->httpConfig()->addQuery(value, name);

  const auto result = request->executeSynchronously();
  if (!result) throw kpcore::CommandError("the call ended without an answer");
  if (result->error) throw kpcore::CommandError(result->error->localizedDescription());
  const auto payload = result->dataAsJson();
  if (!payload) throw kpcore::CommandError(withoutPayload(*request, *result, responseKey.has_value()));
  if (result->response) std::cerr << "status:   " << result->response->statusCode.value_or(0) << "\n";
  if (result->contentInfo) std::cerr << kpcore::describeContentInfo(*result->contentInfo);
  std::cout << kp::writeJson(payload->toValue(), kp::DateStrategy::secondsSince1970, true) << "\n";
  return 0;
}

const kpcore::Registration registration{
    "service", "Call a web-service method and print its payload (JSON) and content info",
    "kpcore service --base URL METHOD [name=value ...] [--query-key K] [--body-key K] [--response-key K]\n"
    "                      [--skipcrypt] [--data FILE] [--insecure]\n"
    "  The parameters join the common ones in the sealed query; --data sends FILE ('-': standard\n"
    "  input) as the body. The query key defaults to the compiled-in one; body and answer travel\n"
    "  in plain unless keys are given (the local service's basicInfo and forecast answer with\n"
    "  the client-info response key).",
    runService};

}  // namespace
