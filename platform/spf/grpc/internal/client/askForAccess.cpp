#include "platform/spf/grpc/internal/client/askForAccess.h"

#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/generic/generic_stub.h>

#include "platform/spf/grpc/internal/wire/Frame.h"

namespace agent::spf::grpc_transport::internal {

namespace {

constexpr std::chrono::milliseconds kPollInterval{50};

class AccessQuestion {
 public:
  AccessQuestion(const std::shared_ptr<grpc::Channel>& channel, std::chrono::system_clock::time_point deadline,
                 const std::function<void()>& poll)
      : poll_(poll), stub_(channel) {
    context_.set_deadline(deadline);
    stream_ = stub_.PrepareCall(&context_, kConverseMethod, &queue_);
  }
  // Ends what is under way first, if an interrupt has left something.
  ~AccessQuestion() {
    context_.TryCancel();
    queue_.Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (queue_.Next(&tag, &ok)) {
    }
  }
  AccessQuestion(const AccessQuestion&) = delete;
  AccessQuestion& operator=(const AccessQuestion&) = delete;

  grpc::Status ask() {
    stream_->StartCall(nullptr);
    await();
    stream_->WritesDone(nullptr);
    await();
    stream_->Finish(&status_, nullptr);
    await();
    return status_;
  }

 private:
  void await() {
    void* tag = nullptr;
    bool ok = false;
    while (queue_.AsyncNext(&tag, &ok, std::chrono::system_clock::now() + kPollInterval) ==
           grpc::CompletionQueue::TIMEOUT) {
      if (poll_)
        poll_();
    }
  }

  const std::function<void()>& poll_;
  grpc::Status status_;
  grpc::CompletionQueue queue_;
  grpc::ClientContext context_;
  grpc::GenericStub stub_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> stream_;
};

}  // namespace

grpc::Status askForAccess(const std::shared_ptr<grpc::Channel>& channel, std::chrono::system_clock::time_point deadline,
                          const std::function<void()>& poll) {
  return AccessQuestion(channel, deadline, poll).ask();
}

}  // namespace agent::spf::grpc_transport::internal
