// The update manifest's decoder: any text either fails with a description or
// decodes into a manifest that its own encoding reads back as.
#include "fuzz_input.h"
#include "updater/qor_manifest.h"

using namespace qor;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::textOf(data, size);
  const auto manifest = decodeManifest(input);
  if (!manifest) {
    fuzz::expect(!manifest.error().description.empty(), "a refusal says why", input);
    return 0;
  }
  const auto again = decodeManifest(encodeManifest(*manifest));
  fuzz::expect(again && *again == *manifest, "the encoding reads back as the same manifest", input);
  return 0;
}
