// Whole calls over gRPC with each of their large allocations failing, on whatever thread: the call ends, whole or with
// an error, and the next one on the same connection succeeds. The small ones are left alone, since gRPC ends the
// process when it does not get them.
#include <grpcpp/create_channel.h>
#include <grpcpp/support/sync_stream.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>

#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/testing/rawMessages.h"
#include "platform/spf/grpc/transport.pb.h"
#include "tests/allocation/allocationHooks.h"

namespace agent::spf::testing {
namespace {

using allocation_testing::FailingAllocation;

// gRPC asks for less at a time.
constexpr std::size_t kLarge = std::size_t{64} << 10;
constexpr std::size_t kPayload = 3'000'000;

// An error of levels with long texts.
void fail(ServerCall& /*call*/) {
  try {
    throw std::runtime_error(std::string(kPayload / 2, 'i'));
  } catch (const std::exception&) {
    std::throw_with_nested(FrameworkError(std::string(kPayload / 2, 'o')));
  }
}

// In pieces that are gathered.
void gathered(ServerCall& call) {
  const std::string bytes = readAll(call.request());
  for (std::size_t at = 0; at < bytes.size(); at += 1000)
    call.reply().write(bytes.data() + at, static_cast<long>(std::min<std::size_t>(1000, bytes.size() - at)));
}

class LargeAllocations : public ::testing::Test {
 protected:
  LargeAllocations() {
    service_->add("echo", echo);
    service_->add("fail", fail);
    service_->add("gathered", gathered);
    server_ = std::make_unique<grpc_transport::Server>(service_,
                                                       grpc_transport::ServerOptions{.address = directory_.address()});
    client_ = grpc_transport::connect(server_->address());
  }

  const std::string& address() const { return server_->address(); }

  // `action` makes a call and throws unless its outcome is the right one. Returns how many allocations there are.
  int failEach(const std::function<void(core::Invokable&)>& action) {
    for (int number = 0; number < 1000; ++number) {
      std::exception_ptr thrown;
      bool failed = false;
      {
        const FailingAllocation failing(number, kLarge);
        try {
          action(*client_);
        } catch (...) {
          thrown = std::current_exception();
        }
        failed = failing.happened();
      }
      const core::ErrorChain chain = core::flattenErrorChain(thrown, 1000);
      if (!failed) {
        EXPECT_EQ(thrown, nullptr) << core::summaryOf(chain, 1000);
        return number;
      }
      EXPECT_TRUE(chain.empty() || isOfMemory(thrown))
          << "allocation " << number << ": " << core::summaryOf(chain, 1000);
      EXPECT_EQ(call(*client_, "echo", std::string("next")), "next") << "allocation " << number;
    }
    ADD_FAILURE() << "the allocations do not end";
    return 0;
  }

 private:
  static bool isOfMemory(const std::exception_ptr& error) {
    const core::ErrorChain chain = core::flattenErrorChain(error);
    return std::any_of(chain.begin(), chain.end(), [](const core::ErrorLevel& level) {
      return level.text == std::bad_alloc().what() || level.kind == core::ErrorLevel::Kind::terminated;
    });
  }

  TemporaryDirectory directory_;
  std::shared_ptr<core::Service> service_ = std::make_shared<core::Service>();
  std::unique_ptr<grpc_transport::Server> server_;
  std::shared_ptr<core::Invokable> client_;
};

class Wrong : public std::exception {
 public:
  const char* what() const noexcept override { return "not what was expected"; }
};

TEST_F(LargeAllocations, LargeCallIsAnsweredWholeOrFails) {
  const auto bytes = std::make_shared<std::string>(patternOf(kPayload));
  const auto writer = [bytes](std::ostream& out) { out.write(bytes->data(), static_cast<long>(bytes->size())); };
  for (const char* method : {"echo", "gathered"})
    EXPECT_GT(failEach([&](core::Invokable& client) {
                if (call(client, method, sourceOf(writer, static_cast<long>(bytes->size()))) != *bytes)
                  throw Wrong();
              }),
              4);
}

TEST_F(LargeAllocations, RequestInManyPiecesIsSentWholeOrTheCallFails) {
  const std::string piece = patternOf(1000);
  const auto writer = [&](std::ostream& out) {
    for (std::size_t i = 0; i < kPayload / piece.size(); ++i)
      out << piece;
  };
  EXPECT_GT(failEach([&](core::Invokable& client) {
              if (call(client, "echo", sourceOf(writer, kPayload)).size() != kPayload)
                throw Wrong();
            }),
            4);
}

TEST_F(LargeAllocations, LongErrorArrivesOrAShortOneInItsPlace) {
  const auto action = [](core::Invokable& client) {
    try {
      call(client, "fail", std::string());
    } catch (const FrameworkError& e) {
      const auto* nested = dynamic_cast<const std::nested_exception*>(&e);
      if (std::string_view(e.what()).size() == kPayload / 2 && nested != nullptr)
        return;
      throw;
    }
    throw Wrong();
  };
  EXPECT_GT(failEach(action), 20);
}

// A call whose client ends it with a long error.
std::string failedCall() {
  v1::Frame frame;
  frame.mutable_call()->set_protocol_version(1);
  frame.mutable_call()->set_method("echo");
  frame.mutable_error()->add_levels()->set_text(std::string(kPayload, 'e'));
  return frame.SerializeAsString();
}

TEST_F(LargeAllocations, WantOfMemoryForAFrameIsNotBlamedOnTheClient) {
  using Stream = grpc::ClientReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer>;
  const grpc::ByteBuffer message = messageOf(failedCall());
  const auto channel = grpc::CreateChannel(address(), grpc::InsecureChannelCredentials());
  const grpc::internal::RpcMethod method("/agent.spf.v1.Transport/Converse", grpc::internal::RpcMethod::BIDI_STREAMING);
  int refused = 0;
  bool failed = true;
  for (int number = 0; failed && number < 100; ++number) {
    grpc::ClientContext context;
    const std::unique_ptr<Stream> stream(
        grpc::internal::ClientReaderWriterFactory<grpc::ByteBuffer, grpc::ByteBuffer>::Create(channel.get(), method,
                                                                                              &context));
    const FailingAllocation failing(number, kLarge);
    stream->Write(message);
    stream->WritesDone();
    for (grpc::ByteBuffer reply; stream->Read(&reply);) {
    }
    const grpc::Status status = stream->Finish();
    failed = failing.happened();
    EXPECT_NE(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT) << number << ": " << status.error_message();
    refused += status.error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED ? 1 : 0;
  }
  EXPECT_FALSE(failed);
  EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace agent::spf::testing
