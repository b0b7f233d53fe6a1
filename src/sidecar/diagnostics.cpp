#include "sidecar/diagnostics.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

namespace qor {

// Pieces of at most PIPE_BUF bytes, each only when the stream has room for
// it: a pipe that nobody reads must not stall the gateway's output reader
// behind it. What does not fit is dropped here (the log keeps it).
void writeToStandardError(std::string_view bytes) {
  static std::mutex mutex;  // so one writer's room is not taken by another
  std::lock_guard lock(mutex);
  while (!bytes.empty()) {
    pollfd stream{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    const int ready = poll(&stream, 1, 0);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || (stream.revents & POLLOUT) == 0) return;
    const ssize_t written =
        write(STDERR_FILENO, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // nowhere left to report to
    bytes.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace qor
