#include "platform/logging/basic_diagnostic_logger.h"

#include <boost/log/core.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <utility>

#include "platform/logging/internal/silenceDefaultSink.h"

namespace foundation::log {

struct basic_diagnostic_logger<char>::Source {
  explicit Source(const std::string& name) : logger(boost::log::keywords::channel = name) {}

  boost::log::sources::severity_channel_logger_mt<level_t, std::string> logger;
};

struct basic_diagnostic_logger<char>::Record::Impl {
  explicit Impl(boost::log::record opened) : record(std::move(opened)), stream(record) {}

  boost::log::record record;
  boost::log::record_ostream stream;
};

basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string name) : name_(std::move(name)) {
  parallel::logging::internal::silenceDefaultSink();
  source_ = std::make_unique<Source>(name_);
}

basic_diagnostic_logger<char>::~basic_diagnostic_logger() = default;

basic_diagnostic_logger<char>::Record::Record(basic_diagnostic_logger& logger, level_t level) {
  if (!logger.isEnabled(level))
    return;
  boost::log::record record = logger.source_->logger.open_record(boost::log::keywords::severity = level);
  if (record)
    impl_ = std::make_unique<Impl>(std::move(record));
}

basic_diagnostic_logger<char>::Record::~Record() = default;

void basic_diagnostic_logger<char>::Record::push() {
  impl_->stream.flush();
  boost::log::core::get()->push_record(std::move(impl_->record));
  impl_ = nullptr;
}

std::ostream& basic_diagnostic_logger<char>::Record::stream() {
  return impl_->stream.stream();
}

}  // namespace foundation::log
