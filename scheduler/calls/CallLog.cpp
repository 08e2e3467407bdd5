#include "scheduler/calls/CallLog.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <memory>
#include <ostream>
#include <utility>

#include "platform/errors/visibleText.h"
#include "platform/logging/sinks.h"
#include "platform/spf/core/errorChain.h"
#include "platform/spf/core/errors.h"

namespace parallel::scheduler {

using agent::spf::core::ServerCall;
using errors::inQuotes;
using foundation::log::level_t;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

namespace {

// "2026-11-22T03:05:11.123Z"
std::string timeText(system_clock::time_point time) {
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  const std::time_t seconds = system_clock::to_time_t(time);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::array<char, 64> date{};
  std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::array<char, 96> text{};
  std::snprintf(text.data(), text.size(), "%s.%03dZ", date.data(), static_cast<int>(milliseconds));
  return text.data();
}

// " ran=1.203s"
std::string durationText(const char* name, std::optional<nanoseconds> time) {
  if (!time)
    return "";
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), " %s=%.3fs", name, std::chrono::duration<double>(*time).count());
  return text.data();
}

// All levels, the outermost first; what does not fit is said to be left out.
std::string causeText(const std::exception_ptr& error) {
  constexpr std::size_t kShownBytes = 1000;
  return agent::spf::core::summaryOf(agent::spf::core::flattenErrorChain(error), kShownBytes);
}

struct Line {
  std::string_view method;
  std::string_view peer;
  CallRecord record;
  nanoseconds total{0};
  std::uint64_t requestBytes = 0;
  std::uint64_t replyBytes = 0;
};

// A line that cannot be made is no reason to fail the call.
void write(CallLog::Logger& logger, level_t level, system_clock::time_point began, const Line& line) noexcept try {
  constexpr std::size_t kShownBytes = 2000;
  const CallRecord& record = line.record;
  FOUNDATION_LOG(logger, level) << "time=" << timeText(began) << " peer=" << errors::visibleText(line.peer)
                                << " method=" << inQuotes(line.method)
                                << (record.program.empty() ? "" : " program=" + inQuotes(record.program))
                                << " outcome=" << inQuotes(record.outcome, kShownBytes)
                                << durationText("queued", record.queued) << durationText("ran", record.ran)
                                << durationText("total", line.total) << " request=" << line.requestBytes
                                << " reply=" << line.replyBytes;
} catch (...) {
}

// How the reply ended, where that was not well, and at which level it is told.
level_t addOutcome(const std::exception_ptr& error, CallRecord& record, level_t usual) {
  if (error == nullptr)
    return usual;
  try {
    std::rethrow_exception(error);
  } catch (const agent::spf::Terminated&) {
    record.outcome = "given up";
    return usual;
  } catch (...) {
    record.outcome = "failed: " + causeText(error);
    return logging::kWarning;
  }
}

}  // namespace

void CallLog::serve(ServerCall& call, const Method& method, level_t usual) const {
  const auto record = std::make_shared<CallRecord>();
  call.onEnd([&logger = logger_, &call, record, usual, began = system_clock::now(),
              steadyBegin = steady_clock::now()](const std::exception_ptr& error) {
    const level_t level = addOutcome(error, *record, usual);
    write(logger, level, began,
          {.method = call.method(),
           .peer = call.peer(),
           .record = std::move(*record),
           .total = steady_clock::now() - steadyBegin,
           .requestBytes = call.requestBytes(),
           .replyBytes = call.replyBytes()});
  });
  method(call, *record);
}

void CallLog::refused(std::string_view method, std::string_view peer, const std::exception& refusal) const {
  if (method.empty())
    return;
  Line line{.method = method, .peer = peer, .record = {}};
  line.record.outcome = std::string("refused: ") + refusal.what();
  write(logger_, logging::kWarning, system_clock::now(), line);
}

}  // namespace parallel::scheduler
