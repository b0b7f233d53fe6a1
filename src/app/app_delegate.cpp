#include "app/app_delegate.h"

#include <glib-unix.h>
#include <malloc.h>

#include <algorithm>
#include <csignal>
#include <utility>
#include <vector>

#include "app/desktop_handler.h"
#include "app/gtk_updater_dialogs.h"
#include "app/main_menu.h"
#include "app/product_name.h"
#include "app/window_state.h"
#include "base/bundle.h"
#include "base/files.h"

namespace qor {
namespace {

constexpr const char* bootText = "Starting QOR Velmora…";
constexpr int bootLabelPoints = 15;
constexpr guint firstFrameWaitMilliseconds = 2000;

// The largest monitor's size: a saved size that fits none is not restored.
std::pair<int, int> largestMonitorSize(GdkDisplay* display) {
  GListModel* monitors = gdk_display_get_monitors(display);
  int width = 0, height = 0;
  for (guint index = 0; index < g_list_model_get_n_items(monitors); ++index) {
    auto monitor =
        GObjectPtr<GdkMonitor>::adopt(GDK_MONITOR(g_list_model_get_item(monitors, index)));
    GdkRectangle area;
    gdk_monitor_get_geometry(monitor.get(), &area);
    width = std::max(width, area.width);
    height = std::max(height, area.height);
  }
  return {width, height};
}

}  // namespace

AppDelegate::AppDelegate()
    : mainThread_(std::make_shared<GLibMainThreadQueue>()),
      sidecar_(std::make_shared<SidecarManager>(mainThread_, SidecarManager::Settings{})) {}

AppDelegate::~AppDelegate() {
  if (window_) g_signal_handlers_disconnect_by_data(window_.get(), this);
  if (app_) g_signal_handlers_disconnect_by_data(app_, this);
}

void AppDelegate::attach(QorShellApplication* app) {
  app_ = GTK_APPLICATION(app);
  g_signal_connect(app, "before-startup", G_CALLBACK(onBeforeStartup), this);
  g_signal_connect(app, "activate", G_CALLBACK(onActivate), this);
  g_signal_connect(app, "shutdown", G_CALLBACK(onShutdown), this);
}

// Only the first instance starts up; a second launch just activates it.
void AppDelegate::onBeforeStartup(GApplication*, gpointer self) {
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) g_unix_signal_add(signal, onUnixSignal, self);
  static_cast<AppDelegate*>(self)->applicationWillFinishLaunching();
}

void AppDelegate::onActivate(GApplication*, gpointer self) {
  auto* delegate = static_cast<AppDelegate*>(self);
  if (delegate->window_) {
    delegate->applicationShouldHandleReopen();
  } else {
    delegate->applicationDidFinishLaunching();
  }
}

void AppDelegate::onShutdown(GApplication*, gpointer self) {
  static_cast<AppDelegate*>(self)->applicationWillTerminate();
}

// Quitting this way goes through shutdown like any other, which stops the
// gateway.
gboolean AppDelegate::onUnixSignal(gpointer self) {
  g_application_quit(G_APPLICATION(static_cast<AppDelegate*>(self)->app_));
  return G_SOURCE_CONTINUE;
}

// Closing the main window ends the application, whatever other windows
// (an inspector, an about box) are open.
gboolean AppDelegate::onCloseRequest(GtkWindow*, gpointer self) {
  auto* delegate = static_cast<AppDelegate*>(self);
  delegate->saveWindowState();
  g_application_quit(G_APPLICATION(delegate->app_));
  return false;
}

// The gateway is launched first, as soon as this process is known to be the
// only instance and before the toolkit opens the display: it takes longer to
// answer than the window to open. What the supervisor says meanwhile waits for
// the boot screen.
void AppDelegate::applicationWillFinishLaunching() {
  // The supervisor delivers both on this thread through the main-thread
  // queue; they hold the controller weakly.
  std::weak_ptr<AppDelegate> weakSelf = weak_from_this();
  sidecar_->onStatus = [weakSelf](const std::string& text) {
    if (auto self = weakSelf.lock()) self->showStatus(text);
  };
  sidecar_->onReady = [weakSelf](const std::string& url) {
    if (auto self = weakSelf.lock()) self->loadGateway(url);
  };
  sidecar_->start();
}

