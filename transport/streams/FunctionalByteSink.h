// A sink that passes each write to a function.
//
// Errors: an empty function throws std::bad_function_call at the first write.
#pragma once

#include <cstddef>
#include <functional>

#include "transport/export.h"
#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT FunctionalByteSink final : public ByteSink {
 public:
  using Callback = std::function<void(const std::byte*, std::size_t)>;

  explicit FunctionalByteSink(Callback callback);

  void write(const std::byte* data, std::size_t nbytes) override;
  ~FunctionalByteSink() override;

 private:
  Callback callback_;
};

}  // namespace parallel::spf::transport
