// Plain HTTP GETs with a hard deadline, for probing local services.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace qor {

struct HttpResponse {
  long status = 0;
  std::string body;
};

// Any thread. Nothing when no HTTP response arrived within `timeout`
// (connection refused, not HTTP, too slow).
std::optional<HttpResponse> httpGet(const std::string& url, std::chrono::milliseconds timeout);

}  // namespace qor
