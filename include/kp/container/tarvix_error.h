// kp::TarvixError: the library's error for failures that callers handle where they call (the
// service container's failures, among others). It carries a one-line message, the possible
// causes and the suggested fixes, and lays them out in one fixed description:
//
//   <message>
//   Possible causes:
//    - <cause>
//   Suggested fixes:
//    - <fix>
//
// A heading is left out together with an empty list; there is no line feed at the end.
// what() returns that description, so handlers that only know std::exception (such as the
// contracts module's non-throwing get()) report it in full.
//
// Thread safety: immutable; copies share the texts and never throw.
//
// Example:
//   throw kp::TarvixError("Unable to open the store.", {"The disk is full"}, {"Free some space"});
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT TarvixError : public std::exception {
 public:
  // An error with its message, what may have caused it and what may fix it.
  TarvixError(std::string message, std::vector<std::string> possibleCauses, std::vector<std::string> suggestedFixes);

  // What went wrong.
  [[nodiscard]] const std::string& message() const noexcept { return texts_->message; }
  // What may have caused it.
  [[nodiscard]] const std::vector<std::string>& possibleCauses() const noexcept { return texts_->possibleCauses; }
  // What may fix it.
  [[nodiscard]] const std::vector<std::string>& suggestedFixes() const noexcept { return texts_->suggestedFixes; }
  // The fixed layout above.
  [[nodiscard]] const std::string& description() const noexcept { return texts_->description; }
  // description().
  [[nodiscard]] const char* what() const noexcept override { return texts_->description.c_str(); }

  // The fixed layout of description() for these texts.
  [[nodiscard]] static std::string describe(const std::string& message, const std::vector<std::string>& possibleCauses,
                                            const std::vector<std::string>& suggestedFixes);

 private:
  struct Texts {
    std::string message;
    std::vector<std::string> possibleCauses;
    std::vector<std::string> suggestedFixes;
    std::string description;
  };
  std::shared_ptr<const Texts> texts_;
};

}  // namespace kp
