// The product's name as the user sees it (the window title, the title bars of
// its dialogs, the about box, the title line of the page's alerts) and the
// application id the desktop knows it by (the launcher's file name, the icon,
// the X11 window class).
#pragma once

namespace qor {

inline constexpr const char* productName = "QOR Velmora";
inline constexpr const char* applicationId = "org.qor.Velmora";

}  // namespace qor
