// For tests: methods of a service that take one message and answer one, and blobs in memory.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/digest/Sha256.h"
#include "platform/spf/core/Service.h"
#include "platform/threads/Mutex.h"
#include "platform/zksmessages/jobs.pb.h"
#include "scheduler/calls/ReplyWriter.h"
#include "scheduler/calls/RequestReader.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::toolbox {

inline zksmessages::ResultPayload payloadOf(const google::protobuf::Message& message) {
  zksmessages::ResultPayload payload;
  payload.mutable_result()->set_type_url("type.googleapis.com/" + std::string(message.GetTypeName()));
  payload.mutable_result()->set_value(message.SerializeAsString());
  return payload;
}

template <class Request, class Answer>
void addMessageMethod(agent::spf::core::Service& service, const std::string& name, Answer answer) {
  service.add(name, [answer = std::move(answer)](agent::spf::core::ServerCall& call) {
    scheduler::RequestReader reader(call.request(), call.method());
    reader.expectItems(1);
    Request request;
    reader.readMessage(request, {});
    reader.expectEnd();
    const auto reply = answer(request);
    scheduler::ReplyWriter writer(call.reply(), 1);
    writer.writeMessage(payloadOf(reply));
    writer.finish();
  });
}

// findBlobs, putBlob and getBlob. Threads: any.
class MemoryBlobs {
 public:
  void addTo(agent::spf::core::Service& service) {
    addMessageMethod<zksmessages::FindBlobsRequest>(
        service, "findBlobs", [this](const zksmessages::FindBlobsRequest& request) { return find(request); });
    service.add("putBlob", [this](agent::spf::core::ServerCall& call) { put(call); });
    service.add("getBlob", [this](agent::spf::core::ServerCall& call) { get(call); });
  }

  std::string add(std::string bytes) {
    const threads::MutexLock lock(mutex_);
    std::string name(digest::Digest::of(bytes).bytes());
    blobs_[name] = std::move(bytes);
    return name;
  }
  // As if a put had been cut.
  void addPart(const std::string& name, std::string bytes) {
    const threads::MutexLock lock(mutex_);
    parts_[name] = std::move(bytes);
  }
  void replace(const std::string& name, std::string bytes) {
    const threads::MutexLock lock(mutex_);
    blobs_[name] = std::move(bytes);
  }
  bool has(const std::string& bytes) const {
    const threads::MutexLock lock(mutex_);
    const auto found = blobs_.find(std::string(digest::Digest::of(bytes).bytes()));
    return found != blobs_.end() && found->second == bytes;
  }
  std::size_t puts() const {
    const threads::MutexLock lock(mutex_);
    return puts_;
  }
  std::size_t gets() const {
    const threads::MutexLock lock(mutex_);
    return gets_;
  }

 private:
  zksmessages::FindBlobsReply find(const zksmessages::FindBlobsRequest& request) {
    const threads::MutexLock lock(mutex_);
    zksmessages::FindBlobsReply reply;
    for (const std::string& name : request.sha256()) {
      if (blobs_.count(name) != 0)
        continue;
      auto* missing = reply.add_missing();
      missing->set_sha256(name);
      missing->set_received(parts_[name].size());
    }
    return reply;
  }

  void put(agent::spf::core::ServerCall& call) {
    scheduler::RequestReader reader(call.request(), call.method());
    reader.expectItems(2);
    zksmessages::PutBlobRequest request;
    reader.readMessage(request, {});
    std::string bytes;
    spf::transport::FunctionalByteSink sink(
        [&](const std::byte* data, std::size_t n) { bytes.append(reinterpret_cast<const char*>(data), n); });
    reader.readItem(sink);
    reader.expectEnd();
    {
      const threads::MutexLock lock(mutex_);
      ++puts_;
      std::string whole = parts_[request.sha256()].substr(0, request.offset()) + bytes;
      if (digest::Digest::of(whole).bytes() == request.sha256() && whole.size() == request.nbytes())
        blobs_[request.sha256()] = std::move(whole);
    }
    scheduler::ReplyWriter writer(call.reply(), 1);
    writer.writeMessage(payloadOf(zksmessages::PutBlobReply()));
    writer.finish();
  }

  void get(agent::spf::core::ServerCall& call) {
    scheduler::RequestReader reader(call.request(), call.method());
    reader.expectItems(1);
    zksmessages::GetBlobRequest request;
    reader.readMessage(request, {});
    reader.expectEnd();
    std::string bytes;
    {
      const threads::MutexLock lock(mutex_);
      ++gets_;
      bytes = blobs_.at(request.sha256());
    }
    zksmessages::GetBlobReply reply;
    reply.set_nbytes(bytes.size());
    scheduler::ReplyWriter writer(call.reply(), 2);
    writer.writeMessage(payloadOf(reply));
    writer.writeItem([&](spf::transport::ByteSink& sink) {
      sink.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
    });
    writer.finish();
  }

  mutable threads::Mutex mutex_;
  std::map<std::string, std::string> blobs_ ZKS_GUARDED_BY(mutex_);
  std::map<std::string, std::string> parts_ ZKS_GUARDED_BY(mutex_);
  std::size_t puts_ ZKS_GUARDED_BY(mutex_) = 0;
  std::size_t gets_ ZKS_GUARDED_BY(mutex_) = 0;
};

}  // namespace parallel::toolbox
