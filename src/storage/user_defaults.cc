// The user-defaults store: typed access over the shared suite stores.
#include "kp/storage/user_defaults.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "kp/logging/tarvix_logger.h"
#include "kp/platform/application_info.h"
#include "platform/env.h"
#include "platform/no_destructor.h"
#include "platform/utf8.h"
#include "suite_store.h"

namespace kp {
namespace {

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::int64_t out = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return out;
}

std::optional<double> parseReal(std::string_view text) {
  double out = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return out;
}

// A real as an integer, cut toward zero and held within range; not-a-number gives 0.
std::int64_t saturatingInteger(double real) {
  if (std::isnan(real)) return 0;
  if (real >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
  if (real <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(real);
}

std::string shortestText(double real) {
  char buffer[64];
  const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, real);
  return error == std::errc() ? std::string(buffer, end) : std::string();
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

std::optional<double> realOf(const Value* v) {
  if (!v) return std::nullopt;
  if (const double* r = v->ifReal()) return *r;
  if (const std::int64_t* i = v->ifInteger()) return static_cast<double>(*i);
  if (const std::uint64_t* u = v->ifUnsignedInteger()) return static_cast<double>(*u);
  if (const bool* b = v->ifBoolean()) return *b ? 1.0 : 0.0;
  if (const std::string* s = v->ifString()) {
    const std::string_view text = trimmed(*s);
    if (auto i = parseInteger(text)) return static_cast<double>(*i);
    return parseReal(text);
  }
  return std::nullopt;
}

// A file path as a file URL.
std::optional<Url> fileUrl(std::string_view path) {
  std::string text = "file://";
  for (const char c : path) {
    // What would end the path or start an escape; the parser encodes everything else.
    if (c == '%') {
      text += "%25";
    } else if (c == '?') {
      text += "%3F";
    } else if (c == '#') {
      text += "%23";
    } else {
      text.push_back(c);
    }
  }
  return Url::parseEncodingInvalidCharacters(text);
}

std::string standardSuiteName() {
  std::string name = ApplicationInfo::current().folderName();
  return UserDefaults::isValidSuiteName(name) ? name : std::string("KPApplication");
}

}  // namespace

UserDefaults::UserDefaults(std::string suiteName, std::shared_ptr<storage_detail::SuiteStore> store)
    : suiteName_(std::move(suiteName)), store_(std::move(store)) {}

UserDefaults::~UserDefaults() = default;

const std::shared_ptr<UserDefaults>& UserDefaults::standard() {
  static internal::NoDestructor<std::shared_ptr<UserDefaults>> instance(suite(standardSuiteName()));
  return *instance;
}

std::shared_ptr<UserDefaults> UserDefaults::suite(std::string_view suiteName) {
  if (!isValidSuiteName(suiteName)) return nullptr;
  const std::filesystem::path file = configurationDirectory() / (std::string(suiteName) + ".plist");
  return std::shared_ptr<UserDefaults>(
      new UserDefaults(std::string(suiteName), storage_detail::SuiteStore::open(file)));
}

bool UserDefaults::isValidSuiteName(std::string_view name) noexcept {
  if (name.empty() || name.size() > 200 || name.front() == '.') return false;
  for (const char c : name) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '/' || u < 0x20 || u == 0x7F) return false;
  }
  return internal::isValidUtf8(name);
}

const std::filesystem::path& UserDefaults::filePath() const noexcept { return store_->file(); }

void UserDefaults::store(std::string_view key, std::optional<Value> value) {
  if (!internal::isValidUtf8(key)) {
    TarvixLoggers::CL()->error("User defaults cannot store a key that is not UTF-8");
    return;
  }
  store_->set(key, value ? std::make_shared<const Value>(std::move(*value)) : nullptr);
}

void UserDefaults::setObject(std::optional<std::any> value, std::string_view key) {
  if (!value || !value->has_value()) return removeObject(key);
  if (const Value* tree = std::any_cast<Value>(&*value); tree && tree->isNull()) return removeObject(key);
  std::string problem;
  std::optional<Value> tree = propertyListValue(*value, &problem);
  if (!tree) {
    TarvixLoggers::CL()->error("User defaults cannot store the value for key " + std::string(key) + ": " + problem);
    return;
  }
  store(key, std::move(tree));
}

void UserDefaults::setInteger(std::int64_t value, std::string_view key) { store(key, Value(value)); }
void UserDefaults::setFloat(float value, std::string_view key) { store(key, Value(static_cast<double>(value))); }
void UserDefaults::setDouble(double value, std::string_view key) { store(key, Value(value)); }
void UserDefaults::setBool(bool value, std::string_view key) { store(key, Value(value)); }
void UserDefaults::removeObject(std::string_view key) { store_->set(key, nullptr); }
void UserDefaults::removeAll() { store_->removeAll(); }

std::optional<std::any> UserDefaults::object(std::string_view key) const {
  return store_->read(key, [](const Value* v) -> std::optional<std::any> {
    if (!v) return std::nullopt;
    return anyFromPropertyListValue(*v);
  });
}

