// Where the running application's own files are: the bundle folder is laid
// out as an install prefix, with the executable in bin/ and resources in
// share/qor-velmora/.
#pragma once

#include <filesystem>

namespace qor {

// The bundle folder holding this executable (the parent of its bin/).
std::filesystem::path bundleRoot();

std::filesystem::path bundleResourceDirectory();

}  // namespace qor
