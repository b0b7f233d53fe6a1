// What a folder and the process table hold, for tests that check what a
// program left behind or is running.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace qor::testing {

// The names in `folder`, sorted; none for a folder that is not there.
inline std::vector<std::string> namesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
       it.increment(ec)) {
    names.push_back(it->path().filename());
  }
  std::ranges::sort(names);
  return names;
}

struct RunningProcess {
  pid_t pid = 0, parent = 0;
  std::string name;         // as in /proc/<pid>/stat, without the parentheses
  std::string commandLine;  // the arguments, each followed by a NUL
};

// Every process, as far as it can be read: one may end while the table is read.
inline std::vector<RunningProcess> runningProcesses() {
  std::vector<RunningProcess> processes;
  std::error_code ec;
  for (std::filesystem::directory_iterator it("/proc", ec), end; !ec && it != end;
       it.increment(ec)) {
    const auto pid = it->path().filename().string();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string stat;
    if (!std::getline(std::ifstream(it->path() / "stat"), stat)) continue;
    const auto open = stat.find('('), close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos) continue;
    RunningProcess process{.pid = std::stoi(pid), .name = stat.substr(open + 1, close - open - 1)};
    std::string state;
    std::istringstream(stat.substr(close + 1)) >> state >> process.parent;
    std::ifstream commandLine(it->path() / "cmdline", std::ios::binary);
    process.commandLine.assign(std::istreambuf_iterator<char>(commandLine), {});
    processes.push_back(std::move(process));
  }
  return processes;
}

}  // namespace qor::testing
