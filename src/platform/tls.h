// KP_FAST_TLS marks the library's few hot thread-locals for the initial-exec TLS model: a
// fixed offset from the thread pointer instead of a __tls_get_addr call per access, which
// a shared library otherwise pays. The handful of bytes fits the static TLS space the C
// library reserves for libraries loaded later, too. Internal; not installed.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define KP_FAST_TLS __attribute__((tls_model("initial-exec")))
#else
#define KP_FAST_TLS
#endif
