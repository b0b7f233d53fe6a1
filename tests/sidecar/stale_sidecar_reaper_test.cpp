// Recognising our own gateways by their command line, finding listeners
// through /proc, and the sweep that frees the gateway's ports from leftovers.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <algorithm>
#include <fstream>
#include <mutex>

#include "base/child_process.h"
#include "sidecar/process_table.h"
#include "sidecar/stale_sidecar_reaper.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

using Clock = std::chrono::steady_clock;

// Listens on <host> <port>; <behaviour> is "exit-on-term", "ignore-term" or
// "accept-then-close" (serves one connection, then closes the listening
// socket and keeps the connection). Further arguments only mark the command
// line. Every SIGTERM is reported on standard output.
constexpr const char* listenerScript = R"(import os, signal, socket, sys, time
host, port, behaviour = sys.argv[1], int(sys.argv[2]), sys.argv[3]

def terminated(number, frame):
    print("got SIGTERM", flush=True)
    if behaviour != "ignore-term":
        sys.exit(0)

signal.signal(signal.SIGTERM, terminated)
family = socket.AF_INET6 if ":" in host else socket.AF_INET
server = socket.socket(family, socket.SOCK_STREAM)
if family == socket.AF_INET6:
    server.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
server.bind((host, port))
server.listen()
print("listening", flush=True)
if behaviour == "accept-then-close":
    connection, _ = server.accept()
    server.close()
    print("connected", flush=True)
parent = os.getppid()
while os.getppid() == parent:  # never outlive the test, even one that crashed
    time.sleep(0.1)
)";

// A temporary folder holding the listener script.
class ScriptFolder {
 public:
  ScriptFolder() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "qor-reaper-test-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    std::ofstream(script()) << listenerScript;
  }
  ~ScriptFolder() {
    std::error_code ec;
    std::filesystem::remove_all(folder_, ec);
  }
  std::filesystem::path script() const { return folder_ / "listener.py"; }

 private:
  std::filesystem::path folder_;
};

// A real listening process, killed when the test ends however it ends.
class Listener {
 public:
  Listener(const std::filesystem::path& script, const std::string& host, int port,
           const std::string& behaviour, const std::vector<std::string>& markers) {
    arguments_ = {script.string(), host, std::to_string(port), behaviour};
    arguments_.insert(arguments_.end(), markers.begin(), markers.end());
    auto child = ChildProcess::launch({
        .executable = "/usr/bin/python3",
        .arguments = arguments_,
        .output = OutputMode::capture,
        .onOutput = [state = state_](std::string_view bytes) { state->append(bytes); },
        .onExit = [state = state_](int) { state->markExited(); },
    });
    if (!child) throw std::runtime_error(child.error().description);
    child_ = std::move(child).value();
    if (!eventually([this] { return output().find("listening\n") != std::string::npos; }, 20s)) {
      throw std::runtime_error("the listener did not start: " + output());
    }
  }

  ~Listener() {
    child_->kill();
    child_->waitForExitWithTimeout(10s);
  }

  pid_t pid() const { return child_->pid(); }
  bool isRunning() const { return child_->isRunning(); }
  std::optional<int> waitForExit(std::chrono::milliseconds timeout) {
    return child_->waitForExitWithTimeout(timeout);
  }
  std::string output() const { return state_->output(); }
  bool gotTerminateSoFar() const { return output().find("got SIGTERM") != std::string::npos; }
  // The report may still be in the pipe when the exit is seen.
  bool gotTerminate() const {
    return eventually([this] { return gotTerminateSoFar(); }, 10s);
  }
  std::optional<Clock::time_point> exitedAt() const { return state_->exitedAt(); }

  // The command line as launched, independent of how /proc is read.
  std::string commandLine() const {
    std::string line = "/usr/bin/python3";
    for (const auto& argument : arguments_) line += " " + argument;
    return line;
  }

 private:
  class State {
   public:
    void append(std::string_view bytes) {
      std::lock_guard lock(mutex_);
      output_.append(bytes);
    }
    void markExited() {
      std::lock_guard lock(mutex_);
      exitedAt_ = Clock::now();
    }
    std::string output() const {
      std::lock_guard lock(mutex_);
      return output_;
    }
    std::optional<Clock::time_point> exitedAt() const {
      std::lock_guard lock(mutex_);
      return exitedAt_;
    }

   private:
    mutable std::mutex mutex_;
    std::string output_;
    std::optional<Clock::time_point> exitedAt_;
  };

  std::vector<std::string> arguments_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::shared_ptr<ChildProcess> child_;
};

const std::vector<std::string> gatewayInProductFolder = {"-m", "qor_gateway.main", "--data-dir",
                                                         "/home/u/.local/share/QOR Velmora/data"};

