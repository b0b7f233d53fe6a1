// AppDelegate: the application shell's controller. It owns the main window
// with its menu, boot label and web content, the sidecar supervisor and the
// updater, and connects the supervisor's reports to the window.
//
// Threads: everything here runs on the UI thread. The supervisor's callbacks
// reach it through the main-thread queue and hold it only weakly.
#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <optional>
#include <string>

#include "app/desktop_style.h"
#include "app/glib_main_thread_queue.h"
#include "app/gobject_ptr.h"
#include "app/shell_application.h"
#include "app/status_text_queue.h"
#include "app/web_content.h"
#include "sidecar/sidecar_manager.h"
#include "updater/updater.h"

namespace qor {

class AppDelegate : public std::enable_shared_from_this<AppDelegate> {
 public:
  // Creates the supervisor; nothing is started until the application's
  // primary instance starts up.
  AppDelegate();
  ~AppDelegate();
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // Connects to the application's life cycle; the delegate must outlive the
  // application's run.
  void attach(QorShellApplication* app);

 private:
  // Application life cycle.
  static void onBeforeStartup(GApplication* app, gpointer self);
  static void onActivate(GApplication* app, gpointer self);
  static void onShutdown(GApplication* app, gpointer self);
  static gboolean onUnixSignal(gpointer self);
  static gboolean onCloseRequest(GtkWindow* window, gpointer self);
  static void onFramePainted(GdkFrameClock* clock, gpointer self);
  static gboolean onFirstFrameMissing(gpointer self);

  // Menu actions.
  static void onAbout(GSimpleAction*, GVariant*, gpointer self);
  static void onHide(GSimpleAction*, GVariant*, gpointer self);
  static void onCheckForUpdates(GSimpleAction*, GVariant*, gpointer self);
  static void onShowLogs(GSimpleAction*, GVariant*, gpointer self);
  static void onQuit(GSimpleAction*, GVariant*, gpointer self);
  static void onEditingCommand(GSimpleAction* action, GVariant*, gpointer self);
  static void onMinimize(GSimpleAction*, GVariant*, gpointer self);
  static void onClose(GSimpleAction*, GVariant*, gpointer self);

  void applicationWillFinishLaunching();
  void applicationDidFinishLaunching();
  void finishLaunching();
  void applicationShouldHandleReopen();
  void applicationWillTerminate();
  void buildBootLabel();
  void buildWindow();
  void showIcon();
  void saveWindowState();
  void buildWebView(const Result<CreateWebContent>& module);
  void installActions();
  void showStatus(const std::string& text);
  void setStatusText(const std::optional<std::string>& text);
  void loadGateway(const std::string& url);

  GtkApplication* app_ = nullptr;  // owned by main()
  std::unique_ptr<DesktopStyle> desktopStyle_;
  GObjectPtr<GtkWindow> window_;
  std::unique_ptr<WebContent> web_;  // none until made, or when the engine could not be loaded
  bool webViewMissing_ = false;      // the engine could not be loaded
  std::string pendingPageURL_;       // the gateway answered before the web view was made
  StatusTextQueue statusTexts_;      // on their way to the boot label
  const std::shared_ptr<GLibMainThreadQueue> mainThread_;
  const std::shared_ptr<SidecarManager> sidecar_;
  GObjectPtr<GtkLabel> bootLabel_;
  gulong frameHandler_ = 0;  // while status texts wait for frames
  guint firstFrameFallback_ = 0;
  // Made with the window it shows its dialogs over; goes before the window.
  std::shared_ptr<Updater> updater_;
};

}  // namespace qor
