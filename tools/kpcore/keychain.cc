// kpcore keychain: reads, writes and deletes keychain items as the library stores them.
// The library itself never reports keychain failures; the tool reads back what it wrote so
// that a user learns when the keychain is locked or not running.
#include "kp/storage/keychain.h"

#include <iostream>

#include "command.h"

namespace {

using kpcore::CommandError;

int runKeychain(kpcore::Args& args) {
  const bool json = args.flag("json");
  const std::optional<std::string> service = args.option("service");
  const std::optional<std::string> group = args.option("access-group");
  const std::optional<std::string> accessText = args.option("access");
  const std::optional<std::string> action = args.positional();
  const std::optional<std::string> key = args.positional();
  if (!action || !key) throw CommandError("say get, set or delete, and a key", 2);
  if (group && !service) throw CommandError("--access-group needs --service", 2);

  kp::KeychainGroup detail;
  std::unique_ptr<kp::Keychain> keychain;
  if (group) {
    detail.emplace(*service, *group);
    keychain = std::make_unique<kp::Keychain>();
  } else {
    keychain = service ? std::make_unique<kp::Keychain>(*service) : std::make_unique<kp::Keychain>();
  }
  const std::string where =
      detail ? detail->service + " (group " + detail->accessGroup + ")" : keychain->bundleIdentifier();

  if (*action == "get") {
    args.expectEnd();
    if (std::optional<std::string> text = keychain->string(*key, detail)) {
      std::cout << (json ? "{\"key\":" + kpcore::jsonQuote(*key) + ",\"value\":" + kpcore::jsonQuote(*text) + "}"
                         : *text)
                << "\n";
      return 0;
    }
    std::optional<kp::Data> bytes = keychain->data(*key, detail);
    if (!bytes) throw CommandError("no item for key '" + *key + "' in " + where);
    const std::string hex = "<" + kp::hexString(bytes->bytes()) + ">";
    std::cout << (json ? "{\"key\":" + kpcore::jsonQuote(*key) + ",\"data\":" + kpcore::jsonQuote(hex) + "}" : hex)
              << "\n";
    return 0;
  }
  if (*action == "set") {
    const std::optional<std::string> text = args.positional();
    args.expectEnd();
    if (!text) throw CommandError("set needs a value", 2);
    kp::KeychainAccess access = kp::KeychainAccess::afterFirstUnlock;
    if (accessText) access = *kp::keychainAccess(kpcore::integerOption("access", *accessText, 0, 6));
    keychain->setString(*text, *key, access, detail);
    if (keychain->string(*key, detail) != *text) {
      throw CommandError("the keychain did not store the value (not running, locked or not answering)");
    }
    return 0;
  }
  if (*action == "delete") {
    args.expectEnd();
    if (!keychain->data(*key, detail)) throw CommandError("no item for key '" + *key + "' in " + where);
    keychain->remove(*key, detail);
    if (keychain->data(*key, detail)) throw CommandError("the keychain did not delete the item (locked?)");
    return 0;
  }
  throw CommandError("unknown action '" + *action + "' (get, set or delete)", 2);
}

const kpcore::Registration registration{
    "keychain", "Read, write and delete keychain items",
    "kpcore keychain get|set|delete KEY [VALUE] [--service S [--access-group G]] [--access 0-6] [--json]", runKeychain};

}  // namespace
