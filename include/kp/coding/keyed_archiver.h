// The keyed archiver: object graphs stored as binary property lists in the platform's
// keyed-archive layout ($archiver "NSKeyedArchiver", $version 100000, $top with "root",
// $objects starting with "$null", references as UIDs, class dictionaries with $classname and
// $classes), so that any property-list reader sees a normal property list.
//
// Archivable classes derive from kp::Archivable, write themselves under string keys and
// register a class name together with a factory that reads them back. The built-in values
// are strings, numbers (integer, real, boolean), byte buffers, dates, URLs, lists,
// string-keyed dictionaries and platform errors (domain, code, user info).
//
// Unarchiving is secure: the caller names the classes it accepts; an archived class name
// that is not registered may be mapped to a registered one through a table. Unknown classes,
// classes outside the accepted set, malformed archives, cycles, nesting deeper than
// kMaxPropertyListDepth and values of the wrong type all yield nothing; nothing throws out.
// Plain property-list values (strings, numbers, data) are always accepted.
//
// Thread safety: registration and unarchiving may run on any thread; an archive run uses
// only its own state. Archivable objects must not change while they are archived.
//
// Example:
//   class Forecast : public kp::Archivable {
//    public:
//     std::string city; double high = 0;
//     std::string archiveClassName() const override { return "KPForecast"; }
//     void encode(kp::ArchiveEncoder& c) const override { c.encodeObject("city", city); c.encodeDouble("high", high); }
//     static std::shared_ptr<Forecast> decode(kp::ArchiveDecoder& c) {
//       auto f = std::make_shared<Forecast>();
//       f->city = c.decodeString("city").value_or(""); f->high = c.decodeDouble("high");
//       return f;
//     }
//   };
//   static const kp::ArchiveRegistration<Forecast> registration{"KPForecast"};
//
//   std::optional<kp::Data> bytes = kp::KeyedArchiver::archivedData(forecast);
//   auto back = kp::KeyedUnarchiver::unarchivedObject<Forecast>(*bytes, {"KPForecast"});
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"

namespace kp {

class ArchiveEncoder;
class ArchiveDecoder;

// An object the keyed archiver can write, under a registered class name.
class KP_EXPORT Archivable {
 public:
  virtual ~Archivable() = default;
  // The registered name written as $classname.
  [[nodiscard]] virtual std::string archiveClassName() const = 0;
  // Writes the object's fields.
  virtual void encode(ArchiveEncoder& coder) const = 0;
  // Equality of content; identity unless a class says otherwise.
  [[nodiscard]] virtual bool isEqual(const Archivable& other) const { return this == &other; }
};
// How archivable objects travel; shared objects are archived once.
using ArchivablePtr = std::shared_ptr<const Archivable>;

// Any value the archiver can hold.
class KP_EXPORT ArchiveValue {
 public:
  using Array = std::vector<ArchiveValue>;                              // elements in order
  using Dictionary = std::map<std::string, ArchiveValue, std::less<>>;  // entries by key
  // What a value may hold.
  using Storage = std::variant<std::monostate, bool, std::int64_t, double, std::string, Data, Date, Url, Array,
                               Dictionary, ErrorPtr, ArchivablePtr>;

  ArchiveValue() = default;
  // The values below are implicit, so that archives are written as they read.
  ArchiveValue(std::nullptr_t) {}  // NOLINT
  // A boolean.
  ArchiveValue(bool b) : storage_(b) {}  // NOLINT
  // An integer.
  ArchiveValue(int i) : storage_(std::int64_t{i}) {}  // NOLINT
  // An integer.
  ArchiveValue(std::int64_t i) : storage_(i) {}  // NOLINT
  // A real number.
  ArchiveValue(double d) : storage_(d) {}  // NOLINT
  // A string.
  ArchiveValue(std::string s) : storage_(std::move(s)) {}  // NOLINT
  // A string (a copy).
  ArchiveValue(const char* s) : storage_(std::string(s)) {}  // NOLINT
  // Bytes.
  ArchiveValue(Data d) : storage_(std::move(d)) {}  // NOLINT
  // A date.
  ArchiveValue(Date d) : storage_(d) {}  // NOLINT
  // A URL.
  ArchiveValue(Url u) : storage_(std::move(u)) {}  // NOLINT
  // An array.
  ArchiveValue(Array a) : storage_(std::move(a)) {}  // NOLINT
  // A dictionary.
  ArchiveValue(Dictionary d) : storage_(std::move(d)) {}  // NOLINT
  // An error.
  ArchiveValue(ErrorPtr e) : storage_(std::move(e)) {}  // NOLINT
  // An archivable object.
  ArchiveValue(ArchivablePtr o) : storage_(std::move(o)) {}  // NOLINT
  // An archivable object of a derived class.
  template <class T, std::enable_if_t<std::is_base_of_v<Archivable, T>, int> = 0>
  ArchiveValue(std::shared_ptr<T> o) : storage_(ArchivablePtr(std::move(o))) {}  // NOLINT

  [[nodiscard]] bool isNull() const noexcept { return storage_.index() == 0; }  // holds nothing
  // The value as T when it holds a T; null otherwise (no conversions).
  template <class T>
  [[nodiscard]] const T* get() const noexcept {
    return std::get_if<T>(&storage_);
  }
  // The same, to change or take.
  template <class T>
  [[nodiscard]] T* get() noexcept {
    return std::get_if<T>(&storage_);
  }
  // The object as class T, or null when it is something else.
  template <class T>
  [[nodiscard]] std::shared_ptr<const T> object() const {
    const ArchivablePtr* p = get<ArchivablePtr>();
    return p ? std::dynamic_pointer_cast<const T>(*p) : nullptr;
  }
  [[nodiscard]] const Storage& storage() const noexcept { return storage_; }  // what it holds

