// kpcore crypt: the service payload cipher from the command line.
#include <iostream>

#include "command.h"
#include "kp/service/encryption.h"

namespace {

std::span<const std::uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string requireKey(kpcore::Args& args) {
  auto key = args.option("key");
  if (!key) throw kpcore::CommandError("--key KEY is required", 2);
  return *key;
}

int runCrypt(kpcore::Args& args) {
  using Helper = kp::TarvixServiceEncryptionHelper;
  const auto action = args.positional();
  if (!action) throw kpcore::CommandError("missing action (encrypt, encrypt-body, decrypt, url, params, sha1)", 2);
  if (*action == "sha1") {
    args.expectEnd();
    std::cout << kp::hashSha1(bytesOf(kpcore::readInput(std::nullopt))) << "\n";
    return 0;
  }
  const std::string key = requireKey(args);
  if (*action == "url" || *action == "params") {
    const auto text = args.positional();
    if (!text) throw kpcore::CommandError("missing " + std::string(*action == "url" ? "URL" : "STRING"), 2);
    args.expectEnd();
    if (*action == "params") {
      std::cout << Helper::encryptParameterString(*text, key) << "\n";
      return 0;
    }
    const auto url = kp::Url::parse(*text);
    if (!url) throw kpcore::CommandError("not a URL: " + *text);
    const auto encrypted = Helper::encrypt(*url, key);
    if (!encrypted) throw kpcore::CommandError("the encrypted URL does not parse");
    std::cout << encrypted->absoluteString() << "\n";
    return 0;
  }
  args.expectEnd();
  const std::string input = kpcore::readInput(std::nullopt);
  if (*action == "encrypt") {
    const auto text = kp::aes256EncryptString(input, key);
    if (!text) throw kpcore::CommandError("the key is longer than 32 bytes");
    std::cout << *text << "\n";
  } else if (*action == "encrypt-body") {
    const auto body = Helper::encryptData(bytesOf(input), key);
    if (!body) throw kpcore::CommandError("the key is longer than 32 bytes");
    std::cout << body->view() << "\n";
  } else if (*action == "decrypt") {
    const auto cipher = kp::base64Decode(input, kp::Base64DecodingOptions::ignoreUnknownCharacters);
    if (!cipher) throw kpcore::CommandError("nothing decrypted: the input is not Base64");
    // The key is a C string of at most 32 bytes; arguments hold no NUL byte.
    if (key.size() > 32) throw kpcore::CommandError("nothing decrypted: the key is longer than 32 bytes");
    const auto plain = kp::aes256Decrypt(cipher->bytes(), key);
    if (!plain)
      throw kpcore::CommandError("nothing decrypted: not ciphertext for this key (wrong key, or damaged data)");
    std::cout << plain->view();
  } else {
    throw kpcore::CommandError("unknown action: " + *action, 2);
  }
  return 0;
}

const kpcore::Registration registration{
    "crypt", "Encrypt or decrypt service payloads, hash with SHA-1",
    "kpcore crypt encrypt|encrypt-body|decrypt --key KEY  (payload on standard input)\n"
    "       kpcore crypt url --key KEY URL\n"
    "       kpcore crypt params --key KEY STRING\n"
    "       kpcore crypt sha1  (bytes on standard input)",
    runCrypt};

}  // namespace
