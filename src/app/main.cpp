// QOR Velmora: the desktop shell around the local gateway.
#include <gtk/gtk.h>

#include <memory>

#include "app/app_delegate.h"
#include "app/gobject_ptr.h"
#include "app/product_name.h"
#include "app/rendering_mode.h"
#include "app/shell_application.h"

int main(int, char** argv) {
  qor::chooseRenderers();
  // The X11 window class is the program's name: the launcher's StartupWMClass
  // matches the application id. Untitled windows show the application's name.
  g_set_prgname(qor::applicationId);
  g_set_application_name(qor::productName);
  auto app =
      qor::GObjectPtr<QorShellApplication>::adopt(qor::newShellApplication(qor::applicationId));
  auto delegate = std::make_shared<qor::AppDelegate>();
  delegate->attach(app.get());
  // The shell takes no arguments; GApplication would refuse file names.
  char* arguments[] = {argv[0], nullptr};
  return g_application_run(G_APPLICATION(app.get()), 1, arguments);
}
