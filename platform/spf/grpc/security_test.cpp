// Who is let in over TLS, and what is said to those who are not.
#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/impl/client_unary_call.h>
#include <grpcpp/security/credentials.h>
#include <gtest/gtest.h>

#include <mutex>
#include <sstream>

#include "platform/logging/sinks.h"
#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/internal/endpoint/transportSecurity.h"
#include "platform/spf/grpc/routeGrpcLog.h"
#include "platform/spf/grpc/transport.grpc.pb.h"
#include "platform/spf/security/testing/TestAuthority.h"

namespace agent::spf::testing {
namespace {

using grpc_transport::connect;
using grpc_transport::ConnectOptions;
using grpc_transport::routeGrpcLog;
using grpc_transport::Server;
using grpc_transport::ServerOptions;
using security::Credentials;
using security::testing::longAgo;
using security::testing::TestAuthority;
using ::testing::AllOf;
using ::testing::Not;

const TestAuthority& authority() {
  static const TestAuthority made;
  return made;
}

class Security : public ::testing::Test {
 protected:
  void serve(ServerOptions options) {
    auto service = std::make_shared<core::Service>();
    service->add("echo", echo);
    if (options.address.empty())
      options.address = "127.0.0.1:0";
    server_ = std::make_unique<Server>(service, options);
  }
  void serve(const Credentials& credentials, const std::string& address = "127.0.0.1:0") {
    ServerOptions options;
    options.address = address;
    options.credentials = credentials;
    serve(options);
  }
  void stop() { server_ = nullptr; }
  const std::string& address() const { return server_->address(); }

  std::string echoWith(const Credentials& credentials) const { return echoWith(credentials, address()); }
  static std::string echoWith(const Credentials& credentials, const std::string& address) {
    ConnectOptions options;
    options.credentials = credentials;
    return call(*connect(address, options), "echo", std::string("hello"));
  }

  // The one line with which a client with these options is refused.
  std::string refusalOf(const ConnectOptions& options) const { return refusalOf(options, address()); }
  static std::string refusalOf(const ConnectOptions& options, const std::string& address) {
    const auto chain = chainThrownBy([&] { connect(address, options); });
    EXPECT_EQ(chain.size(), 1U);
    if (chain.empty())
      return "accepted";
    EXPECT_EQ(chain[0].kind, core::ErrorLevel::Kind::framework) << chain[0].text;
    EXPECT_THAT(chain[0].text, AllOf(HasSubstr(address), Not(HasSubstr("\n"))));
    return chain[0].text;
  }
  std::string refusalOf(const Credentials& credentials) const { return refusalOf(credentials, address()); }
  static std::string refusalOf(const Credentials& credentials, const std::string& address) {
    ConnectOptions options;
    options.credentials = credentials;
    return refusalOf(options, address);
  }

  // What stock gRPC gets for a call of this method with these header values.
  grpc::Status stockCall(const std::string& methodPath, const std::vector<std::string>& authorizations) const {
    const Credentials client = authority().client();
    const auto channel =
        grpc::CreateChannel(address(), grpc::SslCredentials({client.authority, client.privateKey, client.certificate}));
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kDeadline);
    for (const std::string& value : authorizations)
      context.AddMetadata("authorization", value);
    const grpc::internal::RpcMethod method(methodPath.c_str(), grpc::internal::RpcMethod::NORMAL_RPC);
    v1::Frame reply;
    const v1::Frame request;
    return grpc::internal::BlockingUnaryCallImpl<google::protobuf::MessageLite, google::protobuf::MessageLite>(
               channel.get(), method, &context, request, &reply)
        .status();
  }

