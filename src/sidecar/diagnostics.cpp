#include "sidecar/diagnostics.h"

#include <unistd.h>

#include <cerrno>

namespace qor {

void writeToStandardError(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(STDERR_FILENO, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // nowhere left to report to
    bytes.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace qor
