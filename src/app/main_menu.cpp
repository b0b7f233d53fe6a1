#include "app/main_menu.h"

#include <span>
#include <string_view>
#include <utility>

#include "app/product_name.h"
#include "updater/update_texts.h"

namespace qor {
namespace {

struct MenuItem {
  const char* title;  // nullptr: a separator
  const char* action = nullptr;
  const char* shortcut = nullptr;
};

constexpr MenuItem separator{nullptr};
constexpr const char* checkForUpdatesAction = "app.check-for-updates";

// "隐藏其他" and "全部显示" have no desktop-neutral meaning here; their
// actions stay disabled, so the items show insensitive.
constexpr MenuItem applicationMenu[] = {
    {"关于 QOR Velmora", "app.about"},
    separator,
    {"检查更新…", checkForUpdatesAction},
    {"打开日志文件夹", "app.show-logs"},
    separator,
    {"隐藏 QOR Velmora", "app.hide", "<Primary>h"},
    {"隐藏其他", "app.hide-others", "<Alt><Primary>h"},
    {"全部显示", "app.unhide-all"},
    separator,
    {"退出 QOR Velmora", "app.quit", "<Primary>q"},
};

constexpr MenuItem editMenu[] = {
    {"撤销", "win.undo", "<Primary>z"},
    {"重做", "win.redo", "<Shift><Primary>z"},
    separator,
    {"剪切", "win.cut", "<Primary>x"},
    {"复制", "win.copy", "<Primary>c"},
    {"粘贴", "win.paste", "<Primary>v"},
    {"全选", "win.select-all", "<Primary>a"},
};

constexpr MenuItem windowMenu[] = {
    {"最小化", "win.minimize", "<Primary>m"},
    {"关闭", "win.close", "<Primary>w"},
};

// A build without an update server says so where the user would look; the
// item's action is disabled then.
const char* titleOf(const MenuItem& item, bool updatesConfigured) {
  const bool check = item.action && std::string_view(item.action) == checkForUpdatesAction;
  return check && !updatesConfigured ? updateTexts::notConfiguredMenuItem : item.title;
}

// Separators become section boundaries, which is how GTK draws them.
GMenu* submenu(GtkApplication* app, std::span<const MenuItem> items, bool updatesConfigured) {
  GMenu* menu = g_menu_new();
  GMenu* section = g_menu_new();
  auto closeSection = [&] {
    g_menu_append_section(menu, nullptr, G_MENU_MODEL(section));
    g_object_unref(section);
  };
  for (const MenuItem& item : items) {
    if (!item.title) {
      closeSection();
      section = g_menu_new();
      continue;
    }
    g_menu_append(section, titleOf(item, updatesConfigured), item.action);
    if (item.shortcut) {
      const char* shortcuts[] = {item.shortcut, nullptr};
      gtk_application_set_accels_for_action(app, item.action, shortcuts);
    }
  }
  closeSection();
  return menu;
}

}  // namespace

GObjectPtr<GMenuModel> buildMainMenu(GtkApplication* app, bool updatesConfigured) {
  GMenu* bar = g_menu_new();
  // The application menu carries the product name, as desktop menu bars title it.
  const std::pair<const char*, std::span<const MenuItem>> menus[] = {
      {productName, applicationMenu}, {"编辑", editMenu}, {"窗口", windowMenu}};
  for (const auto& [title, items] : menus) {
    GMenu* menu = submenu(app, items, updatesConfigured);
    g_menu_append_submenu(bar, title, G_MENU_MODEL(menu));
    g_object_unref(menu);
  }
  return GObjectPtr<GMenuModel>::adopt(G_MENU_MODEL(bar));
}

}  // namespace qor
