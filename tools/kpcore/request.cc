// kpcore request --dry-run: the wire request the library would send, and the cache key.
#include <iomanip>
#include <iostream>

#include "command.h"
#include "kp/request/url_request_factory.h"

namespace {

kp::HttpRequestParameter parameterOf(const std::string& text) {
  const auto eq = text.find('=');
  if (eq == std::string::npos) return {text, std::nullopt};
  return {text.substr(0, eq), text.substr(eq + 1)};
}

std::optional<kp::HttpRequestMethod> methodOf(std::string name) {
  for (auto& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (int raw = 0; raw <= 4; ++raw) {
    const auto method = *kp::httpRequestMethodFromRawValue(raw);
    if (kp::httpVerb(method) == name) return method;
  }
  return std::nullopt;
}

int runRequest(kpcore::Args& args) {
  const bool json = args.flag("json");
  if (!args.flag("dry-run")) throw kpcore::CommandError("only --dry-run is available: nothing is sent", 2);
  auto request = std::make_shared<kp::HttpRequest>(*kp::Url::parse("about:blank"));
  auto& config = *request->httpConfig();
  if (auto method = args.option("method")) {
    auto parsed = methodOf(*method);
    if (!parsed) throw kpcore::CommandError("unknown method: " + *method, 2);
    config.method = *parsed;
  }
  for (const auto& q : args.options("query")) config.addQuery(parameterOf(q));
  for (const auto& b : args.options("body")) config.addBody(parameterOf(b));
  if (auto path = args.option("body-file")) config.bodyData = kp::Data::fromString(kpcore::readInput(*path));
  for (const auto& header : args.options("header")) {
    const auto colon = header.find(':');
    if (colon == std::string::npos) throw kpcore::CommandError("header without ':': " + header, 2);
    std::string value = header.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    config.setHeader(value, header.substr(0, colon));
  }
  if (auto etag = args.option("etag")) config.etag = *etag;
  if (auto timeout = args.option("timeout")) config.timeoutInterval = kpcore::secondsOption("timeout", *timeout);
  const auto queryKey = args.option("query-key");
  const auto bodyKey = args.option("body-key");
  const auto urlText = args.positional();
  if (!urlText) throw kpcore::CommandError("missing URL", 2);
  args.expectEnd();
  const auto url = kp::Url::parseEncodingInvalidCharacters(*urlText);
  if (!url || !url->isAbsolute()) throw kpcore::CommandError("not an absolute URL: " + *urlText, 2);
  request->setUrl(*url);

  const kp::UrlRequest wire = kp::UrlRequestFactory::createUrlRequest(
      *request, queryKey ? std::optional<std::string_view>(*queryKey) : std::nullopt,
      bodyKey ? std::optional<std::string_view>(*bodyKey) : std::nullopt);
  const std::string cacheKey = kp::HttpRequestTypeCacheKeyGenerator::generate(*request);
  if (json) {
    std::cout << "{\"method\":" << kpcore::jsonQuote(wire.httpMethod)
              << ",\"url\":" << kpcore::jsonQuote(wire.url.absoluteString()) << ",\"timeout\":" << wire.timeoutInterval
              << ",\"headers\":[";
    bool first = true;
    for (const auto& [name, value] : wire.allHTTPHeaderFields()) {
      std::cout << (first ? "" : ",") << "[" << kpcore::jsonQuote(name) << "," << kpcore::jsonQuote(value) << "]";
      first = false;
    }
    std::cout << "],\"body\":" << (wire.httpBody ? kpcore::jsonQuote(wire.httpBody->view()) : "null")
              << ",\"cacheKey\":" << kpcore::jsonQuote(cacheKey) << "}\n";
    return 0;
  }
  std::cout << wire.httpMethod << " " << wire.url.absoluteString() << "\n";
  std::cout << "Timeout: " << wire.timeoutInterval << " s\n";
  for (const auto& [name, value] : wire.allHTTPHeaderFields()) std::cout << name << ": " << value << "\n";
  std::cout << "\n";
  if (wire.httpBody) {
    std::cout << wire.httpBody->view() << "\n";
  } else {
    std::cout << "(no body)\n";
  }
  std::cout << "\nCache key: " << cacheKey << "\n";
  return 0;
}

const kpcore::Registration registration{
    "request", "Show the wire request and cache key of a request, sending nothing",
    "kpcore request --dry-run URL [--method M] [--query NAME=VALUE]... [--body NAME=VALUE]... [--body-file PATH]\n"
    "       [--header 'Field: value']... [--etag TAG] [--timeout S] [--query-key KEY] [--body-key KEY] [--json]\n"
    "       NAME without =VALUE means an absent value.",
    runRequest};

}  // namespace
