// The install and relaunch scripts' quoting. The input is the script's paths
// and version separated by NULs (which no path holds). For any bytes, bash
// takes the scripts and their variables read back as exactly those bytes.
// Running bash is slow, so it checks one input in QOR_FUZZ_SHELL_EVERY
// (default 64), chosen by the input's bytes; a corpus replay sets it to 1.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "updater/install_script.h"

extern char** environ;

using namespace qor;

namespace {

struct Run {
  int status = -1;
  std::string output;
};

// `arguments` run with `input` on standard input.
Run runBash(const std::vector<std::string>& arguments, const std::string& input) {
  int toChild[2], fromChild[2];
  if (pipe(toChild) != 0 || pipe(fromChild) != 0) std::abort();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
  for (const int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) {
    posix_spawn_file_actions_addclose(&actions, fd);
  }
  std::vector<char*> argv;
  std::string program = "/bin/bash";
  argv.push_back(program.data());
  std::vector<std::string> copies = arguments;
  for (auto& argument : copies) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::string locale = "LC_ALL=C.UTF-8";
  char* environment[] = {locale.data(), nullptr};
  pid_t child = 0;
  if (posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environment) != 0) {
    std::abort();
  }
  posix_spawn_file_actions_destroy(&actions);
  close(toChild[0]);
  close(fromChild[1]);
  // The scripts print only after reading all of their text. libFuzzer's
  // time-out alarm interrupts the calls now and then.
  for (std::size_t written = 0; written < input.size();) {
    const auto n = write(toChild[1], input.data() + written, input.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += std::size_t(n);
  }
  close(toChild[1]);
  Run run;
  char buffer[4096];
  for (;;) {
    const auto n = read(fromChild[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    run.output.append(buffer, std::size_t(n));
  }
  close(fromChild[0]);
  while (waitpid(child, &run.status, 0) < 0 && errno == EINTR) {
  }
  return run;
}

// The variables a script sets before its first command, set by bash and
// printed, each followed by a NUL.
std::string variablesAsBashReadsThem(const std::string& script,
                                     const std::vector<std::string>& names) {
  // The last mark: a value may hold the same text.
  std::string probe =
      script.substr(0, script.rfind("\n# wait for the running app")) + "\nprintf '%s\\0'";
  for (const auto& name : names) probe += " \"$" + name + "\"";
  return runBash({"-s"}, probe + "\n").output;
}

bool shellCheckSampled(std::string_view input) {
  static const std::size_t every = [] {
    const char* setting = std::getenv("QOR_FUZZ_SHELL_EVERY");
    const long value = setting ? std::atol(setting) : 64;
    return value > 0 ? std::size_t(value) : 64;
  }();
  return std::hash<std::string_view>{}(input) % every == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::textOf(data, size);
  const auto parts = fuzz::partsOf(input, '\0', 8);
  const std::vector<std::string> values(parts.begin(), parts.end());
  InstallScript install;
  install.processId = 4242;
  install.newBundle = values[0];
  install.destination = values[1];
  install.staging = values[2];
  install.image = values[3];
  install.log = values[4];
  install.version = values[5];
  install.exchangeTool = values[6];
  install.failureMark = values[7];
  const RelaunchScript relaunch{4242, values[1], values[4]};
  // The last part keeps any further NULs, which no path holds.
  if (values[7].find('\0') != std::string::npos || !shellCheckSampled(input)) return 0;

  for (const auto& script : {install.text(), relaunch.text()}) {
    fuzz::expect(runBash({"-n", "-s"}, script).status == 0, "bash takes the script", input);
  }
  std::string expected;
  for (const auto& value : {values[0], values[1], install.nextBundle().string(), values[5],
                            values[6], values[2], values[3], values[4], values[7]}) {
    expected += value + '\0';
  }
  fuzz::expect(
      variablesAsBashReadsThem(install.text(), {"SRC", "DST", "NEXT", "VERSION", "EXCHANGE",
                                                "MOUNT", "DMG", "LOG", "FAILED"}) == expected,
      "the install script's variables read back as the paths' bytes", input);
  fuzz::expect(variablesAsBashReadsThem(relaunch.text(), {"DST", "LOG"}) ==
                   values[1] + '\0' + values[4] + '\0',
               "the relaunch script's variables read back as the paths' bytes", input);
  return 0;
}
