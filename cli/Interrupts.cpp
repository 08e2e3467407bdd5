#include "cli/Interrupts.h"

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <utility>

#include "platform/errors/systemError.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/threads/Mutex.h"

namespace zks {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

std::atomic<int> received{0};
static_assert(std::atomic<int>::is_always_lock_free, "written by a signal handler");

// Wakes the watchdog; a semaphore, because a handler may post one.
struct Wakeup {
  Wakeup() { sem_init(&semaphore, 0, 0); }
  sem_t semaphore;
};

Wakeup& wakeup() {
  static Wakeup instance;
  return instance;
}

extern "C" void onSignal(int signal) {
  const int error = errno;
  int none = 0;
  received.compare_exchange_strong(none, signal);
  utInterruptState::request();
  sem_post(&wakeup().semaphore);
  errno = error;
}

void waitForWakeup() {
  while (sem_wait(&wakeup().semaphore) != 0 && errno == EINTR) {
  }
}

}  // namespace

Interrupts::Interrupts() : previous_{} {
  wakeup();
  utInterruptState::setSource([] { return signal() != 0; });
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  for (std::size_t i = 0; i < std::size(kSignals); ++i) {
    if (sigaction(kSignals[i], &action, &previous_[i]) != 0)
      errors::throwSystemError("cannot handle signals");
    // Who started the program with a signal ignored, as nohup does and a script's "&", wants it ignored.
    if (previous_[i].sa_handler == SIG_IGN)
      sigaction(kSignals[i], &previous_[i], nullptr);
  }
}

Interrupts::~Interrupts() {
  for (std::size_t i = 0; i < std::size(kSignals); ++i)
    sigaction(kSignals[i], &previous_[i], nullptr);
  utInterruptState::setSource({});
  if (watchdog_.joinable()) {
    watchdog_.request_stop();
    sem_post(&wakeup().semaphore);
    watchdog_.join();
  }
}

int Interrupts::signal() noexcept {
  return received.load();
}

void Interrupts::setEmergency(std::chrono::milliseconds patience, std::function<void()> emergency) {
  const pthread_t owner = pthread_self();
  watchdog_ = std::jthread([patience, owner, emergency = std::move(emergency)](const std::stop_token& stop) {
    constexpr std::chrono::milliseconds interval{20};
    waitForWakeup();
    parallel::threads::Mutex mutex;
    parallel::threads::MutexLock lock(mutex);
    std::condition_variable_any stopped;
    for (std::chrono::milliseconds waited{0}; waited < patience; waited += interval) {
      if (stopped.wait_for(lock, stop, interval, [&] { return stop.stop_requested(); }))
        return;
      // The signal may have come to another thread, or just before a blocking call of the owner's.
      pthread_kill(owner, signal());
    }
    emergency();
  });
}

}  // namespace zks
