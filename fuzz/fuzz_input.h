// What the fuzz targets share: reading the input as text, cutting it into
// parts, and stopping on a broken property so that libFuzzer keeps the input
// as a crash and the corpus replay fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace qor::fuzz {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// `input` cut at each `separator` into `count` parts; the last one keeps the
// rest (separators included), parts past the end are empty.
std::vector<std::string_view> partsOf(std::string_view input, char separator, std::size_t count);

// Aborts with `property` and the input (escaped) on standard error unless
// `holds`.
void expect(bool holds, std::string_view property, std::string_view input);

}  // namespace qor::fuzz
