// The whole path: a 256 MiB array and a 256 MiB file through the echo method of a zksd process and back, beside the
// same bytes echoed by a bare gRPC stream and by a raw socket; then what each step of the path costs alone.
//
//     echo_bench [REPETITIONS]
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "bench/measure.h"
#include "bench/spf_peers.h"
#include "cli/testing/ChildProcess.h"
#include "platform/files/testing/TemporaryDirectory.h"
#include "toolbox/SchedulerClient.h"
#include "transport/data/OutputPayload.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/SPFByteStreamAdaptor.h"
#include "transport/streams/createByteStream.h"

namespace {

namespace toolbox = parallel::toolbox;
namespace transport = parallel::spf::transport;

constexpr std::size_t kBytes = std::size_t{256} << 20;

// A zksd process on a socket file, ended with the object.
class Daemon {
 public:
  explicit Daemon(const std::string& directory)
      : address_("unix:" + directory + "/zksd.sock"),
        process_({ZKSD_PROGRAM, "--socket", directory + "/zksd.sock"}, directory) {
    process_.readLine();  // it says when it listens
  }
  const std::string& address() const noexcept { return address_; }

 private:
  std::string address_;
  zks::ChildProcess process_;
};

qxArrayPtr bigArray() {
  const std::size_t shape[] = {kBytes / sizeof(double) / 64, 64};
  qxArrayPtr array = qxCreateNumericArray(shape, qxClass::Float64);
  double value = 0;
  for (double& element : qxGetWritableElements<double>(array.get()))
    element = value += 0.5;
  return array;
}

void writeFile(const std::string& path) {
  const std::vector<char> block(std::size_t{1} << 20, 'f');
  std::ofstream file(path, std::ios::binary);
  for (std::size_t written = 0; written < kBytes; written += block.size())
    file.write(block.data(), static_cast<std::streamsize>(block.size()));
}

bench::Contender rateOf(std::string name, std::function<void()> work) {
  return {std::move(name),
          [work = std::move(work)] { return bench::mebibytesPerSecond(kBytes, bench::secondsOf(work)); }};
}

// A peer's server and its client, with arrays that are already touched.
struct Floor {
  Floor(const std::string& kind, const std::string& family)
      : server(kind, bench::freshAddress(family)), peer(bench::connectPeer(kind, server.address())) {}
  bench::ServerProcess server;
  std::unique_ptr<bench::Peer> peer;
};

void measureWholePath(int repetitions) {
  const files::testing::TemporaryDirectory directory;
  const Daemon daemon(directory.path());
  const auto connection = toolbox::Connection::connect(daemon.address());
  const toolbox::SchedulerClient client(connection);

  const qxArrayPtr array = bigArray();
  const std::string source = directory.path() + "/source";
  const std::string target = directory.path() + "/target";
  writeFile(source);

  const Floor bare("bare256", "unix");
  const Floor raw("raw", "unix");
  const std::vector<char> payload(kBytes, 'x');
  std::vector<char> back(kBytes, 'y');

  const std::vector<bench::Contender> contenders{
      rateOf("bare gRPC stream", [&] { bare.peer->echo(payload, back); }),
      rateOf("array to array", [&] { client.echo({toolbox::arrayItem(array.get())}).takeArray(); }),
      rateOf("file to file", [&] { client.echo({toolbox::fileItem(source)}).takeFile(target); }),
      rateOf("raw socket", [&] { raw.peer->echo(payload, back); }),
  };
  const auto samples = bench::measureInterleaved(contenders, repetitions);
  bench::tableOf("echo, 256 MiB, unix", "MiB/s", contenders, samples, 0).print(std::cout);
  std::cout << '\n';
  bench::tableOf("the same", "MiB/s", contenders, samples, 3).print(std::cout);
  std::cout << '\n';
}

// An istream over bytes of another owner.
class MemoryStream : private std::streambuf, public std::istream {
 public:
  explicit MemoryStream(std::string& bytes) : std::istream(this) {
    setg(bytes.data(), bytes.data(), bytes.data() + bytes.size());
  }
};

// The client's steps alone, in memory: what an echo of the array costs beside the wire.
void measureSteps(int repetitions) {
  const qxArrayPtr array = bigArray();
  const auto payloadOf = [&] { return transport::InputPayload({transport::SerializableData::createQxArray(array)}); };
  std::ostringstream container;
  (*transport::createByteStream(payloadOf()).writer())(container);
  std::string reply = std::move(container).str();
  const auto itemOf = [&] {
    auto stream = std::make_unique<transport::SPFByteStreamAdaptor>(std::make_shared<MemoryStream>(reply));
    return transport::OutputPayload::deserialize(std::move(stream)).getDeserializableData().front();
  };

  const std::vector<bench::Contender> contenders{
      rateOf("copy into a fresh vector", [&] { const std::vector<char> copy(reply.begin(), reply.end()); }),
      rateOf("qxSerializeEx", [&] { const qxArrayPtr bytes(qxSerializeEx(array.get(), qxSerializeDefaults)); }),
      rateOf("createByteStream (with it)", [&] { transport::createByteStream(payloadOf()); }),
      rateOf("deserializeQxArray", [&] { itemOf()->deserializeQxArray({}); }),
  };
  const auto samples = bench::measureInterleaved(contenders, repetitions);
  bench::tableOf("steps of the client, 256 MiB", "MiB/s", contenders, samples, 0).print(std::cout);
}

}  // namespace

int main(int argc, char** argv) {
  bench::keepFreedMemory();
  if (bench::serveIfAsked(argc, argv))
    return 0;
  const int repetitions = argc > 1 ? std::atoi(argv[1]) : 5;
  measureWholePath(repetitions);
  measureSteps(repetitions);
}
