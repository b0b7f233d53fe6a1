// File helpers: whole-file reads and crash-safe writes.
#pragma once

#include <sys/types.h>

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
                             mode_t mode = 0644);

}  // namespace qor
