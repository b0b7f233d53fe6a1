#include "updater/url_parts.h"

#include <algorithm>
#include <cctype>

namespace qor {
namespace {

bool isAlpha(char c) {
  return std::isalpha(static_cast<unsigned char>(c)) != 0;
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isHex(char c) {
  return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool allowedCharacters(std::string_view text) {
  constexpr std::string_view punctuation = "-._~:/?#[]@!$&'()*+,;=";
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (isAlpha(c) || isDigit(c) || punctuation.find(c) != std::string_view::npos) continue;
    if (c == '%' && i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2])) {
      i += 2;
      continue;
    }
    return false;
  }
  return true;
}

bool isScheme(std::string_view text) {
  return !text.empty() && isAlpha(text.front()) &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
         });
}

}  // namespace

std::optional<UrlParts> UrlParts::parse(std::string_view text) {
  if (text.empty() || !allowedCharacters(text)) return std::nullopt;
  UrlParts parts;
  std::string_view rest = text;
  const auto colon = text.find(':');
  const auto firstDelimiter = text.find_first_of("/?#");
  if (colon != std::string_view::npos && colon < firstDelimiter &&
      isScheme(text.substr(0, colon))) {
    parts.scheme = std::string(text.substr(0, colon));
    rest = text.substr(colon + 1);
  }
  if (!rest.starts_with("//")) return parts;

  std::string_view authority = rest.substr(2);
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  std::string_view host;
  std::string_view afterHost;
  if (authority.starts_with("[")) {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(1, close - 1);
    afterHost = authority.substr(close + 1);
  } else {
    const auto portColon = authority.find(':');
    host = authority.substr(0, portColon);
    afterHost = portColon == std::string_view::npos ? "" : authority.substr(portColon);
  }
  if (!afterHost.empty()) {
    if (afterHost.front() != ':') return std::nullopt;
    if (!std::all_of(afterHost.begin() + 1, afterHost.end(), isDigit)) return std::nullopt;
  }
  if (!host.empty()) parts.host = std::string(host);
  return parts;
}

}  // namespace qor
