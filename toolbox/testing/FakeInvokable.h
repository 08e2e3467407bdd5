// A connection that records what it is asked and answers what a test wants.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/Invokable.h"

namespace parallel::toolbox {

// A reply of bytes that are there already.
class FakeReply : public agent::spf::core::ImportedDataSource {
 public:
  explicit FakeReply(std::unique_ptr<std::istream> stream) : stream_(std::move(stream)) {}
  std::unique_ptr<std::istream> getImportedIstream() override { return std::move(stream_); }

 private:
  std::unique_ptr<std::istream> stream_;
};

class FakeInvokable : public agent::spf::core::Invokable {
 public:
  std::string method;
  std::string request;  // the bytes of the last one
  std::exception_ptr error;
  std::function<std::unique_ptr<std::istream>()> reply = [] { return std::make_unique<std::istringstream>(); };

  void invoke(agent::spf::core::CallTag, const std::string& name, agent::spf::core::CompletionHandler&& handler,
              agent::spf::core::GenericPayload&& payload, int) override {
    method = name;
    std::ostringstream bytes;
    if (payload.holds<agent::spf::core::ExportedDataSource>(0))
      (*payload.getValueAsPointer<agent::spf::core::ExportedDataSource>(0)->writer())(bytes);
    else
      bytes << *payload.getValueAsPointer<std::string>(0);
    request = bytes.str();
    if (error != nullptr)
      return handler.fail(error);
    handler.succeed(agent::spf::core::GenericPayload(
        std::shared_ptr<agent::spf::core::ImportedDataSource>(std::make_shared<FakeReply>(reply()))));
  }
};

}  // namespace parallel::toolbox
