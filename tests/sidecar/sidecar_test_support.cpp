#include "sidecar_test_support.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <ranges>
#include <set>

#include "sidecar/process_table.h"

namespace qor::testing {

int freePort() {
  static std::set<int> given;
  for (;;) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{.sin_family = AF_INET, .sin_addr = {htonl(INADDR_LOOPBACK)}};
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    if (given.insert(ntohs(address.sin_port)).second) return ntohs(address.sin_port);
  }
}

std::vector<std::string> linesOf(const fs::path& file) {
  std::vector<std::string> lines;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void TestQueue::post(std::function<void()> task) {
  std::lock_guard lock(mutex_);
  tasks_.push_back(std::move(task));
}

void TestQueue::run() {
  const auto tasks = [this] {
    std::lock_guard lock(mutex_);
    return std::exchange(tasks_, {});
  }();
  for (const auto& task : tasks) task();
}

SidecarTest::SidecarTest() {
  fs::create_directories(resources());
  std::ofstream(resources() / "QOR_RUNTIME_VERSION") << shippedVersion << "\n";
  setEnv("QOR_DEV", nullptr);
  setEnv("PYTHONDONTWRITEBYTECODE", "1");
}

SidecarTest::~SidecarTest() {
  for (const auto& manager : managers_) manager->stop();
  for (const auto& child : children_) {
    child->kill();
    child->waitForExit();
  }
  for (const auto& [name, value] : savedEnvironment_ | std::views::reverse) {
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  }
}

void SidecarTest::setEnv(const std::string& name, const char* value) {
  const char* old = std::getenv(name.c_str());
  savedEnvironment_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
  value ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
}

fs::path SidecarTest::archive() const {
  return resources() / ("QOR-runtime-" + SidecarManager::architectureName() + ".zip");
}

void SidecarTest::developerMode() {
  setEnv("QOR_DEV", "1");
  setEnv("QOR_PYTHON", "/usr/bin/python3");
  setEnv("QOR_SIDECAR_DIR", FAKE_GATEWAY_DIR);
}

void SidecarTest::shipRuntime(const std::string& version) {
  const auto staging = root_ / "staging";
  fs::remove_all(staging);
  fs::create_directories(staging / "python" / "bin");
  fs::create_symlink("/usr/bin/python3", staging / "python" / "bin" / "python");
  fs::copy(FAKE_GATEWAY_DIR, staging / "sidecar", fs::copy_options::recursive);
  std::ofstream(staging / "QOR_RUNTIME_VERSION") << version;
  std::ofstream(resources() / "QOR_RUNTIME_VERSION") << version << "\n";
  fs::remove(archive());
  const auto zipped = ChildProcess::run({.executable = "/usr/bin/zip",
                                         .arguments = {"-q", "-r", "-y", archive().string(), "."},
                                         .workingDirectory = staging});
  ASSERT_TRUE(zipped && *zipped == 0);
}

void SidecarTest::configureGateway(json config, fs::path dataDir) {
  if (dataDir.empty()) dataDir = data();
  fs::create_directories(dataDir);
  config.emplace("version", shippedVersion);
  std::ofstream(dataDir / "fake-gateway.json") << config.dump();
}

std::vector<json> SidecarTest::launches() const {
  std::vector<json> launches;
  for (const auto& line : linesOf(data() / "launches.jsonl")) {
    auto launch = json::parse(line, nullptr, false);
    if (launch.is_object()) launches.push_back(launch);  // not a line still being written
  }
  return launches;
}

std::shared_ptr<SidecarManager> SidecarTest::makeManager(double clockSpeed) {
  const auto queue = queue_ = std::make_shared<TestQueue>();
  const auto record = record_ = std::make_shared<Record>();
  SidecarManager::Settings settings{gatewayPort, litellmPort, clockSpeed, support(), resources()};
  settings.diagnostics = [queue, record](std::string_view bytes) {
    queue->post([record, text = std::string(bytes)] { record->diagnostics += text; });
  };
  auto manager = std::make_shared<SidecarManager>(queue, settings);
  manager->onStatus = [record](const std::string& text) { record->statuses.push_back(text); };
  manager->onReady = [record](const std::string& url) { record->ready.push_back(url); };
  managers_.push_back(manager);
  return manager;
}

Record SidecarTest::record() {
  queue_->run();
  return *record_;
}

std::shared_ptr<ChildProcess> SidecarTest::launch(LaunchOptions options) {
  auto child = ChildProcess::launch(std::move(options));
  if (!child) throw std::runtime_error(child.error().description);
  children_.push_back(*child);
  return *child;
}

std::shared_ptr<ChildProcess> SidecarTest::runStandIn(const fs::path& dataDir, int port) {
  auto child = launch({
      .executable = "/usr/bin/python3",
      .arguments = {"-m", "qor_gateway.main", "--port", std::to_string(port), "--litellm-port",
                    std::to_string(litellmPort), "--data-dir", dataDir.string()},
      .workingDirectory = FAKE_GATEWAY_DIR,
  });
  if (!eventually([&] { return listenersOn({port}).contains(port); })) {
    throw std::runtime_error("the stand-in gateway never listened");
  }
  return child;
}

}  // namespace qor::testing
