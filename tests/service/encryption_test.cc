// The payload cipher against published vectors and the openssl command line; Base64, the
// query-value encoding and the service payload forms.
#include "kp/service/encryption.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "crypto/cipher_key.h"
#include "support/service_payload.h"

namespace kp {
namespace {

Data fromHex(std::string_view hex) {
  Data out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

Data randomBytes(std::mt19937& rng, std::size_t count) {
  Data out;
  for (std::size_t i = 0; i < count; ++i) out.push_back(static_cast<std::uint8_t>(rng()));
  return out;
}

const std::string kKey = "Qw7rT2mZx9LpB4nVc8KdS1hYf6GjU3aE";

TEST(Cipher, MatchesFips197Aes256Example) {
  detail::CipherKey key{};
  for (std::uint8_t i = 0; i < 32; ++i) key[i] = i;
  const Data plain = fromHex("00112233445566778899aabbccddeeff");
  auto cipher = detail::aes256Crypt(true, plain.bytes(), key);
  ASSERT_TRUE(cipher);
  ASSERT_EQ(cipher->size(), 32u);  // the block plus a block of padding
  EXPECT_EQ(hexString(cipher->bytes().first(16)), "8ea2b7ca516745bfeafc49904b496089");
  EXPECT_EQ(detail::aes256Crypt(false, cipher->bytes(), key), plain);
}

TEST(Cipher, MatchesOpensslCommandLineOnRandomInput) {
  if (std::system("openssl version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no openssl command";
  const auto dir = std::filesystem::temp_directory_path() / ("kp-cipher-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  std::mt19937 rng(20240611);
  // A full-length key and a short one, which the command line sees zero-padded.
  for (const std::string& key : {kKey, std::string("short key")}) {
    std::string keyHex = hexString(bytesOf(key));
    keyHex.resize(64, '0');
    for (std::size_t size : {0u, 1u, 15u, 16u, 17u, 1000u, 4099u}) {
      const Data plain = randomBytes(rng, size);
      std::ofstream(dir / "in", std::ios::binary).write(reinterpret_cast<const char*>(plain.data()), plain.size());
      const std::string command = "openssl enc -aes-256-cbc -K " + keyHex + " -iv " + std::string(32, '0') + " -in " +
                                  (dir / "in").string() + " -out " + (dir / "out").string();
      ASSERT_EQ(std::system(command.c_str()), 0);
      std::ifstream in(dir / "out", std::ios::binary);
      const Data expected(std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {}));
      EXPECT_EQ(aes256Encrypt(plain.bytes(), key), expected) << "size " << size << " key " << key;
      EXPECT_EQ(aes256Decrypt(expected.bytes(), key), plain);
    }
  }
  std::filesystem::remove_all(dir);
}

TEST(Cipher, KeyIsACStringZeroPaddedTo32Bytes) {
  const Data plain = Data::fromString("forecast for tomorrow");
  const std::string key31(31, 'k');
  EXPECT_EQ(aes256Encrypt(plain.bytes(), key31), aes256Encrypt(plain.bytes(), key31 + std::string(1, '\0')));
  EXPECT_TRUE(aes256Encrypt(plain.bytes(), std::string(32, 'k')));
  EXPECT_FALSE(aes256Encrypt(plain.bytes(), std::string(33, 'k')));
  EXPECT_FALSE(aes256Decrypt(Data::zeros(16).bytes(), std::string(33, 'k')));
  // Everything after a NUL byte is ignored, even beyond 32 bytes.
  const std::string withNul = std::string("abc") + '\0' + std::string(40, 'x');
  EXPECT_EQ(aes256Encrypt(plain.bytes(), withNul), aes256Encrypt(plain.bytes(), "abc"));
  // Multi-byte UTF-8 counts in bytes: 16 two-byte letters fit, 17 do not.
  std::string umlauts;
  for (int i = 0; i < 17; ++i) umlauts += "\xc3\xbc";
  EXPECT_FALSE(aes256Encrypt(plain.bytes(), umlauts));
  EXPECT_TRUE(aes256Encrypt(plain.bytes(), umlauts.substr(0, 32)));
  EXPECT_EQ(aes256Encrypt({}, kKey)->size(), 16u);
}

// Bytes to decrypt come from servers and files; none of them may stop the program.
TEST(Cipher, DecryptingWhatIsNotCiphertextGivesNothing) {
  EXPECT_FALSE(aes256Decrypt({}, kKey));
  EXPECT_FALSE(aes256Decrypt(Data::zeros(15).bytes(), kKey));
  auto cipher = aes256Encrypt(Data::fromString("x").bytes(), kKey);
  EXPECT_FALSE(aes256Decrypt(cipher->bytes(), "another key"));  // the padding does not check out
  std::mt19937 rng(11);
  for (int i = 0; i < 300; ++i) (void)aes256Decrypt(randomBytes(rng, 16 * (rng() % 4)).bytes(), kKey);
}

TEST(Sha1, MatchesFips180Examples) {
  EXPECT_EQ(hashSha1(std::string_view()), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(hashSha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(hashSha1("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(hashSha1(Data::fromString(std::string(1000000, 'a')).bytes()), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Base64, MatchesRfc4648Examples) {
  const std::pair<const char*, const char*> cases[] = {{"", ""},
                                                       {"f", "Zg=="},
                                                       {"fo", "Zm8="},
                                                       {"foo", "Zm9v"},
                                                       {"foob", "Zm9vYg=="},
                                                       {"fooba", "Zm9vYmE="},
                                                       {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, encoded] : cases) {
    EXPECT_EQ(base64Encode(bytesOf(plain)), encoded);
    EXPECT_EQ(base64Decode(encoded), Data::fromString(plain)) << encoded;
  }
}

TEST(Base64, SixtyFourCharacterLinesJoinedByCrLf) {
  std::mt19937 rng(7);
  const Data oneLine = randomBytes(rng, 48);
  EXPECT_EQ(base64Encode(oneLine.bytes(), Base64EncodingOptions::lineLength64Characters),
            base64Encode(oneLine.bytes()));
  const Data data = randomBytes(rng, 1000);
  const std::string wrapped = base64Encode(data.bytes(), Base64EncodingOptions::lineLength64Characters);
  const std::string plain = base64Encode(data.bytes());
  std::string expected;
  for (std::size_t i = 0; i < plain.size(); i += 64) expected += (i ? "\r\n" : "") + plain.substr(i, 64);
  EXPECT_EQ(wrapped, expected);
  EXPECT_EQ(base64EncodedData(data.bytes(), Base64EncodingOptions::lineLength64Characters).toString(), wrapped);
  EXPECT_FALSE(base64Decode(wrapped));
  EXPECT_EQ(base64Decode(wrapped, Base64DecodingOptions::ignoreUnknownCharacters), data);
}

TEST(Base64, DecodingRules) {
  constexpr auto ignore = Base64DecodingOptions::ignoreUnknownCharacters;
  EXPECT_EQ(base64Decode(" Zm\n9v!Yg==*", ignore), Data::fromString("foob"));
  EXPECT_FALSE(base64Decode("Zm9v Yg=="));
  EXPECT_FALSE(base64Decode("Zm9vYg=", ignore));     // count not a multiple of four
  EXPECT_FALSE(base64Decode("Zg==Zg==", ignore));    // data after padding
  EXPECT_FALSE(base64Decode("{\"t\":12}", ignore));  // "t12": three characters
  // Padding must complete the last group exactly: one character encodes no whole byte.
  for (const char* text : {"Q===", "QUJD====", "QQ=A", "QUI==", "QQ===", "QUJDQ==="}) {
    EXPECT_FALSE(base64Decode(text)) << text;
    EXPECT_FALSE(base64Decode(text, ignore)) << text;
  }
  EXPECT_EQ(base64Decode("QQ=="), Data::fromString("A"));
  EXPECT_EQ(base64Decode("QUI="), Data::fromString("AB"));
  EXPECT_EQ(base64Decode("", ignore), Data());
  // The lenient reading of Base64 in JSON: white space only, short or missing padding.
  constexpr auto lenient = Base64DecodingOptions::ignoreWhitespace | Base64DecodingOptions::allowMissingPadding;
  EXPECT_EQ(base64Decode("Zm9v\r\n Yg", lenient), Data::fromString("foob"));
  EXPECT_EQ(base64Decode("Zm9vYg=", lenient), Data::fromString("foob"));
  EXPECT_FALSE(base64Decode("Zm9v!Yg==", lenient));  // not white space
  EXPECT_FALSE(base64Decode("Zm9vYg===", lenient));  // more padding than the group takes
  EXPECT_FALSE(base64Decode("Zm9vY", lenient));      // a lone character
}

TEST(QueryValueEncoding, EncodesExactlyTheReservedSet) {
  EXPECT_EQ(urlEncodeQueryParameter("{}!*'\"();:@&=+$,/?%#[]<> "),
            "%7B%7D%21%2A%27%22%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D%3C%3E%20");
  const std::string untouched = "azAZ09-._~|^`\\\n\t\x01\xc3\xa9";
  EXPECT_EQ(urlEncodeQueryParameter(untouched), untouched);
}

TEST(ServiceEncryption, UrlShapes) {
  auto encrypt = [](std::string_view text) {
    return TarvixServiceEncryptionHelper::encrypt(*Url::parse(text), kKey)->absoluteString();
  };
  const std::string ported = encrypt("https://h:8443/p?a=1");
  EXPECT_EQ(ported.rfind("https://host:8443/p?data=", 0), 0u) << ported;
  EXPECT_EQ(encrypt("https://h/p?"), "https://h/p");
  EXPECT_EQ(encrypt("https://user:pw@h/a%2Fb/c#frag"), "https://h/a%2Fb/c");
  EXPECT_EQ(encrypt("https://h/p?a=%FF"), "https://h/p");  // not UTF-8 once decoded: dropped
  EXPECT_EQ(encrypt("https://h"), "https://h");
  EXPECT_EQ(encrypt("mailto:someone@example.com"), "mailto:someone@example.com");
  EXPECT_EQ(
      TarvixServiceEncryptionHelper::encrypt(*Url::parse("https://h/p?a=1"), std::string(33, 'k'))->absoluteString(),
      "https://h/p");
}

TEST(ServiceEncryption, ParameterStringIsEncryptedAsGiven) {
  EXPECT_EQ(TarvixServiceEncryptionHelper::encryptParameterString("a=1", ""), "a=1");
  EXPECT_EQ(TarvixServiceEncryptionHelper::encryptParameterString("", kKey), "");
  EXPECT_EQ(TarvixServiceEncryptionHelper::encryptParameterString("a=1", std::string(33, 'k')), "a=1");
  const std::string sealed = TarvixServiceEncryptionHelper::encryptParameterString("a=%20x", kKey);
  ASSERT_EQ(sealed.rfind("data=", 0), 0u);
  EXPECT_EQ(kp::test::openEncodedValue(sealed.substr(5), kKey), "a=%20x");  // not percent-decoded first
}

TEST(ServiceEncryption, BodyDataAndResponses) {
  std::mt19937 rng(3);
  const Data body = randomBytes(rng, 200);
  auto sealed = TarvixServiceEncryptionHelper::encryptData(body.bytes(), kKey);
  ASSERT_TRUE(sealed);
  EXPECT_EQ(TarvixServiceEncryptionHelper::decryptRawData(sealed->bytes(), kKey), body);
  EXPECT_FALSE(TarvixServiceEncryptionHelper::encryptData(body.bytes(), std::string(33, 'k')));

  auto json = [](std::string_view text, std::string_view key) {
    const Data raw = Data::fromString(text);
    return TarvixServiceEncryptionHelper::decryptData(raw.bytes(), key);
  };
  const std::string envelope = TarvixServiceEncryptionHelper::encryptData(bytesOf(R"({"v":[1,2]})"), kKey)->toString();
  EXPECT_EQ(json(envelope, kKey), JsonValue::parse(R"({"v":[1,2]})"));
  EXPECT_EQ(json(R"({"temperature":12})", kKey), JsonValue::parse(R"({"temperature":12})"));
  // Decrypted text that is not JSON gives nothing; the plain body is not tried then.
  const std::string notJson = *aes256EncryptString("hello", kKey);
  EXPECT_FALSE(json(notJson, kKey));
  // A refused key falls back to the body as plain JSON.
  EXPECT_FALSE(json(envelope, std::string(33, 'k')));
  EXPECT_EQ(json("[1]", kKey), JsonValue::parse("[1]"));
}

// What a server or a proxy may answer instead of a payload for the key: the plain JSON is
// taken as it is, everything else gives nothing.
TEST(ServiceEncryption, ResponsesThatAreNotCiphertextFallBackOrGiveNothing) {
  using Helper = TarvixServiceEncryptionHelper;
  const Data plain = Data::fromString(R"({"temp":1234})");  // Base64 letters, 6 bytes: not whole blocks
  ASSERT_TRUE(base64Decode(plain.view(), Base64DecodingOptions::ignoreUnknownCharacters));
  EXPECT_FALSE(Helper::decryptRawData(plain.bytes(), kKey));
  EXPECT_EQ(Helper::decryptData(plain.bytes(), kKey), JsonValue::parse(plain.view()));

  // 55 bytes: four blocks, whose Base64 fills a first line of 64 characters with three.
  const std::string sealed =
      Helper::encryptData(bytesOf(R"({"temp":[1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18]})"), kKey)->toString();
  const std::string notPayloads[] = {
      "",                                            // an empty 200
      sealed.substr(0, 44),                          // cut at a whole Base64 group, not a whole block
      sealed.substr(0, 64),                          // cut after three of four blocks: no padding
      "<html><body>Bad Gateway</body></html>",       // a proxy's error page
      *aes256EncryptString("{\"a\":1}", "rotated"),  // a payload for another key
  };
  for (const std::string& body : notPayloads) {
    EXPECT_FALSE(Helper::decryptRawData(bytesOf(body), kKey)) << body;
    EXPECT_FALSE(Helper::decryptData(bytesOf(body), kKey)) << body;
  }
  EXPECT_TRUE(Helper::decryptData(bytesOf(sealed), kKey));
}

}  // namespace
}  // namespace kp
