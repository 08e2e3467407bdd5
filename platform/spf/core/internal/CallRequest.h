// What a caller hands to Invokable::invoke, looked through.
#pragma once

#include <memory>
#include <string>

#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/GenericPayload.h"
#include "platform/spf/core/internal/ByteOutlet.h"

namespace agent::spf::core::internal {

// Holds either a source, whose reply is handed on as a stream, or bytes, whose reply is only waited for.
class CallRequest {
 public:
  // FrameworkError when the payload holds neither or more, or the flags are not 0.
  CallRequest(const std::string& method, const GenericPayload& payload, int flags);

  bool isBytes() const noexcept { return bytes_ != nullptr; }
  long size() const noexcept;
  // Writes the request into the outlet and ends it there. Throws what the writer or the outlet throws, and
  // FrameworkError when the writer's bytes are not as many as it announced.
  void writeTo(ByteOutlet& outlet) const;

 private:
  std::string method_;
  std::shared_ptr<ExportedDataSource> source_;
  std::shared_ptr<std::string> bytes_;
};

}  // namespace agent::spf::core::internal
