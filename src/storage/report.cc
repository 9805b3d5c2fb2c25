// The reports of keyed storage.
#include "kp/storage/keyed_storage_container.h"

namespace kp::storage_detail {

std::string wrongTypeMessage(const std::type_info& expected) {
  return "Object should be of type: " + tarvix::unqualifiedTypeName(expected);
}

std::string encodeFailureMessage(std::string_view valueDescription, std::string_view keyDescription) {
  return "Could not encode value: " + std::string(valueDescription) + " for key: " + std::string(keyDescription);
}

std::string decodeFailureMessage(std::string_view keyDescription, const std::type_info& type) {
  return "Found data for key: " + std::string(keyDescription) +
         " but could not decode it to :" + tarvix::unqualifiedTypeName(type);
}

}  // namespace kp::storage_detail
