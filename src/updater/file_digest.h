// SHA-256 of a file, read in pieces so that an image of any size is hashed
// without holding it in memory.
#pragma once

#include <filesystem>
#include <string>

#include "base/error.h"

namespace qor {

// Any thread; blocks while it reads. 64 lower-case hexadecimal characters.
Result<std::string> sha256OfFile(const std::filesystem::path& file);

}  // namespace qor
