// What the gateway's /healthz answer says about the gateway.
//
// Threads: a pure function; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qor {

// The runtime version a /healthz body names: the string under "version" of
// its JSON object; nothing for any other body.
std::optional<std::string> healthzAnswerVersion(std::string_view body);

}  // namespace qor
