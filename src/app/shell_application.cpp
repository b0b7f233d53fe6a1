#include "app/shell_application.h"

struct _QorShellApplication {
  GtkApplication parent;
};

G_DEFINE_TYPE(QorShellApplication, qor_shell_application, GTK_TYPE_APPLICATION)

namespace {

guint beforeStartupSignal = 0;

// GtkApplication's own start-up is the one that starts the toolkit.
void startup(GApplication* application) {
  g_signal_emit(application, beforeStartupSignal, 0);
  G_APPLICATION_CLASS(qor_shell_application_parent_class)->startup(application);
}

}  // namespace

static void qor_shell_application_class_init(QorShellApplicationClass* shellClass) {
  G_APPLICATION_CLASS(shellClass)->startup = startup;
  beforeStartupSignal =
      g_signal_new("before-startup", G_TYPE_FROM_CLASS(shellClass), G_SIGNAL_RUN_LAST, 0, nullptr,
                   nullptr, nullptr, G_TYPE_NONE, 0);
}

static void qor_shell_application_init(QorShellApplication*) {}

namespace qor {

QorShellApplication* newShellApplication(const char* applicationId) {
  return QOR_SHELL_APPLICATION(g_object_new(QOR_TYPE_SHELL_APPLICATION, "application-id",
                                            applicationId, "flags", G_APPLICATION_DEFAULT_FLAGS,
                                            nullptr));
}

}  // namespace qor
