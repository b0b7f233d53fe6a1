// Where the application keeps per-user files: its folder in the desktop's
// per-user data folder.
#pragma once

#include <filesystem>

namespace qor {

// The desktop's per-user data folder: $XDG_DATA_HOME when it is set and
// absolute, else ~/.local/share.
std::filesystem::path userDataDirectory();

// The application's folder inside it.
inline constexpr const char* productFolderName = "QOR Velmora";

}  // namespace qor
