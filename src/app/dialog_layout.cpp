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

void addEscapeShortcut(GtkWindow* window, GtkShortcutFunc onEscape, gpointer data) {
  GtkEventController* keys = gtk_shortcut_controller_new();
  gtk_shortcut_controller_add_shortcut(
      GTK_SHORTCUT_CONTROLLER(keys),
      gtk_shortcut_new(gtk_keyval_trigger_new(GDK_KEY_Escape, GdkModifierType(0)),
                       gtk_callback_action_new(onEscape, data, nullptr)));
  gtk_widget_add_controller(GTK_WIDGET(window), keys);
}

}  // namespace qor
