// Many transfers over TLS, one after another, each with a deadline: does any stall? Every other one is an echo.
//
//     spf_tls_stall_bench [TRANSFERS]
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <iostream>

#include "bench/measure.h"
#include "bench/spf_peers.h"

namespace {

constexpr std::size_t kPayloadBytes = std::size_t{32} << 20;
constexpr std::chrono::seconds kDeadline{60};  // a hundred times what a transfer takes

// False when it has stalled; it is then still under way.
bool transferInTime(bench::Peer& peer, bool echo, const std::vector<char>& payload, std::vector<char>& back) {
  auto* done = new std::future<void>(std::async(
      std::launch::async, [&peer, echo, &payload, &back] { echo ? peer.echo(payload, back) : peer.sink(payload); }));
  if (done->wait_for(kDeadline) != std::future_status::ready)
    return false;
  done->get();
  delete done;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  bench::keepFreedMemory();
  if (bench::serveIfAsked(argc, argv))
    return 0;
  const int transfers = argc > 1 ? std::atoi(argv[1]) : 1000;
  const bench::ServerProcess server("spf", bench::freshAddress("tls"));
  const auto peer = bench::connectPeer("spf", server.address());
  const std::vector<char> payload(kPayloadBytes, 'x');
  std::vector<char> back(kPayloadBytes, 'y');
  bench::Samples seconds;
  for (int i = 0; i < transfers; ++i) {
    bool inTime = false;
    seconds.push_back(bench::secondsOf([&] { inTime = transferInTime(*peer, i % 2 == 1, payload, back); }));
    if (!inTime) {
      std::cout << "transfer " << i + 1 << " of " << transfers << " STALLED: not over after " << kDeadline.count()
                << " s" << std::endl;
      ::_exit(1);  // the transfer cannot be waited for; the server ends with its input
    }
  }
  const bench::Spread spread = bench::spreadOf(seconds);
  std::cout << transfers << " transfers of " << (kPayloadBytes >> 20)
            << " MiB over TLS, 0 stalled; seconds each: " << bench::spreadText(spread, 3) << std::endl;
}
