#include "toolbox/typedCall.h"

#include <memory>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/parseQuietly.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/streams/ByteSink.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::toolbox {

using spf::transport::ByteSink;
using spf::transport::FunctionalByteSink;
using spf::transport::SerializableData;

namespace {

std::string takeWhole(Reply& reply) {
  std::string bytes;
  FunctionalByteSink sink(
      [&](const std::byte* data, std::size_t n) { bytes.append(reinterpret_cast<const char*>(data), n); });
  reply.takeBytes(sink);
  return bytes;
}

}  // namespace

Item packedItem(const google::protobuf::Message& message) {
  const auto bytes = std::make_shared<const std::string>(message.SerializeAsString());
  auto encoder = [bytes](const qxArray*, ByteSink& sink) {
    sink.write(reinterpret_cast<const std::byte*>(bytes->data()), bytes->size());
  };
  auto sizeHint = [bytes](const qxArray*) { return bytes->size(); };
  const qxArrayPtr unused = qxCreateStringUtf8("");
  return {zksmessages::ITEM_KIND_PROTOBUF,
          std::make_shared<SerializableData>(unused.get(), std::move(encoder), std::move(sizeHint)), std::nullopt};
}

void takeResult(Reply& reply, const std::string& method, google::protobuf::Message& result) {
  const std::string bytes = takeWhole(reply);
  const std::string wanted(result.GetTypeName());
  zksmessages::ResultPayload payload;
  if (!protobufencoding::parseQuietly(payload, bytes))
    throw Exception<MalformedReply>(method, "an item is not a result");
  const std::string& url = payload.result().type_url();
  if (url.substr(url.rfind('/') + 1) != wanted || !protobufencoding::parseQuietly(result, payload.result().value()))
    throw Exception<MalformedReply>(method, "an item is not a " + wanted);
}

}  // namespace parallel::toolbox
