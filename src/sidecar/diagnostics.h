// Diagnostics of the supervisor go to the application's log and its standard
// error, each piece prefixed "[sidecar] " by its writer.
#pragma once

#include <functional>
#include <string_view>

namespace qor {

// Receives diagnostic bytes; any thread.
using DiagnosticSink = std::function<void(std::string_view)>;

// Never waits: what standard error does not take at once is dropped.
void writeToStandardError(std::string_view bytes);

}  // namespace qor
