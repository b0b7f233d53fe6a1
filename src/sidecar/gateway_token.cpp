#include "sidecar/gateway_token.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace qor {

std::string newGatewayToken() {
  std::array<std::uint8_t, 32> bytes{};
  size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (got < 0 && errno == EINTR) continue;
    // Without the kernel's randomness there is no secret worth the name.
    if (got <= 0) std::abort();
    filled += static_cast<size_t>(got);
  }
  constexpr char hex[] = "0123456789abcdef";
  std::string text;
  for (const auto byte : bytes) {
    text += hex[byte >> 4];
    text += hex[byte & 0x0F];
  }
  return text;
}

}  // namespace qor
