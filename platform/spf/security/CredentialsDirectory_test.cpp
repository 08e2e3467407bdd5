#include "platform/spf/security/CredentialsDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "platform/files/testing/TemporaryDirectory.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/security/testing/TestAuthority.h"

namespace agent::spf::security {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using testing::kNow;
using ::testing::Not;

const std::map<std::string, mode_t> kFiles{{"ca.pem", 0644},         {"ca-key.pem", 0600}, {"server.pem", 0644},
                                           {"server-key.pem", 0600}, {"client.pem", 0644}, {"client-key.pem", 0600},
                                           {"token", 0600}};

class CredentialsDirectory : public ::testing::Test {
 protected:
  fs::path directory() const { return place_.file("state") / "tls"; }
  fs::path file(const std::string& name) const { return directory() / name; }

  void prepare(Time now = kNow, std::vector<std::string> hosts = {}) const {
    prepareDirectory({directory(), std::move(hosts), now});
  }
  std::string refusal(Time now = kNow, std::vector<std::string> hosts = {}) const {
    return textOf([&] { prepare(now, std::move(hosts)); });
  }
  template <class Action>
  static std::string textOf(Action action) {
    try {
      action();
    } catch (const FrameworkError& error) {
      return error.what();
    }
    return "accepted";
  }

  std::string contentOf(const std::string& name) const {
    std::ifstream in(file(name));
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
  }
  void write(const std::string& name, const std::string& content) const { std::ofstream(file(name)) << content; }
  std::map<std::string, std::string> contents() const {
    std::map<std::string, std::string> all;
    for (const auto& [name, mode] : kFiles)
      all[name] = contentOf(name);
    return all;
  }
  static mode_t modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  // That both ends can use it now.
  void expectUsable(const std::string& when = "") const {
    const Credentials server = readServerCredentials(directory());
    const Credentials client = readClientCredentials(directory());
    EXPECT_NO_THROW(checkCredentials(server)) << when;
    EXPECT_NO_THROW(checkCredentials(client)) << when;
    EXPECT_TRUE(isIssuedBy(server.certificate, client.authority)) << when;
    EXPECT_TRUE(isIssuedBy(client.certificate, server.authority)) << when;
    EXPECT_EQ(server.token, client.token) << when;
  }
  void expectNoLeftOvers() const {
    for (const auto& entry : fs::directory_iterator(directory()))
      EXPECT_TRUE(kFiles.count(entry.path().filename()) == 1 || entry.path().filename() == ".lock") << entry.path();
  }

