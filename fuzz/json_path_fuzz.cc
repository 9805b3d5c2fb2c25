// JSON reads by key path and by JSON Pointer: the first line of the input is a path, the rest a
// document. Nothing crashes; a key path reaches what the same keys reach as a pointer; and the
// typed reads agree with JsonValue's own accessors on the value found.
#include <cmath>
#include <cstdlib>
#include <string>

#include "kp/foundation/json.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

// Boost.JSON reads "0e400" as NaN, which equals nothing, itself included.
bool same(std::optional<double> a, std::optional<double> b) {
  return a.has_value() == b.has_value() && (!a || *a == *b || (std::isnan(*a) && std::isnan(*b)));
}

void compareTypedReads(const kp::JsonValue& doc, std::string_view path, bool pointer) {
  const auto read = [&]<class T>(T*) {
    return pointer ? kp::jsonValueAtPointer<T>(doc, path) : kp::jsonValueAtKeyPath<T>(doc, path);
  };
  const auto found = read(static_cast<kp::JsonValue*>(nullptr));
  if (!found) {
    check(!read(static_cast<double*>(nullptr)) && !read(static_cast<std::string_view*>(nullptr)));
    return;
  }
  check(read(static_cast<bool*>(nullptr)) == found->boolValue());
  check(read(static_cast<std::int64_t*>(nullptr)) == found->intValue());
  check(same(read(static_cast<double*>(nullptr)), found->doubleValue()));
  check(read(static_cast<std::string_view*>(nullptr)) == found->stringValue());
  const auto narrow = read(static_cast<int*>(nullptr));
  check(!narrow || narrow == found->intValue());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t newline = input.find('\n');
  if (newline == std::string_view::npos) return 0;
  const std::string_view path = input.substr(0, newline);
  const auto doc = kp::parseJson(input.substr(newline + 1));
  if (!doc) return 0;

  compareTypedReads(*doc, path, false);
  compareTypedReads(*doc, path, true);

  // Keys without "/" or "~" spell the same place both ways.
  if (!path.empty() && path.find_first_of("/~") == std::string_view::npos) {
    std::string pointer = "/" + std::string(path);
    for (char& c : pointer) c = c == '.' ? '/' : c;
    // Compared as text: a NaN inside (see same()) makes even a value unequal to itself.
    const auto byPath = kp::jsonValueAtKeyPath<kp::JsonValue>(*doc, path);
    const auto byPointer = kp::jsonValueAtPointer<kp::JsonValue>(*doc, pointer);
    check(byPath.has_value() == byPointer.has_value() && (!byPath || byPath->serialize() == byPointer->serialize()));
  }
  return 0;
}
