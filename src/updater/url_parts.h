// The scheme and host of an address, read the way RFC 3986 reads them, for
// the updater's trust check. libcurl's own parser is deliberately lenient
// ("https:///x" has the host "x" there), which a trust check must not be.
//
// Threads: a plain value; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qor {

struct UrlParts {
  std::string scheme;               // as written, case kept; empty for a relative reference
  std::optional<std::string> host;  // none without an authority or with an empty host;
                                    // an IPv6 literal without its brackets

  // None when the text is not an address at all: empty, a character that
  // may not appear in one, a broken %-escape, an unclosed "[" or a port
  // that is not a number.
  static std::optional<UrlParts> parse(std::string_view text);
};

}  // namespace qor
