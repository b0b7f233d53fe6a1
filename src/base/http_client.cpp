#include "base/http_client.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

namespace qor {
namespace {

using namespace std::chrono_literals;

void initializeCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Background probes may still run when the process exits; OpenSSL's exit
    // handler would free its state under them.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    curl_global_init(CURL_GLOBAL_DEFAULT);
  });
}

using CurlHandle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

CurlHandle newCurlHandle() {
  initializeCurlOnce();
  return CurlHandle(curl_easy_init(), curl_easy_cleanup);
}

size_t appendToString(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

// What one HTTPS transfer needs besides the handle.
struct HttpsTransfer {
  const HttpsTransferOptions* options = nullptr;
  const HttpsDownload* download = nullptr;  // asks for cancellation; none for plain GETs
  char errorBuffer[CURL_ERROR_SIZE] = {};
  std::string authorityError;  // set when the extra authorities could not be loaded
  // The idle time-out: libcurl's own low-speed check averages over several
  // seconds, so it would fire well after the time-out.
  curl_off_t bytesSeen = 0;
  std::chrono::steady_clock::time_point lastActivity = std::chrono::steady_clock::now();
  bool idleExpired = false;
};

// libcurl calls this at least once a second and after every piece of data;
// a non-zero result ends the transfer.
int watchTransfer(void* transferPointer, curl_off_t downloadTotal, curl_off_t downloaded,
                  curl_off_t uploadTotal, curl_off_t uploaded) {
  auto* transfer = static_cast<HttpsTransfer*>(transferPointer);
  if (transfer->download && transfer->download->cancelled()) return 1;
  const auto now = std::chrono::steady_clock::now();
  const curl_off_t seen = downloadTotal + downloaded + uploadTotal + uploaded;
  if (seen != transfer->bytesSeen) {
    transfer->bytesSeen = seen;
    transfer->lastActivity = now;
  } else if (now - transfer->lastActivity > transfer->options->idleTimeout) {
    transfer->idleExpired = true;
    return 1;
  }
  return 0;
}

// Adds the extra certificate authorities to the connection's trust store,
// next to the system's.
CURLcode addExtraAuthorities(CURL*, void* sslContext, void* transferPointer) {
  auto* transfer = static_cast<HttpsTransfer*>(transferPointer);
  const auto& file = transfer->options->extraCAFile;
  X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
  const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_file(file.c_str(), "r"), BIO_free);
  int added = 0;
  if (bio) {
    while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
      if (X509_STORE_add_cert(store, certificate) == 1) ++added;
      X509_free(certificate);
    }
  }
  ERR_clear_error();  // the read loop always ends with an end-of-file error
  if (added > 0) return CURLE_OK;
  transfer->authorityError = "cannot load a certificate authority from " + file.string();
  return CURLE_SSL_CACERT_BADFILE;
}

void configureHttps(CURL* curl, const std::string& url, HttpsTransfer& transfer) {
  const auto& options = *transfer.options;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 16L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "127.0.0.1,localhost,::1");
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options.idleTimeout.count()));
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(options.totalTimeout.count()));
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, watchTransfer);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
  if (!options.extraCAFile.empty()) {
    // A cached trust store would be shared with later transfers.
    curl_easy_setopt(curl, CURLOPT_CA_CACHE_TIMEOUT, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, addExtraAuthorities);
    curl_easy_setopt(curl, CURLOPT_SSL_CTX_DATA, &transfer);
  }
}

// Whether a connection failed for want of a route rather than being refused.
bool networkUnreachable(CURL* curl) {
  long osErrno = 0;
  curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &osErrno);
  return osErrno == ENETUNREACH || osErrno == ENETDOWN || osErrno == EHOSTUNREACH;
}

Error transferError(CURL* curl, CURLcode code, const HttpsTransfer& transfer) {
  if (transfer.idleExpired) {
    const auto seconds = std::chrono::duration<double>(transfer.options->idleTimeout).count();
    std::ostringstream description;
    description << "The server sent nothing for " << seconds << " s.";
    return Error{httpsErrorDomain, CURLE_OPERATION_TIMEDOUT, description.str()};
  }
  if (code == CURLE_ABORTED_BY_CALLBACK) {
    return Error{httpsErrorDomain, CURLE_ABORTED_BY_CALLBACK, "the download was cancelled"};
  }
  std::string description = transfer.authorityError;
  if (description.empty()) description = transfer.errorBuffer;
  if (description.empty()) description = curl_easy_strerror(code);
  // libcurl has one code for both; the system's error tells them apart.
  if (code == CURLE_COULDNT_CONNECT && networkUnreachable(curl)) {
    return systemError(ENETUNREACH, description);
  }
  return Error{httpsErrorDomain, static_cast<int>(code), description};
}

// Where a download's bytes go, and how often progress is reported.
struct DownloadSink {
  CURL* curl = nullptr;
  int fd = -1;
  int writeErrno = 0;
  std::int64_t written = 0;
  const HttpsDownload::ProgressHandler* onProgress = nullptr;
  std::chrono::steady_clock::time_point lastReport{};
  std::int64_t reported = -1;

