#include "scheduler/EchoMethod.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "scheduler/calls/ReplyWriter.h"
#include "scheduler/calls/RequestReader.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::scheduler {

using spf::transport::ByteSink;
using zksmessages::EchoRequest;

namespace {

bool isPlain(const EchoRequest::Item& item) {
  return item.kind() == zksmessages::ITEM_KIND_PLAIN;
}

void checkItem(const EchoRequest::Item& item, int index) {
  const auto refuse = [index](const std::string& problem) {
    throw Exception<parallel::scheduler::BadEchoItem>(index, problem);
  };
  if (item.kind() == zksmessages::ITEM_KIND_UNSPECIFIED || !zksmessages::ItemKind_IsValid(item.kind()))
    refuse("kind is " + std::to_string(item.kind()) + ", which is not a kind of item");
  if (!isPlain(item))
    return;
  if (!item.has_nbytes())
    refuse("nbytes is missing, and a plain item needs it");
  if (item.nbytes() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    refuse("nbytes is " + std::to_string(item.nbytes()) + ", more than a length can say");
}

// The reply has the request's blocks, a head and the lengths of plain items, and lacks what was read until now. A request
// that says to be as large as any can be makes a reply that cannot say its size.
void announceSize(agent::spf::core::ServerCall& call, const EchoRequest& description, const RequestReader& request) {
  const std::optional<long> requestSize = call.requestSize();
  if (!requestSize)
    return;
  const auto plainItems = std::count_if(description.items().begin(), description.items().end(), isPlain);
  const long added = static_cast<long>(ReplyWriter::kHeadBytes) +
                     plainItems * static_cast<long>(ReplyWriter::kFramedPlainLengthBytes) -
                     static_cast<long>(request.nbytesConsumed());
  if (*requestSize <= std::numeric_limits<long>::max() - std::max(added, 0L))
    call.setReplySize(*requestSize + added);
}

void echoPlain(RequestReader& request, ReplyWriter& reply, std::uint64_t nbytes, int number) {
  reply.writeFramedPlain(nbytes, [&](ByteSink& sink) {
    const std::uint64_t found = request.copyFramedItem(sink);
    if (found != nbytes)
      throw Exception<parallel::scheduler::PlainSizeMismatch>(number, nbytes, found);
  });
}

}  // namespace

void echo(agent::spf::core::ServerCall& call, const DescriptionLimit& limit) {
  RequestReader request(call.request(), call.method());
  request.expectItemsAtLeast(1);
  EchoRequest description;
  request.readMessage(description, limit);
  request.expectItems(1 + static_cast<std::uint64_t>(description.items_size()));
  for (int i = 0; i < description.items_size(); ++i)
    checkItem(description.items(i), i);

  announceSize(call, description, request);
  ReplyWriter reply(call.reply(), description.items_size());
  for (int i = 0; i < description.items_size(); ++i) {
    const auto& item = description.items(i);
    if (isPlain(item))
      echoPlain(request, reply, item.nbytes(), i + 2);
    else
      reply.writeFramedItem([&](ByteSink& sink) { request.copyFramedItem(sink); });
  }
  request.expectEnd();
  reply.finish();
}

}  // namespace parallel::scheduler
