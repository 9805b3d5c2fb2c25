// Test helper: a private session bus with an unlocked GNOME Keyring on it, in a temporary
// HOME, so that keychain tests talk to a real Secret Service and leave the user's alone.
// While it lives, DBUS_SESSION_BUS_ADDRESS of this process names the private bus. It uses no
// test framework, so that benchmarks can start one too.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace kp::test {

class PrivateSecretService {
 public:
  // Throws std::runtime_error when the bus or the keyring does not come up.
  PrivateSecretService();
  ~PrivateSecretService();
  PrivateSecretService(const PrivateSecretService&) = delete;
  PrivateSecretService& operator=(const PrivateSecretService&) = delete;

  [[nodiscard]] const std::string& busAddress() const noexcept { return address_; }
  // The keyring daemon, to stop (SIGSTOP) or end it.
  [[nodiscard]] ChildProcess& keyring() noexcept { return *keyring_; }
  // secret-tool with `arguments` on the private bus; standard output and error together.
  [[nodiscard]] ProcessResult secretTool(std::vector<std::string> arguments, const std::string& input = {}) const;
  // Locks the default keyring, as a screen lock would; true when it worked.
  bool lockDefaultCollection() const;
  // How many items, locked or not, carry `attribute` = `value` (asked without unlocking).
  [[nodiscard]] int itemCount(const std::string& attribute, const std::string& value) const;

 private:
  [[nodiscard]] ProcessResult run(std::vector<std::string> argv, const std::string& input = {},
                                  bool mergeErrors = false) const;
  // A method call to the Secret Service: the method, then its arguments in dbus-send's form.
  [[nodiscard]] ProcessResult busCall(std::vector<std::string> arguments) const;

  TempDir home_;
  std::string address_;
  std::unique_ptr<ChildProcess> bus_;
  std::unique_ptr<ChildProcess> keyring_;
};

}  // namespace kp::test
