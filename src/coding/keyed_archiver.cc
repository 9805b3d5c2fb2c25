// The keyed archiver and unarchiver: object graphs as property-list archives, with the class
// registry that maps archived class names to decoders.
#include "kp/coding/keyed_archiver.h"

#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "coding/binary_property_list.h"
#include "kp/coding/coding.h"
#include "kp/coding/property_list.h"
#include "kp/coding/value.h"
#include "platform/no_destructor.h"

namespace kp {

namespace {

constexpr std::string_view kUnderlyingErrorKey = "NSUnderlyingError";

struct ArchiveFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
[[noreturn]] void failArchive(std::string_view reason) { throw ArchiveFailure(std::string(reason)); }

struct RegisteredClass {
  ArchiveFactory factory;
  std::vector<std::string> superclasses;
};

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<const RegisteredClass>, std::less<>> classes;
};
// Never destroyed: background work (the cache's saves) may still archive while the process
// runs its static destructors.
Registry& registry() {
  static internal::NoDestructor<Registry> r;
  return *r;
}
std::shared_ptr<const RegisteredClass> findClass(std::string_view name) {
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  auto it = r.classes.find(name);
  return it == r.classes.end() ? nullptr : it->second;
}

// The built-in kinds and the class names they are written under.
enum class Builtin { none, date, url, array, dictionary, error };
Builtin builtinKind(std::string_view name) {
  if (name == "NSDate") return Builtin::date;
  if (name == "NSURL") return Builtin::url;
  if (name == "NSArray" || name == "NSMutableArray") return Builtin::array;
  if (name == "NSDictionary" || name == "NSMutableDictionary") return Builtin::dictionary;
  if (name == "NSError") return Builtin::error;
  return Builtin::none;
}
std::string_view builtinBaseName(Builtin kind) {
  switch (kind) {
    case Builtin::date:
      return "NSDate";
    case Builtin::url:
      return "NSURL";
    case Builtin::array:
      return "NSArray";
    case Builtin::dictionary:
      return "NSDictionary";
    case Builtin::error:
      return "NSError";
    case Builtin::none:
      break;
  }
  return {};
}

}  // namespace

bool operator==(const ArchiveValue& a, const ArchiveValue& b) {
  if (a.storage_.index() != b.storage_.index()) return false;
  if (const ErrorPtr* e = a.get<ErrorPtr>()) {
    const ErrorPtr& f = *b.get<ErrorPtr>();
    return *e == f || (*e && f && **e == *f);
  }
  if (const ArchivablePtr* o = a.get<ArchivablePtr>()) {
    const ArchivablePtr& p = *b.get<ArchivablePtr>();
    return *o == p || (*o && p && (*o)->isEqual(*p));
  }
  return a.storage_ == b.storage_;
}

void registerArchivableClass(std::string className, ArchiveFactory factory, std::vector<std::string> superclasses) {
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  r.classes.insert_or_assign(std::move(className), std::make_shared<RegisteredClass>(
                                                       RegisteredClass{std::move(factory), std::move(superclasses)}));
}

// ---- Archiving ----

struct ArchiveEncoder::State {
  Value::Array objects{Value("$null")};
  std::unordered_map<std::string, std::uint64_t> strings;
  std::unordered_map<const void*, std::uint64_t> shared;
  std::unordered_map<std::string, std::uint64_t> classes;
  std::size_t depth = 0;

  Uid add(Value v) {
    objects.push_back(std::move(v));
    return Uid{objects.size() - 1};
  }

  Uid classRef(const std::string& name, const std::vector<std::string>& superclasses) {
    if (auto it = classes.find(name); it != classes.end()) return Uid{it->second};
    Value::Array chain{Value(name)};
    for (const auto& s : superclasses) chain.emplace_back(s);
    chain.emplace_back("NSObject");
    Value cls = Value::Dictionary{};
    cls.set("$classes", std::move(chain));
    cls.set("$classname", name);
    const Uid uid = add(std::move(cls));
    classes.emplace(name, uid.value);
    return uid;
  }

