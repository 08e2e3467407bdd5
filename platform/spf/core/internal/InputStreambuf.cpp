#include "platform/spf/core/internal/InputStreambuf.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace agent::spf::core::internal {

InputStreambuf::InputStreambuf(std::shared_ptr<ByteInlet> inlet) : inlet_(std::move(inlet)) {}

InputStreambuf::~InputStreambuf() {
  inlet_->close();
}

bool InputStreambuf::fill() {
  if (piece_.empty() && !ended_) {
    piece_ = inlet_->next();
    ended_ = piece_.empty();
  }
  return !piece_.empty();
}

InputStreambuf::int_type InputStreambuf::underflow() {
  return fill() ? traits_type::to_int_type(piece_.front()) : traits_type::eof();
}

InputStreambuf::int_type InputStreambuf::uflow() {
  if (!fill())
    return traits_type::eof();
  const char byte = piece_.front();
  piece_ = piece_.subspan(1);
  return traits_type::to_int_type(byte);
}

std::streamsize InputStreambuf::xsgetn(char* to, std::streamsize count) {
  std::streamsize done = 0;
  while (done < count && fill()) {
    const std::size_t part = std::min(static_cast<std::size_t>(count - done), piece_.size());
    std::memcpy(to + done, piece_.data(), part);
    piece_ = piece_.subspan(part);
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
