// The shell script that replaces the installed bundle once the application
// has quit: it waits for the old process (at most about 30 s), deletes the
// old bundle, copies the new one in, removes the staging folder and the
// image, starts the new bundle and logs every step to update.log.
//
// Threads: a plain value; any thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace qor {

struct InstallScript {
  pid_t processId = 0;                // the process to wait for
  std::filesystem::path newBundle;    // "QOR Velmora" inside the staging folder
  std::filesystem::path destination;  // the installed bundle folder
  std::filesystem::path staging;      // the folder the image was extracted into
  std::filesystem::path image;        // the downloaded image file
  std::filesystem::path log;          // update.log

  // The script, lines joined by "\n", no line feed after the last.
  std::string text() const;
};

// `path` between single quotes for the shell; a "'" inside becomes '\''.
std::string shellQuoted(const std::filesystem::path& path);

}  // namespace qor
