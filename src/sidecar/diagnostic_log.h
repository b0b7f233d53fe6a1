// The application's log in the product folder: the gateway's output and the
// supervisor's own diagnostics, so that a user (or whoever helps them) finds
// what happened after the fact. Size-capped: when the file would grow past
// `fileLimit` it becomes "qor-velmora.log.1" (the older one ".2") and a
// fresh one starts.
//
// Threads: any; appends are serialised.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string_view>

#include "sidecar/diagnostics.h"

namespace qor {

class DiagnosticLog {
 public:
  static constexpr const char* fileName = "qor-velmora.log";
  static constexpr std::uintmax_t defaultFileLimit = 2 * 1024 * 1024;
  static constexpr int olderFilesKept = 2;

  explicit DiagnosticLog(std::filesystem::path folder, std::uintmax_t fileLimit = defaultFileLimit);
  ~DiagnosticLog();
  DiagnosticLog(const DiagnosticLog&) = delete;
  DiagnosticLog& operator=(const DiagnosticLog&) = delete;

  // Best effort: a log that cannot be written loses the bytes, nothing else.
  void append(std::string_view bytes);

 private:
  bool openIfNeeded();
  void rotate();

  const std::filesystem::path folder_;
  const std::uintmax_t fileLimit_;
  std::mutex mutex_;
  int fd_ = -1;
  std::uintmax_t size_ = 0;
};

// Each piece goes into a log in `folder` and, as far as it takes it without
// waiting, to standard error.
DiagnosticSink logAndStandardError(const std::filesystem::path& folder);

}  // namespace qor
