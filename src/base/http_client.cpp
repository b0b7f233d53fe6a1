#include "base/http_client.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>

namespace qor {
namespace {

void initializeCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

size_t appendToString(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

}  // namespace

std::optional<HttpResponse> httpGet(const std::string& url, std::chrono::milliseconds timeout) {
  initializeCurlOnce();
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(),
                                                                   curl_easy_cleanup);
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

}  // namespace qor
