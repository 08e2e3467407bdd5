// The embedded framework: calls of a Service in this process, without sockets.
#pragma once

#include <memory>

#include "platform/spf/core/Invokable.h"
#include "platform/spf/core/Service.h"

namespace agent::spf::inprocess {

// Calls run on threads of their own; a writer waits until its reader has taken the bytes. The Invokable is a
// core::Closable; destroying it closes it, and waits for the handlers of the calls that were under way.
std::shared_ptr<core::Invokable> connectInProcess(std::shared_ptr<const core::Service> service);

}  // namespace agent::spf::inprocess
