// The typed kinds end to end against loopback servers: payloads made from bodies, the trip
// through the cache and back, downloads to files and what goes wrong with them, and decodable
// requests with and without encryption.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "execution_support.h"
#include "kp/cache/cache_controller.h"
#include "kp/request/data_request.h"
#include "kp/request/decodable_data_request.h"
#include "kp/request/file_request.h"
#include "kp/request/image_request.h"
#include "kp/request/json_request.h"
#include "kp/request/string_request.h"
#include "kp/service/encryption.h"
#include "platform/files.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace kp {

struct Reading {
  std::string place;
  double temperature = 0;
  int status = 0;  // from the response the request received
  void encode(Encoder& e) const {
    auto keyed = e.keyed();
    keyed.encode("place", place);
    keyed.encode("temperature", temperature);
  }
  static Reading decode(const Decoder& d) {
    auto keyed = d.keyed();
    Reading reading{keyed.decode<std::string>("place"), keyed.decode<double>("temperature")};
    const auto found = d.userInfo().find(DecodableDataRequestContext::kUserInfoKey);
    if (found != d.userInfo().end()) {
      const auto& context = std::any_cast<const DecodableDataRequestContext&>(found->second);
      reading.status = context.httpResponse ? context.httpResponse->statusCode.value_or(0) : 0;
    }
    return reading;
  }
};

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kKey = "Qw7rT2mZx9LpB4nVc8KdS1hYf6GjU3aE";

using test::readFile;

Data checkerboardPng() {
  std::vector<std::uint8_t> pixels(4 * 4 * 4);
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<std::uint8_t>((i / 4) % 2 ? 255 : 0);
  return *Image(4, 4, std::move(pixels), 2).pngData();
}

class TypedRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& s = server.server();
    s.Get("/json", [this](const httplib::Request&, httplib::Response& r) {
      ++hits;
      r.set_content(R"({"place":"Utrecht","temperature":21.5})", "application/json");
    });
    s.Get("/text", [this](const httplib::Request&, httplib::Response& r) {
      ++hits;
      r.set_content("h\xc3\xa9llo", "text/plain");
    });
    s.Get("/latin1", [](const httplib::Request&, httplib::Response& r) { r.set_content("h\xe9llo", "text/plain"); });
    s.Get("/image", [this](const httplib::Request&, httplib::Response& r) {
      ++hits;
      r.set_content(checkerboardPng().toString(), "image/png");
    });
    s.Get("/garbage",
          [](const httplib::Request&, httplib::Response& r) { r.set_content("\x89PNG\r\n junk", "image/png"); });
    s.Get("/empty", [](const httplib::Request&, httplib::Response& r) { r.status = 204; });
    s.Get("/missing", [](const httplib::Request&, httplib::Response& r) {
      r.status = 404;
      r.set_content("not here", "text/plain");
    });
    s.Get("/large", [this](const httplib::Request&, httplib::Response& r) {
      ++hits;
      r.set_content(std::string(1 << 20, 'L'), "application/octet-stream");
    });
    // Opens the sealed body and answers with a sealed reading for the place it names.
    s.Post("/sealed", [](const httplib::Request& q, httplib::Response& r) {
      const auto place = TarvixServiceEncryptionHelper::decryptRawData(Data::fromString(q.body).bytes(), kKey);
      const std::string plain = R"({"place":")" + (place ? place->toString() : "?") + R"(","temperature":-3})";
      auto sealed = TarvixServiceEncryptionHelper::encryptData(Data::fromString(plain).bytes(), kKey);
      r.set_content(sealed ? sealed->toString() : "", "text/plain");
    });
    server.start();
  }

  template <class Request>
  std::shared_ptr<Request> make(const std::string& path) {
    auto request = Request::make(*Url::parse(server.url(path)));
    request->httpConfig()->timeoutInterval = 10;
    return request;
  }

  test::CountingServer server;
  std::atomic<int> hits{0};
};

