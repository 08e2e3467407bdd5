// Blobs as items of requests and replies.
#pragma once

#include <cstdint>
#include <string>

#include "platform/zksmessages/jobs.pb.h"
#include "scheduler/calls/ReplyWriter.h"
#include "scheduler/store/BlobStore.h"

namespace parallel::scheduler::methods {

// Writes what the message says, from byte `offset` on: its content, or the blob of the store. The store is looked into when
// the item is written.
ReplyWriter::Producer blobProducer(store::BlobStore& blobs, const zksmessages::Blob& blob, std::uint64_t offset,
                                   store::WallTime now);

}  // namespace parallel::scheduler::methods
