// WebContent: the gateway's page in the main window, that is the web view with
// its navigation policy, action links and script dialogs. The web engine is
// linked into a module of its own, loaded once the boot screen shows: loading
// the engine's library takes longer than opening the window.
//
// Threads: the UI thread.
#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/error.h"

namespace qor {

class WebContent {
 public:
  struct Host {
    GtkWindow* window = nullptr;  // the main window, parent of the page's dialogs; outlives this
    std::function<void(const std::string&)> showStatus;  // writes into the boot label
    // Hands a URL to the desktop's handler for it (the browser, the mail program).
    std::function<void(const std::string&)> openWithDefaultHandler;
  };

  virtual ~WebContent() = default;

  // The web view, hidden until `load`.
  virtual GtkWidget* widget() = 0;
  // Loads the page from the gateway itself, never from a cache, and shows it.
  // The gateway's secret goes along as the cookie "qor_token", set before the
  // page is asked for, so the address stays the plain gateway address.
  virtual void load(const std::string& url, const std::string& gatewayToken) = 0;
  // One of the window's editing actions: "undo", "redo", "cut", "copy",
  // "paste", "select-all".
  virtual void runEditingCommand(std::string_view action) = 0;
};

// The module's one entry point. The content it makes starts the engine's page
// process at once, before the page is loaded.
using CreateWebContent = WebContent* (*)(const WebContent::Host& host);
inline constexpr const char* createWebContentSymbol = "qorCreateWebContent";
inline constexpr const char* webContentModule = "lib/qor-velmora/libqor-velmora-web.so";

// Loads the module from the bundle; it stays loaded. While it loads, no other
// thread of the process can start one.
Result<CreateWebContent> loadWebContentModule();

}  // namespace qor