  // Reserves a slot for an instance of `className` and returns its index.
  std::size_t beginInstance(const std::string& className, const std::vector<std::string>& superclasses) {
    const std::size_t index = objects.size();
    objects.emplace_back();
    Value dict = Value::Dictionary{};
    dict.set("$class", classRef(className, superclasses));
    objects[index] = std::move(dict);
    return index;
  }

  Uid ref(const ArchiveValue& v) {
    if (++depth > kMaxPropertyListDepth) failArchive("nesting too deep to archive");
    struct Leave {
      std::size_t& d;
      ~Leave() { --d; }
    } leave{depth};
    return std::visit([this](const auto& held) { return refOf(held); }, v.storage());
  }

  Uid refOf(std::monostate) { return Uid{0}; }
  Uid refOf(bool b) { return add(b); }
  Uid refOf(std::int64_t i) { return add(i); }
  Uid refOf(double d) { return add(d); }
  Uid refOf(const Data& d) { return add(d); }
  Uid refOf(const std::string& s) {
    if (auto it = strings.find(s); it != strings.end()) return Uid{it->second};
    const Uid uid = add(s);
    strings.emplace(s, uid.value);
    return uid;
  }
  Uid refOf(Date d) {
    const std::size_t i = beginInstance("NSDate", {});
    objects[i].set("NS.time", d.timeIntervalSinceReferenceDate());
    return Uid{i};
  }
  Uid refOf(const Url& u) {
    const std::size_t i = beginInstance("NSURL", {});
    objects[i].set("NS.base", Uid{0});
    const Uid text = refOf(u.absoluteString());
    objects[i].set("NS.relative", text);
    return Uid{i};
  }
  Uid refOf(const ArchiveValue::Array& a) {
    const std::size_t i = beginInstance("NSArray", {});
    Value::Array refs;
    refs.reserve(a.size());
    for (const ArchiveValue& e : a) refs.emplace_back(ref(e));
    objects[i].set("NS.objects", std::move(refs));
    return Uid{i};
  }
  Uid refOf(const ArchiveValue::Dictionary& d) {
    const std::size_t i = beginInstance("NSDictionary", {});
    Value::Array keys, values;
    for (const auto& [k, v] : d) {
      keys.emplace_back(refOf(k));
      values.emplace_back(ref(v));
    }
    objects[i].set("NS.keys", std::move(keys));
    objects[i].set("NS.objects", std::move(values));
    return Uid{i};
  }
  Uid refOf(const ErrorPtr& e) {
    if (!e) return Uid{0};
    if (auto it = shared.find(e.get()); it != shared.end()) return Uid{it->second};
    const std::size_t i = beginInstance("NSError", {});
    shared.emplace(e.get(), i);
    objects[i].set("NSCode", e->code());
    const Uid domain = refOf(e->domain());
    objects[i].set("NSDomain", domain);
    ArchiveValue::Dictionary info;
    for (const auto& [k, v] : e->userInfo()) info.emplace(k, v);
    if (e->underlyingError()) info.insert_or_assign(std::string(kUnderlyingErrorKey), e->underlyingError());
    const Uid infoRef = refOf(info);
    objects[i].set("NSUserInfo", infoRef);
    return Uid{i};
  }
  Uid refOf(const ArchivablePtr& o) {
    if (!o) return Uid{0};
    if (auto it = shared.find(o.get()); it != shared.end()) return Uid{it->second};
    const std::string name = o->archiveClassName();
    const auto cls = findClass(name);
    if (!cls) failArchive("class " + name + " is not registered for archiving");
    const std::size_t i = beginInstance(name, cls->superclasses);
    shared.emplace(o.get(), i);
    // The object's entries are collected apart, so that the table may grow meanwhile.
    Value entries = Value::Dictionary{};
    ArchiveEncoder coder(*this, &entries);
    o->encode(coder);
    for (auto& [k, v] : *entries.ifDictionary()) objects[i].set(k, std::move(v));
    return Uid{i};
  }
};

namespace {
Value& entriesOf(void* p) { return *static_cast<Value*>(p); }
void checkKey(std::string_view key) {
  if (key.empty() || key.front() == '$') failArchive("archive keys may not be empty or start with '$'");
}
}  // namespace

