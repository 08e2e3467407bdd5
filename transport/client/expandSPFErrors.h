// Flattens a chain of nested exceptions from the service framework into one exception with one message.
//
// The message has a line per level, outermost first, each indented one blank deeper than the one before; every level is
// logged (level 256). The exception thrown is agent::spf::FrameworkError when any level is one, else
// std::runtime_error. Two pass through as they are: the host's interrupt, from any depth, and an outermost exception of
// unknown type. A Timeout or Terminated ends the walk: what is nested in it is not shown.
//
// Threads: any.
#pragma once

#include <exception>

#include "transport/export.h"

namespace parallel::spf::transport {

// Call inside a catch block.
[[noreturn]] PARALLEL_SPF_TRANSPORT_EXPORT void throwExpandedSPFErrors();

// Returns only when `error` is null.
PARALLEL_SPF_TRANSPORT_EXPORT void throwExpandedSPFErrors(std::exception_ptr error);

// What throwExpandedSPFErrors(error) throws; null for null.
PARALLEL_SPF_TRANSPORT_EXPORT std::exception_ptr expandSPFErrors(std::exception_ptr error) noexcept;

}  // namespace parallel::spf::transport