  // Prepares it in a process that dies at that step. False when there was no such step.
  bool dieAtStep(int step, Time now) const {
    const pid_t child = ::fork();
    if (child == 0) {
      DirectoryRequest request{directory(), {}, now};
      request.onStep = [&] {
        if (--step == 0)
          ::_exit(1);
      };
      prepareDirectory(request);
      ::_exit(0);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WEXITSTATUS(status) == 1;
  }

  files::testing::TemporaryDirectory place_;
};

TEST_F(CredentialsDirectory, IsMadeWithAllFilesForItsOwnerAlone) {
  const mode_t before = ::umask(0);
  prepare();
  ::umask(before);
  EXPECT_EQ(modeOf(directory()), 0700U);
  EXPECT_EQ(modeOf(directory().parent_path()), 0700U);
  for (const auto& [name, mode] : kFiles)
    EXPECT_EQ(modeOf(file(name)), mode) << name;
  expectUsable();
  expectNoLeftOvers();
}

TEST_F(CredentialsDirectory, ServersCertificateNamesTheMachineAndWhatIsAskedFor) {
  prepare(kNow, {"Cluster.example.org", "10.9.8.7", "0:0:0:0:0:0:0:1"});
  char name[256] = {};
  ::gethostname(name, sizeof name - 1);
  const auto hosts = describeCertificate(contentOf("server.pem")).hosts;
  for (const std::string& host : {std::string("localhost"), std::string("127.0.0.1"), std::string("::1"),
                                  normalHost(name), std::string("cluster.example.org"), std::string("10.9.8.7")})
    EXPECT_THAT(hosts, Contains(host));
  EXPECT_EQ(std::count(hosts.begin(), hosts.end(), "::1"), 1);
}

TEST_F(CredentialsDirectory, TextThatIsNotAHostIsRefused) {
  EXPECT_THAT(refusal(kNow, {"x,IP:1.2.3.4"}), HasSubstr("\"x,IP:1.2.3.4\" is not a name"));
  EXPECT_FALSE(fs::exists(directory()));
}

TEST_F(CredentialsDirectory, PreparedAgainStaysAsItIs) {
  prepare(kNow, {"Cluster.example.org", "0:0:0:0:0:0:0:1"});
  const auto before = contents();
  prepare(kNow + hours(24), {"Cluster.example.org", "0:0:0:0:0:0:0:1"});
  prepare(kNow + hours(24));  // a name that is not asked for any more does not go
  EXPECT_EQ(contents(), before);
}

TEST_F(CredentialsDirectory, NewNameRenewsTheServersCertificateOnlyAndKeepsOldNames) {
  prepare(kNow, {"old.example.org"});
  auto before = contents();
  prepare(kNow, {"new.example.org"});
  auto after = contents();
  EXPECT_NE(after["server.pem"], before["server.pem"]);
  EXPECT_THAT(describeCertificate(after["server.pem"]).hosts,
              AllOf(Contains("old.example.org"), Contains("new.example.org")));
  before.erase("server.pem");
  after.erase("server.pem");
  EXPECT_EQ(after, before);
}

TEST_F(CredentialsDirectory, CertificatesAreRenewedForTheSameKeysWhenTheyEndSoon) {
  prepare();
  auto before = contents();
  const Time border = kNow + kCertificateLife - kRenewBefore;
  prepare(border);
  EXPECT_EQ(contents(), before);
  prepare(border + hours(1));
  auto after = contents();
  for (const char* name : {"server.pem", "client.pem"}) {
    EXPECT_EQ(describeCertificate(after[name]).end, border + hours(1) + kCertificateLife) << name;
    after.erase(name);
    before.erase(name);
  }
  EXPECT_EQ(after, before);
  expectUsable();
}

TEST_F(CredentialsDirectory, EachMissingOrSpoiledFileButTheAuthoritysIsMadeAnew) {
  for (const char* name : {"server.pem", "server-key.pem", "client.pem", "client-key.pem", "token"}) {
    prepare();
    fs::remove(file(name));
    prepare();
    expectUsable(name);
  }
  for (const char* name : {"server.pem", "client.pem"}) {
    write(name, "spoiled");
    prepare();
    expectUsable(name);
  }
}

TEST_F(CredentialsDirectory, ForeignCertificateIsReplaced) {
  prepare();
  const std::string key = contentOf("server-key.pem");
  write("server.pem", issueCertificate(makeAuthority(kNow), key, Role::server, {"localhost"}, kNow));
  prepare();
  expectUsable();
}

TEST_F(CredentialsDirectory, NewTokenIsMadeWhenTheOldOneIsRemoved) {
  prepare();
  const std::string old = contentOf("token");
  fs::remove(file("token"));
  prepare();
  EXPECT_NE(contentOf("token"), old);
}

TEST_F(CredentialsDirectory, AuthoritysKeyMayBeAwayUntilItIsNeeded) {
  prepare();
  fs::remove(file("ca-key.pem"));
  EXPECT_EQ(refusal(), "accepted");
  const std::string needed = refusal(kNow + kCertificateLife);
  EXPECT_THAT(needed, AllOf(HasSubstr("server.pem\" has to be made anew"), HasSubstr("ca-key.pem\" is missing")));
  write("ca-key.pem", makePrivateKey());
  fs::permissions(file("ca-key.pem"), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_THAT(refusal(kNow + kCertificateLife), HasSubstr("not the authority's"));
  expectUsable();
}

TEST_F(CredentialsDirectory, LostAuthorityIsNotReplacedBehindTheClientsBacks) {
  prepare();
  fs::remove(file("ca.pem"));
  EXPECT_THAT(refusal(), AllOf(HasSubstr("but no ca.pem"), HasSubstr("put the file back")));
  write("ca.pem", "spoiled");
  EXPECT_THAT(refusal(), HasSubstr("is not a certificate; move the directory away"));
}

TEST_F(CredentialsDirectory, ExpiredAuthorityIsRefusedNamingTheDay) {
  prepare();
  EXPECT_THAT(refusal(kNow + kAuthorityLife),
              AllOf(HasSubstr("expired on " + timeText(kNow + kAuthorityLife)), HasSubstr("move the directory away")));
}

TEST_F(CredentialsDirectory, DirectoryOfOtherThingsIsLeftAlone) {
  fs::create_directories(directory());
  fs::permissions(directory(), fs::perms::owner_all);
  write("letters.txt", "dear");
  EXPECT_THAT(refusal(),
              AllOf(HasSubstr("holds \"letters.txt\" but no ca.pem"), HasSubstr("choose an empty directory")));
  EXPECT_FALSE(fs::exists(file("ca-key.pem")));
}

TEST_F(CredentialsDirectory, DirectoryOpenToOthersIsRefusedWithTheCommandThatHelps) {
  prepare();
  for (const mode_t mode : {0701U, 0710U, 0750U, 0755U, 0770U}) {
    ASSERT_EQ(::chmod(directory().c_str(), mode), 0);
    for (const std::string& text : {refusal(), textOf([&] { readServerCredentials(directory()); }),
                                    textOf([&] { readClientCredentials(directory()); })})
      EXPECT_THAT(text, AllOf(HasSubstr("is open to others"), HasSubstr("run chmod 700 " + directory().string())));
  }
}

TEST_F(CredentialsDirectory, SecretOpenToOthersIsRefusedWithTheCommandThatHelps) {
  prepare();
  for (const auto& [name, wanted] : kFiles) {
    if (wanted != 0600)
      continue;
    for (const mode_t mode : {0604U, 0640U, 0620U, 0644U}) {
      ASSERT_EQ(::chmod(file(name).c_str(), mode), 0);
      EXPECT_THAT(refusal(), AllOf(HasSubstr("is open to others"), HasSubstr("run chmod 600 " + file(name).string()),
                                   Not(HasSubstr(contentOf("token")))));
    }
    ASSERT_EQ(::chmod(file(name).c_str(), 0600), 0);
  }
  ASSERT_EQ(::chmod(file("client-key.pem").c_str(), 0640), 0);
  EXPECT_THAT(textOf([&] { readClientCredentials(directory()); }), HasSubstr("run chmod 600"));
}

TEST_F(CredentialsDirectory, FilesThatCannotBeAreRefused) {
  fs::create_directories(directory().parent_path());
  std::ofstream(directory()) << "a file";
  EXPECT_THAT(refusal(), HasSubstr("is not a directory"));
  fs::remove(directory());
  prepare();
  fs::remove(file("token"));
  fs::create_directory(file("token"));
  EXPECT_THAT(refusal(), HasSubstr("is not a regular file"));
  fs::remove(file("token"));
  ASSERT_EQ(::mkfifo(file("token").c_str(), 0600), 0);  // which nobody writes to
  EXPECT_THAT(refusal(), HasSubstr("is not a regular file"));
}

TEST_F(CredentialsDirectory, ClientNeedsItsFourFilesOnly) {
  prepare();
  for (const char* name : {"ca-key.pem", "server.pem", "server-key.pem"})
    fs::remove(file(name));
  EXPECT_NO_THROW(checkCredentials(readClientCredentials(directory())));
  for (const char* name : {"ca.pem", "client.pem", "client-key.pem", "token"}) {
    fs::rename(file(name), place_.file("aside"));
    EXPECT_THAT(textOf([&] { readClientCredentials(directory()); }),
                HasSubstr("There is no file \"" + file(name).string() + "\""));
    fs::rename(place_.file("aside"), file(name));
  }
  EXPECT_THAT(textOf([&] { readClientCredentials(place_.file("none")); }), HasSubstr("cannot be used"));
}

TEST_F(CredentialsDirectory, FileThatHoldsSomethingElseIsNamed) {
  prepare();
  for (const auto& [name, content] : std::map<std::string, std::string>{{"ca.pem", "certificate"},
                                                                        {"client.pem", "certificate"},
                                                                        {"client-key.pem", "private key"},
                                                                        {"token", "token"}}) {
    const std::string before = contentOf(name);
    for (const char* other : {"", "\n"}) {
      write(name, other);
      EXPECT_THAT(textOf([&] { readClientCredentials(directory()); }),
                  HasSubstr("The file \"" + file(name).string() + "\" holds no " + content));
    }
    write(name, before);
  }
  EXPECT_NO_THROW(readClientCredentials(directory()));
}

TEST_F(CredentialsDirectory, BlanksAroundATokenDoNotCount) {
  prepare();
  const std::string token = readClientCredentials(directory()).token;
  write("token", token + " \r\n\n");
  EXPECT_EQ(readClientCredentials(directory()).token, token);
}

TEST_F(CredentialsDirectory, DeathAtAnyStepOfTheMakingIsMadeGoodByTheNextStart) {
  int step = 1;
  while (dieAtStep(step, kNow)) {
    prepare();
    expectUsable("after death at step " + std::to_string(step));
    expectNoLeftOvers();
    fs::remove_all(directory().parent_path());
    ++step;
  }
  EXPECT_GT(step, 20);  // seven files of three steps each, and the directories
  expectUsable();
}

TEST_F(CredentialsDirectory, DeathAtAnyStepOfARenewalLeavesCredentialsThatWork) {
  const Time later = kNow + kCertificateLife - hours(24);
  int step = 1;
  for (;; ++step) {
    fs::remove_all(directory());
    prepare();
    if (!dieAtStep(step, later))
      break;
    expectUsable("before the next start, step " + std::to_string(step));
    prepare(later);
    expectUsable("after the next start, step " + std::to_string(step));
    expectNoLeftOvers();
  }
  EXPECT_EQ(step, 7);  // two certificates of three steps each
}

TEST_F(CredentialsDirectory, FailureAtAnyStepIsReportedAndMadeGoodByTheNextStart) {
  for (int step = 1;; ++step) {
    DirectoryRequest request{directory(), {}, kNow};
    int left = step;
    request.onStep = [&] {
      if (--left == 0)
        throw std::out_of_range("step");
    };
    try {
      prepareDirectory(request);
      break;
    } catch (const std::out_of_range&) {
      prepare();
      expectUsable("after a failure at step " + std::to_string(step));
      fs::remove_all(directory().parent_path());
    }
  }
  expectUsable();
}

TEST_F(CredentialsDirectory, StartsAtTheSameTimeMakeOneSetOfFiles) {
  std::vector<std::thread> starts;
  std::vector<std::string> tokens(8);
  for (std::string& token : tokens)
    starts.emplace_back([&] {
      prepare();
      token = readServerCredentials(directory()).token;
    });
  for (std::thread& start : starts)
    start.join();
  EXPECT_EQ(std::set<std::string>(tokens.begin(), tokens.end()).size(), 1U);
  expectUsable();
}

class Environment {
 public:
  Environment(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name))
      old_ = old;
    value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~Environment() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(DefaultDirectory, FollowsTheFirstVariableThatIsSet) {
  const Environment told("ZKS_TLS", "relative/place");
  const Environment state("XDG_STATE_HOME", "/state");
  const Environment home("HOME", "/home/u");
  EXPECT_EQ(defaultDirectory(), "relative/place");
  const Environment untold("ZKS_TLS", "");
  EXPECT_EQ(defaultDirectory(), "/state/zks/tls");
  const Environment relative("XDG_STATE_HOME", "not/absolute");
  EXPECT_EQ(defaultDirectory(), "/home/u/.local/state/zks/tls");
  const Environment homeless("HOME", nullptr);
  EXPECT_EQ(defaultDirectory(), "");
}

}  // namespace
}  // namespace agent::spf::security
