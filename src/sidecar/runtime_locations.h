// Where the supervisor keeps the runtime, the gateway and the user's data.
#pragma once

#include <filesystem>

namespace qor {

// The desktop's per-user data folder: $XDG_DATA_HOME when it is set and
// absolute, else ~/.local/share.
std::filesystem::path userDataDirectory();

inline constexpr const char* productFolderName = "QOR Velmora";

}  // namespace qor
