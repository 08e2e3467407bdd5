// What the host calls after it has loaded the library, and before it lets go of it.
//
// The load hook registers the library's classes, "parallel.internal.cluster.DeserializableData" and
// "parallel.internal.cluster.SerializableData", with the host's class system: once per process, or at every call where
// each user scope has classes of its own. Builtins are not registered; the host finds them by their exported names.
// Threads: any, several at once.
// Errors:  the load hook passes on what the class system throws; a later call then tries again.
#pragma once

#include "transport/export.h"

extern "C" {

PARALLEL_SPF_TRANSPORT_EXPORT void TSInitialize_libcvparallelspftransport();

// Does nothing: classes may have objects that outlive any moment a host could choose, so nothing is unregistered.
PARALLEL_SPF_TRANSPORT_EXPORT void TSTerminate_libcvparallelspftransport();

}  // extern "C"
