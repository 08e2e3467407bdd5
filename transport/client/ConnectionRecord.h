// What a TransportClient shares with the owner of its connection.
#pragma once

#include <memory>
#include <mutex>

#include "platform/spf/core/Invokable.h"

namespace parallel::spf::transport {

// The owner makes the record, fills it when it has connected and empties it when the connection is gone; it may derive
// from it to keep more. The clients only copy the pointer, under the mutex, and never fill it again.
struct ConnectionRecord {
  std::mutex mutex;
  std::shared_ptr<agent::spf::core::Invokable> invokable;  // guarded by mutex; empty: stale
};

}  // namespace parallel::spf::transport
