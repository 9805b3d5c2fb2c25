// Helpers of the session tests: a delegate that records every callback as a line of text and
// answers as configured, and the request the tests send.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kp/request/url_session.h"

namespace kp::test {

using namespace std::chrono_literals;

// Records every callback as a line of text; answers as configured.
class Recorder : public UrlSessionDelegate {
 public:
  ResponseDisposition disposition = ResponseDisposition::allow;
  std::optional<AuthChallengeDisposition> trustAnswer;  // nothing: default handling
  bool credentialFromTrust = false;
  std::filesystem::path keepDownloadAt;
  // Keeps the response answer for the test to give (heldAnswer) instead of answering.
  bool holdAnswer = false;
  // How long it takes over each KiB of body: a slow delegate falls behind a fast server.
  std::chrono::microseconds perKiB{0};

  void didReceiveResponse(UrlSession& s, UrlSessionDataTask&, const std::shared_ptr<const HttpUrlResponse>& response,
                          ResponseDispositionHandler completion) override {
    onDelegateQueue(s);
    add("response " + std::to_string(response->statusCode()) + " " + std::to_string(response->expectedContentLength()));
    if (!holdAnswer) return completion(disposition);
    std::lock_guard lock(mutex_);
    held_ = std::move(completion);
    changed_.notify_all();
  }
  // Hands the kept answer over (it holds the session, which holds this delegate).
  ResponseDispositionHandler heldAnswer() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return held_ != nullptr; });
    return std::exchange(held_, nullptr);
  }
  void didReceiveData(UrlSession& s, UrlSessionDataTask& task, const Data& data) override {
    onDelegateQueue(s);
    std::this_thread::sleep_for(perKiB * static_cast<std::int64_t>(data.size()) / 1024);
    std::lock_guard lock(mutex_);
    body_.append(data);
    largestPiece_ = std::max(largestPiece_, data.size());
    // What the session has received and not yet handed to this delegate.
    waiting_.push_back(task.countOfBytesReceived() - static_cast<std::int64_t>(body_.size()));
  }
  void willPerformHttpRedirection(UrlSession& s, UrlSessionTask&,
                                  const std::shared_ptr<const HttpUrlResponse>& response, UrlRequest next,
                                  RedirectionHandler completion) override {
    onDelegateQueue(s);
    add("redirect " + std::to_string(response->statusCode()) + " " + next.httpMethod + " " + next.url.path());
    completion(std::move(next));
  }
  void didReceiveChallenge(UrlSession& s, UrlSessionTask&, const UrlAuthenticationChallenge& challenge,
                           ChallengeHandler completion) override {
    onDelegateQueue(s);
    const auto& space = challenge.protectionSpace;
    add(std::string("challenge ") + (space.serverTrust->evaluatesAsTrusted() ? "trusted" : "untrusted"));
    if (!trustAnswer) return completion(AuthChallengeDisposition::performDefaultHandling, nullptr);
    completion(*trustAnswer, credentialFromTrust ? UrlCredential::make(space.serverTrust) : nullptr);
  }
  void didWriteData(UrlSession& s, UrlSessionDownloadTask&, std::int64_t written, std::int64_t total,
                    std::int64_t expected) override {
    onDelegateQueue(s);
    std::lock_guard lock(mutex_);
    EXPECT_GT(written, 0);
    EXPECT_LE(total, expected < 0 ? total : expected);
    progressTotal_ = total;
  }
  void didFinishDownloading(UrlSession& s, UrlSessionDownloadTask&, const std::filesystem::path& location) override {
    onDelegateQueue(s);
    add("downloaded");
    std::filesystem::copy_file(location, keepDownloadAt);
    std::lock_guard lock(mutex_);
    temporaryFile_ = location;
  }
  void didComplete(UrlSession& s, UrlSessionTask&, const ErrorPtr& error) override {
    onDelegateQueue(s);
    add(error ? "complete " + std::to_string(error->code()) : std::string("complete ok"));
    std::lock_guard lock(mutex_);
    bodyAtCompletion_ = body_.toString();
    ++completions_;
    changed_.notify_all();
  }
  void didBecomeInvalid(UrlSession& s, const ErrorPtr&) override {
    onDelegateQueue(s);
    add("invalid");
    std::lock_guard lock(mutex_);
    invalid_ = true;
    changed_.notify_all();
  }

  bool waitForCompletions(int count, Duration limit = 10s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return completions_ >= count; });
  }
  bool waitForInvalid() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return invalid_; });
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::string body() {
    std::lock_guard lock(mutex_);
    return body_.toString();
  }
  // What the delegate had received when the (last) completion came.
  std::string bodyAtCompletion() {
    std::lock_guard lock(mutex_);
    return bodyAtCompletion_;
  }
  std::size_t largestPiece() {
    std::lock_guard lock(mutex_);
    return largestPiece_;
  }
  // For each piece of body, the bytes still waiting for this delegate once it had taken it.
  std::vector<std::int64_t> waiting() {
    std::lock_guard lock(mutex_);
    return waiting_;
  }
  std::int64_t progressTotal() {
    std::lock_guard lock(mutex_);
    return progressTotal_;
  }
  std::filesystem::path temporaryFile() {
    std::lock_guard lock(mutex_);
    return temporaryFile_;
  }

 private:
  // Callbacks run as items of the delegate queue, whichever thread runs them.
  static void onDelegateQueue(UrlSession& s) { EXPECT_TRUE(s.delegateQueue()->isCurrent()); }
  void add(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
  Data body_;
  std::string bodyAtCompletion_;
  std::size_t largestPiece_ = 0;
  std::vector<std::int64_t> waiting_;
  int completions_ = 0;
  bool invalid_ = false;
  std::int64_t progressTotal_ = 0;
  std::filesystem::path temporaryFile_;
  ResponseDispositionHandler held_;
};

using Events = std::vector<std::string>;

inline UrlRequest requestFor(const std::string& url, TimeInterval timeout = 10) {
  UrlRequest request(*Url::parse(url));
  request.timeoutInterval = timeout;
  // Lengths in the expectations are those of the plain bodies.
  request.setValue("identity", "Accept-Encoding");
  return request;
}

}  // namespace kp::test
