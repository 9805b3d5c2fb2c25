// What a fault makes of an answer, for the transport (weather_service.cc): a different answer
// that goes out as usual, or the bytes to write and how to end the connection after them.
//
// Thread safety: pure functions.
#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "faults.h"
#include "weather_protocol.h"

namespace kp::weather::faulty {

// Whether the fault changes what is answered (then spoiledAnswer); otherwise it changes how
// the answer is written (rawAnswer), or delays it.
[[nodiscard]] bool changesAnswer(FaultKind kind) noexcept;

// The answer a fault of changesAnswer() sends instead of `answer`, whose method seals its
// answers with `responseKey` (empty: plain).
[[nodiscard]] ServiceAnswer spoiledAnswer(const Fault& fault, ServiceAnswer answer, std::string_view responseKey);

// The writes of a fault that changes how the answer is written.
struct RawAnswer {
  enum class Ending {
    asUsual,  // the answer was whole: keep the connection alive if the head says so
    close,    // stop sending and close
    reset,    // close with a reset
  };
  std::string bytes;
  // Written in pieces of this size (0: all at once), with a pause after every pauseEvery bytes.
  std::size_t pieceSize = 0;
  std::size_t pauseEvery = 0;
  std::chrono::microseconds pause{0};
  // Filler after the bytes: this many bytes of body, in chunks when `chunked`.
  std::uint64_t filler = 0;
  bool chunked = false;
  Ending ending = Ending::close;
};

// REQUIRES: `response` is complete (payload prepared).
[[nodiscard]] RawAnswer rawAnswer(const Fault& fault, const FaultSpec& spec,
                                  boost::beast::http::response<boost::beast::http::string_body>& response);

// How long a delay fault waits.
[[nodiscard]] std::chrono::milliseconds delayOf(const Fault& fault, const FaultSpec& spec) noexcept;

}  // namespace kp::weather::faulty
