// Streams for tests: bytes delivered in pieces, counted, and told of when they are gone.
#pragma once

#include <algorithm>
#include <cstddef>
#include <limits>
#include <memory>
#include <utility>

#include "transport/data/testing/RecordingByteSink.h"
#include "transport/streams/ByteStream.h"

namespace parallel::spf::transport::testing {

// What the test keeps of a stream that it has given away.
struct StreamWatch {
  std::size_t delivered = 0;
  bool destroyed = false;
};

class PiecewiseByteStream : public ByteStream {
 public:
  explicit PiecewiseByteStream(Bytes bytes, std::size_t pieceBytes = std::numeric_limits<std::size_t>::max(),
                               std::shared_ptr<StreamWatch> watch = std::make_shared<StreamWatch>())
      : bytes_(std::move(bytes)), pieceBytes_(pieceBytes), watch_(std::move(watch)) {}
  ~PiecewiseByteStream() override { watch_->destroyed = true; }
  PiecewiseByteStream(const PiecewiseByteStream&) = delete;
  PiecewiseByteStream& operator=(const PiecewiseByteStream&) = delete;

  std::size_t read(ByteSink& sink, std::size_t nbytes) override {
    const std::size_t wanted = std::min(nbytes, bytes_.size() - watch_->delivered);
    for (std::size_t done = 0; done < wanted;) {
      const std::size_t piece = std::min(pieceBytes_, wanted - done);
      sink.write(bytes_.data() + watch_->delivered, piece);
      watch_->delivered += piece;
      done += piece;
    }
    return wanted;
  }

 private:
  const Bytes bytes_;
  const std::size_t pieceBytes_;
  const std::shared_ptr<StreamWatch> watch_;
};

}  // namespace parallel::spf::transport::testing
