// A service in a process of its own, for tests that kill it, stop it or cut it off: serves at the address that it is
// given until its standard input ends. What happens is told on standard output, a byte each: see ServiceProcess.h.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <future>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <vector>

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

constexpr std::size_t kPieceBytes = std::size_t{1} << 20;

void keep(ServerCall& call) {
  const long size = call.requestSize().value();
  std::string bytes(static_cast<std::size_t>(size), '\0');
  call.request().read(bytes.data(), size);
  call.setReplySize(call.request().gcount());
  call.reply().write(bytes.data(), call.request().gcount());
}

std::atomic<long> streamed{0};

void stream(ServerCall& call) {
  long left = std::stol(agent::spf::core::testing::readAll(call.request()));
  call.setReplySize(left);
  static const std::string piece = agent::spf::core::testing::patternOf(kPieceBytes);
  for (; left > 0; left -= static_cast<long>(kPieceBytes)) {
    const long nbytes = std::min(left, static_cast<long>(kPieceBytes));
    call.reply().write(piece.data(), nbytes);
    streamed += nbytes;
  }
}

void written(ServerCall& call) {
  call.reply() << streamed.load();
}

// How many times reading may go on, of all calls together.
std::counting_semaphore<> mayRead{0};

void readSlowly(ServerCall& call) {
  const long size = call.requestSize().value();
  std::vector<char> part(kPieceBytes);
  long total = 0;
  for (const long goal : {size / 2, size}) {
    mayRead.acquire();
    while (total < goal) {
      call.request().read(part.data(), std::min(goal - total, static_cast<long>(part.size())));
      total += call.request().gcount();
    }
  }
  call.reply() << total;
}

void readOn(ServerCall& /*call*/) {
  mayRead.release();
}

// So many threads at most, as a user of this process's own: the limit counts all threads of a user, and none of root's.
// Works for root only.
void limitThreads(rlim_t most) {
  constexpr uid_t kFirstUser = 100'000;
  const rlimit limit{most, most};
  const uid_t user = kFirstUser + static_cast<uid_t>(::getpid());
  if (::setrlimit(RLIMIT_NPROC, &limit) != 0 || ::setresuid(user, user, user) != 0)
    throw std::runtime_error("cannot limit the threads");
}

void serve(const agent::spf::grpc_transport::ServerOptions& options,
           const std::shared_ptr<const agent::spf::core::Service>& service) {
  const agent::spf::grpc_transport::Server server(service, options);
  tell(server.address() + "\n");
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2 && count != 3) {
    std::fputs("usage: serviceProcess ADDRESS [THREADS]\n", stderr);
    return 2;
  }
  auto service = std::make_shared<agent::spf::core::Service>();
  service->add("produce", produce);
  service->add("echo", echo);
  service->add("doNothing", doNothing);
  service->add("keep", keep);
  service->add("stream", stream);
  service->add("written", written);
  service->add("readSlowly", readSlowly);
  service->add("readOn", readOn);
  agent::spf::grpc_transport::ServerOptions options;
  options.plainText = true;
  options.address = arguments[1];
  try {
    if (count == 3)
      limitThreads(std::stoul(arguments[2]));
    serve(options, service);
    return 0;
  } catch (const std::exception& e) {
    tell(std::string("!") + e.what() + "\n");
    return 1;
  }
}
