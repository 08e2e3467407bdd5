// Calls whose request and reply are one message each. The messages go as they are, not by way of host values.
//
// Errors: as SchedulerClient's; `MalformedReply` for a reply that is another message.
#pragma once

#include <google/protobuf/message.h>

#include <string>

#include "toolbox/Item.h"
#include "toolbox/Reply.h"
#include "toolbox/SchedulerClient.h"

namespace parallel::toolbox {

// The message as an item of a request.
Item packedItem(const google::protobuf::Message& message);

// Takes the reply's next item, which is to be a result of that type. `method` names the call in errors.
void takeResult(Reply& reply, const std::string& method, google::protobuf::Message& result);

template <class Result>
Result typedCall(const SchedulerClient& client, const std::string& method, const google::protobuf::Message& request) {
  Reply reply = client.call(method, {packedItem(request)});
  reply.expectItems(1, "the result");
  Result result;
  takeResult(reply, method, result);
  return result;
}

}  // namespace parallel::toolbox