void ArchiveEncoder::encodeObject(std::string_view key, const ArchiveValue& value) {
  checkKey(key);
  const Uid uid = state_.ref(value);
  entriesOf(entries_).set(key, uid);
}
void ArchiveEncoder::encodeInt64(std::string_view key, std::int64_t value) {
  checkKey(key);
  entriesOf(entries_).set(key, value);
}
void ArchiveEncoder::encodeDouble(std::string_view key, double value) {
  checkKey(key);
  entriesOf(entries_).set(key, value);
}
void ArchiveEncoder::encodeBool(std::string_view key, bool value) {
  checkKey(key);
  entriesOf(entries_).set(key, value);
}

std::optional<Data> KeyedArchiver::archivedData(const ArchiveValue& root, ErrorPtr* error) {
  try {
    ArchiveEncoder::State state;
    const Uid top = state.ref(root);
    Value archive = Value::Dictionary{};
    archive.set("$version", 100000);
    archive.set("$archiver", "NSKeyedArchiver");
    Value topDict = Value::Dictionary{};
    topDict.set("root", top);
    archive.set("$top", std::move(topDict));
    archive.set("$objects", std::move(state.objects));
    return writePropertyList(archive);
  } catch (const std::exception& e) {
    if (error)
      *error = Error::make(std::string(CodingError::kDomain), 4866, std::string("Cannot archive: ") + e.what());
    return std::nullopt;
  }
}

// ---- Unarchiving ----

struct ArchiveDecoder::State {
  // The archive as a binary property list: objects are read where they lie, by reference, and
  // only a registered class's entries are built into a tree (for its ArchiveDecoder).
  coding_detail::BinaryPropertyListReader* reader = nullptr;
  std::uint64_t objectList = 0;  // the reader's array of objects
  std::size_t count = 0;         // objects in it
  const std::set<std::string, std::less<>>* allowed = nullptr;
  const KeyedUnarchiver::ClassMapping* mapping = nullptr;
  // What is known of each object, by reference.
  struct Slot {
    std::optional<ArchiveValue> done;  // decoded, for its next reference
    std::size_t weight = 0;            // tree nodes it decoded to
    bool inProgress = false;
  };
  std::vector<Slot> slots;
  std::uint64_t budget = 0;

  // Reached only for built-in kinds and registered classes; no set means every one of them.
  bool isAllowed(std::string_view name, const std::vector<std::string>& superclasses) const {
    if (allowed == nullptr || allowed->contains(name)) return true;
    for (const auto& s : superclasses) {
      if (allowed->contains(s)) return true;
    }
    return false;
  }

  void spend(std::size_t n) {
    if (n > budget) failArchive("archive expands beyond its size");
    budget -= n;
  }

  // The entry `key` of the property-list dictionary `ref`, built; nothing when it has none.
  std::optional<Value> entry(std::uint64_t ref, std::string_view key) {
    const auto found = reader->find(ref, key);
    if (!found) return std::nullopt;
    return reader->build(*found);
  }

  ArchiveValue decode(const Value& refValue, std::size_t depth) {
    const Uid* uid = refValue.ifUid();
    if (!uid) failArchive("expected an object reference");
    return decode(uid->value, depth);
  }

  ArchiveValue decode(std::uint64_t uid, std::size_t depth) {
    if (uid == 0) return ArchiveValue();
    if (uid >= count) failArchive("object reference out of range");
    if (depth > kMaxPropertyListDepth) failArchive("nesting too deep");
    // A root that is no object of a class (bytes, text, a number) refers to nothing: no slots.
    if (depth == 0 && !reader->isDictionary(reader->element(objectList, uid))) {
      spend(1);
      return decodeFresh(reader->element(objectList, uid), depth);
    }
    if (slots.empty()) slots.resize(count);
    Slot& slot = slots[uid];
    if (slot.done) {
      spend(slot.weight);
      return *slot.done;
    }
    if (slot.inProgress) failArchive("object graph has a cycle");
    slot.inProgress = true;
    const std::uint64_t before = budget;
    spend(1);
    ArchiveValue out = decodeFresh(reader->element(objectList, uid), depth);
    // `slot` still refers to the same element: the slots never grow.
    slot.inProgress = false;
    slot.weight = static_cast<std::size_t>(before - budget);
    // The root is the last object decoded: nothing can refer to it again, so it is not kept
    // (a payload of bytes is then never copied). Every other object is kept for its next
    // reference.
    if (depth > 0) slot.done = out;
    return out;
  }

