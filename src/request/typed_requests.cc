// The payloads of the data, JSON, string and image kinds: made from the body, and kept in the
// cache and in archives.
#include "kp/foundation/json.h"
#include "kp/request/data_request.h"
#include "kp/request/image_request.h"
#include "kp/request/json_request.h"
#include "kp/request/string_request.h"
#include "platform/utf8.h"

namespace kp {

namespace {

const std::vector<std::string> kSuperclasses{std::string(HttpRequestResult::kArchiveClassName),
                                             std::string(RequestResult::kArchiveClassName)};
const ArchiveRegistration<DataRequestResult> dataRegistration{std::string(DataRequestResult::kArchiveClassName),
                                                              kSuperclasses};
const ArchiveRegistration<JsonRequestResult> jsonRegistration{std::string(JsonRequestResult::kArchiveClassName),
                                                              kSuperclasses};
const ArchiveRegistration<StringRequestResult> stringRegistration{std::string(StringRequestResult::kArchiveClassName),
                                                                  kSuperclasses};
const ArchiveRegistration<ImageRequestResult> imageRegistration{std::string(ImageRequestResult::kArchiveClassName),
                                                                kSuperclasses};

// Text that the cache kept as bytes, or an archive as text.
std::optional<std::string_view> textOf(const ArchiveValue& payload) {
  if (const auto* bytes = payload.get<Data>()) return bytes->view();
  if (const auto* text = payload.get<std::string>()) return std::string_view(*text);
  return std::nullopt;
}

}  // namespace

// Out of line, so that every program using the class links its archive registration.
DataRequestResult::~DataRequestResult() = default;

// MARK: - JSON

std::any JsonRequestHandler::processReceivedData() {
  if (!receivedData) return {};
  auto parsed = objectFromJSONData(*receivedData);
  if (!parsed) return {};
  return *parsed;
}

std::optional<ArchiveValue> JsonRequestResult::cachePayload(CacheItemType) const {
  const JsonValue* json = dataAsJson();
  if (!json) return std::nullopt;
  return ArchiveValue(Data::fromString(json->serialize()));
}

void JsonRequestResult::restorePayload(const ArchiveValue& payload) {
  data.reset();
  if (auto text = textOf(payload)) {
    if (auto parsed = JsonValue::parse(*text)) data = std::move(*parsed);
  }
}

// MARK: - String

std::any StringRequestHandler::processReceivedData() {
  if (!receivedData || !internal::isValidUtf8(receivedData->view())) return {};
  return receivedData->toString();
}

std::optional<ArchiveValue> StringRequestResult::cachePayload(CacheItemType) const {
  const std::string* text = dataAsString();
  if (!text) return std::nullopt;
  return ArchiveValue(Data::fromString(*text));
}

void StringRequestResult::restorePayload(const ArchiveValue& payload) {
  data.reset();
  if (auto text = textOf(payload); text && internal::isValidUtf8(*text)) data = std::string(*text);
}

// MARK: - Image

namespace {
std::any imagePayload(std::optional<Image> image) {
  if (!image) return {};
  return ArchivablePtr(std::make_shared<ArchivableImage>(std::move(*image)));
}
}  // namespace

std::any ImageRequestHandler::processReceivedData() {
  if (!receivedData) return {};
  return imagePayload(Image::decode(*receivedData));
}

const Image* ImageRequestResult::dataAsImage() const noexcept {
  const auto* object = std::any_cast<ArchivablePtr>(&data);
  const auto* image = object ? dynamic_cast<const ArchivableImage*>(object->get()) : nullptr;
  return image ? &image->image() : nullptr;
}

std::optional<ArchiveValue> ImageRequestResult::cachePayload(CacheItemType type) const {
  const Image* image = dataAsImage();
  if (!image) return std::nullopt;
  if (type == CacheItemType::rawDataToFile) {
    auto png = image->pngData();
    if (!png) return std::nullopt;
    return ArchiveValue(std::move(*png));
  }
  return ArchiveValue(std::any_cast<const ArchivablePtr&>(data));
}

void ImageRequestResult::restorePayload(const ArchiveValue& payload) {
  data.reset();
  if (auto image = payload.object<ArchivableImage>()) {
    data = ArchivablePtr(std::move(image));
  } else if (const auto* bytes = payload.get<Data>()) {
    data = imagePayload(Image::decode(*bytes));
  }
}

}  // namespace kp