std::optional<Value> UserDefaults::value(std::string_view key) const {
  std::shared_ptr<const Value> v = store_->get(key);
  if (!v) return std::nullopt;
  return *v;
}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
  return store_->read(key, [](const Value* v) -> std::optional<std::string> {
    if (!v) return std::nullopt;
    if (const std::string* s = v->ifString()) return *s;
    if (const std::int64_t* i = v->ifInteger()) return std::to_string(*i);
    if (const std::uint64_t* u = v->ifUnsignedInteger()) return std::to_string(*u);
    if (const double* r = v->ifReal()) return shortestText(*r);
    if (const bool* b = v->ifBoolean()) return std::string(*b ? "1" : "0");
    return std::nullopt;
  });
}

std::int64_t UserDefaults::integer(std::string_view key) const {
  return store_->read(key, [](const Value* v) -> std::int64_t {
    if (!v) return 0;
    if (const std::int64_t* i = v->ifInteger()) return *i;
    if (const std::string* s = v->ifString()) {
      if (auto i = parseInteger(trimmed(*s))) return *i;
    }
    return saturatingInteger(realOf(v).value_or(0));
  });
}

float UserDefaults::float_(std::string_view key) const { return static_cast<float>(double_(key)); }

double UserDefaults::double_(std::string_view key) const {
  return store_->read(key, [](const Value* v) { return realOf(v).value_or(0); });
}

bool UserDefaults::bool_(std::string_view key) const {
  return store_->read(key, [](const Value* v) {
    if (!v) return false;
    if (const bool* b = v->ifBoolean()) return *b;
    if (const std::string* s = v->ifString()) {
      const std::string_view text = trimmed(*s);
      if (equalsIgnoringCase(text, "yes") || equalsIgnoringCase(text, "true")) return true;
      if (equalsIgnoringCase(text, "no") || equalsIgnoringCase(text, "false")) return false;
    }
    const std::optional<double> real = realOf(v);
    return real.has_value() && *real != 0;
  });
}

std::optional<Value::Array> UserDefaults::array(std::string_view key) const {
  return store_->read(key, [](const Value* v) -> std::optional<Value::Array> {
    if (const Value::Array* a = v ? v->ifArray() : nullptr) return *a;
    return std::nullopt;
  });
}

std::optional<std::vector<std::string>> UserDefaults::stringArray(std::string_view key) const {
  return store_->read(key, [](const Value* v) -> std::optional<std::vector<std::string>> {
    const Value::Array* a = v ? v->ifArray() : nullptr;
    if (!a) return std::nullopt;
    std::vector<std::string> out;
    out.reserve(a->size());
    for (const Value& element : *a) {
      const std::string* s = element.ifString();
      if (!s) return std::nullopt;
      out.push_back(*s);
    }
    return out;
  });
}

std::optional<Value::Dictionary> UserDefaults::dictionary(std::string_view key) const {
  return store_->read(key, [](const Value* v) -> std::optional<Value::Dictionary> {
    if (const Value::Dictionary* d = v ? v->ifDictionary() : nullptr) return *d;
    return std::nullopt;
  });
}

std::optional<Data> UserDefaults::data(std::string_view key) const {
  return store_->read(key, [](const Value* v) -> std::optional<Data> {
    if (const Data* d = v ? v->ifData() : nullptr) return *d;
    return std::nullopt;
  });
}

std::optional<Url> UserDefaults::url(std::string_view key) const {
  std::shared_ptr<const Value> v = store_->get(key);
  if (!v) return std::nullopt;
  if (const std::string* s = v->ifString()) {
    if (s->starts_with("/")) return fileUrl(*s);
    if (s->starts_with("~/")) return fileUrl((platform::Env::current().homeDirectory() / s->substr(2)).string());
    auto parsed = Url::parse(*s);
    if (parsed && parsed->isAbsolute()) return parsed;
    return std::nullopt;
  }
  if (const Data* d = v->ifData()) {
    if (auto archived = KeyedUnarchiver::safeUnarchivedObject(*d)) {
      if (const Url* u = archived->get<Url>()) return *u;
    }
  }
  return std::nullopt;
}

void UserDefaults::setUrl(const std::optional<Url>& value, std::string_view key) {
  if (!value) return removeObject(key);
  setObject(std::any(value->absoluteString()), key);
}

Value::Dictionary UserDefaults::dictionaryRepresentation() const {
  Value::Dictionary out;
  for (auto& [key, value] : store_->snapshot()) out.emplace_back(std::move(key), *value);
  return out;
}

std::optional<ArchiveValue> UserDefaults::getObjectForKey(std::string_view key) const {
  std::optional<Data> bytes = data(key);
  if (!bytes) return std::nullopt;
  return KeyedUnarchiver::safeUnarchivedObject(*bytes);
}

void UserDefaults::saveObject(const std::optional<ArchiveValue>& object, std::string_view key) {
  std::string failure;
  if (!object) {
    failure = "value is nil.";
  } else {
    ErrorPtr error;
    if (std::optional<Data> bytes = KeyedArchiver::archivedData(*object, &error)) {
      store(key, Value(std::move(*bytes)));
      return;
    }
    failure = error ? error->localizedDescription() : std::string("the object cannot be archived");
  }
  TarvixLoggers::CL()->error("Failed to archive object: " + failure);
  removeObject(key);
}

bool UserDefaults::synchronize() { return store_->synchronize(); }

std::uint64_t UserDefaults::fileWriteCount() const noexcept { return store_->fileWriteCount(); }

SuiteFileStatus UserDefaults::fileStatus() const { return store_->status(); }

}  // namespace kp
