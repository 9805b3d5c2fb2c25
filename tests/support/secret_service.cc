#include "support/secret_service.h"

#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "support/bus_config.h"

namespace kp::test {
namespace {

using namespace std::chrono_literals;

}  // namespace

PrivateSecretService::PrivateSecretService() {
  const auto root = home_.path();
  std::string config = kPrivateBusConfig;
  config.replace(config.find("@SOCKET@"), 8, (root / "bus").string());
  std::ofstream(root / "bus.conf") << config;
  bus_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"dbus-daemon", "--config-file=" + (root / "bus.conf").string(), "--nofork",
                               "--print-address"},
      ChildProcess::Options{.input = {}, .captureOutput = true, .quiet = true, .environment = {}});
  auto address = bus_->readLine(10s);
  if (!address || address->empty()) throw std::runtime_error("the private session bus did not start");
  address_ = *address;

  std::filesystem::create_directories(root / "run");
  ::chmod((root / "run").c_str(), 0700);
  keyring_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"},
      ChildProcess::Options{
          .input = "kp-test-password",
          .captureOutput = false,
          .quiet = true,
          .environment = {"HOME=" + root.string(), "XDG_RUNTIME_DIR=" + (root / "run").string(),
                          "XDG_DATA_HOME=" + (root / "data").string(), "XDG_CONFIG_HOME=" + (root / "config").string(),
                          "DBUS_SESSION_BUS_ADDRESS=" + address_}});
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)

  // Ready once the default keyring exists (it is made, unlocked, at start-up).
  const auto deadline = std::chrono::steady_clock::now() + 15s;
  while (std::chrono::steady_clock::now() < deadline) {
    const ProcessResult alias = busCall({"org.freedesktop.Secret.Service.ReadAlias", "string:default"});
    if (alias.status == 0 && alias.output.find("/collection/") != std::string::npos) return;
    std::this_thread::sleep_for(20ms);
  }
  throw std::runtime_error("the keyring daemon did not come up on the private bus");
}

PrivateSecretService::~PrivateSecretService() {
  keyring_.reset();
  bus_.reset();
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");  // NOLINT(concurrency-mt-unsafe)
}

ProcessResult PrivateSecretService::run(std::vector<std::string> argv, const std::string& input,
                                        bool mergeErrors) const {
  ChildProcess child(std::move(argv), ChildProcess::Options{.input = input,
                                                            .captureOutput = true,
                                                            .captureErrors = mergeErrors,
                                                            .environment = {"DBUS_SESSION_BUS_ADDRESS=" + address_}});
  ProcessResult result;
  result.output = child.readAll(20s);
  child.signal(SIGKILL);  // only if it hung
  result.status = child.wait();
  return result;
}

ProcessResult PrivateSecretService::busCall(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.secrets",
                                       "/org/freedesktop/secrets"});
  return run(std::move(arguments), {}, true);
}

ProcessResult PrivateSecretService::secretTool(std::vector<std::string> arguments, const std::string& input) const {
  arguments.insert(arguments.begin(), "secret-tool");
  // secret-tool lists attributes on standard error.
  return run(std::move(arguments), input, true);
}

bool PrivateSecretService::lockDefaultCollection() const {
  const ProcessResult alias = busCall({"org.freedesktop.Secret.Service.ReadAlias", "string:default"});
  const auto start = alias.output.find("\"/org/freedesktop/secrets/collection/");
  if (start == std::string::npos) return false;
  const std::string path = alias.output.substr(start + 1, alias.output.find('"', start + 1) - start - 1);
  return busCall({"org.freedesktop.Secret.Service.Lock", "array:objpath:" + path}).status == 0;
}

int PrivateSecretService::itemCount(const std::string& attribute, const std::string& value) const {
  const ProcessResult found =
      busCall({"org.freedesktop.Secret.Service.SearchItems", "dict:string:string:" + attribute + "," + value});
  if (found.status != 0) return -1;
  int n = 0;
  for (auto at = found.output.find("object path"); at != std::string::npos;
       at = found.output.find("object path", at + 1)) {
    ++n;
  }
  return n;
}

}  // namespace kp::test
