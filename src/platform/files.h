// Internal: the file-system operations whose guarantees need the operating system itself:
// folders that only the user may enter. The rest of the library uses std::filesystem directly.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

namespace kp::platform {

// Creates the folder `path`, private to the user (0700), when nothing exists there; its
// parent must exist. True when `path` is a directory afterwards, also when it was one before
// or another process made it meanwhile.
[[nodiscard]] bool createPrivateDirectory(const std::filesystem::path& path) noexcept;
// The same, creating missing parents too (each of them private); existing folders are left
// as they are.
[[nodiscard]] bool createPrivateDirectories(const std::filesystem::path& path) noexcept;

}  // namespace kp::platform
