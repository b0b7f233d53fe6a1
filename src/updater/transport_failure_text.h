// How the updater tells the user that a transfer failed: common failures in
// the user's language, followed by the technical detail.
#pragma once

#include <string>

#include "base/error.h"

namespace qor {

// Any thread.
std::string transportFailureText(const Error& error);

}  // namespace qor