  // Errors compare by content, archivable objects by isEqual.
  friend KP_EXPORT bool operator==(const ArchiveValue& a, const ArchiveValue& b);

 private:
  Storage storage_;
};

// Writes one object's fields into the archive; Archivable::encode() receives it.
class KP_EXPORT ArchiveEncoder {
 public:
  // A value as an object reference (shared objects and equal strings are written once).
  void encodeObject(std::string_view key, const ArchiveValue& value);
  // Values stored inline in the object's dictionary.
  void encodeInt64(std::string_view key, std::int64_t value);
  void encodeDouble(std::string_view key, double value);  // inline, as encodeInt64()
  void encodeBool(std::string_view key, bool value);      // inline, as encodeInt64()

 private:
  friend class KeyedArchiver;
  struct State;
  ArchiveEncoder(State& state, void* entries) : state_(state), entries_(entries) {}
  State& state_;
  void* entries_;  // the object's dictionary being written
};

// Reads one object's fields back; the class's reader receives it.
class KP_EXPORT ArchiveDecoder {
 public:
  // True when the object has a field `key`.
  [[nodiscard]] bool containsValue(std::string_view key) const;
  // The object under `key`; nothing when absent or null. A malformed or refused object ends
  // the whole unarchiving.
  [[nodiscard]] std::optional<ArchiveValue> decodeObject(std::string_view key);
  // The string under `key`; nothing when absent. A value of another kind fails the unarchiving.
  [[nodiscard]] std::optional<std::string> decodeString(std::string_view key);
  // The object under `key` when it is of class T; null otherwise.
  template <class T>
  [[nodiscard]] std::shared_ptr<const T> decodeObjectOfClass(std::string_view key) {
    auto v = decodeObject(key);
    return v ? v->object<T>() : nullptr;
  }
  // Inline values; 0 or false when absent. A value of another kind fails the unarchiving.
  [[nodiscard]] std::int64_t decodeInt64(std::string_view key);
  [[nodiscard]] double decodeDouble(std::string_view key);  // inline, as decodeInt64()
  [[nodiscard]] bool decodeBool(std::string_view key);      // inline, as decodeInt64()
  // Ends the unarchiving with nothing (for values a class cannot accept).
  [[noreturn]] void fail(std::string_view reason) const;

 private:
  friend class KeyedUnarchiver;
  struct State;
  ArchiveDecoder(State& state, const void* entries, std::size_t depth)
      : state_(state), entries_(entries), depth_(depth) {}
  State& state_;
  const void* entries_;
  std::size_t depth_;
};

// Reads an object of a registered class back from its fields.
using ArchiveFactory = std::function<ArchivablePtr(ArchiveDecoder&)>;

// Registers `className` (and optional superclass names written in $classes) with its reader.
KP_EXPORT void registerArchivableClass(std::string className, ArchiveFactory factory,
                                       std::vector<std::string> superclasses = {});

// Registers T under a name with T::decode(ArchiveDecoder&) as its reader.
template <class T>
struct ArchiveRegistration {
  // Registers T under `className`, with `superclasses` written in $classes.
  explicit ArchiveRegistration(std::string className, std::vector<std::string> superclasses = {}) {
    registerArchivableClass(
        std::move(className), [](ArchiveDecoder& c) -> ArchivablePtr { return T::decode(c); }, std::move(superclasses));
  }
};

// Writes values as keyed archives (binary property lists).
class KP_EXPORT KeyedArchiver {
 public:
  // The archive of `root`, or nothing (and `error`) when a value cannot be archived.
  [[nodiscard]] static std::optional<Data> archivedData(const ArchiveValue& root, ErrorPtr* error = nullptr);
};

// Reads keyed archives back, accepting only the classes it is told to.
class KP_EXPORT KeyedUnarchiver {
 public:
  // Archived class name -> registered class name, for names no class is registered under.
  using ClassMapping = std::map<std::string, std::string, std::less<>>;

  // Class names of the built-in values.
  static const std::set<std::string, std::less<>>& propertyListClasses();
  // Every class this process can read back: the built-in values and the registered classes.
  [[nodiscard]] static std::set<std::string, std::less<>> knownClasses();

  // The safe helper: unarchives accepting every known class (and nothing unknown), with
  // `mapping` resolving archived names that no class is registered under.
  [[nodiscard]] static std::optional<ArchiveValue> safeUnarchivedObject(const Data& data,
                                                                        const ClassMapping& mapping = {});
  // The same, of bytes held elsewhere.
  [[nodiscard]] static std::optional<ArchiveValue> safeUnarchivedObject(std::span<const std::uint8_t> bytes,
                                                                        const ClassMapping& mapping = {});

  // The root value, accepting only the classes in `allowed`; nothing when the archive is
  // malformed or holds another class.
  [[nodiscard]] static std::optional<ArchiveValue> unarchivedObject(const Data& data,
                                                                    const std::set<std::string, std::less<>>& allowed,
                                                                    const ClassMapping& mapping = {});
  // The root object when it is of class T.
  template <class T>
  [[nodiscard]] static std::shared_ptr<const T> unarchivedObject(const Data& data,
                                                                 const std::set<std::string, std::less<>>& allowed,
                                                                 const ClassMapping& mapping = {}) {
    auto v = unarchivedObject(data, allowed, mapping);
    return v ? v->object<T>() : nullptr;
  }

 private:
  // `allowed` null accepts every known class.
  [[nodiscard]] static std::optional<ArchiveValue> unarchive(std::span<const std::uint8_t> bytes,
                                                             const std::set<std::string, std::less<>>* allowed,
                                                             const ClassMapping& mapping);
};

}  // namespace kp
