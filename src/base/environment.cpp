#include "base/environment.h"

#include <cstdlib>
#include <cstring>

extern char** environ;

namespace qor {

Environment Environment::current() {
  Environment environment;
  for (char** entry = environ; entry && *entry; ++entry) {
    const char* equals = std::strchr(*entry, '=');
    if (!equals) continue;
    environment.variables_.emplace(std::string(*entry, static_cast<size_t>(equals - *entry)),
                                   std::string(equals + 1));
  }
  return environment;
}

std::optional<std::string> Environment::variable(const char* name) {
  const char* value = std::getenv(name);
  if (!value) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> Environment::get(const std::string& name) const {
  const auto found = variables_.find(name);
  if (found == variables_.end()) return std::nullopt;
  return found->second;
}

std::vector<std::string> Environment::entries() const {
  std::vector<std::string> entries;
  entries.reserve(variables_.size());
  for (const auto& [name, value] : variables_) entries.push_back(name + "=" + value);
  return entries;
}

}  // namespace qor
