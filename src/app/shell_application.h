// ShellApplication: the GtkApplication of the shell, with one signal more,
// "before-startup". Start-up happens in the application's primary instance
// only, once this process owns the application's name on the session bus;
// "before-startup" is emitted there just before the toolkit starts (opening
// the display takes tens of milliseconds), for work that needs no display and
// should begin as early as it may.
//
// Threads: the UI thread.
#pragma once

#include <gtk/gtk.h>

G_BEGIN_DECLS

#define QOR_TYPE_SHELL_APPLICATION (qor_shell_application_get_type())
G_DECLARE_FINAL_TYPE(QorShellApplication, qor_shell_application, QOR, SHELL_APPLICATION,
                     GtkApplication)

G_END_DECLS

namespace qor {

// A new application with the given id and the default flags.
QorShellApplication* newShellApplication(const char* applicationId);

}  // namespace qor
