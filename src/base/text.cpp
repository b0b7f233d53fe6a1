#include "base/text.h"

namespace qor {

std::string trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\n\r\v\f";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(blanks);
  return std::string(text.substr(first, last - first + 1));
}

bool isValidUtf8(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    int length;
    char32_t codePoint;
    if ((lead & 0xE0) == 0xC0) {
      length = 2, codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (i + length > bytes.size()) return false;
    for (int k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(bytes[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    static constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < smallest[length] || codePoint > 0x10FFFF) return false;
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return false;
    i += length;
  }
  return true;
}

}  // namespace qor
