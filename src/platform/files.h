// Internal: the file-system operations whose guarantees need the operating system itself:
// folders that only the user may enter, and files that are replaced whole or not at all.
// The rest of the library uses std::filesystem directly.
//
// Thread safety: every function may be called from any thread. Two threads replacing the
// same file at once both succeed; the file then holds one of the two contents, whole.
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

// Replaces the file at `path` with `bytes` (0600 when new): the bytes go to a temporary file
// in the same folder, reach the disk, and the temporary file is then renamed over `path`.
// A failure, or the process ending at any moment, leaves the old file (or none) under
// `path`, never a part of the new one; on failure the temporary file is removed. A power
// loss may lose the rename, never the bytes behind a completed one.
[[nodiscard]] bool writeFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) noexcept;

// Temporary files of writeFileAtomically() start with this; only a process that died while
// writing leaves one behind.
inline constexpr std::string_view kTemporaryFilePrefix = ".kp-partial-";

}  // namespace kp::platform
