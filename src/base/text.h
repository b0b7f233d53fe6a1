// Small text helpers shared by the supervisor and the updater.
#pragma once

#include <string>
#include <string_view>

namespace qor {

// Removes white space and line breaks at both ends.
std::string trimmed(std::string_view text);

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates
// or truncated sequences).
bool isValidUtf8(std::string_view bytes);

}  // namespace qor
