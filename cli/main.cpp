// zks: the command line.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <string>
#include <variant>
#include <vector>

#include "cli/CliError.h"
#include "cli/CommandLine.h"
#include "cli/Interrupts.h"
#include "cli/LogOutput.h"
#include "cli/StandardStreams.h"
#include "cli/commands.h"
#include "cli/errorLine.h"
#include "cli/jobCommands.h"
#include "platform/spf/grpc/routeGrpcLog.h"
#include "programs/standardDescriptors.h"
#include "toolbox/AtomicFile.h"

namespace {

using zks::CommandLine;
using zks::EarlyExit;

// Ctrl-C is answered within 200 ms. An embedded service gets time to end its tasks and remove what they leave.
constexpr std::chrono::milliseconds kPatience{140};
constexpr std::chrono::milliseconds kEmbeddedPatience{3000};

int interruptedExit() {
  return zks::kSignalExit + zks::Interrupts::signal();
}

void endAtOnce() {
  parallel::toolbox::removeAllTemporaryFiles();
  zks::reportInterrupted();
  ::_exit(interruptedExit());
}

int execute(const CommandLine& line) {
  struct Execute {
    const zks::GlobalOptions& global;
    int operator()(const zks::RunOptions& run) const { return zks::runCommand(global, run); }
    int operator()(const zks::EchoOptions& echo) const { return zks::echoCommand(global, echo); }
    int operator()(const zks::CallOptions& call) const { return zks::callCommand(global, call); }
    int operator()(const zks::JobCommand& job) const { return zks::jobCommand(global, job); }
  };
  return std::visit(Execute{line.global}, line.command);
}

// Whose exit codes are the task's, so that those of zks itself are others.
bool isTaskRun(const CommandLine& line) {
  if (const auto* job = std::get_if<zks::JobCommand>(&line.command)) {
    const auto* submit = std::get_if<zks::SubmitOptions>(job);
    return submit != nullptr && submit->follow;
  }
  return std::holds_alternative<zks::RunOptions>(line.command);
}

int failureExit(const CommandLine& line, const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const zks::UsageError&) {
    return zks::kUsageExit;
  } catch (...) {
    return isTaskRun(line) ? zks::kRunFailureExit : zks::kFailureExit;
  }
}

// An interrupt may arrive as itself or, from under a catch-all, as some other error.
int reportFailure(const CommandLine& line, const std::exception_ptr& error) {
  if (zks::Interrupts::signal() != 0) {
    zks::reportInterrupted();
    return interruptedExit();
  }
  zks::writeError("zks: " + zks::errorLine(error) + "\n");
  return failureExit(line, error);
}

int executeAndReport(const CommandLine& line) {
  zks::Interrupts interrupts;
  const bool hasEmbedded = line.global.address.empty() && !std::holds_alternative<zks::JobCommand>(line.command);
  interrupts.setEmergency(hasEmbedded ? kEmbeddedPatience : kPatience, endAtOnce);
  try {
    const zks::LogOutput log(line.global.logLevel);
    agent::spf::grpc_transport::routeGrpcLog();  // standard error has the one line that says it all
    return execute(line);
  } catch (...) {
    return reportFailure(line, std::current_exception());
  }
}

int exitEarly(const EarlyExit& exit) {
  if (exit.code != 0) {
    zks::writeError("zks: " + exit.text + "\n");
    return exit.code;
  }
  zks::writeOutput(exit.text);
  return 0;
}

// Writing past a limit or to a reader that has gone is an error like others, not the end of the process.
void ignoreWriteSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
  programs::occupyStandardDescriptors();
  ignoreWriteSignals();
  try {
    const auto outcome = zks::parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (const auto* exit = std::get_if<EarlyExit>(&outcome))
      return exitEarly(*exit);
    return executeAndReport(std::get<CommandLine>(outcome));
  } catch (const std::exception& error) {
    zks::writeError("zks: " + zks::joinedLines(error.what()) + "\n");
    return zks::kFailureExit;
  }
}