void AppDelegate::applicationDidFinishLaunching() {
  desktopStyle_ = std::make_unique<DesktopStyle>();
  buildWindow();
  // The updater's diagnostics join the supervisor's in the application's log.
  Updater::Settings updates;
  updates.diagnostics = [sidecar = sidecar_](const std::string& line) {
    sidecar->writeDiagnostic("[updater] " + line + "\n");
  };
  updater_ = std::make_shared<Updater>(
      mainThread_, std::make_shared<GtkUpdaterDialogs>(window_.get()), std::move(updates));
  GObjectPtr<GMenuModel> menu = buildMainMenu(app_, updater_->updatesConfigured());
  gtk_application_set_menubar(app_, menu.get());
  // The normal way out, so the gateway is stopped before the install script
  // replaces the bundle.
  updater_->terminateApplication = [app = app_] { g_application_quit(G_APPLICATION(app)); };
  installActions();
  gtk_window_present(window_.get());
  // Loading the web engine's module holds this thread for a while, so it
  // waits until the boot screen's first frame is on screen. A window that is
  // never drawn (started minimised) must not hold up the gateway for long.
  frameHandler_ = g_signal_connect(gtk_widget_get_frame_clock(GTK_WIDGET(window_.get())),
                                   "after-paint", G_CALLBACK(onFramePainted), this);
  firstFrameFallback_ = g_timeout_add(firstFrameWaitMilliseconds, onFirstFrameMissing, this);
}

// Each frame shows the next status text that waits; the first one also lets
// the start-up go on.
void AppDelegate::onFramePainted(GdkFrameClock* clock, gpointer self) {
  auto* delegate = static_cast<AppDelegate*>(self);
  if (delegate->firstFrameFallback_) {
    g_source_remove(std::exchange(delegate->firstFrameFallback_, 0));
    // The frame reaches the display server before this thread blocks.
    gdk_display_flush(gtk_widget_get_display(GTK_WIDGET(delegate->window_.get())));
    g_idle_add_once([](gpointer self) { static_cast<AppDelegate*>(self)->finishLaunching(); },
                    self);
  }
  delegate->setStatusText(delegate->statusTexts_.framePainted());
  if (!delegate->statusTexts_.draining()) {
    g_signal_handler_disconnect(clock, std::exchange(delegate->frameHandler_, 0));
  }
}

gboolean AppDelegate::onFirstFrameMissing(gpointer self) {
  auto* delegate = static_cast<AppDelegate*>(self);
  delegate->firstFrameFallback_ = 0;
  g_signal_handler_disconnect(gtk_widget_get_frame_clock(GTK_WIDGET(delegate->window_.get())),
                              std::exchange(delegate->frameHandler_, 0));
  delegate->setStatusText(delegate->statusTexts_.skipFrames());
  delegate->finishLaunching();
  return G_SOURCE_REMOVE;
}

// The rest of the start-up, once the boot screen shows. The engine starts
// while the gateway does.
void AppDelegate::finishLaunching() {
  buildWebView(loadWebContentModule());
  g_signal_connect(window_.get(), "close-request", G_CALLBACK(onCloseRequest), this);
  updater_->scheduleAutomaticCheck();
  showIcon();
}

// The icon comes with the bundle, wherever it lies; an installed theme's copy
// is found the usual way too. Looking it up and reading it in every size the
// window manager is given takes longer than drawing the boot screen, so the
// window gets it once that is on screen; dialogs made later take it from the
// default. The sizes read are freed at once, but below what the engine has
// taken since: their pages are given back rather than kept for the whole run.
void AppDelegate::showIcon() {
  gtk_icon_theme_add_search_path(gtk_icon_theme_get_for_display(gdk_display_get_default()),
                                 (bundleRoot() / "share" / "icons").c_str());
  gtk_window_set_default_icon_name(applicationId);
  gtk_window_set_icon_name(window_.get(), applicationId);
  malloc_trim(0);
}

// A second launch: bring the window back unless it is already on screen.
void AppDelegate::applicationShouldHandleReopen() {
  GtkWindow* window = window_.get();
  bool minimized = false;
  if (GdkSurface* surface = gtk_native_get_surface(GTK_NATIVE(window));
      surface && GDK_IS_TOPLEVEL(surface)) {
    minimized = gdk_toplevel_get_state(GDK_TOPLEVEL(surface)) & GDK_TOPLEVEL_STATE_MINIMIZED;
  }
  if (gtk_widget_get_visible(GTK_WIDGET(window)) && !minimized) return;
  // Presenting alone only raises and focuses; a minimised window must be
  // mapped again first.
  if (minimized) gtk_window_unminimize(window);
  gtk_window_present(window);
}

