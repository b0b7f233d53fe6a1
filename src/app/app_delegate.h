// AppDelegate: the application shell's controller. It owns the main window
// with its boot label and web view, the sidecar supervisor and the updater;
// it decides where the web view's navigations go, carries out the gateway's
// action links and answers the page's script dialogs.
//
// Threads: everything here runs on the UI thread. The supervisor's callbacks
// reach it through the main-thread queue and hold it only weakly.
#pragma once

#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <memory>
#include <optional>
#include <string>

#include "app/glib_main_thread_queue.h"
#include "app/gobject_ptr.h"
#include "app/script_dialog_queue.h"
#include "sidecar/sidecar_manager.h"
#include "updater/updater.h"

namespace qor {

class AppDelegate : public std::enable_shared_from_this<AppDelegate> {
 public:
  // Creates the supervisor; nothing is started until the first activation.
  AppDelegate();
  ~AppDelegate();
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // Connects to the application's life cycle; the delegate must outlive the
  // application's run.
  void attach(GtkApplication* app);

 private:
  // Application life cycle.
  static void onStartup(GApplication* app, gpointer self);
  static void onActivate(GApplication* app, gpointer self);
  static void onShutdown(GApplication* app, gpointer self);
  static gboolean onUnixSignal(gpointer self);
  static gboolean onCloseRequest(GtkWindow* window, gpointer self);

  // Web view.
  static gboolean onDecidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                                 WebKitPolicyDecisionType type, gpointer self);
  static GtkWidget* onCreate(WebKitWebView* view, WebKitNavigationAction* action, gpointer self);
  static gboolean onScriptDialog(WebKitWebView* view, WebKitScriptDialog* dialog, gpointer self);
  static gboolean onLoadFailed(WebKitWebView* view, WebKitLoadEvent event, char* uri, GError* error,
                               gpointer self);

  // Menu actions.
  static void onAbout(GSimpleAction*, GVariant*, gpointer self);
  static void onHide(GSimpleAction*, GVariant*, gpointer self);
  static void onCheckForUpdates(GSimpleAction*, GVariant*, gpointer self);
  static void onQuit(GSimpleAction*, GVariant*, gpointer self);
  static void onEditingCommand(GSimpleAction* action, GVariant*, gpointer self);
  static void onMinimize(GSimpleAction*, GVariant*, gpointer self);
  static void onClose(GSimpleAction*, GVariant*, gpointer self);

  void applicationDidFinishLaunching();
  void applicationShouldHandleReopen();
  void applicationWillTerminate();
  void buildWindow();
  void buildWebView();
  void installActions();
  void connectSignals();
  void showStatus(const std::string& text);
  void loadGateway(const std::string& url);

  // Navigation policy.
  bool decidePolicyFor(const std::string& url);  // true: stay in the web view
  void createWebViewWith(const std::string& url);
  void handleQorAction(const std::string& url);
  void startWhatsApp(const std::string& phone, const std::string& text);
  static bool whatsAppClientInstalled();
  static void openWhatsApp(const std::string& url, const std::optional<std::string>& fallback);
  static void openWithDefaultHandler(const std::string& url);

  GtkApplication* app_ = nullptr;  // owned by main()
  GObjectPtr<GtkWindow> window_;
  GObjectPtr<WebKitWebView> webView_;
  const std::shared_ptr<GLibMainThreadQueue> mainThread_;
  const std::shared_ptr<SidecarManager> sidecar_;
  GObjectPtr<GtkLabel> bootLabel_;
  std::unique_ptr<ScriptDialogQueue> scriptDialogs_;
  // Made with the window it shows its dialogs over; goes before the window.
  std::shared_ptr<Updater> updater_;
};

}  // namespace qor
