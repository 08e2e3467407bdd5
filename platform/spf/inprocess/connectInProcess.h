// The embedded framework: calls of a Service in this process, without sockets.
#pragma once

#include <memory>

#include "platform/spf/core/Invokable.h"
#include "platform/spf/core/Service.h"

namespace agent::spf::inprocess {

// Calls run on threads of their own; bytes pass from writer to reader without being stored. Destroying the Invokable
// cancels the calls under way and waits for their handlers.
std::shared_ptr<core::Invokable> connectInProcess(std::shared_ptr<const core::Service> service);

}  // namespace agent::spf::inprocess
