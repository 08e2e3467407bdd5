// Where a transport gives incoming bytes: what an InputStreambuf reads from.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

namespace agent::spf::core::internal {

// Threads: one at a time.
class ByteInlet {
 public:
  virtual ~ByteInlet() = default;

  // The next bytes, valid until the next call of next() or close(); waits for them, on an interpreter thread until the
  // user interrupts at most. Empty at the end, and only there.
  // Throws what ended the transfer, after the bytes that came before it; once thrown, each further call throws it
  // again.
  virtual std::span<const char> next() = 0;
  // As next(), but straight into the caller's memory, which is not empty; says how many bytes. 0: next() has to be
  // asked.
  virtual std::size_t nextInto(std::span<char> /*to*/) { return 0; }
  // Bytes that next() has still to give, where the sender announced how many there are.
  virtual std::optional<long> remaining() const noexcept = 0;
  // Nobody will read on. Before the end this abandons the transfer.
  virtual void close() noexcept = 0;
};

}  // namespace agent::spf::core::internal
