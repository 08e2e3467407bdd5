// The states of a stream that carries calls, as its service sees them. The figure is in docs/protocol.md.
#pragma once

namespace agent::spf::grpc_transport::internal {

// Threads: guarded by its owner.
class ConversationState {
 public:
  // open: any call may come. draining: the server takes no more. halfClosed: the client makes no more.
  enum class Stream { open, draining, halfClosed };
  // none: a call may begin. both: its request arrives while it is answered. replying: the request has arrived.
  // dropping: the reply has ended, and what is still to come of the request is dropped.
  enum class Call { none, both, replying, dropping };

  void drain() {
    if (stream_ == Stream::open)
      stream_ = Stream::draining;
  }
  void halfClose() { stream_ = Stream::halfClosed; }

  // False when the last call has not ended.
  bool beginCall() {
    if (call_ != Call::none)
      return false;
    call_ = Call::both;
    hasCarriedCalls_ = true;
    return true;
  }
  void endRequest() {
    if (call_ == Call::both)
      call_ = Call::replying;
    else if (call_ == Call::dropping)
      call_ = Call::none;
  }
  void endReply() {
    if (call_ == Call::both)
      call_ = Call::dropping;
    else if (call_ == Call::replying)
      call_ = Call::none;
  }

  // A handler may still be at work when its reply has ended, and even when the next call has begun.
  void beginHandler() { ++handlers_; }
  void endHandler() { --handlers_; }

  Stream stream() const { return stream_; }
  Call call() const { return call_; }
  bool hasCarriedCalls() const { return hasCarriedCalls_; }
  // Nothing is under way and nothing will come: the stream is to end.
  bool isDone() const { return stream_ != Stream::open && call_ == Call::none && handlers_ == 0; }

 private:
  Stream stream_ = Stream::open;
  Call call_ = Call::none;
  bool hasCarriedCalls_ = false;
  int handlers_ = 0;
};

}  // namespace agent::spf::grpc_transport::internal
