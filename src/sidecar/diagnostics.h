// Diagnostics of the supervisor go to the application's standard error,
// each piece prefixed "[sidecar] " by its writer.
#pragma once

#include <functional>
#include <string_view>

namespace qor {

// Receives diagnostic bytes; any thread.
using DiagnosticSink = std::function<void(std::string_view)>;

void writeToStandardError(std::string_view bytes);

}  // namespace qor
