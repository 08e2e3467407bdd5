#include "platform/logging/sinks.h"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/log/utility/exception_handler.hpp>
#include <boost/make_shared.hpp>
#include <utility>

#include "platform/logging/internal/silenceDefaultSink.h"
#include "platform/threads/Mutex.h"

namespace parallel::logging {
namespace {

namespace blog = boost::log;
using foundation::log::level_t;

// A thread inside a sink's callback: what the callback itself logs is dropped, or it would never end.
thread_local bool insideSink = false;

LogRecord toLogRecord(const blog::record_view& record) {
  LogRecord result{.logger = {}, .level = 0, .text = {}};
  if (const auto channel = blog::extract<std::string>("Channel", record))
    result.logger = *channel;
  if (const auto severity = blog::extract<level_t>("Severity", record))
    result.level = *severity;
  if (const auto message = blog::extract<std::string>("Message", record))
    result.text = *message;
  return result;
}

// Has a lock of its own, because it must also keep the callback from running once its handle is gone.
class CallbackBackend : public blog::sinks::basic_sink_backend<blog::sinks::concurrent_feeding> {
 public:
  explicit CallbackBackend(std::function<void(const LogRecord&)> callback) : callback_(std::move(callback)) {}

  void consume(const blog::record_view& record) {
    if (insideSink)
      return;
    const threads::MutexLock lock(mutex_);
    if (!callback_)
      return;
    const InsideSink mark;
    callback_(toLogRecord(record));
  }

  void disconnect() {
    const threads::MutexLock lock(mutex_);
    callback_ = nullptr;
  }

 private:
  struct InsideSink {
    InsideSink() { insideSink = true; }
    ~InsideSink() { insideSink = false; }
    InsideSink(const InsideSink&) = delete;
    InsideSink& operator=(const InsideSink&) = delete;
  };

  threads::Mutex mutex_;
  std::function<void(const LogRecord&)> callback_ ZKS_GUARDED_BY(mutex_);
};

using Frontend = blog::sinks::unlocked_sink<CallbackBackend>;

}  // namespace

struct SinkHandle::Impl {
  boost::shared_ptr<CallbackBackend> backend;
  boost::shared_ptr<Frontend> frontend;
};

SinkHandle::SinkHandle(std::function<void(const LogRecord&)> sink) : impl_(std::make_unique<Impl>()) {
  internal::silenceDefaultSink();
  impl_->backend = boost::make_shared<CallbackBackend>(std::move(sink));
  impl_->frontend = boost::make_shared<Frontend>(impl_->backend);
  // A failure to write the log must not fail what was being logged.
  impl_->frontend->set_exception_handler(blog::make_exception_suppressor());
  blog::core::get()->add_sink(impl_->frontend);
}

SinkHandle::~SinkHandle() {
  blog::core::get()->remove_sink(impl_->frontend);
  impl_->backend->disconnect();
}

void internal::silenceDefaultSink() {
  static const bool attached = [] {
    auto nothing = boost::make_shared<Frontend>(boost::make_shared<CallbackBackend>(nullptr));
    nothing->set_filter([](const blog::attribute_value_set& /*values*/) { return false; });
    blog::core::get()->add_sink(nothing);
    return true;
  }();
  static_cast<void>(attached);
}

}  // namespace parallel::logging
