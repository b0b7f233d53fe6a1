// Hosts one SidecarManager in a process of its own, so that a test can kill
// the whole process and see what becomes of its gateway. Runs in whatever
// mode the environment selects (the tests use developer mode).
//
// Usage: sidecar_host <support folder> <resource folder> <gateway port> <litellm port>
// Prints "gateway-pid <pid>" once the gateway answers, then idles until killed.
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "sidecar/sidecar_manager.h"
#include "sidecar_test_support.h"

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: sidecar_host SUPPORT RESOURCES GATEWAY_PORT LITELLM_PORT\n";
    return 2;
  }
  auto queue = std::make_shared<qor::testing::SerialQueue>();
  auto manager = std::make_shared<qor::SidecarManager>(queue, qor::SidecarManager::Settings{
                                                                  .gatewayPort = std::stoi(argv[3]),
                                                                  .litellmPort = std::stoi(argv[4]),
                                                                  .supportDirectory = argv[1],
                                                                  .resourceDirectory = argv[2],
                                                              });
  manager->onStatus = [](const std::string& text) { std::cout << "status " << text << std::endl; };
  manager->onReady = [weakManager = std::weak_ptr(manager)](const std::string&) {
    const auto manager = weakManager.lock();
    const auto gateway = manager ? manager->process() : nullptr;
    if (gateway) std::cout << "gateway-pid " << gateway->pid() << std::endl;
  };
  manager->start();
  for (;;) pause();
}
