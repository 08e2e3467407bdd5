#include "platform/spf/core/Service.h"

#include <utility>

namespace agent::spf::core {

void Service::add(std::string method, Handler handler) {
  methods_.insert_or_assign(std::move(method), std::move(handler));
}

const Service::Handler* Service::find(std::string_view method) const {
  const auto found = methods_.find(method);
  return found == methods_.end() ? nullptr : &found->second;
}

std::string Service::unknownMethodText(std::string_view method) const {
  std::string text = "The service has no method \"" + std::string(method) + "\"; it has ";
  if (methods_.empty())
    return text + "none.";
  const char* separator = "";
  for (const auto& [name, handler] : methods_) {
    text += separator + name;
    separator = ", ";
  }
  return text + ".";
}

}  // namespace agent::spf::core
