// A private folder under the system's temporary directory, made for one test
// and removed with everything in it when the test ends.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace qor::testing {

class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::string& prefix = "qor-test") {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a folder like " + pattern);
    path_ = pattern;
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;  // best effort: a folder left in /tmp harms nobody
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace qor::testing
