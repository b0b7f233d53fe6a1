// The gateway's /healthz answer: any body either names no version or names
// the one its JSON object holds under "version".
#include <nlohmann/json.hpp>

#include "fuzz_input.h"
#include "sidecar/health_answer.h"

using namespace qor;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::textOf(data, size);
  const auto version = healthzAnswerVersion(input);
  if (!version) return 0;
  // The version survives being served again in an answer of its own.
  const auto answer = nlohmann::json{{"status", "ok"}, {"version", *version}}.dump();
  fuzz::expect(healthzAnswerVersion(answer) == version, "the version read is the one served",
               input);
  return 0;
}
