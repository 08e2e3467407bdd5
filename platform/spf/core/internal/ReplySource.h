// The reply of a call as its caller gets it: an ImportedDataSource over a transport's inlet.
#pragma once

#include <memory>

#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/internal/ByteInlet.h"

namespace agent::spf::core::internal {

// Ending it without having taken the istream abandons the reply.
class ReplySource : public ImportedDataSource {
 public:
  explicit ReplySource(std::shared_ptr<ByteInlet> inlet) : inlet_(std::move(inlet)) {}
  ~ReplySource() override;
  ReplySource(const ReplySource&) = delete;
  ReplySource& operator=(const ReplySource&) = delete;

  std::unique_ptr<std::istream> getImportedIstream() override;

 private:
  std::shared_ptr<ByteInlet> inlet_;  // null once it has been handed on
};

}  // namespace agent::spf::core::internal
