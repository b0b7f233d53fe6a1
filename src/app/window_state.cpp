#include "app/window_state.h"

#include <glib.h>
#include <glib/gstdio.h>

#include <cerrno>

#include "app/gobject_ptr.h"
#include "base/files.h"
#include "base/user_data.h"

namespace qor {
namespace {

constexpr const char* group = "Window";

using KeyFile = GHandle<GKeyFile, g_key_file_free>;

// A whole number above zero under `key`, or nothing.
std::optional<int> positiveInteger(GKeyFile* keys, const char* key) {
  GError* error = nullptr;
  const int value = g_key_file_get_integer(keys, group, key, &error);
  const GErrorPtr failure = GErrorPtr::adopt(error);
  if (failure || value <= 0) return std::nullopt;
  return value;
}

}  // namespace

std::filesystem::path windowStateFile() {
  return userDataDirectory() / productFolderName / "window.ini";
}

std::optional<WindowState> readWindowState(const std::filesystem::path& file) {
  const auto text = readTextFile(file);
  if (!text) return std::nullopt;
  const KeyFile keys = KeyFile::adopt(g_key_file_new());
  if (!g_key_file_load_from_data(keys.get(), text->data(), text->size(), G_KEY_FILE_NONE,
                                 nullptr)) {
    return std::nullopt;
  }
  const auto width = positiveInteger(keys.get(), "width");
  const auto height = positiveInteger(keys.get(), "height");
  GError* error = nullptr;
  const bool maximized = g_key_file_get_boolean(keys.get(), group, "maximized", &error);
  if (!width || !height || GErrorPtr::adopt(error)) return std::nullopt;
  return WindowState{.width = *width, .height = *height, .maximized = maximized};
}

Result<> writeWindowState(const std::filesystem::path& file, const WindowState& state) {
  const auto folder = file.parent_path();
  if (g_mkdir_with_parents(folder.c_str(), 0700) != 0) {
    return systemError(errno, "cannot create " + folder.string());
  }
  const KeyFile keys = KeyFile::adopt(g_key_file_new());
  g_key_file_set_integer(keys.get(), group, "width", state.width);
  g_key_file_set_integer(keys.get(), group, "height", state.height);
  g_key_file_set_boolean(keys.get(), group, "maximized", state.maximized);
  gsize length = 0;
  const GCharPtr text = GCharPtr::adopt(g_key_file_to_data(keys.get(), &length, nullptr));
  return writeFileAtomically(file, std::string_view(text.get(), length));
}

WindowState fitWindowState(const std::optional<WindowState>& saved, int screenWidth,
                           int screenHeight) {
  if (!saved) return {};
  if (saved->width <= screenWidth && saved->height <= screenHeight) return *saved;
  return {.maximized = saved->maximized};
}

}  // namespace qor
