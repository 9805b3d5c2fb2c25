// kpcore defaults: reads, writes and deletes user-defaults values, as another process of the
// application would see them. What the store met on the way (a file it could not read or
// write, a damaged file it set aside) is said on standard error.
#include <charconv>
#include <cmath>
#include <iostream>

#include "command.h"
#include "kp/coding/json.h"
#include "kp/foundation/text.h"
#include "kp/storage/stored_value.h"
#include "kp/storage/user_defaults.h"

namespace {

using kpcore::CommandError;

// The suite, read; a file that could not be read ends the command, one set aside is told.
std::shared_ptr<kp::UserDefaults> openSuite(const std::optional<std::string>& suite) {
  std::shared_ptr<kp::UserDefaults> defaults = suite ? kp::UserDefaults::suite(*suite) : kp::UserDefaults::standard();
  if (!defaults) throw CommandError("'" + kpcore::printable(*suite) + "' cannot name a suite", 2);
  const kp::SuiteFileStatus status = defaults->fileStatus();
  for (const std::string& report : status.setAside)
    std::cerr << "kpcore defaults: " << kpcore::printable(report) << "\n";
  if (status.readError) throw CommandError("cannot read the suite: " + kpcore::printable(*status.readError));
  return defaults;
}

// Dates that four-digit years can show, the only ones ISO 8601 text and most readers take.
bool isShowableDate(kp::Date date) {
  const double t = date.timeIntervalSince1970();
  return t >= -62135596800.0 && t < 253402300800.0;  // 0001-01-01 up to 10000-01-01
}

std::string realText(double real) {
  if (std::isnan(real)) return "nan";
  if (std::isinf(real)) return real > 0 ? "inf" : "-inf";
  return kp::writeJson(kp::Value(real), kp::DateStrategy::iso8601);
}

std::string dateText(kp::Date date) {
  if (isShowableDate(date)) return date.iso8601(true);
  return "date " + realText(date.timeIntervalSince1970()) + " s from 1970";
}

// The tree with what JSON cannot hold (numbers that are not finite, dates beyond four-digit
// years; only files written elsewhere have them) as text, so that the rest is shown.
kp::Value showable(kp::Value value) {
  if (const double* r = value.ifReal(); r && !std::isfinite(*r)) return realText(*r);
  if (const kp::Date* d = value.ifDate(); d && !isShowableDate(*d)) return dateText(*d);
  if (kp::Value::Array* a = value.ifArray()) {
    for (kp::Value& e : *a) e = showable(std::move(e));
  } else if (kp::Value::Dictionary* entries = value.ifDictionary()) {
    for (auto& [k, e] : *entries) e = showable(std::move(e));
  }
  return value;
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
  auto bad = [&](std::string_view what) {
    return CommandError("'" + kpcore::printable(text) + "' is not " + std::string(what), 2);
  };
  if (type == "-string") return kp::Value(text);
  // A plus sign may stand before a number written to a suite (but before no other sign).
  std::string_view number = text;
  if (number.starts_with('+') && number.size() > 1 && number[1] != '-') number.remove_prefix(1);
  if (type == "-int" || type == "-integer") {
    if (const auto n = kpcore::strictInteger(number)) return kp::Value(*n);
    if (const auto u = kpcore::strictUnsigned(number)) return kp::Value(*u);  // up to 2^64 - 1
    throw bad("an integer");
  }
  if (type == "-float" || type == "-double") {
    // Infinities and NaN are refused too: the file could hold them, but no JSON reader (nor
    // `read` here) could show them.
    if (const auto n = kpcore::strictDecimal(number)) return kp::Value(*n);
    throw bad("a finite number a double can hold");
  }
  if (type == "-bool" || type == "-boolean") {
    if (text == "true" || text == "yes" || text == "YES" || text == "1") return kp::Value(true);
    if (text == "false" || text == "no" || text == "NO" || text == "0") return kp::Value(false);
    throw bad("a boolean (true, false, yes, no, 1, 0)");
  }
  if (type == "-date") {
    const std::optional<kp::Date> date = kp::Date::fromIso8601(text);
    if (!date) throw bad("an ISO 8601 date");
    if (!isShowableDate(*date)) throw bad("a date of the years 1 to 9999");
    return kp::Value(*date);
  }
  if (type == "-data") {
    if (auto data = fromHex(text)) return kp::Value(std::move(*data));
    throw bad("hexadecimal data");
  }
  throw CommandError("unknown value type " + std::string(type), 2);
}

// Scalars as plain text (text with its control characters escaped, since any process of
// the application may have stored it); lists and dictionaries as JSON.
std::string plainText(const kp::Value& value) {
  if (const std::string* s = value.ifString()) return kpcore::printable(*s);
  if (const bool* b = value.ifBoolean()) return *b ? "true" : "false";
  if (const double* r = value.ifReal()) return realText(*r);
  if (const kp::Date* d = value.ifDate()) return dateText(*d);
  if (const kp::Data* d = value.ifData()) return "<" + kp::hexString(d->bytes()) + ">";
  return kp::writeJson(showable(value), kp::DateStrategy::iso8601, true);
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
      std::cout << kp::writeJson(showable(kp::Value(defaults->dictionaryRepresentation())), kp::DateStrategy::iso8601,
                                 true)
                << "\n";
      return 0;
    }
    std::optional<kp::Value> value = defaults->value(*key);
    if (!value)
      throw CommandError("no value for key '" + kpcore::printable(*key) + "' in suite " + defaults->suiteName());
    std::cout << (json ? kp::writeJson(showable(*value), kp::DateStrategy::iso8601) : plainText(*value)) << "\n";
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
    if (!kp::isValidUtf8(*key)) throw CommandError("the key is not UTF-8 text", 2);
    if (std::string problem; !kp::propertyListValue(std::any(value), &problem)) {
      throw CommandError("cannot store the value: " + problem, 2);
    }
    defaults->setObject(std::any(std::move(value)), *key);
  } else if (*action == "delete") {
    args.expectEnd();
    if (key) {
      if (!defaults->value(*key))
        throw CommandError("no value for key '" + kpcore::printable(*key) + "' in suite " + defaults->suiteName());
      defaults->removeObject(*key);
    } else {
      defaults->removeAll();
    }
  } else {
    throw CommandError("unknown action '" + *action + "' (read, write or delete)", 2);
  }
  if (!defaults->synchronize()) {
    const kp::SuiteFileStatus status = defaults->fileStatus();
    throw CommandError("could not write " + kpcore::printable(defaults->filePath().string()) + ": " +
                       kpcore::printable(status.writeError.value_or(status.readError.value_or("reason unknown"))));
  }
  return 0;
}

const kpcore::Registration registration{
    "defaults", "Read, write and delete user-defaults values",
    "kpcore defaults read|write|delete [--suite S] [KEY [-string|-int|-bool|-float|-date|-data] VALUE] [--json]",
    runDefaults};

}  // namespace
