// Runs one manager in a process of its own, so that a test can kill the
// whole process or run it as another account. Usage:
//   sidecar_host SUPPORT RESOURCES GATEWAY_PORT LITELLM_PORT
// The manager keeps its default diagnostics (the log and standard error);
// what it reports to the UI is printed, one "status: " or "ready: " line each.
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "sidecar_test_support.h"

namespace {

// The host has no UI loop: tasks run at once, one at a time.
class ImmediateQueue : public qor::MainThreadQueue {
 public:
  void post(std::function<void()> task) override {
    std::lock_guard lock(mutex_);
    task();
  }

 private:
  std::mutex mutex_;
};

void print(const char* kind, const std::string& text) {
  std::printf("%s: %s\n", kind, text.c_str());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const auto manager = std::make_shared<qor::SidecarManager>(
      std::make_shared<ImmediateQueue>(),
      qor::SidecarManager::Settings{std::stoi(argv[3]), std::stoi(argv[4]), 1.0, argv[1], argv[2]});
  manager->onStatus = [](const std::string& text) { print("status", text); };
  manager->onReady = [](const std::string& url) { print("ready", url); };
  manager->start();
  for (;;) pause();
}
