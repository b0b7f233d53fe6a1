// What the in-place install needs before anything is downloaded: a bundle
// this user may replace (not one the system's package manager owns, and one
// whose folder and parent folder this user can write), and room on the
// parent's filesystem for the unpacked copy the install script makes there.
//
// Threads: plain functions; any thread.
#pragma once

#include <cstdint>
#include <filesystem>

namespace qor {

// share/qor-velmora/PACKAGE_MANAGED: written into the bundle by the .deb.
inline constexpr const char* packageManagedMark = "PACKAGE_MANAGED";

struct InstallPreflight {
  enum class Outcome { ready, notReplaceable, lowSpace };
  Outcome outcome = Outcome::ready;
  std::uintmax_t neededBytes = 0;     // with lowSpace: the copy plus a margin
  std::uintmax_t availableBytes = 0;  // with lowSpace: free to this user on that filesystem
};

// Whether the in-place install script may replace `bundle`.
bool canReplaceBundle(const std::filesystem::path& bundle);

// The unpacked copy is taken to be as large as the installed bundle or the
// compressed image, whichever is larger.
InstallPreflight checkInstallPreflight(const std::filesystem::path& bundle,
                                       std::uintmax_t imageSize);

}  // namespace qor
