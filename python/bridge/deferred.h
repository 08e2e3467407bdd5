// Work for the interpreter that threads without its lock leave behind: references to give back, log records to pass on.
//
// Why: an array's memory may be let go, and a record written, on a thread of the framework, which must never wait for
// the interpreter's lock; somebody who holds the lock may be waiting for that very thread.
//
// Threads:  releaseLater and logLater any, at once, with or without the lock; the others need it. After fork the child
//           starts with what the parent had left.
// Shutdown: after closeDeferred nothing is given back or passed on any more; what is left is the process's to forget.
#pragma once

#include <pybind11/pybind11.h>

#include "platform/logging/sinks.h"

namespace zks::bridge {

// Gives one reference back: at once when the thread holds the interpreter's lock, soon otherwise.
void releaseLater(PyObject* reference) noexcept;

void logLater(const parallel::logging::LogRecord& record);

// Called as log(logger name, level bit, text) for each record.
void setLogReceiver(pybind11::object receiver);

// Does what has been left. The error indicator stays as it is; what a receiver raises is reported as unraisable.
void runDeferred() noexcept;

void openDeferred();
void closeDeferred() noexcept;

}  // namespace zks::bridge
