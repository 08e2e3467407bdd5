#include "cli/StandardStreams.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>

#include "cli/CliError.h"
#include "platform/interrupt/utInterruptState.h"

namespace zks {
namespace {

constexpr std::string_view kWipe = "\r\x1b[K";

struct StatusLine {
  std::mutex mutex;
  bool shown = false;  // guarded by mutex
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

void wipe(StatusLine& line) noexcept {
  if (line.shown)
    writeQuietly(kWipe);
  line.shown = false;
}

void writeChecked(int file, const char* name, std::string_view bytes) {
  if (bytes.empty())
    return;
  const std::lock_guard lock(statusLine().mutex);
  wipe(statusLine());
  const int error = writeAll(file, bytes);
  if (error != 0)
    throw CliError(std::string("cannot write to ") + name + ": " + systemReason(error));
}

std::size_t terminalColumns() {
  winsize size{};
  const bool known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
  return known ? size.ws_col : 80;
}

}  // namespace

void writeOutput(std::string_view bytes) {
  writeChecked(STDOUT_FILENO, "standard output", bytes);
}

void writeErrorOutput(std::string_view bytes) {
  writeChecked(STDERR_FILENO, "standard error", bytes);
}

void writeError(std::string_view text) noexcept {
  const std::lock_guard lock(statusLine().mutex);
  wipe(statusLine());
  writeQuietly(text);
}

bool isStatusLineVisible() noexcept {
  return ::isatty(STDERR_FILENO) == 1;
}

void showStatusLine(std::string_view text) {
  if (!isStatusLineVisible())
    return;
  const std::string line = std::string(kWipe) + std::string(text.substr(0, terminalColumns() - 1));
  const std::lock_guard lock(statusLine().mutex);
  writeQuietly(line);
  statusLine().shown = true;
}

void clearStatusLine() noexcept {
  const std::lock_guard lock(statusLine().mutex);
  wipe(statusLine());
}

void reportInterrupted() noexcept {
  static std::atomic_flag reported;
  if (reported.test_and_set())
    return;
  // Somebody may hold the lock for as long as a reader keeps him waiting.
  const std::unique_lock lock(statusLine().mutex, std::try_to_lock);
  if (lock.owns_lock())
    wipe(statusLine());
  else if (isStatusLineVisible())
    writeQuietly(kWipe);
  writeQuietly("zks: interrupted\n");
}

}  // namespace zks
