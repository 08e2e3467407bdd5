// Blobs: findBlobs, putBlob, getBlob.
#include <memory>
#include <optional>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/methods/JobMethods.h"
#include "scheduler/methods/blobItems.h"
#include "scheduler/methods/holders.h"
#include "scheduler/methods/ledgerForms.h"
#include "scheduler/methods/requests.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::scheduler::methods {

using ledger::JobId;
using spf::transport::ByteSink;
using store::Digest;
using zksmessages::BlobHolder;

namespace {

constexpr std::size_t kPieceBytes = std::size_t{256} << 10;

Digest digestOf(const ServerCall& call, const std::string& field, const std::string& bytes) {
  const auto digest = Digest::fromBytes(bytes);
  if (!digest)
    refuseField(call, field,
                "a digest has " + std::to_string(Digest::kBytes) + " bytes, not " + std::to_string(bytes.size()));
  return *digest;
}

void writeText(ByteSink& sink, std::string_view text) {
  sink.write(reinterpret_cast<const std::byte*>(text.data()), text.size());
}

// Whoever may keep blobs; none: a key whose job was submitted already, which needs nothing more.
std::optional<store::Holder> holderOf(BookKeeper& keeper, const ServerCall& call, const BlobHolder& message) {
  using agent::spf::core::PeerRole;
  if (call.identity().role == PeerRole::worker && message.holder_case() != BlobHolder::kAttempt)
    throw Exception<parallel::scheduler::NotAllowed>(call.method() + " for a job", "workers", "clients");
  std::optional<store::Holder> holder;
  keeper.run([&](BookKeeper::Turn& turn) {
    switch (message.holder_case()) {
      case BlobHolder::kKey:
        checkKey(call, message.key());
        if (!turn.ledger().knowsKey(message.key()))
          holder = holderOfKey(message.key());
        return;
      case BlobHolder::kJob: {
        const JobId job{message.job()};
        if (!turn.ledger().progress(job))
          throwRefusal(ledger::Refusal::unknownJob, {.job = job});
        holder = holderOfJob(job);
        return;
      }
      case BlobHolder::kAttempt: {
        const ledger::AttemptKey key = fromMessage(message.attempt());
        if (!turn.ledger().workerOf(key))
          throw Exception<parallel::scheduler::UnknownAttempt>(message.attempt().job(), key.task, key.number);
        holder = holderOfAttempt(key);
        return;
      }
      default:
        refuseField(call, "holder", "there is none");
    }
  });
  return holder;
}

}  // namespace

ReplyWriter::Producer blobProducer(store::BlobStore& blobs, const zksmessages::Blob& blob, std::uint64_t offset,
                                   store::WallTime now) {
  if (blob.has_content())
    return [content = blob.content().substr(static_cast<std::size_t>(offset))](ByteSink& sink) {
      writeText(sink, content);
    };
  const Digest digest = *Digest::fromBytes(blob.sha256());
  return [&blobs, digest, offset, now](ByteSink& sink) {
    const auto reader = blobs.open(digest, now);
    reader->skipTo(offset);
    for (std::string piece = reader->read(kPieceBytes); !piece.empty(); piece = reader->read(kPieceBytes))
      writeText(sink, piece);
  };
}

void JobMethods::findBlobs(ServerCall& call) {
  constexpr int kMostDigests = 100'000;
  const auto request = readRequest<zksmessages::FindBlobsRequest>(call, options_.descriptionLimit);
  if (request.sha256_size() > kMostDigests)
    refuseField(call, "sha256", "more than " + std::to_string(kMostDigests));
  std::vector<Digest> digests;
  for (const std::string& bytes : request.sha256())
    digests.push_back(digestOf(call, "sha256", bytes));
  zksmessages::FindBlobsReply reply;
  if (const auto holder = holderOf(keeper_, call, request.holder())) {
    store::BlobStore& blobs = keeper_.store().blobs();
    for (const Digest& digest : blobs.pin(*holder, digests, wallTime())) {
      auto* missing = reply.add_missing();
      missing->set_sha256(std::string(digest.bytes()));
      missing->set_received(blobs.received(*holder, digest));
    }
  }
  sendReply(call, reply);
}

void JobMethods::putBlob(ServerCall& call) {
  RequestReader reader(call.request(), call.method());
  reader.expectItems(2);
  zksmessages::PutBlobRequest request;
  reader.readMessage(request, options_.descriptionLimit);
  const Digest digest = digestOf(call, "sha256", request.sha256());
  if (request.offset() > request.nbytes())
    refuseField(call, "offset", std::to_string(request.offset()) + " is behind its end");
  // Of a job that is there already: what comes is kept until it is known that nobody wants it.
  const store::Holder holder = holderOf(keeper_, call, request.holder()).value_or(holderOfKey(request.holder().key()));
  const UploadClaims::Claim claim(uploads_, {holder, digest});
  const auto upload = keeper_.store().blobs().upload(holder, digest, request.nbytes(), request.offset());
  spf::transport::FunctionalByteSink sink([&](const std::byte* data, std::size_t n) {
    upload->write({reinterpret_cast<const char*>(data), n});
  });
  reader.readItem(sink);
  reader.expectEnd();
  upload->finish(wallTime());
  sendReply(call, zksmessages::PutBlobReply());
}

void JobMethods::getBlob(ServerCall& call) {
  const auto request = readRequest<zksmessages::GetBlobRequest>(call, options_.descriptionLimit);
  const Digest digest = digestOf(call, "sha256", request.sha256());
  const std::shared_ptr<store::BlobReader> reader = keeper_.store().blobs().open(digest, wallTime());
  if (request.offset() > reader->nbytes())
    refuseField(call, "offset", std::to_string(request.offset()) + " is behind its end");
  zksmessages::GetBlobReply message;
  message.set_nbytes(reader->nbytes());
  Reply reply(message);
  reply.addFile(reader->nbytes() - request.offset(), [reader, offset = request.offset()](ByteSink& sink) {
    reader->skipTo(offset);
    for (std::string piece = reader->read(kPieceBytes); !piece.empty(); piece = reader->read(kPieceBytes))
      writeText(sink, piece);
  });
  reply.send(call);
}

}  // namespace parallel::scheduler::methods
