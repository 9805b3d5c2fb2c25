// The file kind: kp::FileRequest, kp::FileRequestHandler and kp::FileRequestResult. The body
// is downloaded straight to a temporary file (never into memory) and then moved to
// targetPath, whose folder is created with its parents when missing; a file already at the
// target is replaced. The payload is the target's path. A request without a target path
// fails at execution with RequestErrors::invalidFileTargetPathError() and sends nothing.
// When the folder cannot be made, the old file cannot be removed or the file cannot be moved
// (a full disk, say), the file-system error becomes the result's error, and the target holds
// the old file or nothing, never a part of the new one. Results are never cached.
//
// Progress comes from the bytes written against the announced length, on the main thread.
//
// Thread safety: as BasicHttpRequest and HttpRequestHandler.
//
// Example:
//   auto request = kp::FileRequest::make(*kp::Url::parse("https://maps.example.com/europe.pmtiles"));
//   request->targetPath = (kp::cachesDirectory() / "maps" / "europe.pmtiles").string();
//   request->setProgressUpdateHandler([](float fraction) { bar.set(fraction); });
//   (void)request->execute([](const std::shared_ptr<kp::FileRequestResult>& result) {
//     if (const std::filesystem::path* file = result->filePath()) open(*file);
//   });
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"
#include "kp/request/request_handler.h"
#include "kp/request/typed_http_request.h"

namespace kp {

// The result of a file request.
class KP_EXPORT FileRequestResult : public TypedRequestResult<FileRequestResult> {
 public:
  // The class name of the archived form.
  static constexpr std::string_view kArchiveClassName = "KPFileRequestResult";
  // Where the download was moved to; null when it was not.
  [[nodiscard]] const std::filesystem::path* filePath() const noexcept {
    return std::any_cast<std::filesystem::path>(&data);
  }
};

// The handler of file requests.
class KP_EXPORT FileRequestHandler : public TypedRequestHandler<FileRequestResult> {
 public:
  // The checks of HttpRequestHandler first; then only a FileRequest with a target path.
  [[nodiscard]] ErrorPtr canHandle(const std::shared_ptr<RequestType>& request) override;
  // A download task instead of a data task.
  void setupUrlTask() override;
  // The target's path once the file is there.
  [[nodiscard]] std::any processReceivedData() override;

  void didWriteData(UrlSession& session, UrlSessionDownloadTask& task, std::int64_t bytesWritten,
                    std::int64_t totalBytesWritten, std::int64_t totalBytesExpectedToWrite) override;
  void didFinishDownloading(UrlSession& session, UrlSessionDownloadTask& task,
                            const std::filesystem::path& location) override;
  void didComplete(UrlSession& session, UrlSessionTask& task, const ErrorPtr& error) override;

  // Download tasks announce no response: the result takes it from the task, once, at the
  // first callback that finds it there.
  bool hasInspectedHeader = false;

 private:
  void inspectHeader(const UrlSessionTask& task);

  std::optional<std::filesystem::path> target_;  // from the request, in canHandle()
  bool moved_ = false;
};

class KP_EXPORT FileRequest
    // A request whose body goes to a file (see the top of this file).
    : public TypedHttpRequest<FileRequest, FileRequestHandler, FileRequestResult, BasicHttpRequest> {
 public:
  using TypedHttpRequest::TypedHttpRequest;

  // Where the download ends up; relative paths start at the working folder. Set it before
  // execution.
  std::optional<std::string> targetPath;
};

}  // namespace kp
