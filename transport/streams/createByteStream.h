// A payload as outgoing data of the service framework.
//
// The payload is serialised whole before this returns, because the framework needs the size first; the host's data are
// not needed any more then. The source's writer can be called again and writes the same bytes again.
// Ownership: the bytes live until the framework drops the last copy of the writer.
// Threads:   the writer only reads them; any thread may call it.
// Errors:    what serialising throws passes through, and nothing has been handed to the framework.
#pragma once

#include "platform/spf/core/ExportedDataSource.h"
#include "transport/data/InputPayload.h"
#include "transport/export.h"

namespace parallel::spf::transport {

PARALLEL_SPF_TRANSPORT_EXPORT agent::spf::core::ExportedDataSource createByteStream(InputPayload payload);

}  // namespace parallel::spf::transport
