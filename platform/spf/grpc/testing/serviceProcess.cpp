// A service in a process of its own, for tests that kill it, stop it or cut it off: serves at the address that it is
// given until its standard input ends. What happens is told on standard output, a byte each: see ServiceProcess.h.
#include <unistd.h>

#include <cstdio>
#include <future>
#include <string>

#include "platform/spf/core/internal/testCalls.h"
#include "platform/spf/grpc/Server.h"

namespace {

using agent::spf::core::ServerCall;

void tell(const std::string& what) {
  if (::write(STDOUT_FILENO, what.data(), what.size()) != static_cast<ssize_t>(what.size()))
    ::_exit(1);
}

[[noreturn]] void produce(ServerCall& call) {
  for (;;)
    call.reply() << agent::spf::core::testing::patternOf(100'000);
}

void echo(ServerCall& call) {
  call.reply() << agent::spf::core::testing::readAll(call.request());
}

void doNothing(ServerCall& call) {
  std::promise<void> cancelled;
  call.onCancel([&] { cancelled.set_value(); });
  tell("c");
  cancelled.get_future().wait();
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::fputs("usage: serviceProcess ADDRESS\n", stderr);
    return 2;
  }
  auto service = std::make_shared<agent::spf::core::Service>();
  service->add("produce", produce);
  service->add("echo", echo);
  service->add("doNothing", doNothing);
  agent::spf::grpc_transport::ServerOptions options;
  options.plainText = true;
  options.address = arguments[1];
  const agent::spf::grpc_transport::Server server(service, options);
  tell(server.address() + "\n");
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
  return 0;
}
