// Frees the gateway's ports from gateways and litellm services left over by
// an earlier run: recognised by their command line only.
#pragma once

#include <string_view>
#include <vector>

#include "base/scaled_clock.h"
#include "sidecar/diagnostics.h"

namespace qor {

// True for a gateway or litellm command line that belongs to this product.
bool isOurSidecar(std::string_view command);

// Asks every process of ours listening on `ports` to terminate, waits up to
// about 2 s for the ports to clear, then kills what is left. Blocks the
// calling thread; never fails.
void reapStaleSidecars(const std::vector<int>& ports, const ScaledClock& clock,
                       const DiagnosticSink& diagnostics);

}  // namespace qor