TEST_F(TypedRequestTest, EachKindMakesItsPayloadFromTheBody) {
  auto json = make<JsonRequest>("/json")->executeSynchronously();
  ASSERT_TRUE(json && json->dataAsJson());
  EXPECT_EQ((*json->dataAsJson())["place"].stringValue(), "Utrecht");
  auto notJson = make<JsonRequest>("/text")->executeSynchronously();
  EXPECT_TRUE(notJson->isSuccess());
  EXPECT_EQ(notJson->dataAsJson(), nullptr);

  auto text = make<StringRequest>("/text")->executeSynchronously();
  ASSERT_TRUE(text && text->dataAsString());
  EXPECT_EQ(*text->dataAsString(), "h\xc3\xa9llo");
  auto latin1 = make<StringRequest>("/latin1")->executeSynchronously();
  EXPECT_TRUE(latin1->isSuccess());
  EXPECT_EQ(latin1->dataAsString(), nullptr);

  auto image = make<ImageRequest>("/image")->executeSynchronously();
  ASSERT_TRUE(image && image->dataAsImage());
  EXPECT_EQ(image->dataAsImage()->size(), (ImageSize{2, 2}));
  auto garbage = make<ImageRequest>("/garbage")->executeSynchronously();
  EXPECT_TRUE(garbage->isSuccess());
  EXPECT_EQ(garbage->dataAsImage(), nullptr);

  auto bytes = make<DataRequest>("/large")->executeSynchronously();
  ASSERT_TRUE(bytes && bytes->dataAsData());
  EXPECT_EQ(bytes->dataAsData()->size(), 1u << 20);

  // No body, no payload, whatever the kind.
  EXPECT_FALSE(make<DataRequest>("/empty")->executeSynchronously()->data.has_value());
  EXPECT_FALSE(make<JsonRequest>("/empty")->executeSynchronously()->data.has_value());
  EXPECT_FALSE(make<StringRequest>("/empty")->executeSynchronously()->data.has_value());
  EXPECT_FALSE(make<ImageRequest>("/empty")->executeSynchronously()->data.has_value());
  auto decodable = make<DecodableDataRequest<Reading>>("/empty")->executeSynchronously();
  EXPECT_EQ(decodable->asResult().error()->localizedDescription(), "No data available.");
}

TEST_F(TypedRequestTest, TypedResultsComeBackFromTheCacheAsTheyWent) {
  auto cache = CacheController::sharedInstance();
  auto run = [&](auto request, CacheItemType type) {
    request->generateCacheKey();
    request->cacheConfig()->itemType = type;
    request->cacheConfig()->forceSynchronousLoad = true;
    return request->executeSynchronously();
  };
  auto dropMemory = [&] {
    cache->waitForBackgroundWork();
    cache->receivedMemoryWarning(Notification{});
    EXPECT_EQ(cache->memoryItemCount(), 0u);
  };
  EXPECT_FALSE(run(make<JsonRequest>("/json"), CacheItemType::serialized)->fromCache());
  EXPECT_FALSE(run(make<StringRequest>("/text"), CacheItemType::rawDataToFile)->fromCache());
  EXPECT_FALSE(run(make<ImageRequest>("/image"), CacheItemType::image)->fromCache());
  EXPECT_FALSE(run(make<DataRequest>("/large"), CacheItemType::rawDataToFile)->fromCache());
  dropMemory();  // from here the entries come from the database and the files

  auto json = run(make<JsonRequest>("/json"), CacheItemType::serialized);
  ASSERT_TRUE(json && json->fromCache() && json->dataAsJson());
  EXPECT_EQ((*json->dataAsJson())["temperature"].doubleValue(), 21.5);
  auto text = run(make<StringRequest>("/text"), CacheItemType::rawDataToFile);
  ASSERT_TRUE(text && text->fromCache() && text->dataAsString());
  EXPECT_EQ(*text->dataAsString(), "h\xc3\xa9llo");
  auto image = run(make<ImageRequest>("/image"), CacheItemType::image);
  ASSERT_TRUE(image && image->fromCache() && image->dataAsImage());
  EXPECT_EQ(image->dataAsImage()->pixelWidth(), 4u);  // at the screen's scale, as images from files are
  auto bytes = run(make<DataRequest>("/large"), CacheItemType::rawDataToFile);
  ASSERT_TRUE(bytes && bytes->fromCache() && bytes->dataAsData());
  EXPECT_EQ(bytes->dataAsData()->size(), 1u << 20);
  EXPECT_EQ(hits.load(), 4);

  // A stored result of another kind is a miss: the JSON entry holds no string result, so a
  // string request under its key goes to the server.
  auto other = make<StringRequest>("/text");
  other->cacheConfig()->key = server.url("/json");
  auto fetched = other->executeSynchronously();
  ASSERT_TRUE(fetched && fetched->dataAsString());
  EXPECT_FALSE(fetched->fromCache());
  EXPECT_EQ(hits.load(), 5);
}

