#include "updater/random_uuid.h"

#include <sys/random.h>

#include <array>
#include <cstdint>
#include <random>

namespace qor {

std::string randomUUID() {
  std::array<std::uint8_t, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    std::random_device device;  // getrandom is missing or interrupted: the library's source
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(device());
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  constexpr char hex[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += hex[bytes[i] >> 4];
    text += hex[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace qor