  // The object at the property-list reference `ref`.
  ArchiveValue decodeFresh(std::uint64_t ref, std::size_t depth) {
    if (!reader->isDictionary(ref)) {
      Value v = reader->build(ref);
      switch (v.type()) {
        case Value::Type::boolean:
          return *v.ifBoolean();
        case Value::Type::integer:
          return *v.ifInteger();
        case Value::Type::unsignedInteger:
          // An archived number beyond the signed range; archive values hold it as a real.
          return static_cast<double>(*v.ifUnsignedInteger());
        case Value::Type::real:
          return *v.ifReal();
        case Value::Type::string:
          return std::move(*v.ifString());
        case Value::Type::data:
          return std::move(*v.ifData());
        default:
          failArchive("unexpected object in archive");
      }
    }
    const auto classRef = entry(ref, "$class");
    if (!classRef || !classRef->ifUid() || classRef->ifUid()->value >= count) failArchive("object without a class");
    auto className = entry(reader->element(objectList, classRef->ifUid()->value), "$classname");
    if (!className || !className->ifString()) failArchive("class without a name");
    std::string name = std::move(*className->ifString());

    Builtin kind = builtinKind(name);
    auto cls = kind == Builtin::none ? findClass(name) : nullptr;
    if (kind == Builtin::none && !cls) {
      auto mapped = mapping->find(name);
      if (mapped == mapping->end()) failArchive("unknown class " + name);
      name = mapped->second;
      kind = builtinKind(name);
      cls = kind == Builtin::none ? findClass(name) : nullptr;
      if (kind == Builtin::none && !cls) failArchive("unknown class " + name);
    }
    if (kind != Builtin::none) {
      if (allowed != nullptr && !allowed->contains(name) && !allowed->contains(builtinBaseName(kind))) {
        failArchive("class " + name + " is not accepted");
      }
      return decodeBuiltin(kind, ref, depth);
    }
    if (!isAllowed(name, cls->superclasses)) failArchive("class " + name + " is not accepted");
    const Value entries = reader->build(ref);
    ArchiveDecoder coder(*this, &entries, depth);
    ArchivablePtr object = cls->factory(coder);
    if (!object) failArchive("class " + name + " refused its archive");
    return object;
  }

  // The list under `key` of the collection `ref`: its property-list reference and length.
  std::pair<std::uint64_t, std::uint64_t> refList(std::uint64_t ref, std::string_view key) {
    const auto list = reader->find(ref, key);
    const auto length = list ? reader->count(*list) : std::nullopt;
    if (!length) failArchive("collection without " + std::string(key));
    return {*list, *length};
  }

  // The object whose reference is element `index` of the list `list`.
  ArchiveValue decodeElement(std::uint64_t list, std::uint64_t index, std::size_t depth) {
    return decode(reader->build(reader->element(list, index)), depth);
  }

