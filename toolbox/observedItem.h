// An item that counts its bytes while it is encoded, and can be interrupted.
#pragma once

#include <memory>

#include "toolbox/ObservingInvokable.h"
#include "transport/data/SerializableData.h"

namespace parallel::toolbox {

// Encodes as `item` does. On an interpreter thread a user interrupt ends the encoding, between two pieces of 1 MiB at
// most, with the host's interrupt exception.
std::shared_ptr<spf::transport::SerializableData> observedItem(std::shared_ptr<spf::transport::SerializableData> item,
                                                               std::shared_ptr<CallObservation> observation);

}  // namespace parallel::toolbox
