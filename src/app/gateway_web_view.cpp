#include "app/gateway_web_view.h"

#include <gmodule.h>

#include <memory>
#include <string_view>

#include "app/build_config.h"
#include "app/navigation_policy.h"
#include "app/rendering_mode.h"

namespace qor {
namespace {

constexpr std::string_view loadFailedText = "Sidecar UI failed to load: ";
constexpr std::string_view pageCrashedText =
    "The page stopped unexpectedly several times within a minute and was not reloaded again. "
    "Restart QOR Velmora to try again.";
constexpr const char* tokenCookieName = "qor_token";
constexpr const char* gatewayHost = "127.0.0.1";

// The page is the only thing the view shows: there is nowhere to go back or
// forward to, and nothing to stop.
bool leavesThePage(WebKitContextMenuAction action) {
  return action == WEBKIT_CONTEXT_MENU_ACTION_GO_BACK ||
         action == WEBKIT_CONTEXT_MENU_ACTION_GO_FORWARD ||
         action == WEBKIT_CONTEXT_MENU_ACTION_STOP;
}

std::string requestURL(WebKitNavigationAction* action) {
  WebKitURIRequest* request = webkit_navigation_action_get_request(action);
  const char* uri = request ? webkit_uri_request_get_uri(request) : nullptr;
  return uri ? uri : "";
}

const char* editingCommand(std::string_view action) {
  if (action == "undo") return WEBKIT_EDITING_COMMAND_UNDO;
  if (action == "redo") return WEBKIT_EDITING_COMMAND_REDO;
  if (action == "cut") return WEBKIT_EDITING_COMMAND_CUT;
  if (action == "copy") return WEBKIT_EDITING_COMMAND_COPY;
  if (action == "paste") return WEBKIT_EDITING_COMMAND_PASTE;
  return WEBKIT_EDITING_COMMAND_SELECT_ALL;
}

void chooseWebViewRendering(WebKitWebView* view) {
  if (!softwareRendering()) return;
  webkit_settings_set_hardware_acceleration_policy(webkit_web_view_get_settings(view),
                                                   WEBKIT_HARDWARE_ACCELERATION_POLICY_NEVER);
  g_object_set(gtk_settings_get_default(), "gtk-overlay-scrolling", false, nullptr);
}

// Never from a cache: the page must come from the gateway that runs now.
void loadFresh(WebKitWebView* view, const std::string& url) {
  GObjectPtr<WebKitURIRequest> request =
      GObjectPtr<WebKitURIRequest>::adopt(webkit_uri_request_new(url.c_str()));
  SoupMessageHeaders* headers = webkit_uri_request_get_http_headers(request.get());
  soup_message_headers_replace(headers, "Cache-Control", "no-cache");
  soup_message_headers_replace(headers, "Pragma", "no-cache");
  webkit_web_view_load_request(view, request.get());
  gtk_widget_set_visible(GTK_WIDGET(view), true);
}

struct PendingLoad {
  GObjectPtr<WebKitWebView> view;
  std::string url;
};

// The page loads once the cookie is in place; without it the gateway answers
// with its refusal page, which says what is wrong.
void onTokenCookieAdded(GObject* manager, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<PendingLoad> pending(static_cast<PendingLoad*>(data));
  GError* error = nullptr;
  if (!webkit_cookie_manager_add_cookie_finish(WEBKIT_COOKIE_MANAGER(manager), result, &error)) {
    g_warning("the gateway's cookie could not be set: %s", error->message);
    g_error_free(error);
  }
  loadFresh(pending->view.get(), pending->url);
}

// Until the page paints, the view shows the boot screen's background (in the
// desktop's light or dark style) rather than the engine's white.
void paintBootBackground(WebKitWebView* view) {
  const GdkRGBA transparent{0, 0, 0, 0};
  webkit_web_view_set_background_color(view, &transparent);
  gtk_widget_add_css_class(GTK_WIDGET(view), "background");
}

}  // namespace

// A throw-away view loads the blank page while the gateway boots, which starts
// the engine's page process; the page's view shares that process, so the
// page loads without a process start of its own and is its view's first
// history entry.
GatewayWebView::GatewayWebView(Host host)
    : host_(std::move(host)),
      starter_(GObjectPtr<WebKitWebView>::retain(WEBKIT_WEB_VIEW(webkit_web_view_new()))),
      view_(GObjectPtr<WebKitWebView>::retain(WEBKIT_WEB_VIEW(
          g_object_new(WEBKIT_TYPE_WEB_VIEW, "related-view", starter_.get(), nullptr)))),
      scriptDialogs_(host_.window) {
  chooseWebViewRendering(view_.get());
  paintBootBackground(view_.get());
  webkit_settings_set_enable_developer_extras(webkit_web_view_get_settings(view_.get()), true);
  gtk_widget_set_visible(GTK_WIDGET(view_.get()), false);
  g_signal_connect(view_.get(), "decide-policy", G_CALLBACK(onDecidePolicy), this);
  g_signal_connect(view_.get(), "create", G_CALLBACK(onCreate), this);
  g_signal_connect(view_.get(), "script-dialog", G_CALLBACK(onScriptDialog), this);
  g_signal_connect(view_.get(), "load-failed", G_CALLBACK(onLoadFailed), this);
  g_signal_connect(view_.get(), "context-menu", G_CALLBACK(onContextMenu), this);
  g_signal_connect(view_.get(), "load-changed", G_CALLBACK(onLoadChanged), this);
  g_signal_connect(view_.get(), "web-process-terminated", G_CALLBACK(onWebProcessTerminated), this);
  webkit_web_view_load_uri(starter_.get(), "about:blank");
}

// The view itself lives on in the window until the window goes.
GatewayWebView::~GatewayWebView() {
  g_signal_handlers_disconnect_by_data(view_.get(), this);
}

GtkWidget* GatewayWebView::widget() {
  return GTK_WIDGET(view_.get());
}

// A session cookie for the gateway's host only, out of reach of the page's
// scripts and of requests started by other sites.
void GatewayWebView::load(const std::string& url, const std::string& gatewayToken) {
  pageURL_ = url;
  gatewayToken_ = gatewayToken;
  SoupCookie* cookie = soup_cookie_new(tokenCookieName, gatewayToken.c_str(), gatewayHost, "/", -1);
  soup_cookie_set_http_only(cookie, true);
  soup_cookie_set_same_site_policy(cookie, SOUP_SAME_SITE_POLICY_STRICT);
  WebKitCookieManager* cookies =
      webkit_network_session_get_cookie_manager(webkit_web_view_get_network_session(view_.get()));
  webkit_cookie_manager_add_cookie(
      cookies, cookie, nullptr, onTokenCookieAdded,
      new PendingLoad{GObjectPtr<WebKitWebView>::retain(view_.get()), url});
  soup_cookie_free(cookie);
}

void GatewayWebView::runEditingCommand(std::string_view action) {
  webkit_web_view_execute_editing_command(view_.get(), editingCommand(action));
}

gboolean GatewayWebView::onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision,
                                        WebKitPolicyDecisionType type, gpointer self) {
  auto* view = static_cast<GatewayWebView*>(self);
  if (type != WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION &&
      type != WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION) {
    return false;  // responses: the engine's default
  }
  const std::string url = requestURL(webkit_navigation_policy_decision_get_navigation_action(
      WEBKIT_NAVIGATION_POLICY_DECISION(decision)));
  if (type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION) {
    view->createWebViewWith(url);
    webkit_policy_decision_ignore(decision);
  } else if (view->decidePolicyFor(url)) {
    webkit_policy_decision_use(decision);
  } else {
    webkit_policy_decision_ignore(decision);
  }
  return true;
}