  void report(bool force) {
    const auto now = std::chrono::steady_clock::now();
    if (!*onProgress || written == reported || (!force && now - lastReport < 50ms)) return;
    curl_off_t expected = -1;
    curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
    lastReport = now;
    reported = written;
    (*onProgress)(written, expected);
  }
};

size_t writeToFile(char* data, size_t size, size_t count, void* sinkPointer) {
  auto* sink = static_cast<DownloadSink*>(sinkPointer);
  size_t left = size * count;
  while (left > 0) {
    const ssize_t done = write(sink->fd, data, left);
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) {
      sink->writeErrno = errno;
      return 0;  // ends the transfer with CURLE_WRITE_ERROR
    }
    data += done;
    left -= static_cast<size_t>(done);
    sink->written += done;
  }
  sink->report(false);
  return size * count;
}

}  // namespace

std::optional<HttpResponse> httpGet(const std::string& url, std::chrono::milliseconds timeout) {
  const auto curl = newCurlHandle();
  if (!curl) return std::nullopt;
  HttpResponse response;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  // Local services are never reached through a proxy.
  curl_easy_setopt(curl.get(), CURLOPT_NOPROXY, "127.0.0.1,localhost,::1");
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, appendToString);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &response.body);
  if (curl_easy_perform(curl.get()) != CURLE_OK) return std::nullopt;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &response.status);
  if (response.status == 0) return std::nullopt;
  return response;
}

Result<HttpResponse> httpsGet(const std::string& url, const HttpsTransferOptions& options) {
  const auto curl = newCurlHandle();
  if (!curl) return Error{httpsErrorDomain, CURLE_FAILED_INIT, "cannot start an HTTP transfer"};
  HttpsTransfer transfer{.options = &options};
  configureHttps(curl.get(), url, transfer);
  HttpResponse response;
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, appendToString);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &response.body);
  if (const auto code = curl_easy_perform(curl.get()); code != CURLE_OK) {
    return transferError(curl.get(), code, transfer);
  }
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &response.status);
  return response;
}

TransportFailure transportFailure(const Error& error) {
  if (error.domain == std::generic_category().name()) {
    return error.code == ENETUNREACH ? TransportFailure::noNetwork : TransportFailure::other;
  }
  if (error.domain != httpsErrorDomain) return TransportFailure::other;
  switch (error.code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return TransportFailure::nameNotResolved;
    case CURLE_COULDNT_CONNECT:
      return TransportFailure::refused;
    case CURLE_OPERATION_TIMEDOUT:
      return TransportFailure::timedOut;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_USE_SSL_FAILED:
      return TransportFailure::insecure;
    default:
      return TransportFailure::other;
  }
}

bool isEmptyReply(const Error& error) {
  return error.domain == httpsErrorDomain && error.code == CURLE_GOT_NOTHING;
}

std::shared_ptr<HttpsDownload> HttpsDownload::start(std::string url, std::filesystem::path folder,
                                                    HttpsTransferOptions options,
                                                    ProgressHandler onProgress,
                                                    CompletionHandler onComplete) {
  auto download = std::make_shared<HttpsDownload>();
  std::thread([download, url = std::move(url), folder = std::move(folder),
               options = std::move(options), onProgress = std::move(onProgress),
               onComplete = std::move(onComplete)] {
    onComplete(download->run(url, folder, options, onProgress));
  }).detach();
  return download;
}

bool HttpsDownload::isCancellation(const Error& error) {
  return error.domain == httpsErrorDomain && error.code == CURLE_ABORTED_BY_CALLBACK;
}

Result<std::filesystem::path> HttpsDownload::run(const std::string& url,
                                                 const std::filesystem::path& folder,
                                                 const HttpsTransferOptions& options,
                                                 const ProgressHandler& onProgress) {
  std::string file = (folder / "qor-download-XXXXXX").string();
  const int fd = mkostemp(file.data(), O_CLOEXEC);
  if (fd < 0) return systemError(errno, "cannot create a file in " + folder.string());

  const auto curl = newCurlHandle();
  CURLcode code = CURLE_FAILED_INIT;
  HttpsTransfer transfer{.options = &options, .download = this};
  DownloadSink sink{.curl = curl.get(), .fd = fd, .onProgress = &onProgress};
  if (curl) {
    configureHttps(curl.get(), url, transfer);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, writeToFile);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &sink);
    code = curl_easy_perform(curl.get());
  }
  if (close(fd) != 0 && code == CURLE_OK && errno != EINTR) sink.writeErrno = errno;

  if (code == CURLE_OK && sink.writeErrno == 0) {
    sink.report(true);
    return std::filesystem::path(file);
  }
  unlink(file.c_str());  // a partial download is never left behind
  if (sink.writeErrno != 0) return systemError(sink.writeErrno, "cannot write " + file);
  if (!curl) return Error{httpsErrorDomain, code, "cannot start an HTTP transfer"};
  return transferError(curl.get(), code, transfer);
}

}  // namespace qor