  ArchiveValue decodeBuiltin(Builtin kind, std::uint64_t ref, std::size_t depth) {
    switch (kind) {
      case Builtin::date: {
        const auto t = entry(ref, "NS.time");
        if (!t || (!t->ifReal() && !t->ifInteger())) failArchive("date without time");
        return Date::fromTimeIntervalSinceReferenceDate(t->ifReal() ? *t->ifReal()
                                                                    : static_cast<double>(*t->ifInteger()));
      }
      case Builtin::url: {
        const auto rel = entry(ref, "NS.relative");
        if (!rel) failArchive("URL without text");
        const ArchiveValue text = decode(*rel, depth + 1);
        const std::string* s = text.get<std::string>();
        if (!s) failArchive("URL text is not a string");
        std::optional<Url> url = Url::parse(*s);
        if (const auto base = entry(ref, "NS.base"); base && base->ifUid() && base->ifUid()->value != 0) {
          const ArchiveValue b = decode(*base, depth + 1);
          const Url* baseUrl = b.get<Url>();
          if (!baseUrl || !url) failArchive("URL base is not a URL");
          url = url->resolvedAgainst(*baseUrl);
        }
        if (!url) failArchive("URL text is not a URL");
        return *url;
      }
      case Builtin::array: {
        ArchiveValue::Array items;
        const auto [list, length] = refList(ref, "NS.objects");
        items.reserve(static_cast<std::size_t>(length));
        for (std::uint64_t i = 0; i < length; ++i) items.push_back(decodeElement(list, i, depth + 1));
        return items;
      }
      case Builtin::dictionary: {
        const auto [keys, keyCount] = refList(ref, "NS.keys");
        const auto [values, valueCount] = refList(ref, "NS.objects");
        if (keyCount != valueCount) failArchive("dictionary keys and objects differ in count");
        ArchiveValue::Dictionary entries;
        for (std::uint64_t i = 0; i < keyCount; ++i) {
          ArchiveValue key = decodeElement(keys, i, depth + 1);
          std::string* k = key.get<std::string>();
          if (!k) failArchive("dictionary key is not a string");
          entries.insert_or_assign(std::move(*k), decodeElement(values, i, depth + 1));
        }
        return entries;
      }
      case Builtin::error: {
        const auto code = entry(ref, "NSCode");
        const auto domain = entry(ref, "NSDomain");
        if (!code || !code->ifInteger() || !domain) failArchive("error without code or domain");
        const ArchiveValue d = decode(*domain, depth + 1);
        if (!d.get<std::string>()) failArchive("error domain is not a string");
        Error::UserInfo info;
        ErrorPtr underlying;
        if (const auto u = entry(ref, "NSUserInfo")) {
          const ArchiveValue ui = decode(*u, depth + 1);
          if (const auto* dict = ui.get<ArchiveValue::Dictionary>()) {
            for (const auto& [k, value] : *dict) {
              if (const auto* s = value.get<std::string>()) {
                info.emplace(k, *s);
              } else if (const auto* e = value.get<ErrorPtr>(); e && k == kUnderlyingErrorKey) {
                underlying = *e;
              }
            }
          } else if (!ui.isNull()) {
            failArchive("error user info is not a dictionary");
          }
        }
        return Error::make(*d.get<std::string>(), *code->ifInteger(), std::move(info), std::move(underlying));
      }
      case Builtin::none:
        break;
    }
    failArchive("unknown class");
  }
};

namespace {
const Value& objectEntries(const void* p) { return *static_cast<const Value*>(p); }
}  // namespace

bool ArchiveDecoder::containsValue(std::string_view key) const { return objectEntries(entries_).find(key) != nullptr; }

std::optional<ArchiveValue> ArchiveDecoder::decodeObject(std::string_view key) {
  const Value* v = objectEntries(entries_).find(key);
  if (!v) return std::nullopt;
  ArchiveValue out = state_.decode(*v, depth_ + 1);
  if (out.isNull()) return std::nullopt;
  return out;
}

std::optional<std::string> ArchiveDecoder::decodeString(std::string_view key) {
  auto v = decodeObject(key);
  if (!v) return std::nullopt;
  const std::string* s = v->get<std::string>();
  if (!s) fail("expected a string under " + std::string(key));
  return *s;
}

std::int64_t ArchiveDecoder::decodeInt64(std::string_view key) {
  const Value* v = objectEntries(entries_).find(key);
  if (!v) return 0;
  if (const std::int64_t* i = v->ifInteger()) return *i;
  if (const bool* b = v->ifBoolean()) return *b ? 1 : 0;
  fail("expected an integer under " + std::string(key));
}

double ArchiveDecoder::decodeDouble(std::string_view key) {
  const Value* v = objectEntries(entries_).find(key);
  if (!v) return 0;
  if (const double* d = v->ifReal()) return *d;
  if (const std::int64_t* i = v->ifInteger()) return static_cast<double>(*i);
  if (const std::uint64_t* u = v->ifUnsignedInteger()) return static_cast<double>(*u);
  fail("expected a number under " + std::string(key));
}

