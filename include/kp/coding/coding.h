// The encodable/decodable mechanism: an Encoder writes a value into a kp::Value tree through
// keyed, unkeyed and single-value containers; a Decoder reads one back the same way. The
// property-list and JSON coders (property_list.h, json.h) turn that tree into bytes. This header
// brings all of it: what a run shares (coding_context.h), the encoders (encoder.h), the decoders
// (decoder.h) and the library's own codings (codings.h).
//
// A type becomes codable in one of three ways:
//   - a plain record describes its members once with BOOST_DESCRIBE_STRUCT; each member is
//     written under its own name, and an absent std::optional member writes no key;
//   - a type with other keys writes its own coding:
//       void encode(kp::Encoder& e) const;   static T decode(const kp::Decoder& d);
//   - anything else specialises kp::Coding<T> with the same two static functions.
// Scalars, strings, kp::Data, kp::Date, kp::Url, enums, std::optional, std::vector,
// string-keyed maps and kp::Value work out of the box.
//
// Failures throw kp::CodingError, whose message names the coding path ("items[3].name") and
// the reason. Containers borrow from the encoder or decoder that made them: use them within
// the encode or decode call.
//
// Thread safety: encoders and decoders are used by one thread at a time; the user info is
// read-only while coding runs.
//
// Example:
//   struct City { std::string name; std::optional<double> temperature; kp::Date updated; };
//   BOOST_DESCRIBE_STRUCT(City, (), (name, temperature, updated))
//
//   struct Reading {
//     double value;
//     void encode(kp::Encoder& e) const { e.keyed().encode("v_celsius", value); }
//     static Reading decode(const kp::Decoder& d) { return {d.keyed().decode<double>("v_celsius")}; }
//   };
#pragma once

#include "kp/coding/coding_context.h"
#include "kp/coding/codings.h"
#include "kp/coding/decoder.h"
#include "kp/coding/encoder.h"
