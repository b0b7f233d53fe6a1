#include "app/dialog_layout.h"

#include <initializer_list>

namespace qor {

GtkWidget* newDialogColumn(int spacing) {
  GtkWidget* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, spacing);
  for (auto setMargin : {gtk_widget_set_margin_top, gtk_widget_set_margin_bottom,
                         gtk_widget_set_margin_start, gtk_widget_set_margin_end}) {
    setMargin(column, 20);
  }
  return column;
}

GtkWidget* newDialogLabel(const std::string& text, bool bold) {
  GtkWidget* label = gtk_label_new(text.c_str());
  gtk_label_set_wrap(GTK_LABEL(label), true);
  gtk_label_set_max_width_chars(GTK_LABEL(label), 50);
  gtk_label_set_xalign(GTK_LABEL(label), 0);
  gtk_widget_set_halign(label, GTK_ALIGN_START);
  if (bold) {
    PangoAttrList* attributes = pango_attr_list_new();
    pango_attr_list_insert(attributes, pango_attr_weight_new(PANGO_WEIGHT_BOLD));
    gtk_label_set_attributes(GTK_LABEL(label), attributes);
    pango_attr_list_unref(attributes);
  }
  return label;
}

void addEscapeShortcut(GtkWindow* window, GtkShortcutFunc onEscape, gpointer data) {
  GtkEventController* keys = gtk_shortcut_controller_new();
  gtk_shortcut_controller_add_shortcut(
      GTK_SHORTCUT_CONTROLLER(keys),
      gtk_shortcut_new(gtk_keyval_trigger_new(GDK_KEY_Escape, GdkModifierType(0)),
                       gtk_callback_action_new(onEscape, data, nullptr)));
  gtk_widget_add_controller(GTK_WIDGET(window), keys);
}

}  // namespace qor
