// tarvix::Service: the base of every instance that a service container makes and shares.
// tarvix::ServiceType: the identity of a service type (an interface) or an instance type,
// with the conversion that checks whether an instance implements it.
//
// Thread safety: both are immutable.
//
// Example:
//   class Clock : public virtual tarvix::Service { public: virtual int now() = 0; };
//   auto type = tarvix::ServiceType::of<Clock>();
//   type.name();   // "Clock"
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <typeindex>
#include <typeinfo>

namespace tarvix {

class Service {
 public:
  virtual ~Service() = default;
};

// A service's type: what registrations and lookups are keyed by.
class ServiceType {
 public:
  // Converts an instance to this type: a pointer to the instance's part of this type that
  // shares its ownership, or null when the instance does not implement the type.
  using Cast = std::shared_ptr<void> (*)(const std::shared_ptr<Service>&);

  // The type of service S.
  template <class S>
  [[nodiscard]] static ServiceType of() {
    static_assert(std::is_polymorphic_v<S>, "a service type is an interface (a polymorphic class)");
    return ServiceType(typeid(S), &castTo<S>);
  }

  // The wrapped type, for hashing and ordering.
  [[nodiscard]] std::type_index index() const noexcept { return index_; }
  // The type_info this identity was made from. Equal types may have distinct type_info
  // objects across shared libraries: compare with ==, or index(), for identity.
  [[nodiscard]] const std::type_info& typeInfo() const noexcept { return *typeInfo_; }
  // `instance` as this type, type-erased; null when it is not one.
  [[nodiscard]] std::shared_ptr<void> cast(const std::shared_ptr<Service>& instance) const { return cast_(instance); }
  // The unqualified name, also inside template arguments: "Cache<Item>" for
  // app::Cache<app::model::Item>.
  [[nodiscard]] std::string name() const;

  // The same type.
  friend bool operator==(const ServiceType& a, const ServiceType& b) noexcept { return a.index_ == b.index_; }

 private:
  ServiceType(const std::type_info& info, Cast castFunction) : typeInfo_(&info), index_(info), cast_(castFunction) {}
  template <class S>
  static std::shared_ptr<void> castTo(const std::shared_ptr<Service>& instance) {
    if constexpr (std::is_base_of_v<Service, S>) {
      return std::dynamic_pointer_cast<S>(instance);
    } else {
      // An interface that does not derive from Service: a cross-cast finds it if implemented.
      return std::shared_ptr<void>(instance, dynamic_cast<S*>(instance.get()));
    }
  }
  const std::type_info* typeInfo_;
  std::type_index index_;
  Cast cast_;
};

// Unqualified, demangled name of a type (see ServiceType::name()).
[[nodiscard]] std::string unqualifiedTypeName(const std::type_info& info);

}  // namespace tarvix

template <>
struct std::hash<tarvix::ServiceType> {
  std::size_t operator()(const tarvix::ServiceType& type) const noexcept {
    return std::hash<std::type_index>{}(type.index());
  }
};
