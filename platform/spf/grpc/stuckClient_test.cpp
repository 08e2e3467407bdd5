// A client on a socket file that lets the service send without end, and reads none of it.
#include <sys/socket.h>
#include <sys/un.h>

#include <future>
#include <initializer_list>
#include <mutex>
#include <string>
#include <utility>

#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "platform/logging/sinks.h"
#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf {
namespace {

using testing::awaitEvent;
using testing::Probe;
using testing::TemporaryDirectory;

// Bytes of HTTP/2 (RFC 9113), as few kinds as it takes.
constexpr char kData = 0;
constexpr char kHeaders = 1;
constexpr char kSettings = 4;
constexpr char kWindowUpdate = 8;
constexpr char kEndOfHeaders = 4;
constexpr std::uint32_t kLargestWindow = 0x7FFFFFFF;
constexpr std::uint32_t kFirstWindow = 65'535;

std::string bigEndian(std::uint32_t value, int nbytes) {
  std::string bytes;
  for (int shift = 8 * (nbytes - 1); shift >= 0; shift -= 8)
    bytes.push_back(static_cast<char>(value >> static_cast<unsigned>(shift)));
  return bytes;
}

std::string http2Frame(char kind, char flags, std::uint32_t stream, const std::string& payload) {
  return bigEndian(static_cast<std::uint32_t>(payload.size()), 3) + kind + flags + bigEndian(stream, 4) + payload;
}

// Each pair is a literal that goes into no table.
std::string http2Headers(std::initializer_list<std::pair<const char*, const char*>> fields) {
  std::string bytes;
  const auto append = [&](const std::string& text) { bytes += static_cast<char>(text.size()) + text; };
  for (const auto& [name, value] : fields) {
    bytes += '\0';
    append(name);
    append(value);
  }
  return bytes;
}

std::string callOf(const char* method) {
  v1::Frame call;
  call.mutable_call()->set_protocol_version(1);
  call.mutable_call()->set_method(method);
  call.set_end(true);
  const std::string bytes = call.SerializeAsString();
  return '\0' + bigEndian(static_cast<std::uint32_t>(bytes.size()), 4) + bytes;
}

std::string conversationWith(const char* method) {
  constexpr char kInitialWindow[] = "\0\4";
  return "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" +
         http2Frame(kSettings, 0, 0, std::string(kInitialWindow, 2) + bigEndian(kLargestWindow, 4)) +
         http2Frame(kWindowUpdate, 0, 0, bigEndian(kLargestWindow - kFirstWindow, 4)) +
         http2Frame(kHeaders, kEndOfHeaders, 1,
                    http2Headers({{":method", "POST"},
                                  {":scheme", "http"},
                                  {":path", "/agent.spf.v1.Transport/Converse"},
                                  {":authority", "localhost"},
                                  {"te", "trailers"},
                                  {"content-type", "application/grpc"}})) +
         http2Frame(kData, 0, 1, callOf(method));
}

files::UniqueFd connectTo(const std::string& path) {
  files::UniqueFd connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  path.copy(to.sun_path, sizeof to.sun_path - 1);
  if (::connect(connection.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
    errors::throwSystemError("connect");
  return connection;
}

// gRPC would end it too, at some time, and say nothing.
TEST(StuckClient, OnASocketFileLosesItsConnectionAndItsHandlerIsTold) {
  std::promise<void> ended;
  std::once_flag once;
  parallel::logging::setEnabledLevels("zks.spf", parallel::logging::kWarning);
  const parallel::logging::SinkHandle sink([&](const parallel::logging::LogRecord& record) {
    if (record.text.find("for 500 ms its client has taken nothing") != std::string::npos)
      std::call_once(once, [&] { ended.set_value(); });
  });
  const TemporaryDirectory directory;
  Probe probe;
  const auto service = std::make_shared<core::Service>();
  service->add("flood", [&](core::ServerCall& call) {
    const std::string bytes(1'000'000, 'x');
    try {
      for (;;)
        call.reply() << bytes << std::flush;
    } catch (const Terminated&) {
      probe.cancelled.set_value();
      throw;
    }
  });
  grpc_transport::ServerOptions options;
  options.address = directory.address();
  options.keepaliveInterval = std::chrono::milliseconds(300);
  options.keepaliveTimeout = std::chrono::milliseconds(200);
  const grpc_transport::Server server(service, options);

  const files::UniqueFd client = connectTo(directory.path() + "/socket");
  const std::string said = conversationWith("flood");
  ASSERT_EQ(::send(client.get(), said.data(), said.size(), 0), static_cast<ssize_t>(said.size()));
  awaitEvent(ended);
  awaitEvent(probe.cancelled);
  parallel::logging::setEnabledLevels("", 0);
}

}  // namespace
}  // namespace agent::spf
