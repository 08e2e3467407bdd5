// What every job method does with its call: reads a request of one message, and answers with one, at once or after a turn.
#pragma once

#include <google/protobuf/duration.pb.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/spf/core/Service.h"
#include "platform/zksmessages/jobs.pb.h"
#include "scheduler/calls/DescriptionLimit.h"
#include "scheduler/calls/ReplyWriter.h"
#include "scheduler/calls/RequestReader.h"
#include "scheduler/methods/BookKeeper.h"

namespace parallel::scheduler::methods {

using agent::spf::core::DeferredReply;
using agent::spf::core::ServerCall;

// Of a request without further items. Errors: those of RequestReader.
template <class Message>
Message readRequest(ServerCall& call, const DescriptionLimit& limit) {
  RequestReader request(call.request(), call.method());
  request.expectItems(1);
  Message message;
  request.readMessage(message, limit);
  request.expectEnd();
  return message;
}

// `BadRequestField`.
[[noreturn]] void refuseField(const ServerCall& call, const std::string& field, const std::string& problem);

// `BadRequestField` unless it is a key as peers make them.
void checkKey(const ServerCall& call, const std::string& key);

// How long a call is to wait: a minute at most.
std::chrono::nanoseconds waitOf(const google::protobuf::Duration& wait);

// The reply: the message as the result of a ResultPayload, then the items that were added.
class Reply {
 public:
  explicit Reply(const google::protobuf::Message& result);

  void addFile(std::uint64_t nbytes, ReplyWriter::Producer producer);
  void addPlain(std::string bytes);
  void send(ServerCall& call) const;

 private:
  struct Item {
    bool isPlain = false;
    std::uint64_t nbytes = 0;
    ReplyWriter::Producer producer;
  };

  zksmessages::ResultPayload payload_;
  std::vector<Item> items_;
};

inline void sendReply(ServerCall& call, const google::protobuf::Message& result) {
  Reply(result).send(call);
}

// Lets the call go on, once what the turn decided is durable.
inline void resumeAfter(BookKeeper::Turn& turn, std::shared_ptr<DeferredReply> deferred,
                        std::function<void(ServerCall&)> rest) {
  turn.tell([deferred = std::move(deferred), rest = std::move(rest)] { deferred->resume(rest); });
}

// What a refused event is answered with. Only what the refusal is about need be there.
struct RefusedEvent {
  std::string key{};
  ledger::JobId job{};
  ledger::TaskNumber task = 0;
  ledger::WorkerId worker{};
  std::uint64_t sequence = 0;
};
[[noreturn]] void throwRefusal(ledger::Refusal refusal, const RefusedEvent& event);

// One event, from the call to its answer: `decide` gets the turn and yields a decision; `answer` gets the call and the
// answer, on a thread of the framework, once all is durable.
template <class Decide, class Answer>
void decideAndAnswer(BookKeeper& keeper, ServerCall& call, RefusedEvent event, Decide decide, Answer answer) {
  const std::shared_ptr<DeferredReply> deferred = call.defer();
  keeper.run([&](BookKeeper::Turn& turn) {
    auto outcome = turn.take(decide(turn));
    resumeAfter(turn, deferred, [outcome = std::move(outcome), event, answer](ServerCall& later) {
      if (const auto* refusal = std::get_if<ledger::Refusal>(&outcome))
        throwRefusal(*refusal, event);
      answer(later, std::get<0>(outcome));
    });
  });
}

}  // namespace parallel::scheduler::methods