// The signal watches stay: a second SIGTERM while the gateway is being
// stopped is then held back instead of killing the shell halfway.
void AppDelegate::applicationWillTerminate() {
  // A window closed by its close button has already saved its state.
  if (window_ && gtk_widget_get_visible(GTK_WIDGET(window_.get()))) saveWindowState();
  sidecar_->stop();
}

// The size it would have unmaximised, as GTK keeps it, so that a maximised
// window comes back maximised over its old size.
void AppDelegate::saveWindowState() {
  WindowState state;
  gtk_window_get_default_size(window_.get(), &state.width, &state.height);
  state.maximized = gtk_window_is_maximized(window_.get());
  if (const auto saved = writeWindowState(windowStateFile(), state); !saved) {
    g_printerr("%s\n", saved.error().description.c_str());
  }
}

void AppDelegate::buildWindow() {
  buildBootLabel();
  window_ = GObjectPtr<GtkWindow>::retain(GTK_WINDOW(gtk_application_window_new(app_)));
  gtk_application_window_set_show_menubar(GTK_APPLICATION_WINDOW(window_.get()), true);
  const auto [screenWidth, screenHeight] = largestMonitorSize(gdk_display_get_default());
  const WindowState state =
      fitWindowState(readWindowState(windowStateFile()), screenWidth, screenHeight);
  gtk_window_set_default_size(window_.get(), state.width, state.height);
  if (state.maximized) gtk_window_maximize(window_.get());
  gtk_window_set_title(window_.get(), productName);

  GtkWidget* overlay = gtk_overlay_new();
  gtk_overlay_set_child(GTK_OVERLAY(overlay), GTK_WIDGET(bootLabel_.get()));
  gtk_window_set_child(window_.get(), overlay);
}

void AppDelegate::buildBootLabel() {
  bootLabel_ = GObjectPtr<GtkLabel>::retain(GTK_LABEL(gtk_label_new(bootText)));
  GtkWidget* label = GTK_WIDGET(bootLabel_.get());
  gtk_widget_add_css_class(label, "dim-label");
  PangoAttrList* attributes = pango_attr_list_new();
  pango_attr_list_insert(attributes, pango_attr_size_new(bootLabelPoints * PANGO_SCALE));
  gtk_label_set_attributes(bootLabel_.get(), attributes);
  pango_attr_list_unref(attributes);
  gtk_label_set_justify(bootLabel_.get(), GTK_JUSTIFY_CENTER);
  gtk_label_set_wrap(bootLabel_.get(), true);
  gtk_widget_set_hexpand(label, true);
  gtk_widget_set_vexpand(label, true);
}

// Without a web view the shell still supervises the gateway; the label says
// why nothing else happens.
void AppDelegate::buildWebView(const Result<CreateWebContent>& module) {
  if (!module) {
    g_printerr("%s\n", module.error().description.c_str());
    gtk_label_set_text(bootLabel_.get(), module.error().description.c_str());
    webViewMissing_ = true;
    return;
  }
  web_.reset((*module)({.window = window_.get(),
                        .showStatus = [this](const std::string& text) { showStatus(text); },
                        .openWithDefaultHandler = openWithDefaultHandler}));
  // The web view lies above the label and covers it once shown.
  gtk_overlay_add_overlay(GTK_OVERLAY(gtk_window_get_child(window_.get())), web_->widget());
  if (!pendingPageURL_.empty()) loadGateway(std::exchange(pendingPageURL_, {}));
}

