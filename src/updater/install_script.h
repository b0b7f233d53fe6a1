// The shell script that replaces the installed bundle once the application
// has quit. It waits for the old process (at most about 30 s), copies the
// new bundle next to the installed one (same folder, so same filesystem),
// checks the copy (the executable, the offered APP_VERSION) and swaps the
// two in one step, so the bundle path never holds anything but a complete
// bundle, however the script ends. Only after the swap are the old bundle,
// the staging folder and the image removed. On any failure the installed
// bundle stays as it was, the copy is removed, the offered version is
// written to the failure mark for the next start, and the reason is logged.
// Either way it then starts the bundle and logs every step to update.log.
//
// Threads: a plain value; any thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace qor {

struct InstallScript {
  pid_t processId = 0;                 // the process to wait for
  std::filesystem::path newBundle;     // "QOR Velmora" inside the staging folder
  std::filesystem::path destination;   // the installed bundle folder
  std::filesystem::path staging;       // the folder the image was extracted into
  std::filesystem::path image;         // the downloaded image file
  std::filesystem::path log;           // update.log
  std::string version;                 // the offered version, as its APP_VERSION must say
  std::filesystem::path exchangeTool;  // qor-exchange, which swaps two folders atomically
  std::filesystem::path failureMark;   // receives `version` when the install fails

  // Where the new bundle is copied before the swap: a hidden folder beside
  // `destination`, which holds the old bundle after it.
  std::filesystem::path nextBundle() const;

  // The script, lines joined by "\n", no line feed after the last.
  std::string text() const;
};

// The script that starts the bundle again once the application has quit,
// after the system's package manager has replaced it: it waits for the old
// process as the install script does and logs to update.log.
struct RelaunchScript {
  pid_t processId = 0;           // the process to wait for
  std::filesystem::path bundle;  // the installed bundle folder
  std::filesystem::path log;     // update.log

  // The script, lines joined by "\n", no line feed after the last.
  std::string text() const;
};

// `path` between single quotes for the shell; a "'" inside becomes '\''.
std::string shellQuoted(const std::filesystem::path& path);

}  // namespace qor
