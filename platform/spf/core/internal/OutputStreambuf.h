// The streambuf behind every ostream that the framework hands out: gathers small writes, lends large ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>

#include "platform/spf/core/internal/ByteOutlet.h"

namespace agent::spf::core::internal {

// Writes of at least this many bytes are passed on as they lie in the caller's memory. Below it a copy costs less than
// waiting until the transport has let go of the caller's bytes.
inline constexpr std::size_t kBorrowBytes = std::size_t{256} << 10;

// Ownership: borrows the outlet. Errors: what the outlet throws passes through, and is remembered for finish(), so that
// a writer that swallows it cannot make a torn transfer look whole.
class OutputStreambuf : public std::streambuf {
 public:
  // `what` names the transfer in error texts: "request of call \"echo\"".
  OutputStreambuf(ByteOutlet& outlet, std::string what);

  // From now on exactly `size` bytes in all may be written. FrameworkError when some have been.
  void announce(long size);
  std::optional<long> announced() const noexcept { return announced_; }
  // Bytes that have been written into it.
  std::uint64_t written() const noexcept { return sent_ + gathered(); }

  // Sends what is left and ends the transfer. FrameworkError when the count is not the announced one.
  void finish();

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;
  int sync() override;

 private:
  std::size_t gathered() const noexcept { return static_cast<std::size_t>(pptr() - pbase()); }
  template <class Action>
  void guarded(Action action);
  void flushGathered();
  void needRoom();
  void gather(const char* bytes, std::size_t count);
  void checkRoomFor(std::size_t count) const;

  ByteOutlet& outlet_;
  std::string what_;
  std::optional<long> announced_;
  std::size_t sent_ = 0;  // bytes given to the outlet
  std::exception_ptr failure_;
};

}  // namespace agent::spf::core::internal