// Script requests for a window (window.open) arrive here rather than as a
// new-window decision. No second view is ever made.
GtkWidget* GatewayWebView::onCreate(WebKitWebView*, WebKitNavigationAction* action, gpointer self) {
  static_cast<GatewayWebView*>(self)->createWebViewWith(requestURL(action));
  return nullptr;
}

gboolean GatewayWebView::onScriptDialog(WebKitWebView*, WebKitScriptDialog* dialog, gpointer self) {
  static_cast<GatewayWebView*>(self)->scriptDialogs_.enqueue(dialog);
  return true;
}

// Once the page is in, its process no longer needs the view that started it.
void GatewayWebView::onLoadChanged(WebKitWebView*, WebKitLoadEvent event, gpointer self) {
  if (event == WEBKIT_LOAD_COMMITTED) static_cast<GatewayWebView*>(self)->starter_.reset();
}

// The editing items, reload and the inspector stay.
gboolean GatewayWebView::onContextMenu(WebKitWebView*, WebKitContextMenu* menu,
                                       WebKitHitTestResult*, gpointer) {
  for (GList* item = webkit_context_menu_get_items(menu); item;) {
    auto* entry = WEBKIT_CONTEXT_MENU_ITEM(item->data);
    item = item->next;
    if (leavesThePage(webkit_context_menu_item_get_stock_action(entry))) {
      webkit_context_menu_remove(menu, entry);
    }
  }
  return false;  // shows what is left
}

