#include "app/navigation_policy.h"

#include <glib.h>

#include <string>
#include <vector>

#include "app/gobject_ptr.h"

namespace qor {
namespace {

constexpr std::string_view actionPrefix = "/__qor/";
constexpr std::string_view whatsAppActionPath = "/__qor/whatsapp";

// The web view hands over canonical URLs, but those may carry characters
// that RFC 3986 leaves out ("|", "{", "^", ...); relaxed parsing takes them.
constexpr auto parseFlags = GUriFlags(G_URI_FLAGS_ENCODED | G_URI_FLAGS_PARSE_RELAXED);

// The text the web engine reads as the URL: up to the first NUL (it takes C
// strings), without the control characters and spaces at either end, and
// without any tab or line break inside ("ht\ntp://host/" is http://host/).
std::string engineText(std::string_view url) {
  url = url.substr(0, url.find('\0'));
  const auto blank = [](unsigned char c) { return c <= ' '; };
  while (!url.empty() && blank(url.front())) url.remove_prefix(1);
  while (!url.empty() && blank(url.back())) url.remove_suffix(1);
  std::string text;
  for (const char c : url) {
    if (c != '\t' && c != '\n' && c != '\r') text += c;
  }
  return text;
}

GUriPtr parse(std::string_view url) {
  const std::string text(url);
  return GUriPtr::adopt(g_uri_parse(text.c_str(), parseFlags, nullptr));
}

std::optional<std::string> percentDecoded(const char* encoded) {
  GCharPtr decoded = GCharPtr::adopt(g_uri_unescape_string(encoded, nullptr));
  if (!decoded) return std::nullopt;
  return std::string(decoded.get());
}

// The path as the user would read it; a path with a broken escape is taken
// as it stands.
std::string decodedPath(GUri* uri) {
  const char* path = g_uri_get_path(uri);
  return percentDecoded(path).value_or(path);
}

std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = g_ascii_tolower(c);
  return result;
}

struct QueryItem {
  std::optional<std::string> name;   // none: not decodable
  std::optional<std::string> value;  // none: no "=", or not decodable UTF-8
};

std::optional<std::string> decodedUtf8(std::string_view encoded) {
  auto decoded = percentDecoded(std::string(encoded).c_str());
  if (!decoded || !g_utf8_validate(decoded->data(), decoded->size(), nullptr)) return std::nullopt;
  return decoded;
}

std::vector<QueryItem> queryItems(const char* query) {
  std::vector<QueryItem> items;
  if (!query) return items;
  std::string_view rest(query);
  while (true) {
    const auto end = rest.find('&');
    const std::string_view item = rest.substr(0, end);
    const auto equals = item.find('=');
    if (equals == std::string_view::npos) {
      items.push_back({decodedUtf8(item), std::nullopt});
    } else {
      items.push_back({decodedUtf8(item.substr(0, equals)), decodedUtf8(item.substr(equals + 1))});
    }
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  return items;
}

std::string firstValue(const std::vector<QueryItem>& items, std::string_view name) {
  for (const auto& item : items) {
    if (item.name == name) return item.value.value_or("");
  }
  return "";
}

// Query-item encoding: everything outside the query's allowed characters,
// plus "&" (and "=" in names), which would split the item.
std::string encodedQueryItem(std::string_view name, std::string_view value) {
  const std::string nameText(name), valueText(value);
  GCharPtr encodedName =
      GCharPtr::adopt(g_uri_escape_string(nameText.c_str(), "!$'()*+,;:@/?", false));
  GCharPtr encodedValue =
      GCharPtr::adopt(g_uri_escape_string(valueText.c_str(), "!$'()*+,;=:@/?", false));
  return std::string(encodedName.get()) + "=" + encodedValue.get();
}

// The host as the web engine reads it: the authority follows "<scheme>://"
// (a "://" further on is no authority) and runs to the first "/",
// "?", "#" or "\\" (GLib's relaxed parser also ends it at ";" and the like,
// so "http://localhost;.evil.example/" would read as "localhost"); the user
// information ends at the last "@", and a port is digits after the last ":".
// The web engine hands over canonical URLs, so a host in any other spelling
// is not one of the loopback names. None when there is no host.
std::optional<std::string> authorityHost(std::string_view url) {
  const auto colon = url.find(':');  // after the scheme
  if (colon == std::string_view::npos || url.substr(colon + 1, 2) != "//") return std::nullopt;
  std::string_view authority = url.substr(colon + 3);
  authority = authority.substr(0, authority.find_first_of("/?#\\"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  std::string_view host = authority;
  const auto portColon = authority.rfind(':');
  const bool bracketed = authority.starts_with('[');
  if (portColon != std::string_view::npos && (!bracketed || authority[portColon - 1] == ']')) {
    const auto port = authority.substr(portColon + 1);
    if (port.find_first_not_of("0123456789") != std::string_view::npos) {
      return std::string(authority);  // a ":" that no host holds
    }
    host = authority.substr(0, portColon);
  }
  if (bracketed && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  if (host.empty()) return std::nullopt;
  return std::string(host);
}

}  // namespace

bool isLoopbackHost(std::optional<std::string_view> host) {
  if (!host) return false;
  const std::string name = lowered(*host);
  return name == "127.0.0.1" || name == "localhost" || name == "::1";
}

LinkTarget classifyLink(std::string_view link) {
  const std::string text = engineText(link);
  const std::string_view url = text;
  if (url.empty()) return LinkTarget::none;
  const char* peeked = g_uri_peek_scheme(text.c_str());  // lower-cased
  const std::string_view scheme = peeked ? peeked : "";

  if (scheme == "http" || scheme == "https") {
    const auto host = authorityHost(url);
    GUriPtr uri = parse(url);
    if (!uri || !isLoopbackHost(host)) return LinkTarget::external;
    const std::string path = decodedPath(uri.get());
    if (path == whatsAppActionPath || path.starts_with(actionPrefix)) return LinkTarget::qorAction;
    return LinkTarget::loopbackPage;
  }
  if (scheme == "mailto") return LinkTarget::mail;
  if (scheme == "whatsapp") return LinkTarget::whatsApp;
  return LinkTarget::other;
}

std::optional<WhatsAppRequest> whatsAppRequest(std::string_view actionURL) {
  GUriPtr uri = parse(engineText(actionURL));
  if (!uri || decodedPath(uri.get()) != whatsAppActionPath) return std::nullopt;
  const auto items = queryItems(g_uri_get_query(uri.get()));
  return WhatsAppRequest{firstValue(items, "phone"), firstValue(items, "text")};
}

std::string phoneDigits(std::string_view phone) {
  std::string digits;
  const char* p = phone.data();
  const char* end = phone.data() + phone.size();
  while (p < end) {
    const gunichar c = g_utf8_get_char_validated(p, end - p);
    if (c == gunichar(-1) || c == gunichar(-2)) {
      ++p;  // not UTF-8: no character to keep
      continue;
    }
    const char* next = g_utf8_next_char(p);
    switch (g_unichar_type(c)) {
      case G_UNICODE_DECIMAL_NUMBER:
      case G_UNICODE_LETTER_NUMBER:
      case G_UNICODE_OTHER_NUMBER:
        digits.append(p, next);
        break;
      default:
        break;
    }
    p = next;
  }
  return digits;
}

std::string whatsAppSendURL(std::string_view digits, std::string_view text) {
  std::string url = "whatsapp://send";
  std::string query;
  if (!digits.empty()) query = encodedQueryItem("phone", digits);
  if (!text.empty()) query += (query.empty() ? "" : "&") + encodedQueryItem("text", text);
  if (!query.empty()) url += "?" + query;
  return url;
}

std::optional<std::string> clickToChatURL(std::string_view host, std::string_view digits,
                                          std::string_view text) {
  const std::string digitText(digits);
  GCharPtr path = GCharPtr::adopt(g_uri_escape_string(digitText.c_str(), nullptr, false));
  const std::string address = "https://" + std::string(host) + "/" + path.get();
  GUriPtr base = GUriPtr::adopt(g_uri_parse(address.c_str(), G_URI_FLAGS_ENCODED, nullptr));
  if (!base) return std::nullopt;

  const std::string query = text.empty() ? "" : encodedQueryItem("text", text);
  GUriPtr uri = GUriPtr::adopt(g_uri_build(
      G_URI_FLAGS_ENCODED, g_uri_get_scheme(base.get()), g_uri_get_userinfo(base.get()),
      g_uri_get_host(base.get()), g_uri_get_port(base.get()), g_uri_get_path(base.get()),
      query.empty() ? nullptr : query.c_str(), g_uri_get_fragment(base.get())));
  GCharPtr result = GCharPtr::adopt(g_uri_to_string(uri.get()));
  return std::string(result.get());
}

}  // namespace qor
