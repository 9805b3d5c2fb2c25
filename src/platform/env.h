// platform::Env: the operating-system facts the library needs, behind one interface so that
// a port to another host means a new implementation of this class and nothing else.
// Code outside src/platform includes no OS header.
//
// Thread safety: every method may be called from any thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kp::platform {

struct SystemFacts {
  std::string systemName;     // "Linux"
  std::string systemVersion;  // kernel release, "6.1.0-18-amd64"
  std::string machine;        // "x86_64"
  std::string model;          // DMI product name, or `machine` when unknown
  std::string hostName;
};

class Env {
 public:
  virtual ~Env() = default;
  // The implementation for the host this library was built for.
  [[nodiscard]] static Env& current();

  [[nodiscard]] virtual bool isProcessInitialThread() const noexcept = 0;
  [[nodiscard]] virtual std::optional<std::string> variable(std::string_view name) const = 0;
  [[nodiscard]] virtual std::filesystem::path homeDirectory() const = 0;
  [[nodiscard]] virtual SystemFacts systemFacts() const = 0;
  // "en_US" style identifier from the environment's locale, "en_US" when unset or "C".
  [[nodiscard]] virtual std::string localeIdentifier() const = 0;
  // IANA zone name such as "Europe/Berlin", "UTC" when unknown.
  [[nodiscard]] virtual std::string timeZoneName() const = 0;
  // ISO 4217 code of the environment's monetary locale ("EUR"); nothing when the locale is
  // unset, "C", or not installed.
  [[nodiscard]] virtual std::optional<std::string> currencyCode() const = 0;
  // The user's languages, most preferred first, as language tags ("nl-NL", "en"); never empty.
  [[nodiscard]] virtual std::vector<std::string> preferredLanguages() const = 0;
  // Whether standard error goes to a terminal (where progress may be drawn).
  [[nodiscard]] virtual bool standardErrorIsTerminal() const noexcept = 0;
};

}  // namespace kp::platform
