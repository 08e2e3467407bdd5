#include "cli/JobSession.h"

#include <exception>
#include <thread>

#include "cli/Session.h"
#include "cli/StandardStreams.h"
#include "cli/UserService.h"
#include "cli/errorLine.h"
#include "platform/errors/IException.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/spf/core/errors.h"

namespace zks {
namespace {

using parallel::toolbox::Connection;

constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::milliseconds kPause{200};
constexpr std::chrono::milliseconds kLook{20};

// Whether the line broke, and nothing is said of the call itself. In a catch block.
bool isLineBroken() {
  try {
    throw;
  } catch (const Corvane::System::InterruptException&) {
    return false;
  } catch (const agent::spf::Terminated&) {
    return true;
  } catch (const agent::spf::Timeout&) {
    return true;
  } catch (const std::exception& error) {
    const auto* identified = dynamic_cast<const IException*>(&error);
    if (identified != nullptr && identified->identifier() == "parallel:cluster:ZKSUnreachable")
      return true;
    try {
      std::rethrow_if_nested(error);
    } catch (...) {
      return isLineBroken();
    }
    return false;
  }
}

void pause() {
  const auto end = std::chrono::steady_clock::now() + kPause;
  while (std::chrono::steady_clock::now() < end) {
    throwIfInterrupted();
    std::this_thread::sleep_for(kLook);
  }
}

}  // namespace

JobSession::JobSession(const GlobalOptions& options) : options_(options) {
  connect();
}

void JobSession::connect() {
  GlobalOptions options = options_;
  if (options.address.empty()) {
    startUserService();
    options.address = "unix:";
  }
  connection_ = Connection::connect(options.address, connectionOptions(options));
}

void JobSession::reconnectOrThrow(Patience& patience) {
  constexpr int kMostLosses = 3;
  if (!isLineBroken() || ++patience.losses > kMostLosses)
    parallel::toolbox::rethrowInForm(parallel::toolbox::ErrorForm::OneMessage);
  const auto now = std::chrono::steady_clock::now();
  if (!patience.end) {
    patience.end = now + kPatience;
    say("the service has gone: " + errorLine(std::current_exception()) + "; waiting for it to come back");
  }
  for (;;) {
    pause();
    try {
      return connect();
    } catch (const Corvane::System::InterruptException&) {
      throw;
    } catch (const std::exception&) {
      if (std::chrono::steady_clock::now() >= *patience.end)
        throw;
    }
  }
}

}  // namespace zks
