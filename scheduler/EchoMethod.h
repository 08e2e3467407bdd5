// The method "echo": sends the items of a request back. Protocol: docs/methods.md.
//
// Items pass block by block, so memory does not grow with them. Each block of the request becomes the same block of the
// reply, which is why the reply's size is known as soon as the request's is.
#pragma once

#include "platform/spf/core/Service.h"
#include "scheduler/calls/DescriptionLimit.h"

namespace parallel::scheduler {

// Errors: those of RequestReader, `BadEchoItem`, `PlainSizeMismatch`.
void echo(agent::spf::core::ServerCall& call, const DescriptionLimit& limit);

}  // namespace parallel::scheduler
