// For tests: a service in a process of its own, which ends with this object at the latest.
//
// Its methods: "echo"; "produce", whose reply has no end; "doNothing", which waits until it is cancelled; and those of
// tests that look at its memory: "keep" has the whole request in memory and sends it back; the reply to "stream" has as
// many bytes as the request says, and is made as it is written; "written" says how many bytes such replies have by now;
// "readSlowly" reads half of its request each time that "readOn" is called.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/spf/grpc/testing/CommandLine.h"

namespace agent::spf::testing {

class ServiceProcess {
 public:
  // `launcher`: a command that runs the one after it, such as "ip netns exec NAME"; may be empty.
  explicit ServiceProcess(const std::string& address, std::vector<std::string> launcher = {}) {
    launcher.insert(launcher.end(), {SPF_SERVICE_PROCESS, address});
    start(launcher);
    readAddress();
  }
  // One that may have so many threads, which takes root to do. std::runtime_error says why it does not start.
  ServiceProcess(const std::string& address, unsigned threads) {
    start({SPF_SERVICE_PROCESS, address, std::to_string(threads)});
    readAddress();
  }
  ~ServiceProcess() {
    kill();
    ::close(input_);
    ::close(output_);
  }
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // Where it listens, with the real port.
  const std::string& address() const noexcept { return address_; }
  // Returns when a call of doNothing has reached its handler.
  void awaitCall() const {
    if (next() != 'c')
      throw std::runtime_error("the service told something else than a call");
  }

  pid_t pid() const noexcept { return pid_; }
  // Returns when it stands still.
  void stop() const {
    ::kill(pid_, SIGSTOP);
    ::waitpid(pid_, nullptr, WUNTRACED);
  }
  // Ends it as its user would, and waits for that; says how it ended.
  int end() {
    ::close(std::exchange(input_, -1));
    int status = -1;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
  }
  void kill() {
    if (pid_ < 0)
      return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  void start(const std::vector<std::string>& command) {
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe2 failed");
    const std::vector<char*> arguments = argumentsOf(command);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(input[0], STDIN_FILENO);
      ::dup2(output[1], STDOUT_FILENO);
      ::execvp(arguments[0], arguments.data());
      ::_exit(127);
    }
    ::close(input[0]);
    ::close(output[1]);
    input_ = input[1];
    output_ = output[0];
  }

  void readAddress() {
    for (char byte = next(); byte != '\n'; byte = next())
      address_ += byte;
    if (address_.starts_with('!')) {
      kill();
      throw std::runtime_error(address_.substr(1));
    }
  }

  char next() const {
    char byte = 0;
    if (::read(output_, &byte, 1) != 1)
      throw std::runtime_error("the service process ended");
    return byte;
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string address_;
};

}  // namespace agent::spf::testing