// The engine's own error page is never shown; a failure after the page was
// committed is written into the (covered) boot label, an earlier one only
// into the diagnostics, as the page it would have replaced stays.
gboolean GatewayWebView::onLoadFailed(WebKitWebView*, WebKitLoadEvent event, char* uri,
                                      GError* error, gpointer self) {
  if (event == WEBKIT_LOAD_COMMITTED) {
    static_cast<GatewayWebView*>(self)->host_.showStatus(std::string(loadFailedText) +
                                                         error->message);
  } else {
    g_message("%s was not loaded: %s", uri, error->message);
  }
  return true;
}

// The engine starts a new page process for the next load. A page that keeps
// killing its process is left alone, with the label saying so.
void GatewayWebView::onWebProcessTerminated(WebKitWebView*,
                                            WebKitWebProcessTerminationReason reason,
                                            gpointer self) {
  auto* view = static_cast<GatewayWebView*>(self);
  if (reason == WEBKIT_WEB_PROCESS_TERMINATED_BY_API || view->pageURL_.empty()) return;
  if (view->crashReloads_.allowReload()) {
    view->load(view->pageURL_, view->gatewayToken_);
    return;
  }
  view->host_.showStatus(std::string(pageCrashedText));
  gtk_widget_set_visible(view->widget(), false);
}

bool GatewayWebView::decidePolicyFor(const std::string& url) {
  switch (classifyLink(url)) {
    case LinkTarget::qorAction:
      handleQorAction(url);
      return false;
    case LinkTarget::external:
    case LinkTarget::mail:
      host_.openWithDefaultHandler(url);
      return false;
    case LinkTarget::whatsApp:
      openWhatsApp(url, std::nullopt);
      return false;
    case LinkTarget::none:
    case LinkTarget::loopbackPage:
    case LinkTarget::other:
      return true;
  }
  return true;
}

// Like a navigation, except that what would stay in the web view (a loopback
// page) is dropped: it opens neither there nor anywhere else.
void GatewayWebView::createWebViewWith(const std::string& url) {
  (void)decidePolicyFor(url);
}

// Every other path under /__qor/ is swallowed without a trace.
void GatewayWebView::handleQorAction(const std::string& url) const {
  if (const auto request = whatsAppRequest(url)) startWhatsApp(request->phone, request->text);
}

void GatewayWebView::startWhatsApp(const std::string& phone, const std::string& text) const {
  const std::string digits = phoneDigits(phone);
  if (whatsAppClientInstalled()) {
    host_.openWithDefaultHandler(whatsAppSendURL(digits, text));
    return;
  }
  const auto fallback = clickToChatURL(clickToChatHost, digits, text);
  if (!fallback) {
    g_error("click-to-chat address for host \"%.*s\" cannot be built", int(clickToChatHost.size()),
            clickToChatHost.data());
  }
  host_.openWithDefaultHandler(*fallback);
}

// Asked afresh every time: a client may be installed while the shell runs.
bool GatewayWebView::whatsAppClientInstalled() {
  GObjectPtr<GAppInfo> handler =
      GObjectPtr<GAppInfo>::adopt(g_app_info_get_default_for_uri_scheme("whatsapp"));
  return bool(handler);
}

void GatewayWebView::openWhatsApp(const std::string& url,
                                  const std::optional<std::string>& fallback) const {
  if (whatsAppClientInstalled()) {
    host_.openWithDefaultHandler(url);
  } else if (fallback) {
    host_.openWithDefaultHandler(*fallback);
  }
}

}  // namespace qor

// The module's entry point (see web_content.h).
extern "C" G_MODULE_EXPORT qor::WebContent* qorCreateWebContent(const qor::WebContent::Host& host) {
  return new qor::GatewayWebView(host);
}
