// The other side of Invokable: named methods as handlers over a request istream and a reply ostream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "platform/spf/core/ByteLimit.h"
#include "platform/spf/core/PeerIdentity.h"

namespace agent::spf::core {

class ServerCall;

// A call whose handler has returned without an answer: see ServerCall::defer(). Threads: any.
class DeferredReply {
 public:
  DeferredReply() = default;
  DeferredReply(const DeferredReply&) = delete;
  DeferredReply& operator=(const DeferredReply&) = delete;
  virtual ~DeferredReply() = default;

  // Goes on with the call: `rest` runs as a handler does, on a thread of the framework, once the handler has returned.
  // The first resume counts. When the call was cancelled before, `rest` is not run.
  virtual void resume(std::function<void(ServerCall&)> rest) = 0;
};

// What a handler may ask of the call that it serves.
class ServerCall {
 public:
  virtual ~ServerCall() = default;

  virtual const std::string& method() const noexcept = 0;
  // Who calls, as far as the transport knows, for logs: "127.0.0.1:40312", "unix" for a client of a socket file,
  // "in-process" for a caller in this process.
  virtual const std::string& peer() const noexcept = 0;
  // The same for decisions: who that is, and in which role.
  virtual const PeerIdentity& identity() const noexcept = 0;
  // Bytes of the whole request, where the client announced it.
  virtual std::optional<long> requestSize() const noexcept = 0;
  // Announces the bytes of the whole reply. Call it before the first byte of the reply is written.
  virtual void setReplySize(long size) = 0;

  // Tells the caller how its call goes, in a few words that the method defines: at most kMostNoticeBytes, or a
  // std::invalid_argument. Only before the first byte of the reply; later ones, those for a caller that does not listen,
  // and those for one that is slow to take what it is sent, are dropped. Never blocks.
  static constexpr std::size_t kMostNoticeBytes = 1024;
  virtual void notify(std::string_view text) = 0;

  // True once nobody waits for the reply any more: the client has given the call up, or its connection is lost.
  virtual bool isCancelled() const noexcept = 0;
  // Runs `callback` once when that happens, at once if it has happened, on a thread of the framework; an empty function
  // takes the callback back, and then waits for one that is running. A callback does not block: others wait for it. What
  // it throws is dropped.
  virtual void onCancel(std::function<void()> callback) = 0;

  // Lets the handler return without ending the reply. The call then waits, and holds no thread, until its reply is
  // resumed; this object is valid as long. It ends with an error when it is cancelled, and when the DeferredReply is
  // destroyed without having been resumed. Read the request before: what is left of it keeps its sender waiting.
  virtual std::shared_ptr<DeferredReply> defer() = 0;

  // Runs `observer` once when the reply has ended: with its error, or null when it ended well. Nothing of the call runs
  // then any more, but this object is still valid. On the thread that ended it; what it throws is dropped. Several run in
  // the order in which they came.
  virtual void onEnd(std::function<void(const std::exception_ptr&)> observer) = 0;

  // Valid during the handler. Both raise (exception mask badbit) when the call is cancelled or the connection is lost.
  virtual std::istream& request() = 0;
  virtual std::ostream& reply() = 0;
  // Bytes that the handler has read and written so far, for logs.
  virtual std::uint64_t requestBytes() const noexcept = 0;
  virtual std::uint64_t replyBytes() const noexcept = 0;
};

// Threads: handlers run on threads of the framework, several at once; the table is complete before serving starts.
class Service {
 public:
  // Returning ends the reply, unless it was deferred. An exception ends it with that error, its whole nested chain,
  // whatever was written before.
  using Handler = std::function<void(ServerCall&)>;

  // A larger request is refused before the handler is called, or, where the client does not announce its size, while
  // the handler reads it. A method's own limit comes before that of the service.
  void add(std::string method, Handler handler, std::optional<ByteLimit> requestLimit = {});
  void limitRequests(ByteLimit limit) { requestLimit_ = std::move(limit); }

  // Called with each call that checkCall() refuses, for a log.
  using RefusalObserver =
      std::function<void(std::string_view method, std::string_view peer, const std::exception& refusal)>;
  void setRefusalObserver(RefusalObserver observer) { refusalObserver_ = std::move(observer); }

  // Null when there is no such method.
  const Handler* find(std::string_view method) const;
  // Null when there is none.
  const ByteLimit* requestLimit(std::string_view method) const;
  // What a call of an unknown method is answered with: names the method and those there are.
  std::string unknownMethodText(std::string_view method) const;
  // Throws FrameworkError when no handler is to see such a call: its method is unknown, or its request, where it
  // announces the size, too large.
  void checkCall(std::string_view method, std::string_view peer, std::optional<long> requestSize) const;

 private:
  struct Method {
    Handler handler;
    std::optional<ByteLimit> requestLimit;
  };

  std::map<std::string, Method, std::less<>> methods_;
  std::optional<ByteLimit> requestLimit_;
  RefusalObserver refusalObserver_;
};

}  // namespace agent::spf::core
