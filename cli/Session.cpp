#include "cli/Session.h"

#include <chrono>
#include <exception>
#include <string>

#include "cli/CliError.h"
#include "cli/FileContents.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "scheduler/SchedulerService.h"

namespace zks {
namespace {

using parallel::toolbox::Connection;

// Ctrl-C waits for this long at most for a task that ignores the polite signal.
constexpr std::chrono::milliseconds kKillGrace{50};

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

Connection openConnection(const GlobalOptions& options) {
  if (!options.address.empty())
    return Connection::connect(options.address, connectionOptions(options));
  parallel::scheduler::SchedulerOptions scheduler;
  scheduler.killGrace = kKillGrace;
  return {agent::spf::inprocess::connectInProcess(parallel::scheduler::makeSchedulerService(scheduler)),
          "the embedded service"};
}

}  // namespace

parallel::toolbox::ConnectionOptions connectionOptions(const GlobalOptions& options) {
  parallel::toolbox::ConnectionOptions connection;
  connection.tls = options.tlsDirectory;
  connection.insecure = options.insecure;
  connection.tlsAdvice = "--tls DIR";
  connection.insecureAdvice = "--insecure";
  connection.timeout = milliseconds(options.connectSeconds);
  connection.idleTimeout = milliseconds(options.idleSeconds);
  if (options.maxReplyBytes)
    connection.replyLimit = {static_cast<long>(*options.maxReplyBytes), "zks --max-reply"};
  return connection;
}

void loadDescriptors(const GlobalOptions& options) {
  for (const std::string& path : options.descriptorFiles) {
    const FileContents file(path);
    const auto bytes = file.bytes();
    try {
      parallel::protobufencoding::loadDescriptorSet({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    } catch (const std::exception& error) {
      throw CliError("--descriptors " + path + ": " + error.what());
    }
  }
}

Session::Session(const GlobalOptions& options) : connection_(openConnection(options)) {}

}  // namespace zks