void AppDelegate::installActions() {
  const GActionEntry applicationActions[] = {
      {"about", onAbout, nullptr, nullptr, nullptr, {}},
      {"check-for-updates", onCheckForUpdates, nullptr, nullptr, nullptr, {}},
      {"show-logs", onShowLogs, nullptr, nullptr, nullptr, {}},
      {"hide", onHide, nullptr, nullptr, nullptr, {}},
      {"hide-others", nullptr, nullptr, nullptr, nullptr, {}},
      {"unhide-all", nullptr, nullptr, nullptr, nullptr, {}},
      {"quit", onQuit, nullptr, nullptr, nullptr, {}},
  };
  g_action_map_add_action_entries(G_ACTION_MAP(app_), applicationActions,
                                  G_N_ELEMENTS(applicationActions), this);
  std::vector<const char*> unsupported = {"hide-others", "unhide-all"};
  if (!updater_->updatesConfigured()) unsupported.push_back("check-for-updates");
  for (const char* name : unsupported) {
    GAction* action = g_action_map_lookup_action(G_ACTION_MAP(app_), name);
    g_simple_action_set_enabled(G_SIMPLE_ACTION(action), false);
  }

  const GActionEntry windowActions[] = {
      {"undo", onEditingCommand, nullptr, nullptr, nullptr, {}},
      {"redo", onEditingCommand, nullptr, nullptr, nullptr, {}},
      {"cut", onEditingCommand, nullptr, nullptr, nullptr, {}},
      {"copy", onEditingCommand, nullptr, nullptr, nullptr, {}},
      {"paste", onEditingCommand, nullptr, nullptr, nullptr, {}},
      {"select-all", onEditingCommand, nullptr, nullptr, nullptr, {}},
      {"minimize", onMinimize, nullptr, nullptr, nullptr, {}},
      {"close", onClose, nullptr, nullptr, nullptr, {}},
  };
  g_action_map_add_action_entries(G_ACTION_MAP(window_.get()), windowActions,
                                  G_N_ELEMENTS(windowActions), this);
}

void AppDelegate::showStatus(const std::string& text) {
  setStatusText(statusTexts_.arrive(text));
}

// Without a web view the label keeps saying why.
void AppDelegate::setStatusText(const std::optional<std::string>& text) {
  if (text && !webViewMissing_) gtk_label_set_text(bootLabel_.get(), text->c_str());
}

// A gateway may answer before the web view is made (a window started
// minimised waits for its first frame): its page is loaded once the view is.
void AppDelegate::loadGateway(const std::string& url) {
  if (web_) {
    web_->load(url, sidecar_->gatewayToken());
  } else if (!webViewMissing_) {
    pendingPageURL_ = url;
  }
}

void AppDelegate::onAbout(GSimpleAction*, GVariant*, gpointer self) {
  auto* delegate = static_cast<AppDelegate*>(self);
  const std::string version = delegate->updater_->currentVersion();
  GtkWindow* parent = delegate->window_.get();
  gtk_show_about_dialog(parent, "program-name", productName, "version", version.c_str(),
                        "logo-icon-name", applicationId, nullptr);
}

// Desktops have no "hide application"; minimising is the nearest thing.
void AppDelegate::onHide(GSimpleAction*, GVariant*, gpointer self) {
  gtk_window_minimize(static_cast<AppDelegate*>(self)->window_.get());
}

void AppDelegate::onCheckForUpdates(GSimpleAction*, GVariant*, gpointer self) {
  static_cast<AppDelegate*>(self)->updater_->checkForUpdates();
}

// The folder is made first, so there is something to show before the first
// line was ever written.
void AppDelegate::onShowLogs(GSimpleAction*, GVariant*, gpointer self) {
  const auto folder = static_cast<AppDelegate*>(self)->sidecar_->logFolder();
  if (const auto made = makePrivateFolder(folder); !made) {
    g_printerr("%s\n", made.error().description.c_str());
    return;
  }
  GObjectPtr<GFile> file = GObjectPtr<GFile>::adopt(g_file_new_for_path(folder.c_str()));
  openWithDefaultHandler(GCharPtr::adopt(g_file_get_uri(file.get())).get());
}

void AppDelegate::onQuit(GSimpleAction*, GVariant*, gpointer self) {
  g_application_quit(G_APPLICATION(static_cast<AppDelegate*>(self)->app_));
}

void AppDelegate::onEditingCommand(GSimpleAction* action, GVariant*, gpointer self) {
  if (auto& web = static_cast<AppDelegate*>(self)->web_) {
    web->runEditingCommand(g_action_get_name(G_ACTION(action)));
  }
}

void AppDelegate::onMinimize(GSimpleAction*, GVariant*, gpointer self) {
  gtk_window_minimize(static_cast<AppDelegate*>(self)->window_.get());
}

void AppDelegate::onClose(GSimpleAction*, GVariant*, gpointer self) {
  gtk_window_close(static_cast<AppDelegate*>(self)->window_.get());
}

}  // namespace qor
