// Where a URL that the web view is about to show belongs: inside the window,
// with the desktop's default handler, or with the shell itself (action links
// under /__qor/ on the gateway's loopback address). Pure functions, so the
// rules are tested without a display.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qor {

enum class LinkTarget {
  none,          // the navigation carries no URL
  qorAction,     // http(s) on a loopback host, path "/__qor/whatsapp" or under "/__qor/"
  loopbackPage,  // http(s) on a loopback host, any other path or port
  external,      // http(s) on any other host, or without one: the user's browser
  mail,          // "mailto": the user's mail program
  whatsApp,      // "whatsapp": the WhatsApp client, if one is installed
  other,         // any other scheme, or none (about:, data:, blob:, file:, ...)
};

// The URL is read as the web engine reads it: up to a NUL, without control
// characters and spaces at its ends or tabs and line breaks inside. Scheme
// and host are compared case-insensitively; the path case-sensitively after
// percent-decoding. The port plays no part.
LinkTarget classifyLink(std::string_view url);

// "127.0.0.1", "localhost" and "::1" (as parsed, without brackets), in any
// case. An absent host is not loopback.
bool isLoopbackHost(std::optional<std::string_view> host);

// The chat that a "/__qor/whatsapp" action link asks for. A missing item, or
// an item without a value, gives the empty text.
struct WhatsAppRequest {
  std::string phone;
  std::string text;
  bool operator==(const WhatsAppRequest&) const = default;
};

// None when the URL cannot be parsed or its path is not exactly
// "/__qor/whatsapp". The first "phone" and the first "text" query items win;
// values are percent-decoded, and "+" stays "+".
std::optional<WhatsAppRequest> whatsAppRequest(std::string_view actionURL);

// The characters of `phone` that are numbers (Unicode categories Nd, Nl and
// No), in their order.
std::string phoneDigits(std::string_view phone);

// "whatsapp://send" with the query items ("phone", digits) and ("text",
// text), each only when not empty; no query at all when both are.
std::string whatsAppSendURL(std::string_view digits, std::string_view text);

// "https://<host>/<digits>" with the query item ("text", text) when the text
// is not empty. The digits are percent-encoded, so non-ASCII numerals still
// give a valid address. None when the host makes the address unparsable.
std::optional<std::string> clickToChatURL(std::string_view host, std::string_view digits,
                                          std::string_view text);

}  // namespace qor
