// kp::DecoderType: the decoders of the coding layer (JSON, property lists) behind one
// interface, so that code receiving bytes, such as a decodable request, can be handed the
// decoder its payload needs.
//
// Thread safety: a decoder may be shared between threads as long as nobody changes its
// settings meanwhile.
//
// Example:
//   std::shared_ptr<const kp::DecoderType> decoder = std::make_shared<kp::JsonDecoder>();
//   Forecast forecast = decoder->decode<Forecast>(body);   // throws kp::CodingError
#pragma once

#include <string>

#include "kp/coding/coding.h"
#include "kp/coding/value.h"
#include "kp/platform/data.h"
#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT DecoderType {
 public:
  virtual ~DecoderType() = default;

  // A T from `data`, with `extraUserInfo` added to the decoder's user info for this call.
  // Throws CodingError for bytes of another format or a tree that does not fit T.
  template <class T>
  [[nodiscard]] T decode(const Data& data, const UserInfo& extraUserInfo) const {
    UserInfo userInfo = decodingUserInfo();
    for (const auto& [key, value] : extraUserInfo) userInfo.insert_or_assign(key, value);
    return decodeFromValue<T>(readTree(data), userInfo, decodingDateStrategy());
  }

 protected:
  DecoderType() = default;
  // A copy with the same settings.
  DecoderType(const DecoderType&) = default;
  // Takes `other`'s settings.
  DecoderType& operator=(const DecoderType&) = default;

  // The tree of `data` in this decoder's format. Throws CodingError.
  [[nodiscard]] virtual Value readTree(const Data& data) const = 0;
  // The user info handed to every decoder of a run.
  [[nodiscard]] virtual const UserInfo& decodingUserInfo() const = 0;
  // How dates are read.
  [[nodiscard]] virtual DateStrategy decodingDateStrategy() const = 0;
};

}  // namespace kp
