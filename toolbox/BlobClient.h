// Blobs of a service: which are missing, there and back. The methods: docs/methods.md.
//
// What is put is kept for a holder: the key of a job that is about to be submitted, a job, or an attempt. A put that was
// cut goes on, with another connection, where the service says that it ended.
// Ownership: borrows the client.
// Threads:   one call at a time.
// Errors:    as SchedulerClient's; `CannotReadFile` for a file that cannot be put; `WrongBlob` when what came is not what
//            was asked for.
// Units:     bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/digest/Sha256.h"
#include "platform/zksmessages/jobs.pb.h"
#include "toolbox/SchedulerClient.h"
#include "transport/streams/ByteSink.h"

namespace parallel::toolbox {

// Contents up to this size travel in the message that names them.
constexpr std::uint64_t kInlineBlobBytes = std::uint64_t{64} << 10U;

// Bytes with their name, at hand to be put.
class LocalBlob {
 public:
  // Reads the file to name it; it is read again when it is put.
  static LocalBlob ofFile(const std::string& path);
  static LocalBlob ofBytes(std::string bytes);

  const digest::Digest& digest() const noexcept { return digest_; }
  std::uint64_t nbytes() const noexcept { return nbytes_; }
  // To go into a message: with the content where it is small. A small file is read for it.
  zksmessages::Blob described() const;
  // From the offset to the end, as an item of a request.
  Item itemFrom(std::uint64_t offset) const;

 private:
  struct File {
    std::string path;
  };
  LocalBlob(std::variant<File, std::string> source, const digest::Digest& digest, std::uint64_t nbytes)
      : source_(std::move(source)), digest_(digest), nbytes_(nbytes) {}

  void copyTo(spf::transport::ByteSink& sink, std::uint64_t offset) const;

  std::variant<File, std::string> source_;
  digest::Digest digest_;
  std::uint64_t nbytes_;
};

// The name in a message; none when it is no digest.
std::optional<digest::Digest> digestOf(const zksmessages::Blob& blob);

class BlobClient {
 public:
  explicit BlobClient(const SchedulerClient& client) : client_(client) {}

  // All are kept for the holder from now on, those that are missing as soon as they come.
  zksmessages::FindBlobsReply find(const zksmessages::BlobHolder& holder,
                                   const std::vector<digest::Digest>& digests) const;

  // The bytes of the blob from the offset on, which find() told.
  void put(const zksmessages::BlobHolder& holder, const LocalBlob& blob, std::uint64_t offset = 0) const;

  // Finds, and puts what is missing.
  void putMissing(const zksmessages::BlobHolder& holder, const std::vector<LocalBlob>& blobs) const;

  // All of the blob, checked, into a sink, which may have got wrong bytes when this throws; or into a file, which appears
  // when it is whole and right. One whose content is in the message is not asked for.
  void get(const zksmessages::Blob& blob, spf::transport::ByteSink& sink) const;
  void getFile(const zksmessages::Blob& blob, const std::string& path, FileKind kind = FileKind::Data) const;

 private:
  const SchedulerClient& client_;
};

}  // namespace parallel::toolbox
