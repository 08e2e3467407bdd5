#include "toolbox/BlobClient.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "toolbox/streamItem.h"
#include "toolbox/typedCall.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::toolbox {

using digest::Digest;
using digest::Sha256;
using spf::transport::ByteSink;
using spf::transport::FunctionalByteSink;
using spf::transport::SerializableData;

namespace {

std::string_view textOf(const std::byte* data, std::size_t n) {
  return {reinterpret_cast<const char*>(data), n};
}

const std::byte* bytesOf(const std::string& text) {
  return reinterpret_cast<const std::byte*>(text.data());
}

::files::UniqueFd openFile(const std::string& path) {
  ::files::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file)
    throw Exception<CannotReadFile>(path, errors::systemErrorText(errno));
  return file;
}

// What passes is counted and summed.
class CheckedSink final : public ByteSink {
 public:
  explicit CheckedSink(ByteSink& next) : next_(next) {}

  void write(const std::byte* data, std::size_t nbytes) override {
    sum_.add(textOf(data, nbytes));
    nbytes_ += nbytes;
    next_.write(data, nbytes);
  }

  void expect(const zksmessages::Blob& blob) {
    const std::optional<Digest> wanted = digestOf(blob);
    if (!wanted)
      throw Exception<WrongBlob>("?", "its name is no SHA-256");
    if (nbytes_ != blob.nbytes())
      throw Exception<WrongBlob>(
          wanted->text(), std::to_string(nbytes_) + " bytes, where " + std::to_string(blob.nbytes()) + " were told");
    if (const Digest found = sum_.digest(); found != *wanted)
      throw Exception<WrongBlob>(wanted->text(), "bytes whose SHA-256 is " + found.text());
  }

 private:
  ByteSink& next_;
  Sha256 sum_;
  std::uint64_t nbytes_ = 0;
};

}  // namespace

std::optional<Digest> digestOf(const zksmessages::Blob& blob) {
  return Digest::fromBytes(blob.sha256());
}

LocalBlob LocalBlob::ofFile(const std::string& path) {
  Sha256 sum;
  std::uint64_t nbytes = 0;
  FunctionalByteSink sink([&](const std::byte* data, std::size_t n) {
    sum.add(textOf(data, n));
    nbytes += n;
  });
  copyToEnd(openFile(path).get(), path, sink);
  return {File{path}, sum.digest(), nbytes};
}

LocalBlob LocalBlob::ofBytes(std::string bytes) {
  const Digest digest = Digest::of(bytes);
  const std::uint64_t nbytes = bytes.size();
  return {std::move(bytes), digest, nbytes};
}

zksmessages::Blob LocalBlob::described() const {
  zksmessages::Blob blob;
  blob.set_sha256(std::string(digest_.bytes()));
  blob.set_nbytes(nbytes_);
  if (nbytes_ <= kInlineBlobBytes) {
    std::string& content = *blob.mutable_content();
    FunctionalByteSink sink([&](const std::byte* data, std::size_t n) { content += textOf(data, n); });
    copyTo(sink, 0);
  }
  return blob;
}

// No more than there was when it was named: a file may have grown. One that has shrunk fails the call here, and the
// service finds out about other bytes.
void LocalBlob::copyTo(ByteSink& sink, std::uint64_t offset) const {
  if (const auto* bytes = std::get_if<std::string>(&source_))
    return sink.write(bytesOf(*bytes) + offset, bytes->size() - offset);
  const std::string& path = std::get<File>(source_).path;
  const ::files::UniqueFd file = openFile(path);
  if (::lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) < 0)
    throw Exception<CannotReadFile>(path, errors::systemErrorText(errno));
  std::uint64_t left = nbytes_ - offset;
  FunctionalByteSink limited([&](const std::byte* data, std::size_t n) {
    const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(n, left));
    sink.write(data, piece);
    left -= piece;
  });
  copyToEnd(file.get(), path, limited);
  if (left > 0)
    throw Exception<CannotReadFile>(path, "it has become shorter meanwhile");
}

Item LocalBlob::itemFrom(std::uint64_t offset) const {
  auto encoder = [blob = *this, offset](const qxArray*, ByteSink& sink) { blob.copyTo(sink, offset); };
  auto sizeHint = [nbytes = nbytes_ - offset](const qxArray*) { return static_cast<std::size_t>(nbytes); };
  const qxArrayPtr unused = qxCreateStringUtf8("");
  return {zksmessages::ITEM_KIND_FILE,
          std::make_shared<SerializableData>(unused.get(), std::move(encoder), std::move(sizeHint)), std::nullopt};
}

zksmessages::FindBlobsReply BlobClient::find(const zksmessages::BlobHolder& holder,
                                             const std::vector<Digest>& digests) const {
  zksmessages::FindBlobsRequest request;
  *request.mutable_holder() = holder;
  for (const Digest& digest : digests)
    request.add_sha256(std::string(digest.bytes()));
  return typedCall<zksmessages::FindBlobsReply>(client_, "findBlobs", request);
}

void BlobClient::put(const zksmessages::BlobHolder& holder, const LocalBlob& blob, std::uint64_t offset) const {
  if (offset > blob.nbytes())
    throw Exception<MalformedReply>("findBlobs", "it has more of a blob than there is");
  zksmessages::PutBlobRequest request;
  *request.mutable_holder() = holder;
  request.set_sha256(std::string(blob.digest().bytes()));
  request.set_nbytes(blob.nbytes());
  request.set_offset(offset);
  Reply reply = client_.call("putBlob", {packedItem(request), blob.itemFrom(offset)});
  reply.expectItems(1, "the result");
  zksmessages::PutBlobReply result;
  takeResult(reply, "putBlob", result);
}

void BlobClient::putMissing(const zksmessages::BlobHolder& holder, const std::vector<LocalBlob>& blobs) const {
  std::map<std::string_view, const LocalBlob*> byName;
  std::vector<Digest> digests;
  for (const LocalBlob& blob : blobs) {
    if (byName.emplace(blob.digest().bytes(), &blob).second)
      digests.push_back(blob.digest());
  }
  if (digests.empty())
    return;
  const zksmessages::FindBlobsReply found = find(holder, digests);
  for (const auto& missing : found.missing()) {
    const auto blob = byName.find(missing.sha256());
    if (blob == byName.end())
      throw Exception<MalformedReply>("findBlobs", "it names a blob that was not asked for");
    put(holder, *blob->second, missing.received());
  }
}

void BlobClient::get(const zksmessages::Blob& blob, ByteSink& sink) const {
  CheckedSink checked(sink);
  if (blob.has_content()) {
    checked.write(bytesOf(blob.content()), blob.content().size());
    return checked.expect(blob);
  }
  zksmessages::GetBlobRequest request;
  request.set_sha256(blob.sha256());
  Reply reply = client_.call("getBlob", {packedItem(request)});
  reply.expectItems(2, "the result, the bytes");
  zksmessages::GetBlobReply result;
  takeResult(reply, "getBlob", result);
  reply.takeBytes(checked);
  checked.expect(blob);
}

void BlobClient::getFile(const zksmessages::Blob& blob, const std::string& path, FileKind kind) const {
  writeFile(
      path, [&](ByteSink& file) { get(blob, file); }, kind);
}

}  // namespace parallel::toolbox
