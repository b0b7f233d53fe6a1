#include "base/user_data.h"

#include <pwd.h>
#include <unistd.h>

#include "base/environment.h"

namespace qor {
namespace {

std::filesystem::path homeDirectory() {
  if (const auto home = Environment::variable("HOME"); home && !home->empty()) return *home;
  if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

}  // namespace

std::filesystem::path userDataDirectory() {
  const auto dataHome = Environment::variable("XDG_DATA_HOME");
  if (dataHome && std::filesystem::path(*dataHome).is_absolute()) return *dataHome;
  return homeDirectory() / ".local" / "share";
}

}  // namespace qor
