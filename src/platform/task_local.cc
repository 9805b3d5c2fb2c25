// The per-thread binding chain behind TaskLocal.
#include "kp/platform/task_local.h"

#include "platform/tls.h"

namespace kp {
namespace {
KP_FAST_TLS thread_local TaskLocalSnapshot tCurrentBindings;
}  // namespace

const TaskLocalSnapshot& currentTaskLocalBindings() noexcept { return tCurrentBindings; }

ScopedTaskLocalBindings::ScopedTaskLocalBindings(TaskLocalSnapshot snapshot) noexcept
    : previous_(std::exchange(tCurrentBindings, std::move(snapshot))) {}

ScopedTaskLocalBindings::~ScopedTaskLocalBindings() { tCurrentBindings = std::move(previous_); }

}  // namespace kp
