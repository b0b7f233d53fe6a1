// The product's name as the user sees it: the window title, the about box
// and the title line of the page's alerts.
#pragma once

namespace qor {

inline constexpr const char* productName = "QOR Velmora";

}  // namespace qor
