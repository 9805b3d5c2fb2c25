// keepOpenSslUntilExit(): keeps OpenSSL's global state alive until the process has ended.
// Internal; not installed.
//
// By default OpenSSL frees its global state (locks included) from an atexit handler, while the
// library's transfer threads may still be closing TLS connections when the host returns from
// main; they would then use freed locks. Only the first initialisation in a process decides,
// so every path of the library that reaches OpenSSL calls this before its first OpenSSL call.
//
// Thread safety: may be called from any thread, any number of times.
#pragma once

#include <openssl/crypto.h>

namespace kp::internal {

inline void keepOpenSslUntilExit() noexcept {
  static const bool initialised = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
  (void)initialised;
}

}  // namespace kp::internal
