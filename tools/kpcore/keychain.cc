// kpcore keychain: reads, writes and deletes keychain items as the library stores them.
// The library's own operations never report keychain failures; the tool uses their status
// forms, so that a user learns whether an item is missing, the keychain locked, not running
// or given text it cannot hold.
#include "kp/storage/keychain.h"

#include <iostream>

#include "command.h"
#include "kp/foundation/text.h"

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
  const std::string where = kpcore::printable(detail ? detail->service + " (group " + detail->accessGroup + ")"
                                                     : keychain->bundleIdentifier());

  const std::string quotedKey = "'" + kpcore::printable(*key) + "'";
  // Keys and values are handed to the keychain as they are; say so before it refuses them.
  if (!kp::isValidUtf8(*key)) throw CommandError("the key " + quotedKey + " is not UTF-8 text", 2);
  const auto failure = [&](std::string_view doing, kp::KeychainStatus status) {
    if (status == kp::KeychainStatus::itemNotFound)
      return CommandError("no item for key " + quotedKey + " in " + where);
    return CommandError("cannot " + std::string(doing) + " key " + quotedKey + " in " + where + ": " +
                        std::string(kp::describe(status)));
  };

  if (*action == "get") {
    args.expectEnd();
    kp::Data bytes;
    if (const auto status = keychain->readData(*key, detail, &bytes); status != kp::KeychainStatus::success) {
      throw failure("read", status);
    }
    // Text as the keychain's string() reads it: the stored form, else plain UTF-8.
    std::optional<std::string> text = kp::decodePropertyListData<std::string>(bytes);
    if (!text && !bytes.empty() && kp::isValidUtf8(bytes.view())) text = bytes.toString();
    if (text) {
      std::cout << (json ? "{\"key\":" + kpcore::jsonQuote(*key) + ",\"value\":" + kpcore::jsonQuote(*text) + "}"
                         : kpcore::printable(*text))
                << "\n";
      return 0;
    }
    const std::string hex = "<" + kp::hexString(bytes.bytes()) + ">";
    std::cout << (json ? "{\"key\":" + kpcore::jsonQuote(*key) + ",\"data\":" + kpcore::jsonQuote(hex) + "}" : hex)
              << "\n";
    return 0;
  }
  if (*action == "set") {
    const std::optional<std::string> text = args.positional();
    args.expectEnd();
    if (!text) throw CommandError("set needs a value", 2);
    if (!kp::isValidUtf8(*text)) throw CommandError("the value is not UTF-8 text", 2);
    kp::KeychainAccess access = kp::KeychainAccess::afterFirstUnlock;
    if (accessText) access = *kp::keychainAccess(kpcore::integerOption("access", *accessText, 0, 6));
    if (const auto status = keychain->storeString(*text, *key, access, detail); status != kp::KeychainStatus::success) {
      throw failure("store", status);
    }
    return 0;
  }
  if (*action == "delete") {
    args.expectEnd();
    if (const auto status = keychain->removeItem(*key, detail); status != kp::KeychainStatus::success) {
      throw failure("delete", status);
    }
    return 0;
  }
  throw CommandError("unknown action '" + *action + "' (get, set or delete)", 2);
}

const kpcore::Registration registration{
    "keychain", "Read, write and delete keychain items",
    "kpcore keychain get|set|delete KEY [VALUE] [--service S [--access-group G]] [--access 0-6] [--json]", runKeychain};

}  // namespace
