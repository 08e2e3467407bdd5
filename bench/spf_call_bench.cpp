// The small call through the framework, beside a bare gRPC unary call, a message on an open bare stream, and a raw
// socket: one after another, and many at a time.
//
//     spf_call_bench [REPETITIONS [CALLS]]
#include <cstdlib>
#include <iostream>

#include "bench/measure.h"
#include "bench/spf_peers.h"

namespace {

// The microseconds of each of `calls` pings.
bench::Samples pings(bench::Peer& peer, int calls) {
  bench::Samples samples;
  for (int i = 0; i < calls; ++i)
    samples.push_back(bench::secondsOf([&] { peer.ping(); }) * 1e6);
  return samples;
}

void measure(const std::string& family, int repetitions, int calls) {
  std::vector<std::string> kinds{"unary", "spf", "bare1024"};
  std::vector<std::string> names{"unary", "spf", "open stream"};
  if (family != "tls") {
    kinds.emplace_back("raw");
    names.emplace_back("raw");
  }
  std::vector<std::unique_ptr<bench::ServerProcess>> servers;
  std::vector<std::unique_ptr<bench::Peer>> peers;
  std::vector<bench::Contender> contenders;
  std::vector<bench::Samples> tails(kinds.size());
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    servers.push_back(std::make_unique<bench::ServerProcess>(kinds[i], bench::freshAddress(family)));
    peers.push_back(bench::connectPeer(kinds[i], servers.back()->address()));
    contenders.push_back({names[i], [&peer = *peers.back(), &tail = tails[i], calls] {
                            const bench::Samples samples = pings(peer, calls);
                            tail.push_back(bench::percentile(samples, 0.99));
                            return bench::spreadOf(samples).median;
                          }});
  }
  const auto medians = bench::measureInterleaved(contenders, repetitions, 1);
  for (bench::Samples& tail : tails)
    tail.erase(tail.begin());  // the warm-up's
  bench::tableOf("64 bytes each way, median, " + family, "us", contenders, medians, 0, 1).print(std::cout);
  std::cout << '\n';
  bench::tableOf("64 bytes each way, p99, " + family, "us", contenders, tails, 0, 1).print(std::cout);
  std::cout << std::endl;
  peers.clear();
}

// Thousands of calls per second with so many under way at a time.
void measureRate(const std::string& family, int repetitions, int calls) {
  const std::vector<std::string> kinds{"unary", "spf"};
  std::vector<std::unique_ptr<bench::ServerProcess>> servers;
  std::vector<std::unique_ptr<bench::Peer>> peers;
  for (const std::string& kind : kinds) {
    servers.push_back(std::make_unique<bench::ServerProcess>(kind, bench::freshAddress(family)));
    peers.push_back(bench::connectPeer(kind, servers.back()->address()));
  }
  for (const int inFlight : {1, 8, 64}) {
    std::vector<bench::Contender> contenders;
    for (std::size_t i = 0; i < kinds.size(); ++i)
      contenders.push_back({kinds[i], [&peer = *peers[i], calls, inFlight] {
                              return calls / 1e3 / bench::secondsOf([&] { peer.pings(calls, inFlight); });
                            }});
    const auto rates = bench::measureInterleaved(contenders, repetitions, 1);
    bench::tableOf("64 bytes each way, " + std::to_string(inFlight) + " calls at a time, " + family, "1000/s",
                   contenders, rates, 0, 1)
        .print(std::cout);
    std::cout << std::endl;
  }
}

}  // namespace

int main(int argc, char** argv) {
  bench::keepFreedMemory();
  if (bench::serveIfAsked(argc, argv))
    return 0;
  const int repetitions = argc > 1 ? std::atoi(argv[1]) : 5;
  const int calls = argc > 2 ? std::atoi(argv[2]) : 3000;
  measure("tcp", repetitions, calls);
  measure("unix", repetitions, calls);
  measure("tls", repetitions, calls);
  measureRate("tcp", repetitions, 5 * calls);
  measureRate("unix", repetitions, 5 * calls);
}