std::vector<int> distinctFreePorts(size_t count) {
  std::vector<int> ports;
  while (ports.size() < count) {
    const int port = freePort();
    if (std::find(ports.begin(), ports.end(), port) == ports.end()) ports.push_back(port);
  }
  return ports;
}

bool ipv6LoopbackAvailable() {
  const int fd = socket(AF_INET6, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return bound;
}

std::string reapingLine(const Listener& listener, int port) {
  return "[sidecar] reaping stale sidecar pid=" + std::to_string(listener.pid()) + " on port " +
         std::to_string(port) + ": " + listener.commandLine() + "\n";
}

TEST(IsOurSidecar, RecognisesOnlyThisProductsGatewayAndLitellm) {
  const std::string product = "/home/u/.local/share/QOR Velmora";
  struct Case {
    std::string command;
    bool ours;
  };
  const std::vector<Case> cases = {
      // The gateway as the application launches it.
      {product +
           "/runtime/x64/python/bin/python -m qor_gateway.main --port 8088 "
           "--litellm-port 8089 --data-dir " +
           product + "/data",
       true},
      {"/usr/bin/python3 -m qor_gateway --port 8088 --data-dir " + product + "/data", true},
      {product + "/runtime/x64/python/bin/python /opt/bin/litellm --port 8089", true},
      // Outside the product's folders only QOR_DATA_DIR on the command line claims it.
      {"/usr/bin/python3 -m qor_gateway.main --port 8088 --data-dir /srv/data", false},
      {"env QOR_DATA_DIR=/srv/data /usr/bin/python3 -m qor_gateway.main --port 8088", true},
      {"/usr/bin/python3 /usr/local/bin/litellm --port 8089", false},
      {"/usr/bin/python3 /usr/local/bin/litellm QOR_DATA_DIR=/srv/data", true},
      // The product's folder alone claims nothing.
      {product + "/runtime/x64/python/bin/python -m http.server 8088", false},
      {product + "/bin/litellm --port 8089", false},  // litellm needs python too
      {"QOR_DATA_DIR=" + product + "/data /usr/bin/ruby server.rb", false},
      // Plain case-sensitive substrings.
      {"/home/u/.local/share/qor velmora/python -m qor_gateway.main", false},
      {product + "/python -m QOR_GATEWAY.MAIN", false},
      {product + "/Python/bin/LiteLLM", false},
      {"/usr/bin/python3 -m qor_gateway.main qor_data_dir=/srv/data", false},
      {"", false},
  };
  for (const auto& [command, ours] : cases) {
    EXPECT_EQ(isOurSidecar(command), ours) << command;
  }
}

class ProcessTable : public ::testing::Test {
 protected:
  ScriptFolder folder;
};

TEST_F(ProcessTable, PidsListeningFindsListenersOnlyOnTheirPort) {
  const auto ports = distinctFreePorts(2);
  EXPECT_EQ(pidsListening(ports[0]), std::nullopt);

  Listener first(folder.script(), "127.0.0.1", ports[0], "exit-on-term", {});
  EXPECT_EQ(pidsListening(ports[0]), std::vector<pid_t>{first.pid()});
  EXPECT_EQ(pidsListening(ports[1]), std::nullopt);

  // Two processes sharing the port are both listed, in ascending order.
  Listener second(folder.script(), "127.0.0.1", ports[0], "exit-on-term", {});
  std::vector<pid_t> both = {first.pid(), second.pid()};
  std::sort(both.begin(), both.end());
  EXPECT_EQ(pidsListening(ports[0]), both);
}

TEST_F(ProcessTable, ConnectionsOnThePortAreNotListeners) {
  const int port = freePort();
  Listener server(folder.script(), "127.0.0.1", port, "accept-then-close", {});

  const int client = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(client, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const bool connected =
      eventually([&] { return server.output().find("connected\n") != std::string::npos; }, 20s);
  EXPECT_TRUE(connected);

  // The server still holds an established socket on the port, and this test
  // one whose remote end is the port: neither listens.
  if (connected) {
    EXPECT_EQ(pidsListening(port), std::nullopt);
  }
  close(client);
}

TEST_F(ProcessTable, PidsListeningFindsIPv6Listeners) {
  if (!ipv6LoopbackAvailable()) GTEST_SKIP() << "no IPv6 loopback on this machine";
  const int port = freePort();
  Listener listener(folder.script(), "::1", port, "exit-on-term", {});
  EXPECT_EQ(pidsListening(port), std::vector<pid_t>{listener.pid()});
}

TEST(ProcessCommand, JoinsTheArgumentsOfALiveProcessOnly) {
  auto launched = ChildProcess::launch({
      .executable = "/usr/bin/python3",
      .arguments = {"-c", "import time; time.sleep(60)", "QOR Velmora", ""},
  });
  ASSERT_TRUE(launched) << launched.error().description;
  const auto sleeper = launched.value();
  EXPECT_EQ(processCommand(sleeper->pid()),
            "/usr/bin/python3 -c import time; time.sleep(60) QOR Velmora");
  sleeper->kill();
  ASSERT_TRUE(sleeper->waitForExitWithTimeout(10s));
  EXPECT_EQ(processCommand(sleeper->pid()), std::nullopt);
}

class StaleSidecarReaping : public ::testing::Test {
 protected:
  ScriptFolder folder;
  std::string diagnostics;
  DiagnosticSink sink = [this](std::string_view bytes) { diagnostics.append(bytes); };

  // Runs the sweep and returns how long it took.
  Clock::duration reap(const std::vector<int>& ports, double clockSpeed) {
    const auto started = Clock::now();
    reapStaleSidecars(ports, ScaledClock(clockSpeed), sink);
    return Clock::now() - started;
  }
};

// A slower clock stretches the 2 s wait for our processes to 4 s, far from
// the few passes a prompt exit needs.
constexpr double slowClock = 0.5;

TEST_F(StaleSidecarReaping, OursAreAskedToTerminateAndReported) {
  const auto ports = distinctFreePorts(2);
  Listener gateway(folder.script(), "127.0.0.1", ports[0], "exit-on-term", gatewayInProductFolder);
  Listener litellm(folder.script(), "127.0.0.1", ports[1], "exit-on-term",
                   {"litellm", "--port", std::to_string(ports[1]), "QOR_DATA_DIR=/srv/data"});

  const auto took = reap(ports, slowClock);

  EXPECT_EQ(diagnostics, reapingLine(gateway, ports[0]) + reapingLine(litellm, ports[1]));
  // Exit status 0 from the SIGTERM handler: no SIGKILL was needed.
  EXPECT_EQ(gateway.waitForExit(10s), 0);
  EXPECT_EQ(litellm.waitForExit(10s), 0);
  EXPECT_TRUE(gateway.gotTerminate());
  EXPECT_TRUE(litellm.gotTerminate());
  EXPECT_LT(took, 3s) << "the sweep kept waiting after the ports were free";
}

TEST_F(StaleSidecarReaping, OneThatIgnoresTerminateIsKilledAfterAboutTwoSeconds) {
  const auto ports = distinctFreePorts(2);
  Listener stubborn(folder.script(), "127.0.0.1", ports[1], "ignore-term", gatewayInProductFolder);

  const auto started = Clock::now();
  reap(ports, 1.0);
  const auto returned = Clock::now();

  EXPECT_EQ(stubborn.waitForExit(10s), 128 + SIGKILL);
  EXPECT_TRUE(stubborn.gotTerminate()) << "SIGTERM must come first";
  const auto exitedAt = stubborn.exitedAt();
  ASSERT_TRUE(exitedAt);
  EXPECT_GE(*exitedAt - started, 1900ms) << "killed before the ports had 2 s to clear";
  // The exit is seen a little after the kill; the 0.3 s pause follows the kill.
  EXPECT_GE(returned - *exitedAt, 150ms) << "no settling pause after SIGKILL";
  // The kill itself is not reported.
  EXPECT_EQ(diagnostics, reapingLine(stubborn, ports[1]));
}

TEST_F(StaleSidecarReaping, OthersListeningAreLeftAlone) {
  const auto ports = distinctFreePorts(3);
  Listener productButOtherModule(folder.script(), "127.0.0.1", ports[0], "exit-on-term",
                                 {"-m", "http.server", "/opt/QOR Velmora/data"});
  Listener gatewayElsewhere(folder.script(), "127.0.0.1", ports[1], "exit-on-term",
                            {"-m", "qor_gateway.main", "--data-dir", "/srv/gateway-data"});
  Listener ours(folder.script(), "127.0.0.1", ports[2], "exit-on-term", gatewayInProductFolder);

  const auto took = reap(ports, slowClock);

  EXPECT_EQ(ours.waitForExit(10s), 0);
  EXPECT_EQ(diagnostics, reapingLine(ours, ports[2]));
  // A signalled listener would exit at once; these keep running.
  EXPECT_EQ(productButOtherModule.waitForExit(500ms), std::nullopt);
  EXPECT_EQ(gatewayElsewhere.waitForExit(500ms), std::nullopt);
  EXPECT_FALSE(productButOtherModule.gotTerminateSoFar());
  EXPECT_FALSE(gatewayElsewhere.gotTerminateSoFar());
  EXPECT_LT(took, 3s) << "listeners that are not ours kept the sweep waiting";
}

TEST_F(StaleSidecarReaping, NothingListeningReturnsQuietly) {
  const auto took = reap(distinctFreePorts(2), slowClock);
  EXPECT_EQ(diagnostics, "");
  EXPECT_LT(took, 2s);
}

}  // namespace
}  // namespace qor::testing
