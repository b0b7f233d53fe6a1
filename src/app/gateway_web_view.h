// GatewayWebView: the web view showing the gateway's page. It decides where
// the page's navigations go (loopback pages stay, other links go to the
// desktop's handlers), carries out the gateway's action links and answers the
// page's script dialogs, and reloads the page when its process dies. Built
// into the web engine's module.
//
// Threads: the UI thread.
#pragma once

#include <webkit/webkit.h>

#include <memory>
#include <optional>
#include <string>

#include "app/crash_reload_budget.h"
#include "app/gobject_ptr.h"
#include "app/script_dialog_queue.h"
#include "app/web_content.h"

namespace qor {

class GatewayWebView : public WebContent {
 public:
  explicit GatewayWebView(Host host);
  ~GatewayWebView() override;
  GatewayWebView(const GatewayWebView&) = delete;
  GatewayWebView& operator=(const GatewayWebView&) = delete;

  GtkWidget* widget() override;
  void load(const std::string& url, const std::string& gatewayToken) override;
  void runEditingCommand(std::string_view action) override;

 private:
  static gboolean onDecidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                                 WebKitPolicyDecisionType type, gpointer self);
  static GtkWidget* onCreate(WebKitWebView* view, WebKitNavigationAction* action, gpointer self);
  static gboolean onScriptDialog(WebKitWebView* view, WebKitScriptDialog* dialog, gpointer self);
  static gboolean onContextMenu(WebKitWebView* view, WebKitContextMenu* menu,
                                WebKitHitTestResult* hit, gpointer self);
  static void onLoadChanged(WebKitWebView* view, WebKitLoadEvent event, gpointer self);
  static gboolean onLoadFailed(WebKitWebView* view, WebKitLoadEvent event, char* uri, GError* error,
                               gpointer self);
  static void onWebProcessTerminated(WebKitWebView* view, WebKitWebProcessTerminationReason reason,
                                     gpointer self);

  bool decidePolicyFor(const std::string& url);  // true: stay in the web view
  void createWebViewWith(const std::string& url);
  void handleQorAction(const std::string& url) const;
  void startWhatsApp(const std::string& phone, const std::string& text) const;
  static bool whatsAppClientInstalled();
  void openWhatsApp(const std::string& url, const std::optional<std::string>& fallback) const;

  const Host host_;
  GObjectPtr<WebKitWebView> starter_;  // starts the page process; gone once the page is in
  GObjectPtr<WebKitWebView> view_;
  ScriptDialogQueue scriptDialogs_;
  std::string pageURL_;       // the gateway's page, once loaded
  std::string gatewayToken_;  // the secret its cookie carries
  CrashReloadBudget crashReloads_;
};

}  // namespace qor
