#include "app/web_content.h"

#include <gmodule.h>

#include "base/bundle.h"

namespace qor {
namespace {

Error loadError(const std::string& what) {
  return Error{"QOR.app", 1, "cannot load the web view: " + what};
}

}  // namespace

Result<CreateWebContent> loadWebContentModule() {
  const auto path = bundleRoot() / webContentModule;
  GModule* module = g_module_open(path.c_str(), G_MODULE_BIND_LOCAL);
  if (!module) return loadError(g_module_error());
  gpointer create = nullptr;
  if (!g_module_symbol(module, createWebContentSymbol, &create)) {
    const std::string reason = g_module_error();
    g_module_close(module);
    return loadError(reason);
  }
  // Its code runs until the process ends: signal handlers, destructors.
  g_module_make_resident(module);
  return reinterpret_cast<CreateWebContent>(create);
}

}  // namespace qor
