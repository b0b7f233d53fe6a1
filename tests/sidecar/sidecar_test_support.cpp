#include "sidecar_test_support.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <future>

#include "base/child_process.h"
#include "base/files.h"
#include "base/text.h"

namespace qor::testing {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

int freePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

bool processAlive(pid_t pid) {
  // A zombie still answers kill(); its state letter tells it apart.
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  const auto close = text.rfind(')');
  return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
}

std::vector<std::string> commandLineOf(pid_t pid) {
  const auto raw = readTextFile("/proc/" + std::to_string(pid) + "/cmdline").value_or("");
  std::vector<std::string> arguments;
  size_t start = 0;
  for (size_t end; (end = raw.find('\0', start)) != std::string::npos; start = end + 1) {
    arguments.push_back(raw.substr(start, end - start));
  }
  return arguments;
}

void Recorder::addStatus(const std::string& text) {
  std::lock_guard lock(mutex_);
  statuses_.push_back(text);
  callbackThreads_.push_back(std::this_thread::get_id());
}

void Recorder::addReady(const std::string& url) {
  std::lock_guard lock(mutex_);
  readyURLs_.push_back(url);
  callbackThreads_.push_back(std::this_thread::get_id());
}

void Recorder::addDiagnostic(std::string_view bytes) {
  std::lock_guard lock(mutex_);
  diagnostics_.append(bytes);
}

std::vector<std::string> Recorder::statuses() const {
  std::lock_guard lock(mutex_);
  return statuses_;
}

std::vector<std::string> Recorder::readyURLs() const {
  std::lock_guard lock(mutex_);
  return readyURLs_;
}

std::string Recorder::diagnostics() const {
  std::lock_guard lock(mutex_);
  return diagnostics_;
}

std::vector<std::thread::id> Recorder::callbackThreads() const {
  std::lock_guard lock(mutex_);
  return callbackThreads_;
}

SerialQueue::SerialQueue()
    : thread_([this] {
        for (;;) {
          std::unique_lock lock(mutex_);
          wake_.wait(lock, [this] { return closing_ || !tasks_.empty(); });
          if (tasks_.empty()) return;
          auto task = std::move(tasks_.front());
          tasks_.pop_front();
          lock.unlock();
          task();
        }
      }) {}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(mutex_);
    closing_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void SerialQueue::post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
}

TestInstallation::TestInstallation() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "qor-sidecar-test-XXXXXX").string();
  root_ = mkdtemp(pattern.data());
  std::filesystem::create_directories(resources());
  std::filesystem::create_directories(support());
}

TestInstallation::~TestInstallation() {
  // Stop every gateway this test started before its files go.
  for (const auto& manager : managers_) manager->stop();
  for (const auto& launch : launches()) {
    const pid_t pid = launch["pid"];
    if (processAlive(pid)) ::kill(pid, SIGKILL);
  }
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
}

std::filesystem::path TestInstallation::runtime() const {
  return product() / "runtime" / SidecarManager::architectureName();
}

std::filesystem::path TestInstallation::fakeGatewaySources() {
  return FAKE_GATEWAY_DIR;
}

void TestInstallation::setShippedVersion(const std::string& version) {
  std::ofstream(resources() / "QOR_RUNTIME_VERSION") << version << "\n";
}

void TestInstallation::shipRuntime(const std::string& version) {
  setShippedVersion(version);
  const auto staging = root_ / "runtime-staging";
  std::filesystem::remove_all(staging);
  std::filesystem::create_directories(staging / "python" / "bin");
  std::filesystem::create_symlink("/usr/bin/python3", staging / "python" / "bin" / "python");
  std::filesystem::copy(fakeGatewaySources(), staging / "sidecar",
                        std::filesystem::copy_options::recursive);
  std::ofstream(staging / "QOR_RUNTIME_VERSION") << version;
  const auto archive = resources() / ("QOR-runtime-" + SidecarManager::architectureName() + ".zip");
  std::filesystem::remove(archive);
  const auto zipped = ChildProcess::run({.executable = "/usr/bin/zip",
                                         .arguments = {"-q", "-r", "-y", archive.string(), "."},
                                         .workingDirectory = staging,
                                         .output = OutputMode::discard});
  if (!zipped || *zipped != 0) throw std::runtime_error("cannot build the test runtime archive");
}

void TestInstallation::shipCorruptArchive() {
  setShippedVersion("9.9.9");
  std::ofstream(resources() / ("QOR-runtime-" + SidecarManager::architectureName() + ".zip"))
      << "PK\x03\x04 this is not a zip archive";
}

void TestInstallation::configureGateway(nlohmann::json config) {
  std::filesystem::create_directories(data());
  if (!config.contains("shipped_version")) {
    const auto shipped = readTextFile(resources() / "QOR_RUNTIME_VERSION");
    config["shipped_version"] = shipped ? trimmed(*shipped) : "0.7.13";
  }
  std::ofstream(data() / "fake-gateway.json") << config.dump();
}

std::vector<nlohmann::json> TestInstallation::launches() const {
  std::vector<nlohmann::json> launches;
  std::ifstream in(data() / "launches.jsonl");
  for (std::string line; std::getline(in, line);) {
    const auto launch = nlohmann::json::parse(line, nullptr, false);
    if (launch.is_object()) launches.push_back(launch);  // a line being written is skipped
  }
  return launches;
}

std::vector<std::string> TestInstallation::signalsReceived() const {
  std::vector<std::string> lines;
  std::ifstream in(data() / "signals.log");
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void TestInstallation::drainQueue() {
  std::promise<void> drained;
  queue_->post([&drained] { drained.set_value(); });
  drained.get_future().wait();
}

std::shared_ptr<SidecarManager> TestInstallation::makeManager(
    const std::shared_ptr<Recorder>& recorder, double clockSpeed) {
  auto manager = std::make_shared<SidecarManager>(
      queue_,
      SidecarManager::Settings{
          .gatewayPort = gatewayPort,
          .litellmPort = litellmPort,
          .clockSpeed = clockSpeed,
          .supportDirectory = support(),
          .resourceDirectory = resources(),
          .diagnostics = [recorder](std::string_view bytes) { recorder->addDiagnostic(bytes); },
      });
  manager->onStatus = [recorder](const std::string& text) { recorder->addStatus(text); };
  manager->onReady = [recorder](const std::string& url) { recorder->addReady(url); };
  managers_.push_back(manager);
  return manager;
}

ScopedEnvironment& ScopedEnvironment::set(const std::string& name, const std::string& value) {
  remember(name);
  setenv(name.c_str(), value.c_str(), 1);
  return *this;
}

ScopedEnvironment& ScopedEnvironment::unset(const std::string& name) {
  remember(name);
  unsetenv(name.c_str());
  return *this;
}

void ScopedEnvironment::remember(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
}

ScopedEnvironment::~ScopedEnvironment() {
  for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
    if (it->second) {
      setenv(it->first.c_str(), it->second->c_str(), 1);
    } else {
      unsetenv(it->first.c_str());
    }
  }
}

ScopedEnvironment developerMode() {
  ScopedEnvironment environment;
  environment.set("QOR_DEV", "1")
      .set("QOR_PYTHON", "/usr/bin/python3")
      .set("QOR_SIDECAR_DIR", TestInstallation::fakeGatewaySources().string())
      .set("PYTHONDONTWRITEBYTECODE", "1");
  return environment;
}

}  // namespace qor::testing
