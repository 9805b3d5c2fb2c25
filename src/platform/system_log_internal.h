// A journal connection whose fallback is a descriptor of the caller's choosing, for tests and
// benchmarks that read or discard what the journal does not take (hosts always fall back to
// standard error: see SystemLog::make()).
//
// Thread safety: as SystemLog.
#pragma once

#include <memory>
#include <string>

#include "kp/platform/system_log.h"

namespace kp::internal {

// The journal on `socketPath` (empty: the system journal's); entries it does not take are
// written to `fallbackDescriptor`, which must stay open for the connection's life.
[[nodiscard]] std::shared_ptr<SystemLog> makeSystemLog(std::string socketPath, int fallbackDescriptor);

}  // namespace kp::internal
