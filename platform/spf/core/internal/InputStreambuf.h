// The streambuf behind every istream that the framework hands out: reads straight from the received pieces.
//
// It shows no get area. in_avail() looks at the get area first and asks showmanyc() only when that is empty; without
// one it always tells how many bytes are still sure to come, which is what a reader sizes its memory by. Bulk reads
// lose nothing: they copy from the received piece into the reader's memory, once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <streambuf>

#include "platform/spf/core/internal/ByteInlet.h"

namespace agent::spf::core::internal {

// Ownership: shares the inlet, and closes it when it ends. Errors: what the inlet throws passes through, and is thrown
// again by each further read: what had been read before it in the same call is lost, and nobody shall read on behind
// it.
class InputStreambuf : public std::streambuf {
 public:
  explicit InputStreambuf(std::shared_ptr<ByteInlet> inlet);
  ~InputStreambuf() override;
  InputStreambuf(const InputStreambuf&) = delete;
  InputStreambuf& operator=(const InputStreambuf&) = delete;

  // Bytes that have been read from it.
  std::uint64_t taken() const noexcept { return taken_; }

 protected:
  int_type underflow() override;
  int_type uflow() override;
  std::streamsize xsgetn(char* to, std::streamsize count) override;
  std::streamsize showmanyc() override;

 private:
  template <class Action>
  auto guarded(Action action);
  bool fill();  // false at the end
  std::size_t fillDirectly(std::span<char> to);

  std::shared_ptr<ByteInlet> inlet_;
  std::span<const char> piece_;
  std::uint64_t taken_ = 0;
  bool ended_ = false;
  std::exception_ptr failure_;
};

}  // namespace agent::spf::core::internal
