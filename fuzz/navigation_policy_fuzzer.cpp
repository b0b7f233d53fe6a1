// The navigation policy and the action links' query. Any bytes as a URL:
// nothing crashes; a URL that stays in the window or runs as the shell's own
// action is on a loopback host as the web engine reads it (and as GLib's
// strict parser reads it, where the URL has a URI's shape and that parser
// takes it); a WhatsApp action link's request survives the way to the
// WhatsApp client's address unchanged.
#include <glib.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <optional>
#include <string>

#include "app/navigation_policy.h"
#include "fuzz_input.h"

using namespace qor;

namespace {

bool isLoopbackName(std::string host) {
  for (char& c : host) c = g_ascii_tolower(c);
  return host == "127.0.0.1" || host == "localhost" || host == "::1" || host == "[::1]";
}

// The URL as the web engine reads it: its canonical form, or the text as
// it stands when the engine cannot read it.
std::string engineReading(const std::string& url) {
  WebKitURIRequest* request = webkit_uri_request_new(url.c_str());
  std::string reading = webkit_uri_request_get_uri(request);
  g_object_unref(request);
  return reading;
}

// The host of an http(s) URL the web engine has read; none for another
// scheme, or for a URL the engine could not read (its canonical form holds
// no white space, control characters, non-ASCII bytes or "\").
std::optional<std::string> engineHost(const std::string& url) {
  const std::string reading = engineReading(url);
  std::string_view rest = reading;
  if (rest.starts_with("http://")) {
    rest.remove_prefix(7);
  } else if (rest.starts_with("https://")) {
    rest.remove_prefix(8);
  } else {
    return std::nullopt;
  }
  for (const unsigned char c : rest) {
    if (c <= ' ' || c >= 0x7F || c == '\\') return std::nullopt;
  }
  std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  const auto colon = authority.rfind(':');
  if (colon != std::string_view::npos && authority.find(']', colon) == std::string_view::npos) {
    authority = authority.substr(0, colon);
  }
  return std::string(authority);
}

// The host GLib's strict parser reads in an http(s) URL; none when it does
// not take the URL.
std::optional<std::string> strictHost(const std::string& url) {
  GUri* uri = g_uri_parse(url.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (!uri) return std::nullopt;
  std::optional<std::string> host;
  const std::string scheme = g_uri_get_scheme(uri);
  if ((scheme == "http" || scheme == "https") && g_uri_get_host(uri)) host = g_uri_get_host(uri);
  g_uri_unref(uri);
  return host;
}

// Whether `url` has the shape RFC 3986 gives a URI, where its reading and
// the web engine's cannot part: only the characters it allows ("\" is
// "/" to the engine) and at most one "@" in the authority (the engine's
// user information ends at the last one).
bool uriShaped(std::string_view url) {
  static constexpr std::string_view allowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~:/?#[]@!$&'()*+,;=%";
  if (url.find_first_not_of(allowed) != std::string_view::npos) return false;
  const auto start = url.find("//");
  if (start == std::string_view::npos) return true;
  const auto authority = url.substr(start + 2, url.find_first_of("/?#", start + 2) - start - 2);
  return std::ranges::count(authority, '@') <= 1;
}

// An action link asking for `request`'s chat, built as the WhatsApp
// client's address is and read back as an action link.
void expectRequestSurvives(const WhatsAppRequest& request, std::string_view input) {
  const std::string digits = phoneDigits(request.phone);
  fuzz::expect(g_utf8_validate(digits.data(), digits.size(), nullptr),
               "the digits of a phone number are text", input);
  const std::string sendURL = whatsAppSendURL(digits, request.text);
  const std::string sendPrefix = "whatsapp://send";
  fuzz::expect(sendURL.starts_with(sendPrefix), "the client's address is a send address", input);
  const std::string action =
      "http://127.0.0.1:8088/__qor/whatsapp" + sendURL.substr(sendPrefix.size());
  fuzz::expect(classifyLink(action) == LinkTarget::qorAction &&
                   whatsAppRequest(action) == WhatsAppRequest{digits, request.text},
               "the client's address carries the digits and the text unchanged", input);

  const auto fallback = clickToChatURL("wa.me", digits, request.text);
  fuzz::expect(fallback && strictHost(*fallback) == "wa.me",
               "the click-to-chat address is a valid address on its host", input);
}

}  // namespace

// The web engine's library starts threads of its own as it loads; what they
// hold when the program ends is theirs. A leak of one input is still found
// right after that input.
extern "C" const char* __lsan_default_options() {
  return "leak_check_at_exit=0";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::textOf(data, size);
  const auto target = classifyLink(input);
  const auto request = whatsAppRequest(input);
  if (request) expectRequestSurvives(*request, input);
  if (target == LinkTarget::external || target == LinkTarget::mail ||
      target == LinkTarget::whatsApp) {
    return 0;
  }
  // What the engine or GLib gets is the text up to the first NUL.
  const std::string url(input.substr(0, input.find('\0')));
  const auto host = engineHost(url);
  fuzz::expect(!host || isLoopbackName(*host),
               "what stays in the window is on a loopback host as the web engine reads it", input);
  const auto strict = uriShaped(url) ? strictHost(url) : std::nullopt;
  fuzz::expect(!strict || isLoopbackName(*strict),
               "what stays in the window is on a loopback host as GLib's strict parser reads it",
               input);
  return 0;
}
