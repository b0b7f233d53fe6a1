// The secret that makes the gateway answer only this user's window: a fresh
// one for each run of the application, handed to the gateway in its
// environment and to the web view as a cookie.
#pragma once

#include <string>

namespace qor {

// 256 random bits from the kernel, as 64 lower-case hexadecimal digits.
std::string newGatewayToken();

}  // namespace qor
