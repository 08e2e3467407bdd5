// Boost.Log prints every record to the console as long as no sink is attached to its core.
#pragma once

namespace parallel::logging::internal {

// Attaches, once per process, a sink that takes nothing. The core then drops what no other sink wants.
void silenceDefaultSink();

}  // namespace parallel::logging::internal
