// QOR Velmora: the desktop shell around the local gateway.
#include <gtk/gtk.h>

#include <memory>

#include "app/app_delegate.h"
#include "app/gobject_ptr.h"
#include "app/rendering_mode.h"

int main(int, char** argv) {
  qor::chooseToolkitRenderer();
  auto app = qor::GObjectPtr<GtkApplication>::adopt(
      gtk_application_new("org.qor.Velmora", G_APPLICATION_DEFAULT_FLAGS));
  auto delegate = std::make_shared<qor::AppDelegate>();
  delegate->attach(app.get());
  // The shell takes no arguments; GApplication would refuse file names.
  char* arguments[] = {argv[0], nullptr};
  return g_application_run(G_APPLICATION(app.get()), 1, arguments);
}
