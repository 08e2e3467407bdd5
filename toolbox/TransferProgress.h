// How far the call under way has come, for a front end to show.
//
// Threads: written by the threads that move the bytes, read by any.
// Units:   bytes of the payload, framing included.
#pragma once

#include <atomic>
#include <cstdint>

namespace parallel::toolbox {

struct TransferProgress {
  std::atomic<std::uint64_t> packed{0};     // of the request, encoded so far
  std::atomic<std::uint64_t> toSend{0};     // of the request, once it is packed
  std::atomic<std::uint64_t> sent{0};       // handed to the service framework
  std::atomic<std::uint64_t> toReceive{0};  // of the reply, where the service said so; else 0
  std::atomic<std::uint64_t> received{0};
  std::atomic<bool> answered{false};  // the reply has begun
  // What the service said of the task before that: some services say nothing.
  enum class Turn { unknown, queued, running };
  std::atomic<Turn> turn{Turn::unknown};
};

}  // namespace parallel::toolbox
