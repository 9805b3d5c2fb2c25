// The Boost.JSON node behind a kp::JsonValue, for library code that walks documents without
// making a JsonValue per step (the foundation layer's path readers). Internal; not installed.
//
// Thread safety: as JsonValue; the nodes are immutable while any value of their document lives.
#pragma once

#include <boost/json/value.hpp>
#include <memory>
#include <utility>

#include "kp/coding/json.h"

namespace kp {

struct JsonValue::Document {
  boost::json::value root;
};

namespace internal {

struct JsonAccess {
  // The node of `value`; null for a default-made (null) value, which owns no document.
  [[nodiscard]] static const boost::json::value* node(const JsonValue& value) noexcept {
    return static_cast<const boost::json::value*>(value.node_);
  }
  // A value for `node`, a node inside the document of `owner`, sharing that document.
  [[nodiscard]] static JsonValue share(const JsonValue& owner, const boost::json::value* node) noexcept {
    return JsonValue(owner.doc_, node);
  }
  // A value owning a document of its own.
  [[nodiscard]] static JsonValue adopt(boost::json::value root) {
    auto doc = std::make_shared<JsonValue::Document>(JsonValue::Document{std::move(root)});
    const void* top = &doc->root;
    return JsonValue(std::move(doc), top);
  }
};

}  // namespace internal
}  // namespace kp
