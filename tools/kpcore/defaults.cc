// kpcore defaults: reads, writes and deletes user-defaults values, as another process of the
// application would see them.
#include <iostream>

#include "command.h"
#include "kp/coding/json.h"
#include "kp/storage/stored_value.h"
#include "kp/storage/user_defaults.h"
#include "platform/utf8.h"

namespace {

using kpcore::CommandError;

std::shared_ptr<kp::UserDefaults> openSuite(const std::optional<std::string>& suite) {
  if (!suite) return kp::UserDefaults::standard();
  auto defaults = kp::UserDefaults::suite(*suite);
  if (!defaults) throw CommandError("'" + *suite + "' cannot name a suite", 2);
  return defaults;
}

std::optional<kp::Data> fromHex(std::string_view text) {
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (text.starts_with('<') && text.ends_with('>')) text = text.substr(1, text.size() - 2);
  kp::Data out;
  int high = -1;
  for (const char c : text) {
    if (c == ' ') continue;
    const int d = digit(c);
    if (d < 0) return std::nullopt;
    if (high < 0) {
      high = d;
    } else {
      out.push_back(static_cast<std::uint8_t>(high * 16 + d));
      high = -1;
    }
  }
  if (high >= 0) return std::nullopt;
  return out;
}

// The value of `write`, typed by its flag (text by default).
kp::Value parseValue(std::string_view type, const std::string& text) {
  auto bad = [&](std::string_view what) { return CommandError("'" + text + "' is not " + std::string(what), 2); };
  if (type == "-string") return kp::Value(text);
  if (type == "-int" || type == "-integer") {
    std::size_t used = 0;
    try {
      const long long n = std::stoll(text, &used);
      if (used == text.size()) return kp::Value(static_cast<std::int64_t>(n));
    } catch (const std::exception&) {
    }
    throw bad("an integer");
  }
  if (type == "-float" || type == "-double") {
    std::size_t used = 0;
    try {
      const double n = std::stod(text, &used);
      if (used == text.size()) return kp::Value(n);
    } catch (const std::exception&) {
    }
    throw bad("a number");
  }
  if (type == "-bool" || type == "-boolean") {
    if (text == "true" || text == "yes" || text == "YES" || text == "1") return kp::Value(true);
    if (text == "false" || text == "no" || text == "NO" || text == "0") return kp::Value(false);
    throw bad("a boolean (true, false, yes, no, 1, 0)");
  }
  if (type == "-date") {
    if (auto date = kp::Date::fromIso8601(text)) return kp::Value(*date);
    throw bad("an ISO 8601 date");
  }
  if (type == "-data") {
    if (auto data = fromHex(text)) return kp::Value(std::move(*data));
    throw bad("hexadecimal data");
  }
  throw CommandError("unknown value type " + std::string(type), 2);
}

// Scalars as plain text; lists and dictionaries as JSON.
std::string plainText(const kp::Value& value) {
  if (const std::string* s = value.ifString()) return *s;
  if (const bool* b = value.ifBoolean()) return *b ? "true" : "false";
  if (const kp::Date* d = value.ifDate()) return d->iso8601(true);
  if (const kp::Data* d = value.ifData()) return "<" + kp::hexString(d->bytes()) + ">";
  return kp::writeJson(value, kp::DateStrategy::iso8601, true);
}

int runDefaults(kpcore::Args& args) {
  const bool json = args.flag("json");
  const std::optional<std::string> suite = args.option("suite");
  const std::optional<std::string> action = args.positional();
  if (!action) throw CommandError("say read, write or delete", 2);
  std::shared_ptr<kp::UserDefaults> defaults = openSuite(suite);
  const std::optional<std::string> key = args.positional();

  if (*action == "read") {
    args.expectEnd();
    if (!key) {
      std::cout << kp::writeJson(kp::Value(defaults->dictionaryRepresentation()), kp::DateStrategy::iso8601, true)
                << "\n";
      return 0;
    }
    std::optional<kp::Value> value = defaults->value(*key);
    if (!value) throw CommandError("no value for key '" + *key + "' in suite " + defaults->suiteName());
    std::cout << (json ? kp::writeJson(*value, kp::DateStrategy::iso8601) : plainText(*value)) << "\n";
    return 0;
  }
  if (*action == "write") {
    if (!key) throw CommandError("write needs a key and a value", 2);
    std::optional<std::string> first = args.positional();
    if (!first) throw CommandError("write needs a value", 2);
    std::string type = "-string";
    std::string text = *first;
    if (first->size() > 1 && first->front() == '-' && !std::isdigit(static_cast<unsigned char>((*first)[1]))) {
      type = *first;
      std::optional<std::string> rest = args.positional();
      if (!rest) throw CommandError("write needs a value after " + type, 2);
      text = *rest;
    }
    args.expectEnd();
    kp::Value value = parseValue(type, text);
    // The store refuses these without a word; the user must hear of it.
    if (!kp::internal::isValidUtf8(*key)) throw CommandError("the key is not UTF-8 text", 2);
    if (std::string problem; !kp::propertyListValue(std::any(value), &problem)) {
      throw CommandError("cannot store the value: " + problem, 2);
    }
    defaults->setObject(std::any(std::move(value)), *key);
  } else if (*action == "delete") {
    args.expectEnd();
    if (key) {
      if (!defaults->value(*key))
        throw CommandError("no value for key '" + *key + "' in suite " + defaults->suiteName());
      defaults->removeObject(*key);
    } else {
      defaults->removeAll();
    }
  } else {
    throw CommandError("unknown action '" + *action + "' (read, write or delete)", 2);
  }
  if (!defaults->synchronize()) throw CommandError("could not write " + defaults->filePath().string());
  return 0;
}

const kpcore::Registration registration{
    "defaults", "Read, write and delete user-defaults values",
    "kpcore defaults read|write|delete [--suite S] [KEY [-string|-int|-bool|-float|-date|-data] VALUE] [--json]",
    runDefaults};

}  // namespace