TEST_F(TypedRequestTest, AFileRequestDownloadsToItsTargetAndReplacesWhatIsThere) {
  test::TempDir dir;
  const fs::path target = dir.path() / "maps" / "deep" / "tiles.bin";
  std::vector<float> progress;
  auto first = make<FileRequest>("/large");
  first->targetPath = target.string();
  first->setProgressUpdateHandler([&](float f) { progress.push_back(f); });
  test::Completions<FileRequestResult> done;
  (void)first->execute(done.handler());
  ASSERT_TRUE(done.drainFor(1));
  MainQueue::shared()->runPending();
  const auto& result = *done.at(0);
  ASSERT_TRUE(result.isSuccess()) << result.error->localizedDescription();
  ASSERT_TRUE(result.filePath());
  EXPECT_EQ(*result.filePath(), target);
  EXPECT_EQ(readFile(target), std::string(1 << 20, 'L'));
  EXPECT_EQ(result.response->statusCode, 200);
  ASSERT_FALSE(progress.empty());
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  EXPECT_FLOAT_EQ(progress.back(), 1.0f);

  auto second = make<FileRequest>("/text");
  second->targetPath = target.string();
  auto replaced = second->executeSynchronously();
  ASSERT_TRUE(replaced && replaced->isSuccess());
  EXPECT_EQ(readFile(target), "h\xc3\xa9llo");

  // An error status leaves the target alone.
  auto missing = make<FileRequest>("/missing");
  missing->targetPath = target.string();
  auto failed = missing->executeSynchronously();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->error->localizedDescription(), "Request failed with status code: 404.");
  EXPECT_EQ(readFile(target), "h\xc3\xa9llo");

  // Without a target nothing is sent.
  const int before = hits.load();
  auto untargeted = make<FileRequest>("/large");
  auto ticket = untargeted->execute();
  EXPECT_EQ(ticket->error(), RequestErrors::invalidFileTargetPathError());
  EXPECT_EQ(ticket->error()->code(), 500);
  EXPECT_EQ(hits.load(), before);
  EXPECT_EQ(FileRequestHandler().canHandle(make<DataRequest>("/large")), RequestErrors::invalidRequestProtocolError());
}

TEST_F(TypedRequestTest, FileSystemFailuresBecomeTheErrorAndLeaveNoPartialFile) {
  if (test::inTestChild()) {
    // The disk fills up while the body is written: at 64 KiB per file.
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{64 << 10, 64 << 10};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    auto full = make<FileRequest>("/large");
    full->targetPath = std::getenv("KP_TARGET");
    auto result = full->executeSynchronously();
    ASSERT_TRUE(result);
    ASSERT_TRUE(result->error);
    EXPECT_EQ(result->error->code(), -3003) << result->error->localizedDescription();
    return;
  }
  test::TempDir dir;
  const fs::path target = dir.path() / "kept.bin";
  std::ofstream(target) << "old";
  const auto child = test::runThisTestInChild("KP_TARGET=" + test::shellQuote(target.string()));
  EXPECT_EQ(child.status, 0) << child.output;
  EXPECT_EQ(readFile(target), "old");

  // A folder that cannot be made: a file stands where it would go.
  std::ofstream(dir.path() / "blocker") << "x";
  auto blocked = make<FileRequest>("/text");
  blocked->targetPath = (dir.path() / "blocker" / "sub" / "file.txt").string();
  auto result = blocked->executeSynchronously();
  ASSERT_TRUE(result && result->error);
  EXPECT_EQ(result->error->domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(result->error->code(), 512);
  EXPECT_EQ(result->filePath(), nullptr);

  // A folder or a named pipe in the target's place stays, and the error says which it is; the
  // pipe is neither opened (which would wait for a reader) nor replaced.
  fs::create_directories(dir.path() / "folder" / "inside");
  ASSERT_EQ(::mkfifo((dir.path() / "pipe").c_str(), 0600), 0);
  for (const auto& [name, what] : {std::pair{"folder", "a folder"}, std::pair{"pipe", "a named pipe"}}) {
    auto occupied = make<FileRequest>("/text");
    occupied->targetPath = (dir.path() / name).string();
    result = occupied->executeSynchronously();
    ASSERT_TRUE(result && result->error);
    EXPECT_EQ(result->error->localizedDescription(), "The file \u201c" + std::string(name) +
                                                         "\u201d couldn\u2019t be saved because " + what +
                                                         " with the same name already exists.");
  }
  EXPECT_TRUE(fs::exists(dir.path() / "folder" / "inside"));
  EXPECT_TRUE(fs::is_fifo(fs::symlink_status(dir.path() / "pipe")));

  for (const auto& entry : fs::directory_iterator(dir.path())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with(platform::kTemporaryFilePrefix)) << entry.path();
  }
}

