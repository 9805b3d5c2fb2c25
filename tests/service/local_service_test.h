// The fixture of the tests that talk to the local weather service over the network: the
// service on 127.0.0.1 over HTTP, or HTTPS with a self-signed certificate (the parameter),
// and one session that trusts that certificate, as an application pinned to it would.
#pragma once

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "kp/request/request_handler.h"
#include "support/test_servers.h"
#include "weather_service.h"

namespace kp::test {

// Accepts any server trust, and tells when its session has ended.
class TrustingRouter : public HttpRequestURLSessionDelegateHandler {
 public:
  void didReceiveChallenge(UrlSession& session, UrlSessionTask& task, const UrlAuthenticationChallenge& challenge,
                           ChallengeHandler completion) override {
    if (const auto& trust = challenge.protectionSpace.serverTrust) {
      {
        std::lock_guard lock(mutex);
        challengedHosts.insert(trust->host() + ":" + std::to_string(trust->port()));
      }
      return completion(AuthChallengeDisposition::useCredential, UrlCredential::make(trust));
    }
    HttpRequestURLSessionDelegateHandler::didReceiveChallenge(session, task, challenge, std::move(completion));
  }
  // Its TLS connections are closed by then, so that none outlives the test.
  void didBecomeInvalid(UrlSession&, const ErrorPtr&) override { ended.set_value(); }
  std::promise<void> ended;
  // "host:port" of every server whose certificate was checked.
  std::mutex mutex;
  std::set<std::string> challengedHosts;  // GUARDED_BY(mutex)
};

class LocalServiceTest : public ::testing::TestWithParam<bool> {
 public:
  // The parameter's name in test names.
  static std::string transportName(const ::testing::TestParamInfo<bool>& info) { return info.param ? "Https" : "Http"; }

 protected:
  static void SetUpTestSuite() { certificate_ = new SelfSignedCertificate(); }
  static void TearDownTestSuite() { delete certificate_; }

  void SetUp() override {
    weather::WeatherServiceOptions options;
    if (GetParam()) {
      options.certificatePath = certificate_->certificatePath().string();
      options.privateKeyPath = certificate_->keyPath().string();
    }
    service_ = std::make_unique<weather::WeatherService>(options);
    service_->start();
    router_ = std::make_shared<TrustingRouter>();
    session_ = UrlSession::make(sessionConfiguration(), router_);
  }
  void TearDown() override {
    auto ended = router_->ended.get_future();
    session_->finishTasksAndInvalidate();
    EXPECT_EQ(ended.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  }
  [[nodiscard]] virtual UrlSessionConfiguration sessionConfiguration() const {
    return UrlSessionConfiguration::defaultConfiguration();
  }

  static inline SelfSignedCertificate* certificate_ = nullptr;
  std::unique_ptr<weather::WeatherService> service_;
  std::shared_ptr<TrustingRouter> router_;
  std::shared_ptr<UrlSession> session_;
};

}  // namespace kp::test
