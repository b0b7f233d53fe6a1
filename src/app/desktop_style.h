// DesktopStyle: makes the window, its dialogs and the page follow the
// desktop's light or dark preference: the settings portal's colour scheme
// where a portal runs, else GNOME's own setting (org.gnome.desktop.interface
// color-scheme). GTK 4 by itself reads only its legacy dark-theme setting.
// Without a preference GTK's own setting stays.
//
// Threads: the UI thread.
#pragma once

#include <gio/gio.h>

#include <optional>

#include "app/gobject_ptr.h"

namespace qor {

class DesktopStyle {
 public:
  // Applies the preference at once, before the first window draws, then
  // follows its changes while the object lives.
  DesktopStyle();
  ~DesktopStyle();
  DesktopStyle(const DesktopStyle&) = delete;
  DesktopStyle& operator=(const DesktopStyle&) = delete;

 private:
  static void onPortalSettingChanged(GDBusConnection*, const char*, const char*, const char*,
                                     const char*, GVariant* parameters, gpointer self);
  static void onGnomeSettingChanged(GSettings* settings, const char* key, gpointer self);

  bool watchPortal();
  void watchGnomeSetting();
  void apply(std::optional<bool> preferDark);

  const bool toolkitPrefersDark_;  // GTK's own setting, kept when the desktop has no preference
  GObjectPtr<GDBusConnection> bus_;
  guint portalSubscription_ = 0;
  GObjectPtr<GSettings> gnomeSettings_;
};

}  // namespace qor
