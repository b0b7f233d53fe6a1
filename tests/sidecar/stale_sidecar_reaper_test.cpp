// Freeing the gateway's ports from leftover gateways of ours, recognised by
// their command line.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "sidecar/process_table.h"
#include "sidecar/stale_sidecar_reaper.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

struct Socket {
  explicit Socket(int family) : fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() { close(fd); }
  const int fd;
};

int localPort(const Socket& s) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(s.fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

// Only sockets in the listening state count, on IPv4 and IPv6 alike.
TEST(ProcessTable, ListenersAreSocketsInTheListeningStateOnly) {
  const auto us = [](int port) { return std::map<int, std::vector<pid_t>>{{port, {getpid()}}}; };
  const std::map<int, std::vector<pid_t>> nobody;
  Socket server(AF_INET), client(AF_INET), server6(AF_INET6);
  sockaddr_in address{.sin_family = AF_INET, .sin_addr = {htonl(INADDR_LOOPBACK)}};
  ASSERT_EQ(bind(server.fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const int port = localPort(server);
  EXPECT_EQ(listenersOn({port}), nobody) << "bound, not listening";
  ASSERT_EQ(listen(server.fd, 1), 0);
  EXPECT_EQ(listenersOn({port, port + 1}), us(port));
  address.sin_port = htons(port);
  ASSERT_EQ(connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listenersOn({localPort(client)}), nobody) << "connected, not listening";

  sockaddr_in6 address6{.sin6_family = AF_INET6, .sin6_port = htons(port)};
  address6.sin6_addr = in6addr_loopback;
  if (bind(server6.fd, reinterpret_cast<sockaddr*>(&address6), sizeof address6) != 0) {
    GTEST_SKIP() << "no IPv6 loopback";
  }
  ASSERT_EQ(listen(server6.fd, 1), 0);
  shutdown(server.fd, SHUT_RDWR);  // ends the IPv4 listener
  EXPECT_EQ(listenersOn({port}), us(port)) << "IPv6 only";
}

using StaleSidecarReaping = SidecarTest;

TEST_F(StaleSidecarReaping, OursAreTerminatedOrKilledOthersLeftAlone) {
  const int ports[] = {freePort(), freePort(), freePort()};
  const fs::path folders[] = {data() / "a", data() / "b", support() / "not-ours"};
  std::shared_ptr<ChildProcess> gateways[3];
  for (int i = 0; i < 3; ++i) {
    configureGateway({{"ignore_term", i == 1}}, folders[i]);
    gateways[i] = runStandIn(folders[i], ports[i]);
  }

  std::string diagnostics;
  auto sweep = std::async(std::launch::async, [&] {
    const auto sink = [&](std::string_view bytes) { diagnostics.append(bytes); };
    reapStaleSidecars({ports[0], ports[1], ports[2]}, ScaledClock(), sink);
  });
  EXPECT_EQ(gateways[1]->waitForExitWithTimeout(1500ms), std::nullopt) << "killed before 2 s";
  sweep.get();
  // The first ends through its SIGTERM handler, which exits with 0.
  EXPECT_EQ(gateways[0]->waitForExit(), 0);
  EXPECT_EQ(gateways[1]->waitForExit(), 128 + SIGKILL);
  EXPECT_TRUE(gateways[2]->isRunning());

  const auto reaping = [&](int i) {
    return "[sidecar] reaping stale sidecar pid=" + std::to_string(gateways[i]->pid()) +
           " on port " + std::to_string(ports[i]) +
           ": /usr/bin/python3 -m qor_gateway.main --port " + std::to_string(ports[i]) +
           " --litellm-port " + std::to_string(litellmPort) + " --data-dir " + folders[i].string() +
           "\n";
  };
  EXPECT_EQ(diagnostics, reaping(0) + reaping(1));
  EXPECT_EQ(linesOf(folders[1] / "signals.log"),
            std::vector{std::to_string(gateways[1]->pid()) + " 15"})
      << "no SIGTERM before SIGKILL";
  EXPECT_FALSE(fs::exists(folders[2] / "signals.log"));
}

}  // namespace
}  // namespace qor::testing
