// openWithDefaultHandler: hands a URI to the desktop's handler for it, that
// is the user's browser, mail program or file manager.
//
// Threads: the UI thread.
#pragma once

#include <string>

namespace qor {

// Whether a handler took the URI is not reported anywhere. The handler starts
// without the renderers chosen for this process (see chooseRenderers), so it
// draws as it would have when started from the desktop.
void openWithDefaultHandler(const std::string& uri);

}  // namespace qor
