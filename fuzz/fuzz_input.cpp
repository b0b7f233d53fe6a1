#include "fuzz_input.h"

#include <cstdio>
#include <cstdlib>

namespace qor::fuzz {

std::vector<std::string_view> partsOf(std::string_view input, char separator, std::size_t count) {
  std::vector<std::string_view> parts;
  while (parts.size() + 1 < count) {
    const auto end = input.find(separator);
    if (end == std::string_view::npos) break;
    parts.push_back(input.substr(0, end));
    input.remove_prefix(end + 1);
  }
  parts.push_back(input);
  parts.resize(count);
  return parts;
}

void expect(bool holds, std::string_view property, std::string_view input) {
  if (holds) return;
  std::fprintf(stderr, "property broken: %.*s\ninput (%zu bytes): \"", int(property.size()),
               property.data(), input.size());
  for (const unsigned char c : input) {
    if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
      std::fputc(c, stderr);
    } else {
      std::fprintf(stderr, "\\x%02X", c);
    }
  }
  std::fputs("\"\n", stderr);
  std::abort();
}

}  // namespace qor::fuzz
