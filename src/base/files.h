// File helpers: whole-file reads, crash-safe writes and private folders.
// Everything written here is readable by the user only, whatever the umask.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"

namespace qor {

// The whole file, or nothing when it is missing or unreadable.
std::optional<std::string> readTextFile(const std::filesystem::path& path);

// Writes through a temporary file in the same folder and renames it into
// place, so readers never see a half-written file. The file gets `mode`.
Result<> writeFileAtomically(const std::filesystem::path& path, std::string_view contents,
                             mode_t mode = 0600);

// Creates the folder with any missing parents and makes it the user's alone
// (0700), also when it existed already.
Result<> makePrivateFolder(const std::filesystem::path& path);

// The bytes in the regular files below `folder` (links not followed); what
// cannot be read counts as empty, so this is an estimate.
std::uintmax_t sizeOfFolder(const std::filesystem::path& folder);

// Mode 0600 for a file the application writes.
constexpr std::filesystem::perms privateFileMode =
    std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;

}  // namespace qor
