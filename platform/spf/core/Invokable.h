// The client's side of a service: named methods that can be called.
#pragma once

#include <cstdint>
#include <string>

#include "platform/spf/core/CompletionHandler.h"
#include "platform/spf/core/GenericPayload.h"

namespace agent::spf::core {

// 128 bits by which a caller may correlate a call in the logs of both sides; zero means none.
struct CallTag {
  std::uint64_t high = 0;
  std::uint64_t low = 0;
};

class Invokable {
 public:
  virtual ~Invokable() = default;

  // Starts a call and returns; when the handler's caller waits, perhaps with its outcome. `request` holds one
  // std::shared_ptr<ExportedDataSource> or one std::shared_ptr<std::string> (whose bytes are the request). The handler
  // gets a payload of one std::shared_ptr<ImportedDataSource> when the reply's head has arrived, or the error; for a
  // std::string request the reply is read to its end first, and the payload is empty.
  // `flags` must be 0; others are reserved.
  //
  // Threads: any, at once.
  // Errors:  throws FrameworkError when the call cannot be started at all; what happens later goes to the handler.
  virtual void invoke(CallTag tag, const std::string& method, CompletionHandler&& handler, GenericPayload&& request,
                      int flags) = 0;
};

}  // namespace agent::spf::core
