// Type-tagged collections: a list of values of different types in one encoded blob, each
// element written as {"type": tag, "data": element}. Reading picks a decoder by tag from a
// table; elements whose tag has no decoder are skipped instead of failing the list, so a
// newer writer's element kinds do not break an older reader.
//
//   kp::AnyCodable: one element of any codable type, with its dynamic type.
//   kp::TypedEncoder<T> / kp::TypedDecoder<T>: the tag of T (by default its unqualified
//     type name, "Card" for app::Card) and the decoder of tagged elements.
//   kp::CodableTypedCollection::encode / decode: the list with any of the library's coders
//     (kp::PropertyListEncoder, kp::JsonEncoder and their decoders).
//
// Malformed data (not a list, a wrapper without "type", a decoder that fails) fails the whole
// call with the coder's kp::CodingError.
//
// Thread safety: encoders and decoders of tags are immutable. decode() puts its table into
// the decoder's user info for the duration of the call: do not share that decoder with
// another thread meanwhile.
//
// Example:
//   std::vector<kp::AnyCodable> feed{kp::AnyCodable(WeatherCard{...}), kp::AnyCodable(AdCard{...})};
//   kp::Data blob = kp::CodableTypedCollection::encode(feed, std::nullopt, kp::PropertyListEncoder());
//   kp::PropertyListDecoder decoder;
//   std::vector<WeatherCard> cards = kp::CodableTypedCollection::decode<WeatherCard>(
//       blob, {kp::TypedDecoder<WeatherCard>::make()}, decoder);   // the ad card is skipped
#pragma once

#include <any>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "kp/coding/coding.h"
#include "kp/platform/data.h"
#include "kp/platform/export.h"
#include "tarvix/service.h"

namespace kp {

// A value of any codable type together with its type.
class KP_EXPORT AnyCodable {
 public:
  // Holds a copy of `value`.
  template <class T, class = std::enable_if_t<!std::is_same_v<std::decay_t<T>, AnyCodable>>>
  explicit AnyCodable(T&& value)
      : value_(std::make_shared<const std::decay_t<T>>(std::forward<T>(value))),
        type_(&typeid(std::decay_t<T>)),
        encode_([](Encoder& e, const void* v) { e.encode(*static_cast<const std::decay_t<T>*>(v)); }) {}

  [[nodiscard]] const std::type_info& type() const noexcept { return *type_; }  // the value's type
  // The value when it is exactly a T.
  template <class T>
  [[nodiscard]] const T* get() const noexcept {
    return *type_ == typeid(T) ? static_cast<const T*>(value_.get()) : nullptr;
  }
  void encode(Encoder& encoder) const { encode_(encoder, value_.get()); }  // writes the value as its type does

 private:
  std::shared_ptr<const void> value_;
  const std::type_info* type_;
  void (*encode_)(Encoder&, const void*);
};

// The tag written for a type: its unqualified name unless given another.
class KP_EXPORT TypedEncoderProtocol {
 public:
  virtual ~TypedEncoderProtocol() = default;
  [[nodiscard]] virtual const std::string& typeName() const noexcept = 0;  // the tag
  // Whether elements of `type` get this tag.
  [[nodiscard]] virtual bool isType(const std::type_info& type) const noexcept = 0;
};

// Tags elements of type T.
template <class T>
class TypedEncoder final : public TypedEncoderProtocol {
 public:
  TypedEncoder() : name_(tarvix::unqualifiedTypeName(typeid(T))) {}    // T's unqualified name as the tag
  explicit TypedEncoder(std::string name) : name_(std::move(name)) {}  // `name` as the tag
  // A shared encoder with T's unqualified name as the tag.
  [[nodiscard]] static std::shared_ptr<const TypedEncoderProtocol> make() { return std::make_shared<TypedEncoder>(); }
  // A shared encoder with `name` as the tag.
  [[nodiscard]] static std::shared_ptr<const TypedEncoderProtocol> make(std::string name) {
    return std::make_shared<TypedEncoder>(std::move(name));
  }

  [[nodiscard]] const std::string& typeName() const noexcept override { return name_; }  // the tag
  // Exactly T; neither bases nor derived types.
  [[nodiscard]] bool isType(const std::type_info& type) const noexcept override { return type == typeid(T); }

