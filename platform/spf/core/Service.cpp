#include "platform/spf/core/Service.h"

#include <utility>

#include "platform/errors/visibleText.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/LimitedInlet.h"

namespace agent::spf::core {

void Service::add(std::string method, Handler handler, std::optional<ByteLimit> requestLimit) {
  methods_.insert_or_assign(std::move(method), Method{std::move(handler), std::move(requestLimit)});
}

const Service::Handler* Service::find(std::string_view method) const {
  const auto found = methods_.find(method);
  return found == methods_.end() ? nullptr : &found->second.handler;
}

const ByteLimit* Service::requestLimit(std::string_view method) const {
  const auto found = methods_.find(method);
  if (found != methods_.end() && found->second.requestLimit)
    return &*found->second.requestLimit;
  return requestLimit_ ? &*requestLimit_ : nullptr;
}

void Service::checkCall(std::string_view method, std::string_view peer, std::optional<long> requestSize) const {
  try {
    if (find(method) == nullptr)
      throw FrameworkError(unknownMethodText(method));
    if (const ByteLimit* const limit = requestLimit(method); limit != nullptr && requestSize)
      internal::checkLimit(*limit, "request of call " + errors::inQuotes(method), *requestSize);
  } catch (const FrameworkError& refusal) {
    if (refusalObserver_)
      refusalObserver_(method, peer, refusal);
    throw;
  }
}

std::string Service::unknownMethodText(std::string_view method) const {
  std::string text = "The service has no method " + errors::inQuotes(method) + "; it has ";
  if (methods_.empty())
    return text + "none.";
  const char* separator = "";
  for (const auto& [name, entry] : methods_) {
    text += separator + name;
    separator = ", ";
  }
  return text + ".";
}

}  // namespace agent::spf::core
