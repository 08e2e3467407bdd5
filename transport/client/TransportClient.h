// Calls named methods of the remote service. A call from end to end: docs/calls.md.
//
// Ownership: shares the connection's record with its owner; never fills or empties it. Copies are cheap and equal.
// Threads:   any, several at once.
// Errors:    with no connection in the record every operation throws `ZKSUnreachable` (component "parallel:cluster").
//            What createByteStream and the Invokable throw passes through, and an error that the service reports
//            arrives as the very object that the framework stored; throwExpandedSPFErrors makes one message of its
//            chain. A framework that drops a handler without calling it ends a wait with std::future_error
//            (broken_promise).
#pragma once

#include <memory>
#include <string>

#include "platform/spf/core/CompletionHandler.h"
#include "platform/spf/core/Invokable.h"
#include "transport/client/ConnectionRecord.h"
#include "transport/data/InputPayload.h"
#include "transport/data/OutputPayload.h"
#include "transport/export.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT TransportClient {
 public:
  explicit TransportClient(std::shared_ptr<ConnectionRecord> record);

  // Never empty.
  std::shared_ptr<agent::spf::core::Invokable> getInvokable() const;

  // Sends the payload and waits until the reply begins; the items then read the rest of it as it arrives. On a thread
  // in the interpreter's context a user interrupt is noticed within about 100 ms and ends the wait with the host's
  // interrupt exception; the call is then given up, which cancels it at the service. There is no time limit of its own.
  // `payload` is empty afterwards, whatever happened.
  OutputPayload invokeMethod(std::string method, InputPayload&& payload) const;

  // Sends the bytes as they are and waits until the service has answered. The trap: a user interrupt does not end this
  // wait.
  void invokeMethod(std::string method, const std::string& bytes) const;

  // Sends the payload and returns; the handler gets the reply, a shared ImportedDataSource, or the error, on a thread
  // of the framework. `payload` is empty afterwards, whatever happened, and so is `handler` unless there was no
  // connection.
  void invokeMethodAsync(std::string method, InputPayload&& payload,
                         agent::spf::core::CompletionHandler&& handler) const;

 private:
  std::shared_ptr<ConnectionRecord> record_;
};

}  // namespace parallel::spf::transport
