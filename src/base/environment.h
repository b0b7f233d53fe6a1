// A copy of a process environment that can be changed and handed to a child.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qor {

class Environment {
 public:
  // A snapshot of this process's environment.
  static Environment current();

  // Reads one variable of this process's environment, afresh on every call.
  static std::optional<std::string> variable(const char* name);

  void set(const std::string& name, const std::string& value) { variables_[name] = value; }
  std::optional<std::string> get(const std::string& name) const;

  // "NAME=value" entries, as execve takes them.
  std::vector<std::string> entries() const;

 private:
  std::map<std::string, std::string> variables_;
};

}  // namespace qor
