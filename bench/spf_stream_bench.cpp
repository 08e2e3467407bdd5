// Bulk bytes through the framework, beside bare gRPC streams with the same frames and a raw socket.
//
//     spf_stream_bench [REPETITIONS]
#include <cstdlib>
#include <iostream>

#include "bench/measure.h"
#include "bench/spf_peers.h"

namespace {

constexpr std::size_t kPayloadBytes = std::size_t{256} << 20;

struct Running {
  explicit Running(const std::string& kind, const std::string& family)
      : server(kind, bench::freshAddress(family)), peer(bench::connectPeer(kind, server.address())) {}
  bench::ServerProcess server;
  std::unique_ptr<bench::Peer> peer;
};

void measure(const std::string& family, int repetitions) {
  std::vector<std::string> kinds{"bare1024", "bare256", "spf"};
  if (family != "tls")
    kinds.emplace_back("raw");
  std::vector<std::unique_ptr<Running>> running;
  for (const std::string& kind : kinds)
    running.push_back(std::make_unique<Running>(kind, family));
  std::vector<char> payload(kPayloadBytes, 'x');
  std::vector<char> back(kPayloadBytes, 'y');
  std::vector<bench::Contender> sinks;
  std::vector<bench::Contender> echoes;
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    bench::Peer* peer = running[i]->peer.get();
    const auto rate = [](double seconds) { return bench::mebibytesPerSecond(kPayloadBytes, seconds); };
    sinks.push_back({kinds[i], [=, &payload] { return rate(bench::secondsOf([&] { peer->sink(payload); })); }});
    echoes.push_back(
        {kinds[i], [=, &payload, &back] { return rate(bench::secondsOf([&] { peer->echo(payload, back); })); }});
  }
  const auto sunk = bench::measureInterleaved(sinks, repetitions);
  bench::tableOf("one way, stored, 256 MiB, " + family, "MiB/s", sinks, sunk, 0).print(std::cout);
  std::cout << '\n';
  const auto echoed = bench::measureInterleaved(echoes, repetitions);
  bench::tableOf("echo, 256 MiB, " + family, "MiB/s", echoes, echoed, 0).print(std::cout);
  std::cout << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  bench::keepFreedMemory();
  if (bench::serveIfAsked(argc, argv))
    return 0;
  const int repetitions = argc > 1 ? std::atoi(argv[1]) : 5;
  measure("tcp", repetitions);
  measure("unix", repetitions);
  measure("tls", repetitions);
}
