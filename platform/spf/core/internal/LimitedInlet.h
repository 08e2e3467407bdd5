// Keeps a transfer within its limit.
#pragma once

#include <memory>
#include <string>

#include "platform/spf/core/ByteLimit.h"
#include "platform/spf/core/internal/ByteInlet.h"

namespace agent::spf::core::internal {

// FrameworkError that names size, limit and option when `announced` bytes are too many. `what` names the transfer.
void checkLimit(const ByteLimit& limit, const std::string& what, long announced);

// For a transfer whose size nobody has announced: counts, and fails it when there are too many bytes.
class LimitedInlet : public ByteInlet {
 public:
  LimitedInlet(std::shared_ptr<ByteInlet> next, std::string what, ByteLimit limit);

  std::span<const char> next() override;
  std::size_t nextInto(std::span<char> to) override;
  std::optional<long> remaining() const noexcept override { return next_->remaining(); }
  void close() noexcept override { next_->close(); }

 private:
  std::size_t count(std::size_t nbytes);

  const std::shared_ptr<ByteInlet> next_;
  const std::string what_;
  const ByteLimit limit_;
  long received_ = 0;
};

}  // namespace agent::spf::core::internal