bool ArchiveDecoder::decodeBool(std::string_view key) {
  const Value* v = objectEntries(entries_).find(key);
  if (!v) return false;
  if (const bool* b = v->ifBoolean()) return *b;
  if (const std::int64_t* i = v->ifInteger()) return *i != 0;
  fail("expected a boolean under " + std::string(key));
}

void ArchiveDecoder::fail(std::string_view reason) const { failArchive(reason); }

const std::set<std::string, std::less<>>& KeyedUnarchiver::propertyListClasses() {
  static const std::set<std::string, std::less<>> classes{"NSString", "NSNumber", "NSData",
                                                          "NSDate",   "NSArray",  "NSDictionary"};
  return classes;
}

std::set<std::string, std::less<>> KeyedUnarchiver::knownClasses() {
  std::set<std::string, std::less<>> classes = propertyListClasses();
  for (const char* builtin : {"NSURL", "NSError", "NSMutableArray", "NSMutableDictionary"}) {
    classes.emplace(builtin);
  }
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  for (const auto& entry : r.classes) classes.insert(entry.first);
  return classes;
}

std::optional<ArchiveValue> KeyedUnarchiver::unarchivedObject(const Data& data,
                                                              const std::set<std::string, std::less<>>& allowed,
                                                              const ClassMapping& mapping) {
  return unarchive(data.bytes(), &allowed, mapping);
}

std::optional<ArchiveValue> KeyedUnarchiver::safeUnarchivedObject(const Data& data, const ClassMapping& mapping) {
  return unarchive(data.bytes(), nullptr, mapping);
}

std::optional<ArchiveValue> KeyedUnarchiver::safeUnarchivedObject(std::span<const std::uint8_t> bytes,
                                                                  const ClassMapping& mapping) {
  return unarchive(bytes, nullptr, mapping);
}

std::optional<ArchiveValue> KeyedUnarchiver::unarchive(std::span<const std::uint8_t> bytes,
                                                       const std::set<std::string, std::less<>>* allowed,
                                                       const ClassMapping& mapping) {
  try {
    // An XML archive is read as the binary one it stands for, so that one reader serves both.
    std::optional<Data> binary;
    if (!coding_detail::isBinaryPropertyList(bytes)) binary = writePropertyList(readPropertyList(bytes));
    coding_detail::BinaryPropertyListReader reader(binary ? binary->bytes() : bytes);
    // The archive's own entries, where they lie: archivers write these four alone and in this
    // order, so each once; in any other order each is looked up from the first entry on.
    const auto top = reader.dictionary(reader.top());
    if (!top) return std::nullopt;
    constexpr std::string_view kKeys[4] = {"$version", "$archiver", "$top", "$objects"};
    std::optional<std::uint64_t> found[4];
    bool inOrder = top->count == 4;
    for (std::size_t i = 0; inOrder && i < 4; ++i) inOrder = (found[i] = reader.valueAt(*top, i, kKeys[i])).has_value();
    for (std::size_t i = 1; !inOrder && i < 4; ++i) found[i] = reader.find(reader.top(), kKeys[i]);
    const auto& [version, archiver, topEntries, objects] = found;
    if (!archiver || !reader.textEquals(*archiver, "NSKeyedArchiver")) return std::nullopt;
    const auto count = objects ? reader.count(*objects) : std::nullopt;
    if (!count || !topEntries) return std::nullopt;
    const auto rootRef = reader.find(*topEntries, "root");
    const auto root = rootRef ? reader.uid(*rootRef) : std::nullopt;
    if (!root) failArchive("expected an object reference");
    ArchiveDecoder::State state;
    state.reader = &reader;
    state.objectList = *objects;
    state.count = static_cast<std::size_t>(*count);
    state.allowed = allowed;
    state.mapping = &mapping;
    state.budget = 4 * bytes.size() + 1024;
    ArchiveValue out = state.decode(*root, 0);
    if (out.isNull()) return std::nullopt;
    return out;
  } catch (const std::exception&) {
    // Malformed, refused or hostile archives all read as nothing.
    return std::nullopt;
  }
}

}  // namespace kp
