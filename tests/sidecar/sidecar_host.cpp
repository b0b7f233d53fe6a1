// Runs one manager in a process of its own, so that a test can kill the
// whole process. Usage: sidecar_host SUPPORT RESOURCES GATEWAY_PORT LITELLM_PORT
#include <unistd.h>

#include "sidecar_test_support.h"

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const auto manager = std::make_shared<qor::SidecarManager>(
      std::make_shared<qor::testing::TestQueue>(),
      qor::SidecarManager::Settings{std::stoi(argv[3]), std::stoi(argv[4]), 1.0, argv[1], argv[2]});
  manager->start();
  for (;;) pause();
}
