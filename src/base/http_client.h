// HTTP for the shell: plain GETs with a hard deadline for probing local
// services, and HTTPS transfers for the updater (a GET into memory and a
// cancellable download into a file).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/error.h"

namespace qor {

struct HttpResponse {
  long status = 0;
  std::string body;
};

// Any thread. Nothing when no HTTP response arrived within `timeout`
// (connection refused, not HTTP, too slow).
std::optional<HttpResponse> httpGet(const std::string& url, std::chrono::milliseconds timeout);

// How the updater's transfers behave. Nothing is kept between transfers: no
// cookies, no cache, no credentials.
struct HttpsTransferOptions {
  // The transfer fails when no byte arrives for this long.
  std::chrono::milliseconds idleTimeout{std::chrono::seconds(20)};
  // The whole transfer, redirects included, must end within this.
  std::chrono::milliseconds totalTimeout{std::chrono::seconds(600)};
  // A PEM file of certificate authorities trusted in addition to the
  // system's; empty: the system's only.
  std::filesystem::path extraCAFile;
};

// Errors of the HTTPS transfers carry this domain and libcurl's error code.
inline constexpr const char* httpsErrorDomain = "curl";

// The kinds of transfer failure a person can act on, for describing them in
// the person's own words.
enum class TransportFailure { other, noNetwork, nameNotResolved, refused, timedOut, insecure };

// Any thread. What kind of failure an error of the HTTPS transfers is.
TransportFailure transportFailure(const Error& error);

// Any thread; blocks until the transfer ends. Only https is spoken, and
// redirects are followed to https addresses only. Any HTTP status is a
// response; an error means no HTTP response arrived.
Result<HttpResponse> httpsGet(const std::string& url, const HttpsTransferOptions& options);

// Whether a transfer failed because the server closed the connection
// without sending a response.
bool isEmptyReply(const Error& error);

// A GET over HTTPS written into a new private file. The transfer runs on a
// thread of its own; the handle only cancels it. Redirects are followed to
// https addresses only. The HTTP status is not examined: whatever body the
// server sends is the download.
class HttpsDownload {
 public:
  // Bytes written so far and the expected total (below 1 when the server
  // sent no length). Called on the transfer's thread.
  using ProgressHandler = std::function<void(std::int64_t written, std::int64_t expected)>;
  // Called once on the transfer's thread. On success the file is the
  // caller's to move or delete; on failure or cancellation no file is left.
  using CompletionHandler = std::function<void(Result<std::filesystem::path> file)>;

  // Any thread. The file is created in `folder` as "qor-download-XXXXXX".
  static std::shared_ptr<HttpsDownload> start(std::string url, std::filesystem::path folder,
                                              HttpsTransferOptions options,
                                              ProgressHandler onProgress,
                                              CompletionHandler onComplete);

  // Any thread. The transfer ends within about a second with an error for
  // which isCancellation() holds, unless it has already finished.
  void cancel() { cancelled_ = true; }
  bool cancelled() const { return cancelled_; }

  static bool isCancellation(const Error& error);

  HttpsDownload(const HttpsDownload&) = delete;
  HttpsDownload& operator=(const HttpsDownload&) = delete;
  HttpsDownload() = default;

 private:
  Result<std::filesystem::path> run(const std::string& url, const std::filesystem::path& folder,
                                    const HttpsTransferOptions& options,
                                    const ProgressHandler& onProgress);

  std::atomic<bool> cancelled_{false};
};

}  // namespace qor
