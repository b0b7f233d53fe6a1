// Random (version 4) UUIDs for the updater's temporary file names.
#pragma once

#include <string>

namespace qor {

// Any thread. The standard 36-character form in lower case,
// "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx".
std::string randomUUID();

}  // namespace qor
