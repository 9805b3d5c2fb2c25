// The payload cipher and SHA-1 over OpenSSL EVP.
#include "kp/crypto/cipher.h"

#include <openssl/evp.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "crypto/cipher_key.h"
#include "kp/crypto/base64.h"
#include "kp/crypto/hash.h"
#include "kp/logging/tarvix_logger.h"
#include "platform/openssl_lifetime.h"

namespace kp {
namespace {

// Cipher statuses. Zero is success, every failure is negative, and a positive status would be
// a soft failure; the values are those the service clients on other platforms report.
constexpr int kStatusSuccess = 0;
constexpr int kStatusParamError = -4300;
constexpr int kStatusAlignmentError = -4303;
constexpr int kStatusDecodeError = -4304;

constexpr std::size_t kKeySize = 32;
constexpr std::size_t kBlockSize = 16;

[[noreturn]] void fatal(const char* what) {
  std::fprintf(stderr, "kp: fatal: %s\n", what);
  std::fflush(stderr);
  std::abort();
}

[[noreturn]] void fatal(const char* what, long long detail) {
  std::fprintf(stderr, "kp: fatal: %s %lld\n", what, detail);
  std::fflush(stderr);
  std::abort();
}

const EVP_CIPHER* aes256Cbc() {
  // Fetched once: an implicit fetch on every call costs more than encrypting a short query.
  static EVP_CIPHER* const cipher =
      (internal::keepOpenSslUntilExit(), EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr));
  if (cipher == nullptr) fatal("AES-256-CBC is not available from OpenSSL");
  return cipher;
}

const EVP_MD* sha1() {
  static EVP_MD* const md = (internal::keepOpenSslUntilExit(), EVP_MD_fetch(nullptr, "SHA1", nullptr));
  if (md == nullptr) fatal("SHA-1 is not available from OpenSSL");
  return md;
}

struct CipherContextDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const noexcept { EVP_CIPHER_CTX_free(ctx); }
};

// One context per thread, reset by every initialisation; saves an allocation per call.
EVP_CIPHER_CTX* threadCipherContext() {
  thread_local std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter> ctx(EVP_CIPHER_CTX_new());
  if (!ctx) fatal("cannot allocate a cipher context");
  return ctx.get();
}

// Runs the cipher over `in` into `out` (which has room for in.size() + 16 bytes); returns the
// status and sets `written`.
int runCipher(bool encrypt, const detail::CipherKey& key, std::span<const std::uint8_t> in, std::uint8_t* out,
              std::size_t& written) {
  static constexpr unsigned char kZeroIv[kBlockSize] = {};
  EVP_CIPHER_CTX* ctx = threadCipherContext();
  if (EVP_CipherInit_ex2(ctx, aes256Cbc(), key.data(), kZeroIv, encrypt ? 1 : 0, nullptr) != 1) {
    return kStatusParamError;
  }
  written = 0;
  // EVP counts in int: feed very large buffers in pieces.
  constexpr std::size_t kChunk = std::size_t{1} << 30;
  for (std::size_t offset = 0; offset < in.size(); offset += kChunk) {
    const std::size_t count = std::min(kChunk, in.size() - offset);
    int moved = 0;
    if (EVP_CipherUpdate(ctx, out + written, &moved, in.data() + offset, static_cast<int>(count)) != 1) {
      return kStatusParamError;
    }
    written += static_cast<std::size_t>(moved);
  }
  int moved = 0;
  if (EVP_CipherFinal_ex(ctx, out + written, &moved) != 1) {
    if (encrypt) return kStatusParamError;
    return (in.empty() || in.size() % kBlockSize != 0) ? kStatusAlignmentError : kStatusDecodeError;
  }
  written += static_cast<std::size_t>(moved);
  return kStatusSuccess;
}

std::optional<Data> crypt(bool encrypt, std::span<const std::uint8_t> bytes, std::string_view key) {
  auto keyBytes = detail::prepareKey(key);
  if (!keyBytes) return std::nullopt;
  auto result = detail::aes256Crypt(encrypt, bytes, *keyBytes);
  OPENSSL_cleanse(keyBytes->data(), keyBytes->size());
  return result;
}

}  // namespace

std::optional<detail::CipherKey> detail::prepareKey(std::string_view key) {
  // The key is a C string: it ends at the first NUL byte, is zero-padded to 32 bytes, and a
  // longer key is refused rather than truncated.
  const std::size_t nul = key.find('\0');
  const std::size_t keyLength = nul == std::string_view::npos ? key.size() : nul;
  if (keyLength > kKeySize) return std::nullopt;
  CipherKey keyBytes{};
  std::memcpy(keyBytes.data(), key.data(), keyLength);
  return keyBytes;
}

std::optional<Data> detail::aes256Crypt(bool encrypt, std::span<const std::uint8_t> bytes, const CipherKey& key) {
  if (bytes.size() > std::numeric_limits<std::size_t>::max() - kBlockSize) {
    fatal("arithmetic overflow sizing the cipher output", static_cast<long long>(bytes.size()));
  }
  Data out = Data::zeros(bytes.size() + kBlockSize);
  std::size_t written = 0;
  const int status = runCipher(encrypt, key, bytes, out.data(), written);
  if (status == kStatusSuccess) {
    out.resize(written);
    return out;
  }
  // Bytes to decrypt come from outside (a server, a file): a length that is not whole blocks
  // or padding that does not check out (a wrong or rotated key, a truncated body, plain
  // text) only means they are not ciphertext for this key. Any other failure, and every
  // failure to encrypt, can only be a fault in this program.
  const bool notCiphertext = !encrypt && (status == kStatusAlignmentError || status == kStatusDecodeError);
  if (status < 0 && !notCiphertext) fatal("AES-256 cipher failed with status", status);
  // The same words for both directions: the routine is shared. EVP reports no positive status
  // today; the report stays for ports whose cipher does.
  if (status > 0) TarvixLoggers::CL()->error("Failed to Encrypt with AES256 (" + std::to_string(status) + ")");
  return std::nullopt;
}

std::optional<Data> aes256Encrypt(std::span<const std::uint8_t> bytes, std::string_view key) {
  return crypt(true, bytes, key);
}

std::optional<Data> aes256Decrypt(std::span<const std::uint8_t> bytes, std::string_view key) {
  return crypt(false, bytes, key);
}

std::optional<std::string> aes256EncryptString(std::string_view text, std::string_view key) {
  auto cipher = aes256Encrypt({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, key);
  if (!cipher) return std::nullopt;
  return base64Encode(cipher->bytes());
}

std::string hashSha1(std::span<const std::uint8_t> bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, sha1(), nullptr) != 1) {
    fatal("SHA-1 digest failed");
  }
  return hexString({digest, length});
}

std::string hashSha1(std::string_view text) {
  return hashSha1(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace kp
