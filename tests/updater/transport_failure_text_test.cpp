// The words the updater puts in front of a failed transfer's detail. The
// failures a real server causes are checked in update_check_test.cpp; these
// are the ones a test machine cannot cause on demand.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>

#include "updater/transport_failure_text.h"

namespace qor {
namespace {

TEST(TransportFailureText, PlainWordsThenTheDetail) {
  const std::pair<Error, std::string> cases[] = {
      {systemError(ENETUNREACH, "Failed to connect to 192.0.2.1 port 443"),
       "无法连接网络，请检查网络连接。\nFailed to connect to 192.0.2.1 port 443: Network is "
       "unreachable"},
      {{"curl", CURLE_COULDNT_RESOLVE_PROXY, "Could not resolve proxy: p"},
       "找不到更新服务器（无法解析其地址）。\nCould not resolve proxy: p"},
      {{"curl", CURLE_SSL_CONNECT_ERROR, "TLS connect error"},
       "无法与更新服务器建立安全连接。\nTLS connect error"},
      // Everything else keeps its own description alone.
      {{"curl", CURLE_GOT_NOTHING, "Empty reply from server"}, "Empty reply from server"},
      {systemError(ENOSPC, "cannot write f"), "cannot write f: No space left on device"},
      {{"QOR", CURLE_COULDNT_CONNECT, "not a transfer's"}, "not a transfer's"},
  };
  for (const auto& [error, expected] : cases) {
    EXPECT_EQ(transportFailureText(error), expected) << error.description;
  }
}

}  // namespace
}  // namespace qor
