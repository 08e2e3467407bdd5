#include "cli/StandardStreams.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>

#include "cli/CliError.h"
#include "platform/errors/systemError.h"
#include "platform/errors/visibleText.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/threads/Mutex.h"

namespace zks {
namespace {

using parallel::threads::Mutex;
using parallel::threads::MutexLock;

constexpr std::string_view kWipe = "\r\x1b[K";

struct StatusLine {
  Mutex mutex;
  bool shown ZKS_GUARDED_BY(mutex) = false;
  // What was written last on this terminal, in the middle of a line that the status line would wipe.
  bool interferes ZKS_GUARDED_BY(mutex) = false;
};

StatusLine& statusLine() {
  static StatusLine instance;
  return instance;
}

// The error number, 0 when all is written.
int writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written >= 0)
      bytes.remove_prefix(static_cast<std::size_t>(written));
    else if (errno != EINTR)
      return errno;
    else
      utInterruptState::ThrowIfInterruptPending();
  }
  return 0;
}

void writeQuietly(std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    if (written >= 0)
      text.remove_prefix(static_cast<std::size_t>(written));
    else if (errno != EINTR)
      return;
  }
}

void wipe(StatusLine& line) noexcept ZKS_REQUIRES(line.mutex) {
  if (line.shown)
    writeQuietly(kWipe);
  line.shown = false;
}

void writeChecked(int file, const char* name, std::string_view bytes) {
  if (bytes.empty())
    return;
  StatusLine& status = statusLine();
  const MutexLock lock(status.mutex);
  wipe(status);
  const int error = writeAll(file, bytes);
  if (::isatty(file) == 1)
    status.interferes = bytes.back() != '\n';
  if (error != 0)
    throw CliError(std::string("cannot write to ") + name + ": " + errors::systemErrorText(error));
}

}  // namespace

void writeOutput(std::string_view bytes) {
  writeChecked(STDOUT_FILENO, "standard output", bytes);
}

void writeErrorOutput(std::string_view bytes) {
  writeChecked(STDERR_FILENO, "standard error", bytes);
}

void writeError(std::string_view text) noexcept {
  StatusLine& status = statusLine();
  const MutexLock lock(status.mutex);
  wipe(status);
  writeQuietly(text);
}

void say(std::string_view text) noexcept try {
  writeError("zks: " + errors::visibleText(text) + "\n");
} catch (const std::bad_alloc&) {
  writeError("zks: there is no memory left\n");
}

bool isStatusLineVisible() noexcept {
  return ::isatty(STDERR_FILENO) == 1;
}

// A line that reaches the last column makes some terminals go on to the next.
std::size_t statusLineColumns() {
  constexpr std::size_t kUsual = 80;
  winsize size{};
  const bool known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
  return (known ? size.ws_col : kUsual) - 1;
}

void showStatusLine(std::string_view text) {
  if (!isStatusLineVisible())
    return;
  const std::string line = std::string(kWipe) + std::string(text.substr(0, statusLineColumns()));
  StatusLine& status = statusLine();
  const MutexLock lock(status.mutex);
  if (status.interferes)
    return;
  writeQuietly(line);
  status.shown = true;
}

void clearStatusLine() noexcept {
  StatusLine& status = statusLine();
  const MutexLock lock(status.mutex);
  wipe(status);
}

void reportInterrupted() noexcept {
  static std::atomic_flag reported;
  if (reported.test_and_set())
    return;
  // Somebody may hold the lock for as long as a reader keeps him waiting.
  StatusLine& status = statusLine();
  if (status.mutex.try_lock()) {
    wipe(status);
    status.mutex.unlock();
  } else if (isStatusLineVisible()) {
    writeQuietly(kWipe);
  }
  writeQuietly("zks: interrupted\n");
}

}  // namespace zks
