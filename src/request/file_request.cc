// The file kind's handler: a download task, and the move of its file to the target.
#include "kp/request/file_request.h"

#include <cerrno>

#include "kp/request/request_errors.h"
#include "platform/files.h"

namespace kp {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kCocoaErrorDomain = "NSCocoaErrorDomain";
constexpr std::string_view kPosixErrorDomain = "NSPOSIXErrorDomain";

// What stands at a target that is neither a file nor a link, as the error names it.
std::string_view obstacleName(fs::file_type type) {
  switch (type) {
    case fs::file_type::directory:
      return "a folder";
    case fs::file_type::fifo:
      return "a named pipe";
    case fs::file_type::socket:
      return "a socket";
    case fs::file_type::block:
    case fs::file_type::character:
      return "a device";
    default:
      return "something that is not a file";
  }
}

// The platform's file-writing error for `failure` at `path`, with the POSIX error beneath it;
// `obstacle` names what stands in the way when the failure is a name already taken.
ErrorPtr fileWriteError(const std::error_code& failure, const fs::path& path, std::string_view obstacle = {}) {
  const std::string name = "\u201c" + path.filename().string() + "\u201d";
  std::int64_t code = 512;  // unknown writing error
  std::string description = "The file " + name + " couldn\u2019t be saved.";
  switch (failure.value()) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      code = 640;
      description = "The file " + name + " couldn\u2019t be saved because there isn\u2019t enough space.";
      break;
    case EACCES:
    case EPERM:
      code = 513;
      description = "You don\u2019t have permission to save the file " + name + " in the folder \u201c" +
                    path.parent_path().filename().string() + "\u201d.";
      break;
    case EROFS:
      code = 642;
      description = "The file " + name + " couldn\u2019t be saved because the volume is read only.";
      break;
    case EEXIST:
      code = 516;
      description = "The file " + name + " couldn\u2019t be saved because " +
                    std::string(obstacle.empty() ? "a file" : obstacle) + " with the same name already exists.";
      break;
    case ENOENT:
      code = 4;
      description = "The file " + name + " doesn\u2019t exist.";
      break;
    default:
      break;
  }
  auto underlying = Error::make(std::string(kPosixErrorDomain), failure.value(), failure.message());
  return Error::make(std::string(kCocoaErrorDomain), code,
                     {{std::string(Error::kLocalizedDescriptionKey), description}, {"NSFilePath", path.string()}},
                     std::move(underlying));
}

}  // namespace

ErrorPtr FileRequestHandler::canHandle(const std::shared_ptr<RequestType>& candidate) {
  if (auto error = HttpRequestHandler::canHandle(candidate)) return error;
  auto fileRequest = std::dynamic_pointer_cast<FileRequest>(candidate);
  if (!fileRequest) return RequestErrors::invalidRequestProtocolError();
  const auto& path = fileRequest->targetPath;
  if (!path || path->empty()) return RequestErrors::invalidFileTargetPathError();
  std::error_code ignored;
  const fs::path target(*path);
  // Made absolute now: the working folder may change before the download ends.
  target_ = fs::absolute(target, ignored).lexically_normal();
  if (ignored) target_ = target;
  return nullptr;
}

void FileRequestHandler::setupUrlTask() {
  installTask([](UrlSession& session, const UrlRequest& wire) -> std::shared_ptr<UrlSessionTask> {
    return session.downloadTask(wire);
  });
}

std::any FileRequestHandler::processReceivedData() {
  if (!moved_ || !target_) return {};
  return *target_;
}

void FileRequestHandler::inspectHeader(const UrlSessionTask& task) {
  if (hasInspectedHeader) return;
  auto response = task.response();
  if (!response) return;
  hasInspectedHeader = true;
  initializeResult(*response);
  expectedContentLength = response->expectedContentLength();
}

void FileRequestHandler::didWriteData(UrlSession&, UrlSessionDownloadTask& task, std::int64_t,
                                      std::int64_t totalBytesWritten, std::int64_t totalBytesExpectedToWrite) {
  inspectHeader(task);
  numberOfBytesReceived = totalBytesWritten;
  if (totalBytesExpectedToWrite > 0) expectedContentLength = totalBytesExpectedToWrite;
  updateProgress();
}

void FileRequestHandler::didFinishDownloading(UrlSession&, UrlSessionDownloadTask& task, const fs::path& location) {
  inspectHeader(task);
  // An error status is reported by the completion; its body is not kept.
  if (result->response && result->response->statusCode && *result->response->statusCode >= 400) return;
  if (!target_) return;
  const fs::path& target = *target_;
  // A failed step composes its diagnostic (written nowhere) and leaves its error in the result.
  auto failed = [&](const std::string& diagnostic, const std::error_code& failure, std::string_view obstacle = {}) {
    [[maybe_unused]] const std::string message = diagnostic + failure.message();
    result->error = fileWriteError(failure, target, obstacle);
  };
  std::error_code failure;
  if (const fs::path folder = target.parent_path(); !folder.empty()) {
    fs::create_directories(folder, failure);
    if (failure) return failed("Failed to create target directory '" + folder.string() + "': ", failure);
  }
  std::error_code absent;
  const auto existing = fs::symlink_status(target, absent);
  if (fs::exists(existing)) {
    [[maybe_unused]] const std::string notice =
        "The newly downloaded file will overwrite existing file at '" + target.string() + "'";
    // Only files and links (dangling ones too) are replaced: a folder, a named pipe or a device
    // in the way (such as /dev/null) stays. Nothing here opens the target, so a pipe there
    // never blocks the download and a link there is never followed.
    if (!fs::is_regular_file(existing) && !fs::is_symlink(existing)) {
      return failed("Not replacing '" + target.string() + "': ", std::make_error_code(std::errc::file_exists),
                    obstacleName(existing.type()));
    }
    fs::remove(target, failure);
    if (failure) return failed("Failed to remove file '" + target.string() + "': ", failure);
  }
  failure = platform::moveFile(location, target);
  if (failure) return failed("Failed to move file '" + target.string() + "': ", failure);
  moved_ = true;
}

void FileRequestHandler::didComplete(UrlSession& session, UrlSessionTask& task, const ErrorPtr& error) {
  inspectHeader(task);
  HttpRequestHandler::didComplete(session, task, error);
}

}  // namespace kp