 private:
  std::unique_ptr<Server> server_;
};

// --- Let in ---

TEST_F(Security, ClientWithCertificateAndTokenIsServed) {
  serve(authority().server());
  EXPECT_EQ(echoWith(authority().client()), "hello");
}

TEST_F(Security, EachNameOfTheCertificateServes) {
  serve(authority().server());
  EXPECT_EQ(echoWith(authority().client(), "localhost" + address().substr(address().rfind(':'))), "hello");
  serve(authority().server(), "[::1]:0");
  EXPECT_EQ(echoWith(authority().client()), "hello");
}

TEST_F(Security, SocketFileCanBeGuardedToo) {
  const TemporaryDirectory directory;
  serve(authority().server(), directory.address());
  EXPECT_EQ(echoWith(authority().client()), "hello");
  EXPECT_THAT(refusalOf(ConnectOptions{}), HasSubstr("speaks TLS"));
  stop();
}

// --- The explicit word ---

TEST_F(Security, TcpWithoutCredentialsWantsTheWordAtBothEnds) {
  const auto chain = chainThrownBy([&] { serve(ServerOptions{}); });
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_EQ(chain[0].kind, core::ErrorLevel::Kind::framework);
  EXPECT_THAT(chain[0].text, AllOf(HasSubstr("Cannot listen at 127.0.0.1:0"), HasSubstr("the option plainText")));
  serve(plainServer());
  EXPECT_THAT(refusalOf(ConnectOptions{}), HasSubstr("the option plainText"));
  EXPECT_EQ(call(*connect(address(), plainClient()), "echo", std::string("hello")), "hello");
}

TEST_F(Security, CredentialsAndThePlainWordExcludeEachOther) {
  serve(authority().server());
  ConnectOptions options = plainClient();
  options.credentials = authority().client();
  EXPECT_THAT(refusalOf(options), HasSubstr("exclude each other"));
  ServerOptions both = plainServer();
  both.credentials = authority().server();
  EXPECT_THROW(serve(both), FrameworkError);
}

// --- Refused, and told why ---

TEST_F(Security, WrongTokenIsRefused) {
  serve(authority().server());
  Credentials client = authority().client();
  client.token.back() = client.token.back() == 'x' ? 'y' : 'x';
  EXPECT_THAT(refusalOf(client), AllOf(HasSubstr("the token is not the service's"), HasSubstr("get the file token")));
  client.token = client.token.substr(1);
  EXPECT_THAT(refusalOf(client), HasSubstr("the token is not the service's"));
}

// Those that tools ask too, and one that is not there; wherever the service listens.
TEST_F(Security, EveryMethodWantsTheToken) {
  const std::string right = "Bearer " + authority().client().token;
  const TemporaryDirectory directory;
  for (const std::string& where : {std::string("127.0.0.1:0"), directory.address()}) {
    serve(authority().server(), where);
    for (const char* method :
         {"/agent.spf.v1.Transport/Converse", "/grpc.health.v1.Health/Check", "/grpc.health.v1.Health/Watch",
          "/grpc.reflection.v1.ServerReflection/ServerReflectionInfo",
          "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", "/no.such/Method"}) {
      SCOPED_TRACE(address() + method);
      const grpc::Status without = stockCall(method, {});
      EXPECT_EQ(without.error_code(), grpc::StatusCode::UNAUTHENTICATED);
      EXPECT_THAT(without.error_message(), AllOf(HasSubstr("no token"), HasSubstr("authorization: Bearer")));
      for (const std::string& wrong : {std::string("Bearer wrong"), std::string("Bearer "),
                                       "Basic " + authority().client().token, authority().client().token})
        EXPECT_EQ(stockCall(method, {wrong}).error_code(), grpc::StatusCode::UNAUTHENTICATED);
      EXPECT_EQ(stockCall(method, {right, "Bearer wrong"}).error_code(), grpc::StatusCode::UNAUTHENTICATED);
      if (!std::string_view(method).ends_with("Watch")) {  // which would not end
        EXPECT_NE(stockCall(method, {right}).error_code(), grpc::StatusCode::UNAUTHENTICATED);
      }
    }
    stop();
  }
}

TEST_F(Security, ServiceOfAnotherAuthorityIsRefused) {
  serve(TestAuthority().server());
  EXPECT_THAT(refusalOf(authority().client()),
              AllOf(HasSubstr("does not come from the authority that is trusted"), HasSubstr("get ca.pem")));
}

TEST_F(Security, ClientOfAnotherAuthorityIsRefused) {
  serve(authority().server());
  Credentials client = TestAuthority().client();
  client.authority = authority().identity().certificate;
  EXPECT_THAT(refusalOf(client), AllOf(HasSubstr("which another authority signed"), HasSubstr("get ca.pem")));
}

TEST_F(Security, ClientWithoutACertificateIsRefusedBeforeAnythingIsSent) {
  serve(authority().server());
  Credentials client = authority().client();
  client.certificate.clear();
  const auto chain = chainThrownBy([&] { echoWith(client); });
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_EQ(chain[0].text, "The credentials cannot be used: they have no certificate, or it is not PEM.");
}

TEST_F(Security, StockClientWithoutACertificateGetsNoConnection) {
  serve(authority().server());
  const auto channel =
      grpc::CreateChannel(address(), grpc::SslCredentials({authority().identity().certificate, "", ""}));
  grpc_connectivity_state state = channel->GetState(true);
  const auto deadline = std::chrono::system_clock::now() + kDeadline;
  while (state != GRPC_CHANNEL_TRANSIENT_FAILURE && state != GRPC_CHANNEL_READY &&
         channel->WaitForStateChange(state, deadline))
    state = channel->GetState(true);
  EXPECT_EQ(state, GRPC_CHANNEL_TRANSIENT_FAILURE);
}

TEST_F(Security, ExpiredServiceIsRefusedNamingTheDay) {
  serve(authority().server(longAgo()));
  const auto end = security::describeCertificate(authority().server(longAgo()).certificate).end;
  EXPECT_THAT(refusalOf(authority().client()),
              AllOf(HasSubstr("the service's certificate expired on " + security::timeText(end).substr(0, 10)),
                    HasSubstr("restart the service")));
}

TEST_F(Security, ServiceOfTheFutureIsBlamedOnTheClocks) {
  serve(authority().server(std::chrono::system_clock::now() + std::chrono::hours(48)));
  EXPECT_THAT(refusalOf(authority().client()), HasSubstr("not valid yet; set the clocks"));
}

TEST_F(Security, ExpiredClientIsRefusedNamingTheDay) {
  serve(authority().server());
  const Credentials client = authority().client(longAgo());
  const auto end = security::describeCertificate(client.certificate).end;
  EXPECT_THAT(refusalOf(client),
              AllOf(HasSubstr("client's certificate, which expired on " + security::timeText(end).substr(0, 10)),
                    HasSubstr("get ca.pem")));
}

TEST_F(Security, WrongHostIsRefusedNamingTheCertificatesHosts) {
  serve(authority().server(std::chrono::system_clock::now(), {"cluster.example.org", "10.1.2.3"}));
  EXPECT_THAT(refusalOf(authority().client()), AllOf(HasSubstr("for cluster.example.org, 10.1.2.3, not for 127.0.0.1"),
                                                     HasSubstr("zksd --tls-name 127.0.0.1")));
}

TEST_F(Security, ClientsFilesCannotServe) {
  Credentials pretender = authority().client();
  serve(pretender);
  EXPECT_THAT(refusalOf(authority().client()), HasSubstr("shows a client's certificate, not a service's"));
}

TEST_F(Security, ServicesFilesCannotCall) {
  serve(authority().server());
  EXPECT_THAT(refusalOf(authority().server()), HasSubstr("does not accept this client's certificate"));
}

TEST_F(Security, PlainClientIsToldThatTheServiceSpeaksTls) {
  serve(authority().server());
  ConnectOptions client = plainClient();
  EXPECT_THAT(refusalOf(client), HasSubstr("speaks TLS; connect with its credentials and not in plain text"));
  client.credentialsAdvice = "like so";
  EXPECT_THAT(refusalOf(client), HasSubstr("connect with its credentials (like so) and not in plain text"));
}

TEST_F(Security, TlsClientIsToldThatTheServiceSpeaksPlainText) {
  serve(plainServer());
  ConnectOptions client;
  client.credentials = authority().client();
  EXPECT_THAT(refusalOf(client), HasSubstr("does not speak TLS; connect in plain text if that is"));
  client.plainTextAdvice = "like so";
  EXPECT_THAT(refusalOf(client), HasSubstr("connect in plain text (like so) if that is"));
}

TEST_F(Security, RefusedClientsDoNotDisturbOthers) {
  serve(authority().server());
  ConnectOptions options;
  options.credentials = authority().client();
  const auto good = connect(address(), options);
  refusalOf(plainClient());
  refusalOf(TestAuthority().client());
  EXPECT_EQ(call(*good, "echo", std::string("still here")), "still here");
}

// --- Unusable credentials ---

TEST_F(Security, UnusableCredentialsAreNamedWithoutTheirSecrets) {
  const Credentials good = authority().client();
  const auto refusalOfChanged = [&](std::string Credentials::*part, const std::string& value) {
    Credentials bad = good;
    bad.*part = value;
    const auto chain = chainThrownBy([&] { echoWith(bad, "127.0.0.1:1"); });
    return chain.empty() ? "accepted" : chain[0].text;
  };
  EXPECT_THAT(refusalOfChanged(&Credentials::authority, ""), HasSubstr("ca.pem"));
  EXPECT_THAT(refusalOfChanged(&Credentials::authority, "no PEM"), HasSubstr("ca.pem"));
  EXPECT_THAT(refusalOfChanged(&Credentials::certificate, good.certificate.substr(0, 100)),
              HasSubstr("no certificate"));
  EXPECT_THAT(refusalOfChanged(&Credentials::privateKey, good.privateKey.substr(0, 60)), HasSubstr("no private key"));
  EXPECT_THAT(refusalOfChanged(&Credentials::privateKey, authority().client().privateKey),
              HasSubstr("belongs to another certificate"));
  EXPECT_THAT(refusalOfChanged(&Credentials::token, ""), HasSubstr("no token"));
  const std::string bad = refusalOfChanged(&Credentials::token, "two words\n");
  EXPECT_THAT(bad, AllOf(HasSubstr("the token holds"), Not(HasSubstr("two words"))));
}

// --- Secrets ---

TEST_F(Security, NothingSecretIsLoggedOrSaid) {
  std::mutex mutex;
  std::string said;
  parallel::logging::setEnabledLevels("", parallel::logging::kAll);
  {
    const parallel::logging::SinkHandle sink([&](const parallel::logging::LogRecord& record) {
      const std::lock_guard lock(mutex);
      said += record.text + "\n";
    });
    routeGrpcLog();
    serve(authority().server());
    Credentials client = authority().client();
    EXPECT_EQ(echoWith(client), "hello");
    const std::string stranger = refusalOf(TestAuthority().client());
    client.token = "the-wrong-token-of-a-stranger";
    const std::string wrongToken = refusalOf(client);
    stop();
    const std::lock_guard lock(mutex);
    said += stranger + wrongToken;
  }
  parallel::logging::setEnabledLevels("", 0);
  const std::lock_guard lock(mutex);
  EXPECT_THAT(said, HasSubstr("A call was refused: the token is not the service's"));
  EXPECT_THAT(said, HasSubstr("zks client"));
  EXPECT_THAT(said, HasSubstr("Handshake failed"));
  EXPECT_THAT(said, Not(HasSubstr(authority().client().token)));
  EXPECT_THAT(said, Not(HasSubstr("the-wrong-token-of-a-stranger")));
  EXPECT_THAT(said, Not(HasSubstr("PRIVATE KEY")));
}

TEST(Credentials, PrintAsNothingButWhoseTheyAre) {
  const Credentials credentials = authority().client();
  std::ostringstream out;
  out << credentials << Credentials{};
  EXPECT_EQ(out.str(), "[credentials of CN=zks client, secrets withheld][credentials of nobody, secrets withheld]");
}

}  // namespace
}  // namespace agent::spf::testing
