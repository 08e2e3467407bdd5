// The states of a client's stream and of the call on it. The figure is in docs/protocol.md.
#pragma once

namespace agent::spf::grpc_transport::internal {

// Threads: guarded by its owner.
class ClientStreamState {
 public:
  enum class Stream { free, carrying, brokenOff };
  // ending: the last frame is on its way to gRPC, and its writer has not returned.
  enum class Request { sending, ending, ended };
  enum class Reply { awaited, begun, ended };
  // What an event makes due.
  enum class Due { nothing, release, breakOff };

  // A call takes the stream. False when it is broken off.
  bool take() {
    if (stream_ == Stream::brokenOff)
      return false;
    stream_ = Stream::carrying;
    request_ = Request::sending;
    reply_ = Reply::awaited;
    return true;
  }

  void beginEndOfRequest() { request_ = Request::ending; }

  Due endRequest() {
    request_ = Request::ended;
    return reply_ == Reply::ended ? release() : Due::nothing;
  }

  // False when it had begun before.
  bool beginReply() {
    if (reply_ != Reply::awaited)
      return false;
    reply_ = Reply::begun;
    return true;
  }

  // A service that ends its reply while the request is being sent wants no more of it.
  Due endReply() {
    reply_ = Reply::ended;
    if (request_ == Request::sending)
      return Due::breakOff;
    return request_ == Request::ended ? release() : Due::nothing;
  }

  void breakOff() { stream_ = Stream::brokenOff; }

  Stream stream() const { return stream_; }
  Request request() const { return request_; }
  Reply reply() const { return reply_; }

 private:
  Due release() {
    if (stream_ != Stream::carrying)
      return Due::nothing;
    stream_ = Stream::free;
    return Due::release;
  }

  Stream stream_ = Stream::free;
  Request request_ = Request::ended;
  Reply reply_ = Reply::ended;
};

}  // namespace agent::spf::grpc_transport::internal
