#include "platform/spf/core/internal/OutputStreambuf.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/spf/core/errors.h"

namespace agent::spf::core::internal {

OutputStreambuf::OutputStreambuf(ByteOutlet& outlet, std::string what) : outlet_(outlet), what_(std::move(what)) {}

template <class Action>
void OutputStreambuf::guarded(Action action) {
  if (failure_ != nullptr)
    std::rethrow_exception(failure_);
  try {
    action();
  } catch (...) {
    failure_ = std::current_exception();
    setp(nullptr, nullptr);
    throw;
  }
}

void OutputStreambuf::announce(long size) {
  if (sent_ + gathered() > 0)
    throw FrameworkError("The size of the " + what_ + " was announced after its first byte.");
  if (size < 0)
    throw FrameworkError("A size of " + std::to_string(size) + " bytes was announced for the " + what_ + ".");
  announced_ = size;
}

void OutputStreambuf::finish() {
  guarded([this] {
    checkRoomFor(0);
    const std::size_t written = sent_ + gathered();
    if (announced_ && written != static_cast<std::size_t>(*announced_))
      throw FrameworkError("The " + what_ + " was announced with " + std::to_string(*announced_) + " bytes, but only " +
                           std::to_string(written) + " were written.");
    const std::size_t rest = gathered();
    setp(nullptr, nullptr);
    sent_ += rest;
    outlet_.finish(rest);
  });
}

// Looks before the bytes are taken, so that the receiver never sees more than was announced.
void OutputStreambuf::checkRoomFor(std::size_t count) const {
  const std::size_t written = sent_ + gathered() + count;
  if (announced_ && written > static_cast<std::size_t>(*announced_))
    throw FrameworkError("The " + what_ + " was announced with " + std::to_string(*announced_) + " bytes, but " +
                         std::to_string(written) + " or more were written.");
}

void OutputStreambuf::flushGathered() {
  checkRoomFor(0);  // single characters come here unseen
  const std::size_t rest = gathered();
  setp(nullptr, nullptr);
  sent_ += rest;
  outlet_.sendGathered(rest);
}

void OutputStreambuf::needRoom() {
  if (pptr() != epptr())
    return;
  if (gathered() > 0)
    flushGathered();
  const std::span<char> room = outlet_.room();
  setp(room.data(), room.data() + room.size());
}

void OutputStreambuf::gather(const char* bytes, std::size_t count) {
  while (count > 0) {
    needRoom();
    const std::size_t part = std::min(count, static_cast<std::size_t>(epptr() - pptr()));
    std::memcpy(pptr(), bytes, part);
    pbump(static_cast<int>(part));
    bytes += part;
    count -= part;
  }
}

OutputStreambuf::int_type OutputStreambuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof()))
    return traits_type::not_eof(c);
  const char byte = traits_type::to_char_type(c);
  xsputn(&byte, 1);
  return c;
}

std::streamsize OutputStreambuf::xsputn(const char* bytes, std::streamsize count) {
  if (count <= 0)
    return 0;
  guarded([&] {
    const auto nbytes = static_cast<std::size_t>(count);
    checkRoomFor(nbytes);
    if (nbytes < kBorrowBytes)
      return gather(bytes, nbytes);
    if (gathered() > 0)
      flushGathered();
    sent_ += nbytes;
    outlet_.sendBorrowed({bytes, nbytes});
  });
  return count;
}

int OutputStreambuf::sync() {
  guarded([this] { flushGathered(); });
  return 0;
}

}  // namespace agent::spf::core::internal
