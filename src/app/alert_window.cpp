#include "app/alert_window.h"

#include <string>
#include <utility>

#include "app/dialog_layout.h"
#include "app/product_name.h"

namespace qor {
namespace {

constexpr const char* buttonIndexKey = "qor-alert-button-index";
constexpr const char* fieldStyleClass = "qor-alert-field";

// The theme's entries are taller than the field's required height; this
// lets the size request decide. Installed once, for the process's lifetime.
void installFieldStyle(GtkWidget* widget) {
  static GtkCssProvider* provider = nullptr;
  if (provider) return;
  provider = gtk_css_provider_new();
  const std::string css = std::string("entry.") + fieldStyleClass +
                          " { min-height: 0; padding-top: 0; padding-bottom: 0; }";
  gtk_css_provider_load_from_data(provider, css.c_str(), -1);
  gtk_style_context_add_provider_for_display(gtk_widget_get_display(widget),
                                             GTK_STYLE_PROVIDER(provider),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
}

}  // namespace

AlertWindow::AlertWindow(GtkWindow* parent, const AlertContent& content, Completion completion)
    : completion_(std::move(completion)) {
  window_ = GObjectPtr<GtkWindow>::retain(GTK_WINDOW(
      g_object_new(GTK_TYPE_WINDOW, "accessible-role", GTK_ACCESSIBLE_ROLE_DIALOG, nullptr)));
  GtkWindow* window = window_.get();
  gtk_window_set_title(window, productName);
  gtk_window_set_modal(window, true);
  gtk_window_set_transient_for(window, parent);
  gtk_window_set_destroy_with_parent(window, true);
  gtk_window_set_resizable(window, false);

  GtkWidget* icon = gtk_image_new_from_icon_name(
      content.style == AlertStyle::warning ? "dialog-warning" : "dialog-information");
  gtk_image_set_pixel_size(GTK_IMAGE(icon), 48);
  gtk_widget_set_valign(icon, GTK_ALIGN_START);

  GtkWidget* texts = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
  gtk_box_append(GTK_BOX(texts), newDialogLabel(content.messageText, true));
  if (content.informativeText) {
    gtk_box_append(GTK_BOX(texts), newDialogLabel(*content.informativeText, false));
  }
  if (content.fieldText) {
    field_ = gtk_entry_new();
    installFieldStyle(field_);
    gtk_widget_add_css_class(field_, fieldStyleClass);
    gtk_widget_set_size_request(field_, fieldWidth, fieldHeight);
    gtk_widget_set_halign(field_, GTK_ALIGN_START);
    gtk_widget_set_valign(field_, GTK_ALIGN_START);
    gtk_editable_set_text(GTK_EDITABLE(field_), content.fieldText->c_str());
    gtk_entry_set_activates_default(GTK_ENTRY(field_), true);
    gtk_box_append(GTK_BOX(texts), field_);
  }

  GtkWidget* body = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 16);
  gtk_box_append(GTK_BOX(body), icon);
  gtk_box_append(GTK_BOX(body), texts);

  GtkWidget* layout = newDialogColumn(20);
  gtk_box_append(GTK_BOX(layout), body);
  gtk_box_append(GTK_BOX(layout), buildButtons(content.buttons));
  gtk_window_set_child(window, layout);
  if (defaultButton_) gtk_window_set_default_widget(window, defaultButton_);
  gtk_window_set_focus(window, field_ ? field_ : defaultButton_);

  addEscapeShortcut(window, onEscape, this);

  g_signal_connect(window, "close-request", G_CALLBACK(onCloseRequest), this);
  g_signal_connect(window, "destroy", G_CALLBACK(onDestroy), this);

  gtk_window_present(window);
}

AlertWindow::~AlertWindow() {
  if (finished_) return;
  finished_ = true;
  g_signal_handlers_disconnect_by_data(window_.get(), this);
  gtk_window_destroy(window_.get());
}

// Laid out right to left, so the default button sits at the trailing edge
// where desktop alerts keep it.
GtkWidget* AlertWindow::buildButtons(const std::vector<std::string>& titles) {
  GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
  gtk_widget_set_halign(row, GTK_ALIGN_END);
  for (std::size_t index = 0; index < titles.size(); ++index) {
    GtkWidget* button = gtk_button_new_with_label(titles[index].c_str());
    gtk_widget_set_size_request(button, 80, -1);
    g_object_set_data(G_OBJECT(button), buttonIndexKey, GSIZE_TO_POINTER(index));
    g_signal_connect(button, "clicked", G_CALLBACK(onClicked), this);
    gtk_box_prepend(GTK_BOX(row), button);
    if (index == 0) gtk_widget_add_css_class(button, "suggested-action");
    if (index == 0) defaultButton_ = button;
  }
  return row;
}

void AlertWindow::onClicked(GtkButton* button, gpointer self) {
  const auto index = GPOINTER_TO_SIZE(g_object_get_data(G_OBJECT(button), buttonIndexKey));
  static_cast<AlertWindow*>(self)->finish(index);
}

gboolean AlertWindow::onCloseRequest(GtkWindow*, gpointer self) {
  static_cast<AlertWindow*>(self)->finish(std::nullopt);
  return true;  // finish() has already destroyed the window
}

gboolean AlertWindow::onEscape(GtkWidget*, GVariant*, gpointer self) {
  static_cast<AlertWindow*>(self)->finish(std::nullopt);
  return true;
}

// The parent went away (the application is quitting): the alert ends too.
void AlertWindow::onDestroy(GtkWidget*, gpointer self) {
  static_cast<AlertWindow*>(self)->finish(std::nullopt);
}

void AlertWindow::finish(std::optional<std::size_t> button) {
  if (finished_) return;
  finished_ = true;
  AlertAnswer answer{button, field_ ? gtk_editable_get_text(GTK_EDITABLE(field_)) : ""};
  g_signal_handlers_disconnect_by_data(window_.get(), this);
  if (!gtk_widget_in_destruction(GTK_WIDGET(window_.get()))) gtk_window_destroy(window_.get());
  auto completion = std::move(completion_);
  completion(answer);  // may destroy this object: nothing may follow
}

}  // namespace qor
