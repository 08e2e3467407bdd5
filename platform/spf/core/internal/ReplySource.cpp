#include "platform/spf/core/internal/ReplySource.h"

#include <utility>

#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/InputStreambuf.h"

namespace agent::spf::core::internal {

namespace {

class ReplyStream : public std::istream {
 public:
  explicit ReplyStream(std::shared_ptr<ByteInlet> inlet) : std::istream(nullptr), buffer_(std::move(inlet)) {
    rdbuf(&buffer_);
    exceptions(std::ios::badbit);
  }

 private:
  InputStreambuf buffer_;
};

}  // namespace

ReplySource::~ReplySource() {
  if (inlet_ != nullptr)
    inlet_->close();
}

std::unique_ptr<std::istream> ReplySource::getImportedIstream() {
  if (inlet_ == nullptr)
    throw FrameworkError("The stream of a reply was asked for a second time.");
  auto stream = std::make_unique<ReplyStream>(inlet_);
  inlet_ = nullptr;  // not before: without a stream the reply is still this object's to abandon
  return stream;
}

}  // namespace agent::spf::core::internal
