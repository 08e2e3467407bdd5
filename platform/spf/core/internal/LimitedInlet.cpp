#include "platform/spf/core/internal/LimitedInlet.h"

#include <utility>

#include "platform/spf/core/errors.h"

namespace agent::spf::core::internal {

namespace {

[[noreturn]] void refuse(const ByteLimit& limit, const std::string& what, const std::string& size) {
  throw FrameworkError("The " + what + " has " + size + " bytes, and at most " + std::to_string(limit.bytes) +
                       " are allowed: see " + limit.option + ".");
}

}  // namespace

void checkLimit(const ByteLimit& limit, const std::string& what, long announced) {
  if (announced > limit.bytes)
    refuse(limit, what, std::to_string(announced));
}

LimitedInlet::LimitedInlet(std::shared_ptr<ByteInlet> next, std::string what, ByteLimit limit)
    : next_(std::move(next)), what_(std::move(what)), limit_(std::move(limit)) {}

// Throws again when asked again: the count stays above the limit.
std::size_t LimitedInlet::count(std::size_t nbytes) {
  received_ += static_cast<long>(nbytes);
  if (received_ > limit_.bytes)
    refuse(limit_, what_, std::to_string(received_) + " or more");
  return nbytes;
}

std::span<const char> LimitedInlet::next() {
  count(0);
  const std::span<const char> piece = next_->next();
  count(piece.size());
  return piece;
}

std::size_t LimitedInlet::nextInto(std::span<char> to) {
  count(0);
  return count(next_->nextInto(to));
}

}  // namespace agent::spf::core::internal
