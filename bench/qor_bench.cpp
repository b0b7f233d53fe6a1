// Times one of the shell's own operations on inputs prepared by core_bench.py
// and prints the elapsed wall time in seconds on the first line of standard
// output (some commands add a second line). Exits non-zero when the
// operation failed, so a broken run is never mistaken for a fast one.
//
//   qor-bench provision SUPPORT RESOURCES GATEWAY_PORT LITELLM_PORT
//       start() until the gateway is launched, on a first start
//   qor-bench backup SUPPORT   the data backup of SUPPORT/QOR Velmora/data
//   qor-bench sha256 FILE      the updater's digest; prints it too
//   qor-bench download URL CA_FILE FOLDER
//       the updater's HTTPS download; prints the downloaded file
//   qor-bench reap             the sweep of the gateway's ports, which must be free
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/http_client.h"
#include "sidecar/process_table.h"
#include "sidecar/sidecar_manager.h"
#include "sidecar/stale_sidecar_reaper.h"
#include "updater/file_digest.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

// Holds posted tasks until the bench's own thread runs them, like a UI loop.
class PolledQueue : public qor::MainThreadQueue {
 public:
  void post(std::function<void()> task) override {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  void run() {
    std::vector<std::function<void()>> tasks;
    {
      std::lock_guard lock(mutex_);
      tasks.swap(tasks_);
    }
    for (auto& task : tasks) task();
  }

 private:
  std::mutex mutex_;
  std::vector<std::function<void()>> tasks_;
};

void discardDiagnostics(std::string_view) {}

int fail(const std::string& message) {
  std::cerr << "qor-bench: " << message << "\n";
  return 1;
}

void printSeconds(Clock::time_point start) {
  std::printf("%.6f\n", std::chrono::duration<double>(Clock::now() - start).count());
}

int provision(const fs::path& support, const fs::path& resources, int gatewayPort,
              int litellmPort) {
  const auto queue = std::make_shared<PolledQueue>();
  const auto manager = std::make_shared<qor::SidecarManager>(
      queue, qor::SidecarManager::Settings{.gatewayPort = gatewayPort,
                                           .litellmPort = litellmPort,
                                           .supportDirectory = support,
                                           .resourceDirectory = resources,
                                           .diagnostics = discardDiagnostics});
  std::string failure;
  manager->onStatus = [&failure](const std::string& text) {
    if (text.starts_with("Sidecar startup failed")) failure = text;
  };
  const auto start = Clock::now();
  manager->start();
  // Polled every 5 ms: the launch is seen up to 5 ms late, but finer polling
  // would take a noticeable share of a core from the unpacking it times.
  while (!manager->process() && failure.empty() && Clock::now() - start < 120s) {
    std::this_thread::sleep_for(5ms);
    queue->run();
  }
  const bool launched = manager->process() != nullptr;
  if (launched) printSeconds(start);
  manager->stop();
  if (!launched) return fail(failure.empty() ? "the gateway was not launched" : failure);
  return 0;
}

int backup(const fs::path& support) {
  const auto manager = std::make_shared<qor::SidecarManager>(
      std::make_shared<PolledQueue>(),
      qor::SidecarManager::Settings{.supportDirectory = support,
                                    .diagnostics = discardDiagnostics});
  const auto backups = manager->runtimeRoot("data-backups");
  const auto start = Clock::now();
  manager->backupDataBeforeUpgrade("0.7.0");
  printSeconds(start);
  // The backup swallows its errors, so look for the archive it should have made.
  std::error_code ec;
  for (fs::directory_iterator it(backups, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().extension() == ".zip" && !it->path().filename().string().starts_with(".")) {
      return 0;
    }
  }
  return fail("no backup archive in " + backups.string());
}

int sha256(const fs::path& file) {
  const auto start = Clock::now();
  const auto digest = qor::sha256OfFile(file);
  if (!digest) return fail(digest.error().description);
  printSeconds(start);
  std::printf("%s\n", digest->c_str());
  return 0;
}

int download(const std::string& url, const fs::path& caFile, const fs::path& folder) {
  std::promise<qor::Result<fs::path>> done;
  const auto start = Clock::now();
  qor::HttpsDownload::start(
      url, folder, qor::HttpsTransferOptions{.extraCAFile = caFile}, nullptr,
      [&done](qor::Result<fs::path> file) { done.set_value(std::move(file)); });
  const auto file = done.get_future().get();
  if (!file) return fail(file.error().description);
  printSeconds(start);
  std::printf("%s\n", file->c_str());
  return 0;
}

int reap() {
  const std::vector<int> ports{qor::SidecarManager::gatewayPort, qor::SidecarManager::litellmPort};
  // Anything listening there could be someone's gateway, which the sweep would end.
  if (!qor::listenersOn(ports).empty()) return fail("port 8088 or 8089 is in use");
  const auto start = Clock::now();
  qor::reapStaleSidecars(ports, qor::ScaledClock{}, discardDiagnostics);
  printSeconds(start);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  const auto command = args.empty() ? "" : args[0];
  if (command == "provision" && args.size() == 5) {
    return provision(args[1], args[2], std::stoi(args[3]), std::stoi(args[4]));
  }
  if (command == "backup" && args.size() == 2) return backup(args[1]);
  if (command == "sha256" && args.size() == 2) return sha256(args[1]);
  if (command == "download" && args.size() == 4) return download(args[1], args[2], args[3]);
  if (command == "reap" && args.size() == 1) return reap();
  std::cerr << "usage: qor-bench provision SUPPORT RESOURCES GATEWAY_PORT LITELLM_PORT\n"
               "       qor-bench backup SUPPORT | sha256 FILE | reap\n"
               "       qor-bench download URL CA_FILE FOLDER\n";
  return 2;
}