 private:
  std::string name_;
};

// Reads the elements of some tags.
class KP_EXPORT TypedDecoderProtocol {
 public:
  virtual ~TypedDecoderProtocol() = default;
  [[nodiscard]] virtual const std::vector<std::string>& typeNames() const noexcept = 0;  // the tags it reads
  // Reads one value from a single-value container. Throws CodingError.
  [[nodiscard]] virtual AnyCodable decode(const Decoder& container) const = 0;
};

// Reads the elements of some tags as T.
template <class T>
class TypedDecoder final : public TypedDecoderProtocol {
 public:
  TypedDecoder() : names_{tarvix::unqualifiedTypeName(typeid(T))} {}                   // T's unqualified name
  explicit TypedDecoder(std::string name) : names_{std::move(name)} {}                 // the tag `name`
  explicit TypedDecoder(std::vector<std::string> names) : names_(std::move(names)) {}  // the tags `names`
  // A shared decoder made as the constructors make it.
  template <class... Args>
  [[nodiscard]] static std::shared_ptr<const TypedDecoderProtocol> make(Args&&... args) {
    return std::make_shared<TypedDecoder>(std::forward<Args>(args)...);
  }

  [[nodiscard]] const std::vector<std::string>& typeNames() const noexcept override { return names_; }  // the tags
  [[nodiscard]] AnyCodable decode(const Decoder& container) const override { return AnyCodable(container.decode<T>()); }

 private:
  std::vector<std::string> names_;
};

// A list of values of several codable types, each written with the tag of its type (see the
// top of this file).
class KP_EXPORT CodableTypedCollection {
 public:
  using Encoders = std::vector<std::shared_ptr<const TypedEncoderProtocol>>;  // the tags for writing
  using Decoders = std::vector<std::shared_ptr<const TypedDecoderProtocol>>;  // the readers of tags
  // The readers by tag.
  using DecoderTable = std::map<std::string, std::shared_ptr<const TypedDecoderProtocol>, std::less<>>;
  // The user-info key under which decode() hands its table to the elements.
  static constexpr std::string_view kDecodersKey = "decoders";

  // Each element is tagged by the first of `types` that accepts its type, else by its type's
  // unqualified name. Throws CodingError.
  template <class TopLevelEncoder>
  [[nodiscard]] static Data encode(const std::vector<AnyCodable>& items, const std::optional<Encoders>& types,
                                   const TopLevelEncoder& encoder) {
    std::vector<Wrapper> wrappers;
    wrappers.reserve(items.size());
    for (const AnyCodable& item : items) wrappers.push_back(Wrapper{tagOf(item, types), item});
    return encoder.encode(wrappers);
  }

  // The elements whose tag has a decoder in `types` and that are a T, in order (T =
  // AnyCodable keeps them all). Throws CodingError.
  template <class T, class TopLevelDecoder>
  [[nodiscard]] static std::vector<T> decode(const Data& data, const Decoders& types, TopLevelDecoder& decoder) {
    auto table = std::make_shared<const DecoderTable>(tableOf(types));
    const std::string key(kDecodersKey);
    // Hands the table to the elements and takes it back whatever happens.
    struct Lend {
      UserInfo& info;
      const std::string& key;
      std::optional<std::any> previous;
      ~Lend() {
        if (previous) {
          info.insert_or_assign(key, std::move(*previous));
        } else {
          info.erase(key);
        }
      }
    };
    std::optional<std::any> previous;
    if (auto it = decoder.userInfo.find(key); it != decoder.userInfo.end()) previous = it->second;
    Lend lend{decoder.userInfo, key, std::move(previous)};
    decoder.userInfo.insert_or_assign(key, table);
    const std::vector<Wrapper> wrappers = decoder.template decode<std::vector<Wrapper>>(data);
    std::vector<T> out;
    for (const Wrapper& wrapper : wrappers) {
      if (!wrapper.item) continue;
      if constexpr (std::is_same_v<T, AnyCodable>) {
        out.push_back(*wrapper.item);
      } else if (const T* value = wrapper.item->template get<T>()) {
        out.push_back(*value);
      }
    }
    return out;
  }

 private:
  struct Wrapper {
    std::string type;
    std::optional<AnyCodable> item;  // absent after decoding when no decoder knew the tag

    void encode(Encoder& e) const {
      KeyedEncoder keyed = e.keyed();
      keyed.encode("type", type);
      Encoder data = keyed.encoderForNewKey("data");
      item->encode(data);
    }
    static Wrapper decode(const Decoder& d);
  };

  static std::string tagOf(const AnyCodable& item, const std::optional<Encoders>& types);
  static DecoderTable tableOf(const Decoders& types);
};

}  // namespace kp
