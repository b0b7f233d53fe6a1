#include "sidecar/health_answer.h"

#include <nlohmann/json.hpp>

namespace qor {

std::optional<std::string> healthzAnswerVersion(std::string_view body) {
  const auto answer = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (!answer.is_object()) return std::nullopt;
  const auto version = answer.find("version");
  if (version == answer.end() || !version->is_string()) return std::nullopt;
  return version->get<std::string>();
}

}  // namespace qor
