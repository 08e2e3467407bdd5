#include "platform/logging/consoleSink.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <utility>

#include "platform/errors/visibleText.h"

namespace parallel::logging {

namespace {

// What a pipe takes whole or not at all.
constexpr std::size_t kLongestLine = PIPE_BUF;

void shorten(std::string& line) {
  constexpr std::string_view kMark = " [...]\n";
  if (line.size() > kLongestLine)
    line.replace(kLongestLine - kMark.size(), std::string::npos, kMark);
}

bool hasRoom(int descriptor) noexcept {
  pollfd event{descriptor, POLLOUT, 0};
  return ::poll(&event, 1, 0) > 0;
}

bool tryWrite(int descriptor, const std::string& line) noexcept {
  if (!hasRoom(descriptor))
    return false;
  ssize_t written = 0;
  do {
    written = ::write(descriptor, line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  return written >= 0;
}

// Counts the lines that found no room.
class ConsoleWriter {
 public:
  ConsoleWriter(int descriptor, std::string program) : descriptor_(descriptor), program_(std::move(program)) {}

  void operator()(const LogRecord& record) {
    std::string line = consoleLine(program_, record);
    shorten(line);
    if (lost_ > 0 && tryWrite(descriptor_, program_ + ": " + std::to_string(lost_) +
                                               " lines of the log were lost: nobody read them\n"))
      lost_ = 0;
    if (lost_ > 0 || !tryWrite(descriptor_, line))
      ++lost_;
  }

 private:
  int descriptor_;
  std::string program_;
  unsigned long lost_ = 0;
};

}  // namespace

std::string consoleLine(std::string_view program, const LogRecord& record) {
  std::string line;
  line.append(program).append(": ").append(levelName(record.level)).append(": ").append(record.logger);
  const std::size_t end = record.text.find_last_not_of(" \r\n") + 1;
  return line.append(": ").append(errors::visibleText(std::string_view(record.text).substr(0, end))).append("\n");
}

SinkHandle consoleSink(int descriptor, std::string program) {
  return SinkHandle(ConsoleWriter(descriptor, std::move(program)));
}

}  // namespace parallel::logging
