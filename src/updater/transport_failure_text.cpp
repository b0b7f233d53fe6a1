#include "updater/transport_failure_text.h"

#include "base/http_client.h"
#include "updater/update_texts.h"

namespace qor {
namespace {

const char* plainWords(TransportFailure failure) {
  switch (failure) {
    case TransportFailure::noNetwork:
      return updateTexts::noNetwork;
    case TransportFailure::nameNotResolved:
      return updateTexts::nameNotResolved;
    case TransportFailure::refused:
      return updateTexts::refused;
    case TransportFailure::timedOut:
      return updateTexts::timedOut;
    case TransportFailure::insecure:
      return updateTexts::insecure;
    case TransportFailure::other:
      break;
  }
  return nullptr;
}

}  // namespace

std::string transportFailureText(const Error& error) {
  const char* words = plainWords(transportFailure(error));
  return words ? words + ("\n" + error.description) : error.description;
}

}  // namespace qor
