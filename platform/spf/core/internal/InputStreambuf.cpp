#include "platform/spf/core/internal/InputStreambuf.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace agent::spf::core::internal {

namespace {

// From this size on, memory of the caller's is worth filling by the inlet itself.
constexpr std::size_t kDirectBytes = std::size_t{16} << 10;

}  // namespace

InputStreambuf::InputStreambuf(std::shared_ptr<ByteInlet> inlet) : inlet_(std::move(inlet)) {}

InputStreambuf::~InputStreambuf() {
  inlet_->close();
}

template <class Action>
auto InputStreambuf::guarded(Action action) {
  if (failure_ != nullptr)
    std::rethrow_exception(failure_);
  try {
    return action();
  } catch (...) {
    failure_ = std::current_exception();
    throw;
  }
}

bool InputStreambuf::fill() {
  if (piece_.empty() && !ended_) {
    piece_ = guarded([this] { return inlet_->next(); });
    ended_ = piece_.empty();
  }
  return !piece_.empty();
}

// 0 when the way is through fill().
std::size_t InputStreambuf::fillDirectly(std::span<char> to) {
  if (!piece_.empty() || ended_ || to.size() < kDirectBytes)
    return 0;
  return guarded([&] { return inlet_->nextInto(to); });
}

InputStreambuf::int_type InputStreambuf::underflow() {
  return fill() ? traits_type::to_int_type(piece_.front()) : traits_type::eof();
}

InputStreambuf::int_type InputStreambuf::uflow() {
  if (!fill())
    return traits_type::eof();
  const char byte = piece_.front();
  piece_ = piece_.subspan(1);
  ++taken_;
  return traits_type::to_int_type(byte);
}

std::streamsize InputStreambuf::xsgetn(char* to, std::streamsize count) {
  std::streamsize done = 0;
  while (done < count) {
    const auto left = static_cast<std::size_t>(count - done);
    if (const std::size_t direct = fillDirectly({to + done, left})) {
      done += static_cast<std::streamsize>(direct);
      taken_ += direct;
      continue;
    }
    if (!fill())
      break;
    const std::size_t part = std::min(left, piece_.size());
    std::memcpy(to + done, piece_.data(), part);
    piece_ = piece_.subspan(part);
    taken_ += part;
    done += static_cast<std::streamsize>(part);
  }
  return done;
}

std::streamsize InputStreambuf::showmanyc() {
  if (ended_)
    return -1;
  const auto remaining = inlet_->remaining();
  return static_cast<std::streamsize>(piece_.size()) + remaining.value_or(0);
}

}  // namespace agent::spf::core::internal
