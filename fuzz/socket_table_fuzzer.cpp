// The reader of /proc/net/tcp and tcp6: any table text gives sockets on the
// ports asked for only, each named by the link of a real socket.
#include <algorithm>
#include <string>

#include "fuzz_input.h"
#include "sidecar/process_table.h"

using namespace qor;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::textOf(data, size);
  const std::vector<int> ports = {0, 22, 8088, 8089, 18443, 65535};
  for (const auto& [link, socket] : listeningSocketsIn(input, ports)) {
    fuzz::expect(std::ranges::find(ports, socket.port) != ports.end(),
                 "only the ports asked for are reported", input);
    fuzz::expect(link.starts_with("socket:[") && link.ends_with("]") && link != "socket:[0]" &&
                     link.size() > 9,
                 "each socket is named by the link to it", input);
  }
  return 0;
}