TEST(MoveFileTest, AMoveAcrossFileSystemsOntoAFullDiskKeepsTheOldFile) {
  test::TempDir source;
  const fs::path other = "/dev/shm";
  struct stat a {};
  struct stat b {};
  if (::stat(source.path().c_str(), &a) != 0 || ::stat(other.c_str(), &b) != 0 || a.st_dev == b.st_dev) {
    GTEST_SKIP() << "no second file system to move across";
  }
  if (test::inTestChild()) {
    const fs::path from = std::getenv("KP_FROM");
    const fs::path to = std::getenv("KP_TO");
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{64 << 10, 64 << 10};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    const auto failure = platform::moveFile(from, to);
    EXPECT_EQ(failure, std::errc::file_too_large);
    return;
  }
  const fs::path from = source.path() / "download.tmp";
  std::ofstream(from) << std::string(1 << 20, 'n');
  const fs::path folder = other / ("kp-move-test-" + std::to_string(::getpid()));
  fs::create_directories(folder);
  const fs::path to = folder / "target.bin";
  std::ofstream(to) << "old";
  const auto child = test::runThisTestInChild("KP_FROM=" + test::shellQuote(from.string()) +
                                              " KP_TO=" + test::shellQuote(to.string()));
  EXPECT_EQ(child.status, 0) << child.output;
  EXPECT_EQ(readFile(to), "old");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
  // Without the limit the same move goes through and the source is gone.
  EXPECT_FALSE(platform::moveFile(from, to));
  EXPECT_EQ(fs::file_size(to), 1u << 20);
  EXPECT_FALSE(fs::exists(from));
  fs::remove_all(folder);
}

TEST_F(TypedRequestTest, DecodableRequestsDecodeDecryptAndReportTheDecodersError) {
  auto reading = make<DecodableDataRequest<Reading>>("/json")->executeSynchronously();
  ASSERT_TRUE(reading);
  const auto value = reading->asResult();
  ASSERT_TRUE(value.isSuccess());
  EXPECT_EQ(value.value()->place, "Utrecht");
  EXPECT_EQ(value.value()->status, 200);  // the decoder saw the response
  EXPECT_EQ(reading->httpResponse()->statusCode, 200);

  auto wrong = make<DecodableDataRequest<Reading>>("/text")->executeSynchronously();
  ASSERT_TRUE(wrong && wrong->error);
  EXPECT_EQ(wrong->error->domain(), "KPCoding");
  EXPECT_EQ(wrong->asResult().error(), wrong->error);

  auto sealed = make<DecodableDataRequest<Reading>>("/sealed");
  sealed->httpConfig()->method = HttpRequestMethod::post;
  sealed->httpConfig()->bodyData = Data::fromString("Bergen");
  sealed->requestBodyEncryptionKey = kKey;
  sealed->responseBodyDecryptionKey = kKey;
  auto opened = sealed->executeSynchronously();
  ASSERT_TRUE(opened && opened->value()) << (opened && opened->error ? opened->error->localizedDescription() : "");
  EXPECT_EQ(opened->value()->place, "Bergen");  // the body travelled sealed and was opened
  // Without the key the sealed answer is no JSON; with a wrong one it does not open at all.
  auto unopened = make<DecodableDataRequest<Reading>>("/sealed");
  unopened->httpConfig()->method = HttpRequestMethod::post;
  EXPECT_EQ(unopened->executeSynchronously()->error->domain(), "KPCoding");
  auto wrongKey = make<DecodableDataRequest<Reading>>("/sealed");
  wrongKey->httpConfig()->method = HttpRequestMethod::post;
  wrongKey->responseBodyDecryptionKey = "Hn4Xk9PzR2wLq7TbM5vC8dJs1YgF6uAe";
  auto closed = wrongKey->executeSynchronously();
  EXPECT_TRUE(closed->isSuccess());
  EXPECT_EQ(closed->value(), nullptr);
}

}  // namespace
}  // namespace kp
