// For tests: a second host, a network namespace that one link joins to this one. Goes with the object.
#pragma once

#include <unistd.h>

#include <string>
#include <vector>

#include "platform/spf/grpc/testing/CommandLine.h"

namespace agent::spf::testing {

class NetworkNamespace {
 public:
  // Needs the right to administer the network; isUsable() tells whether it was there. The addresses are of
  // 198.18.0.0/15, which is kept for tests (RFC 2544).
  NetworkNamespace() {
    usable_ = ip({"netns", "add", name_}) &&
              ip({"link", "add", here_, "type", "veth", "peer", "name", there_, "netns", name_}) &&
              ip({"addr", "add", address(1) + "/30", "dev", here_}) && ip({"link", "set", here_, "up"}) &&
              ip({"-n", name_, "addr", "add", address(2) + "/30", "dev", there_}) &&
              ip({"-n", name_, "link", "set", there_, "up"}) && ip({"-n", name_, "link", "set", "lo", "up"});
  }
  ~NetworkNamespace() {
    ip({"link", "del", here_});
    ip({"netns", "del", name_});
  }
  NetworkNamespace(const NetworkNamespace&) = delete;
  NetworkNamespace& operator=(const NetworkNamespace&) = delete;

  bool isUsable() const noexcept { return usable_; }
  // What the other host is reached by.
  std::string host() const { return address(2); }
  // Runs a command there.
  std::vector<std::string> launcher() const { return {"ip", "netns", "exec", name_}; }

  // From now on everything that is sent either way gets lost, without a word.
  bool cut() const { return shape({"blackhole"}); }
  // From now on each way lets so much through, as tc understands rates.
  bool slowDown(const std::string& rate) const {
    return shape({"tbf", "rate", rate, "burst", "32kb", "latency", "400ms"});
  }

 private:
  static bool ip(const std::vector<std::string>& words) {
    std::vector<std::string> command{"ip"};
    command.insert(command.end(), words.begin(), words.end());
    return succeeds(command);
  }

  std::string address(int number) const { return network_ + std::to_string(first_ + number); }

  bool shape(const std::vector<std::string>& discipline) const {
    std::vector<std::string> here{"tc", "qdisc", "replace", "dev", here_, "root"};
    std::vector<std::string> there{"tc", "-n", name_, "qdisc", "replace", "dev", there_, "root"};
    here.insert(here.end(), discipline.begin(), discipline.end());
    there.insert(there.end(), discipline.begin(), discipline.end());
    return succeeds(here) && succeeds(there);
  }

  const std::string id_ = std::to_string(::getpid());
  const std::string name_ = "spf-test-" + id_;
  const std::string here_ = "spfa" + id_;
  const std::string there_ = "spfb" + id_;
  const std::string network_ = "198.18." + std::to_string(::getpid() / 64 % 256) + ".";
  const int first_ = ::getpid() % 64 * 4;
  bool usable_ = false;
};

}  // namespace agent::spf::testing
