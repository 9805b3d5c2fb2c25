// The description layout of the library's errors.
#include "kp/container/tarvix_error.h"

#include <utility>

namespace kp {
namespace {

void appendSection(std::string& out, const char* heading, const std::vector<std::string>& items) {
  if (items.empty()) return;
  out += '\n';
  out += heading;
  for (const auto& item : items) {
    out += "\n - ";
    out += item;
  }
}

}  // namespace

TarvixError::TarvixError(std::string message, std::vector<std::string> possibleCauses,
                         std::vector<std::string> suggestedFixes) {
  auto description = describe(message, possibleCauses, suggestedFixes);
  texts_ = std::make_shared<const Texts>(
      Texts{std::move(message), std::move(possibleCauses), std::move(suggestedFixes), std::move(description)});
}

std::string TarvixError::describe(const std::string& message, const std::vector<std::string>& possibleCauses,
                                  const std::vector<std::string>& suggestedFixes) {
  std::string out = message;
  appendSection(out, "Possible causes:", possibleCauses);
  appendSection(out, "Suggested fixes:", suggestedFixes);
  return out;
}

}  // namespace kp
