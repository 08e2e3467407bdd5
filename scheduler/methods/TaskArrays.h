// The task arrays of a submission, checked and in the form in which they are kept: blobs by their digests only.
#pragma once

#include <string>
#include <vector>

#include "platform/zksmessages/jobs.pb.h"
#include "scheduler/ledger/clientEvents.h"
#include "scheduler/store/Sha256.h"

namespace parallel::scheduler::methods {

// A blob of at most so many bytes may come inside a message.
inline constexpr std::uint64_t kMostContentBytes = std::uint64_t{64} << 10;
// What the lines of an array may have together: they are in memory while tasks of it are granted.
inline constexpr std::uint64_t kMostLinesBytes = std::uint64_t{256} << 20;

// Fills in digest and size from the content and takes the content out, if there is one. Returns what is wrong with the
// blob; empty: nothing.
std::string normalise(zksmessages::Blob& blob, std::vector<std::string>& contents);

class TaskArrays {
 public:
  using Messages = google::protobuf::RepeatedPtrField<zksmessages::TaskArray>;

  // `BadJobField` names the first field that cannot be used. `field` is what the arrays are called.
  TaskArrays(Messages arrays, const std::string& field);

  const Messages& messages() const noexcept { return arrays_; }
  // Contents that came inside the message, and the digests of all blobs, each once.
  const std::vector<std::string>& contents() const noexcept { return contents_; }
  const std::vector<store::Digest>& digests() const noexcept { return digests_; }
  // What the ledger is told, with the messages as details.
  std::vector<ledger::ArraySpec> specs() const;

 private:
  Messages arrays_;
  std::vector<std::string> contents_;
  std::vector<store::Digest> digests_;
};

// The same bytes for equal messages.
std::string stableBytes(const google::protobuf::MessageLite& message);

}  // namespace parallel::scheduler::methods
