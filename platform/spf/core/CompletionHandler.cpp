#include "platform/spf/core/CompletionHandler.h"

namespace agent::spf::core {

void CompletionHandler::succeed(GenericPayload payload) const {
  if (!success_)
    return;
  try {
    success_(std::move(payload));
  } catch (...) {  // NOLINT(bugprone-empty-catch): a callback's own failure has nobody to go to
  }
}

void CompletionHandler::fail(std::exception_ptr error) const {
  if (!error_)
    return;
  try {
    error_(std::move(error));
  } catch (...) {  // NOLINT(bugprone-empty-catch): as above
  }
}

void CompletionHandler::notice(std::string_view text) const noexcept {
  if (!caller_.noticed)
    return;
  try {
    caller_.noticed(text);
  } catch (...) {  // NOLINT(bugprone-empty-catch): as above
  }
}

}  // namespace agent::spf::core
