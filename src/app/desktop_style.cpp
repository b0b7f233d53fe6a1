#include "app/desktop_style.h"

#include <gtk/gtk.h>

#include <string_view>

namespace qor {
namespace {

constexpr const char* portalName = "org.freedesktop.portal.Desktop";
constexpr const char* portalPath = "/org/freedesktop/portal/desktop";
constexpr const char* portalSettings = "org.freedesktop.portal.Settings";
constexpr const char* appearance = "org.freedesktop.appearance";
constexpr const char* colorScheme = "color-scheme";
constexpr const char* gnomeInterface = "org.gnome.desktop.interface";
constexpr gint portalTimeoutMilliseconds = 1000;

bool toolkitPrefersDark() {
  gboolean dark = false;
  g_object_get(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", &dark, nullptr);
  return dark;
}

// The portal's value: 1 prefers dark, 2 prefers light, 0 has no preference.
// Older portals wrap it in one variant more.
std::optional<bool> portalPreference(GVariant* value) {
  GVariant* inner = g_variant_ref(value);
  while (g_variant_is_of_type(inner, G_VARIANT_TYPE_VARIANT)) {
    GVariant* unwrapped = g_variant_get_variant(inner);
    g_variant_unref(inner);
    inner = unwrapped;
  }
  std::optional<bool> preference;
  if (g_variant_is_of_type(inner, G_VARIANT_TYPE_UINT32)) {
    const guint32 scheme = g_variant_get_uint32(inner);
    if (scheme == 1 || scheme == 2) preference = scheme == 1;
  }
  g_variant_unref(inner);
  return preference;
}

std::optional<bool> gnomePreference(GSettings* settings) {
  const GCharPtr scheme = GCharPtr::adopt(g_settings_get_string(settings, colorScheme));
  const std::string_view value = scheme.get();
  if (value == "prefer-dark") return true;
  if (value == "prefer-light") return false;
  return std::nullopt;
}

}  // namespace

DesktopStyle::DesktopStyle() : toolkitPrefersDark_(toolkitPrefersDark()) {
  if (!watchPortal()) watchGnomeSetting();
}

DesktopStyle::~DesktopStyle() {
  if (portalSubscription_) g_dbus_connection_signal_unsubscribe(bus_.get(), portalSubscription_);
  if (gnomeSettings_) g_signal_handlers_disconnect_by_data(gnomeSettings_.get(), this);
}

// Asks only a portal that already runs: starting one could take seconds, and
// the first frame waits for the answer.
bool DesktopStyle::watchPortal() {
  bus_ = GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  if (!bus_) return false;
  GVariant* reply = g_dbus_connection_call_sync(
      bus_.get(), portalName, portalPath, portalSettings, "Read",
      g_variant_new("(ss)", appearance, colorScheme), G_VARIANT_TYPE("(v)"),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, portalTimeoutMilliseconds, nullptr, nullptr);
  if (!reply) return false;
  apply(portalPreference(reply));
  g_variant_unref(reply);
  portalSubscription_ = g_dbus_connection_signal_subscribe(
      bus_.get(), portalName, portalSettings, "SettingChanged", portalPath, appearance,
      G_DBUS_SIGNAL_FLAGS_NONE, onPortalSettingChanged, this, nullptr);
  return true;
}

// Only where the schema is installed: GSettings aborts on an unknown one.
void DesktopStyle::watchGnomeSetting() {
  GSettingsSchemaSource* source = g_settings_schema_source_get_default();
  GSettingsSchema* schema =
      source ? g_settings_schema_source_lookup(source, gnomeInterface, true) : nullptr;
  const bool known = schema && g_settings_schema_has_key(schema, colorScheme);
  if (schema) g_settings_schema_unref(schema);
  if (!known) return;
  gnomeSettings_ = GObjectPtr<GSettings>::adopt(g_settings_new(gnomeInterface));
  g_signal_connect(gnomeSettings_.get(), "changed::color-scheme", G_CALLBACK(onGnomeSettingChanged),
                   this);
  apply(gnomePreference(gnomeSettings_.get()));
}

void DesktopStyle::onPortalSettingChanged(GDBusConnection*, const char*, const char*, const char*,
                                          const char*, GVariant* parameters, gpointer self) {
  const char* group = nullptr;
  const char* key = nullptr;
  GVariant* value = nullptr;
  g_variant_get(parameters, "(&s&sv)", &group, &key, &value);
  if (std::string_view(group) == appearance && std::string_view(key) == colorScheme) {
    static_cast<DesktopStyle*>(self)->apply(portalPreference(value));
  }
  g_variant_unref(value);
}

void DesktopStyle::onGnomeSettingChanged(GSettings* settings, const char*, gpointer self) {
  static_cast<DesktopStyle*>(self)->apply(gnomePreference(settings));
}

// Setting it reloads the theme, even to the value it has, which takes longer
// than all else before the first frame: only a change is set.
void DesktopStyle::apply(std::optional<bool> preferDark) {
  const bool dark = preferDark.value_or(toolkitPrefersDark_);
  if (dark == toolkitPrefersDark()) return;
  g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", dark, nullptr);
}

}  // namespace qor
