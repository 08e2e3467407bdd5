#include "platform/spf/security/Certificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "platform/spf/core/errors.h"
#include "platform/spf/security/Credentials.h"
#include "platform/spf/security/testing/TestAuthority.h"

namespace agent::spf::security {
namespace {

using std::chrono::hours;
using ::testing::IsEmpty;
using testing::kNow;
using testing::TestAuthority;

TEST(Certificates, ServersNameTheirHostsInOrder) {
  const Identity authority = makeAuthority(kNow);
  const std::vector<std::string> hosts{"localhost", "a-b.example.org", "10.1.2.3", "::1"};
  const auto facts = describeCertificate(issueCertificate(authority, makePrivateKey(), Role::server, hosts, kNow));
  EXPECT_EQ(facts.hosts, hosts);
  EXPECT_EQ(facts.end, kNow + kCertificateLife);
}

TEST(Certificates, ClientsNameNoHost) {
  const auto facts =
      describeCertificate(issueCertificate(makeAuthority(kNow), makePrivateKey(), Role::client, {}, kNow));
  EXPECT_THAT(facts.hosts, IsEmpty());
}

TEST(Certificates, NoneOutlivesItsAuthority) {
  const Identity authority = makeAuthority(kNow);
  const Time late = kNow + kAuthorityLife - hours(1);
  const auto facts = describeCertificate(issueCertificate(authority, makePrivateKey(), Role::client, {}, late));
  EXPECT_EQ(facts.end, kNow + kAuthorityLife);
  EXPECT_EQ(facts.end, describeCertificate(authority.certificate).end);
}

TEST(Certificates, BelongToTheirAuthorityAndKeyOnly) {
  const Identity authority = makeAuthority(kNow);
  const Identity other = makeAuthority(kNow);
  const std::string key = makePrivateKey();
  const std::string certificate = issueCertificate(authority, key, Role::server, {"localhost"}, kNow);
  EXPECT_TRUE(isIssuedBy(certificate, authority.certificate));
  EXPECT_TRUE(isIssuedBy(certificate, other.certificate + authority.certificate));
  EXPECT_FALSE(isIssuedBy(certificate, other.certificate));
  EXPECT_FALSE(isIssuedBy(certificate, ""));
  EXPECT_TRUE(hasKey(certificate, key));
  EXPECT_FALSE(hasKey(certificate, authority.privateKey));
  EXPECT_FALSE(hasKey("", key));
}

TEST(Certificates, EveryTruncationOfAPemTextIsRefused) {
  const Identity authority = makeAuthority(kNow);
  const std::string whole = authority.certificate.substr(0, authority.certificate.find_last_not_of('\n') + 1);
  for (std::size_t size = 0; size < whole.size(); ++size)
    EXPECT_THROW(describeCertificate(whole.substr(0, size)), std::runtime_error) << size;
  const std::string key = authority.privateKey.substr(0, authority.privateKey.find_last_not_of('\n') + 1);
  for (std::size_t size = 0; size < key.size(); ++size)
    EXPECT_FALSE(hasKey(authority.certificate, key.substr(0, size))) << size;
}

TEST(Certificates, AuthorityWithoutItsKeySignsNothing) {
  const Identity authority{makeAuthority(kNow).certificate, ""};
  EXPECT_THROW(issueCertificate(authority, makePrivateKey(), Role::client, {}, kNow), std::runtime_error);
}

TEST(Tokens, AreLongDifferentAndFitIntoAHeader) {
  std::set<std::string> made;
  for (int i = 0; i < 200; ++i) {
    const std::string token = makeToken();
    EXPECT_EQ(token.size(), 43U);
    EXPECT_EQ(token.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
              std::string::npos)
        << token;
    EXPECT_TRUE(made.insert(token).second);
  }
}

TEST(Hosts, AreNamesAndAddresses) {
  for (const char* good : {"localhost", "a.b-c.example.org", "10.0.0.1", "::1", "fe80::1", "*.example.org"})
    EXPECT_TRUE(isHost(good)) << good;
  for (const std::string& bad : {std::string(), std::string("a b"), std::string("a,IP:1.2.3.4"), std::string("a:b"),
                                 std::string("na\xC3\xAFve"), std::string("a\0b", 3), std::string(300, 'x')})
    EXPECT_FALSE(isHost(bad)) << bad;
}

TEST(Hosts, HaveOneWayOfBeingWritten) {
  EXPECT_EQ(normalHost("Cluster.Example.ORG"), "cluster.example.org");
  EXPECT_EQ(normalHost("0:0:0:0:0:0:0:1"), "::1");
  EXPECT_EQ(normalHost("FE80::A"), "fe80::a");
  EXPECT_EQ(normalHost("10.0.0.1"), "10.0.0.1");
}

TEST(Times, AreShownInUtc) {
  EXPECT_EQ(timeText(kNow), "2027-01-15 08:00 UTC");
}

TEST(SameSecret, IsTrueForEqualTextsOnly) {
  EXPECT_TRUE(isSameSecret("token", "token"));
  EXPECT_TRUE(isSameSecret("", ""));
  for (const char* other : {"", "toke", "tokens", "tokeN", "Token"})
    EXPECT_FALSE(isSameSecret("token", other)) << other;
}

TEST(CheckCredentials, TakesWhatTheMakerMakes) {
  const TestAuthority authority;
  EXPECT_NO_THROW(checkCredentials(authority.client()));
  EXPECT_NO_THROW(checkCredentials(authority.server()));
}

TEST(CheckCredentials, RefusesEachMissingPart) {
  const Credentials good = TestAuthority().client();
  for (std::string Credentials::*part :
       {&Credentials::authority, &Credentials::certificate, &Credentials::privateKey, &Credentials::token}) {
    Credentials bad = good;
    (bad.*part).clear();
    EXPECT_THROW(checkCredentials(bad), FrameworkError);
  }
}

}  // namespace
}  // namespace agent::spf::security
