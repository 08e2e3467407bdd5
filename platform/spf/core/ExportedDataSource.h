// Outgoing data of known size: a writer that the framework calls when it sends.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <utility>

namespace agent::spf::core {

class ExportedDataSource {
 public:
  using Writer = std::function<void(std::ostream&)>;

  // `writer` writes exactly `size` bytes; it may be called on any thread, and again for another attempt. What it
  // throws fails the call.
  ExportedDataSource(std::shared_ptr<Writer> writer, long size) : writer_(std::move(writer)), size_(size) {}

  const std::shared_ptr<Writer>& writer() const noexcept { return writer_; }
  long size() const noexcept { return size_; }  // bytes

 private:
  std::shared_ptr<Writer> writer_;
  long size_;
};

}  // namespace agent::spf::core
