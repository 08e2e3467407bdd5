// A service of the test's own making on a socket file, which answers the methods of kept jobs as the test says.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/spf/core/Service.h"
#include "platform/spf/grpc/Server.h"
#include "platform/threads/Mutex.h"
#include "platform/zksmessages/jobs.pb.h"
#include "scheduler/calls/ReplyWriter.h"
#include "scheduler/calls/RequestReader.h"

namespace zks {

// What a method answers: a message, and then items.
struct FakeAnswer {
  std::unique_ptr<google::protobuf::Message> message;
  std::vector<std::string> files;
  std::vector<std::string> plains;
};

template <class Message>
FakeAnswer answerOf(const Message& message, std::vector<std::string> files = {}, std::vector<std::string> plains = {}) {
  return {std::make_unique<Message>(message), std::move(files), std::move(plains)};
}

class FakeJobService {
 public:
  // Says how a method answers; before start().
  template <class Request>
  void on(const std::string& method, std::function<FakeAnswer(const Request&)> answer) {
    service_->add(method, [this, method, answer = std::move(answer)](agent::spf::core::ServerCall& call) {
      parallel::scheduler::RequestReader reader(call.request(), method);
      Request request;
      reader.readMessage(request, {});
      note(method, request.SerializeAsString());
      write(call, answer(request));
    });
  }

  // The same answer always.
  template <class Request, class Reply>
  void answer(const std::string& method, const Reply& reply) {
    on<Request>(method, [reply](const Request&) { return answerOf(reply); });
  }

  void start(const std::string& path) {
    agent::spf::grpc_transport::ServerOptions options;
    options.address = "unix:" + path;
    server_ = std::make_unique<agent::spf::grpc_transport::Server>(service_, options);
  }

  void stop() { server_.reset(); }

  // Those that came to the method.
  template <class Request>
  std::vector<Request> requests(const std::string& method) {
    const parallel::threads::MutexLock lock(mutex_);
    std::vector<Request> requests;
    for (const std::string& bytes : requests_[method])
      requests.emplace_back().ParseFromString(bytes);
    return requests;
  }

 private:
  void note(const std::string& method, std::string bytes) {
    const parallel::threads::MutexLock lock(mutex_);
    requests_[method].push_back(std::move(bytes));
  }

  static void write(agent::spf::core::ServerCall& call, const FakeAnswer& answer) {
    using parallel::spf::transport::ByteSink;
    const auto bytesTo = [](ByteSink& sink, const std::string& bytes) {
      sink.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
    };
    parallel::zksmessages::ResultPayload payload;
    payload.mutable_result()->set_type_url("type.googleapis.com/" + answer.message->GetDescriptor()->full_name());
    payload.mutable_result()->set_value(answer.message->SerializeAsString());
    parallel::scheduler::ReplyWriter writer(call.reply(),
                                            static_cast<std::int32_t>(1 + answer.files.size() + answer.plains.size()));
    writer.writeMessage(payload);
    for (const std::string& file : answer.files)
      writer.writeItem([&](ByteSink& sink) { bytesTo(sink, file); });
    for (const std::string& plain : answer.plains)
      writer.writePlain(plain.size(), [&](ByteSink& sink) { bytesTo(sink, plain); });
    writer.finish();
  }

  std::shared_ptr<agent::spf::core::Service> service_ = std::make_shared<agent::spf::core::Service>();
  parallel::threads::Mutex mutex_;
  std::map<std::string, std::vector<std::string>> requests_ ZKS_GUARDED_BY(mutex_);
  std::unique_ptr<agent::spf::grpc_transport::Server> server_;
};

}  // namespace zks
