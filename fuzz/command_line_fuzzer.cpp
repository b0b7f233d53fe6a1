// The reader of /proc/<pid>/cmdline: any bytes give one line of text without
// NULs or white space at its ends, holding every argument's bytes.
#include <cctype>
#include <string>

#include "fuzz_input.h"
#include "sidecar/process_table.h"

using namespace qor;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::textOf(data, size);
  const std::string command = commandText(input);
  fuzz::expect(command.find('\0') == std::string::npos, "no NUL is left", input);
  fuzz::expect(command.empty() || (!std::isspace(static_cast<unsigned char>(command.front())) &&
                                   !std::isspace(static_cast<unsigned char>(command.back()))),
               "the command is trimmed", input);
  const auto first = input.find_first_not_of(std::string_view(" \t\r\n\v\f\0", 7));
  if (first != std::string_view::npos) {
    const auto argument = input.substr(first, input.find('\0', first) - first);
    const auto word = argument.substr(0, argument.find_first_of(" \t\r\n\v\f"));
    fuzz::expect(command.starts_with(word), "the command starts with the first argument", input);
  }
  return 0;
}
