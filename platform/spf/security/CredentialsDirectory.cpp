#include "platform/spf/security/CredentialsDirectory.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <set>

#include "platform/spf/core/errors.h"
#include "platform/spf/security/internal/openssl.h"
#include "platform/spf/security/internal/privateFiles.h"

namespace agent::spf::security {

namespace fs = std::filesystem;

namespace {

using internal::Openness;

constexpr const char* kAuthority = "ca.pem";
constexpr const char* kAuthorityKey = "ca-key.pem";
constexpr const char* kToken = "token";

struct RoleFiles {
  Role role;
  const char* certificate;
  const char* key;
};
constexpr RoleFiles kServer{Role::server, "server.pem", "server-key.pem"};
constexpr RoleFiles kClient{Role::client, "client.pem", "client-key.pem"};

std::string quoted(const fs::path& path) {
  return "\"" + path.string() + "\"";
}

void addMissing(std::vector<std::string>& hosts, const std::vector<std::string>& more) {
  for (const std::string& host : more) {
    if (std::find(hosts.begin(), hosts.end(), normalHost(host)) == hosts.end())
      hosts.push_back(normalHost(host));
  }
}

std::vector<std::string> hostsOfThisMachine() {
  std::vector<std::string> hosts{"localhost", "127.0.0.1", "::1"};
  std::array<char, HOST_NAME_MAX + 1> name{};
  if (::gethostname(name.data(), name.size() - 1) == 0 && isHost(name.data()))
    addMissing(hosts, {name.data()});
  return hosts;
}

// The work of prepareDirectory(), under its lock.
class Preparation {
 public:
  explicit Preparation(const DirectoryRequest& request) : request_(request) {}

  void run() {
    removeLeftOvers();
    prepareAuthority();
    prepareCertificate(kServer);
    prepareCertificate(kClient);
    if (!read(kToken, Openness::ownerOnly))
      write(kToken, makeToken() + "\n", Openness::ownerOnly);
  }

 private:
  fs::path path(const char* name) const { return request_.directory / name; }

  std::optional<std::string> read(const char* name, Openness openness) const {
    return internal::readFile(path(name), openness);
  }

  void write(const char* name, const std::string& content, Openness openness) const {
    internal::writeFile(path(name), content, openness, request_.onStep);
  }

  void removeLeftOvers() const {
    for (const fs::directory_entry& entry : fs::directory_iterator(request_.directory)) {
      if (internal::isLeftOver(entry.path()))
        ::unlink(entry.path().c_str());
    }
  }

  // The key is the first of all files, so one without its certificate has signed nothing yet.
  void prepareAuthority() {
    if (auto certificate = read(kAuthority, Openness::anybody)) {
      authority_.certificate = std::move(*certificate);
      authority_.privateKey = read(kAuthorityKey, Openness::ownerOnly).value_or("");
      return checkAuthority();
    }
    requireNothingElse();
    authority_ = makeAuthority(request_.now);
    write(kAuthorityKey, authority_.privateKey, Openness::ownerOnly);
    write(kAuthority, authority_.certificate, Openness::anybody);
  }

  void requireNothingElse() const {
    static const std::set<std::string> kHarmless{kAuthorityKey, internal::DirectoryLock::kName};
    for (const fs::directory_entry& entry : fs::directory_iterator(request_.directory)) {
      if (kHarmless.count(entry.path().filename().string()) == 0)
        throw FrameworkError("The directory " + quoted(request_.directory) + " holds " +
                             quoted(entry.path().filename()) + " but no " + kAuthority +
                             "; choose an empty directory or a new one, or put the file back.");
    }
  }

  void checkAuthority() const {
    if (internal::readCertificates(authority_.certificate).empty())
      throw FrameworkError("The file " + quoted(path(kAuthority)) + " is not a certificate; " + startAnew());
    const Time end = describeCertificate(authority_.certificate).end;
    if (end <= request_.now)
      throw FrameworkError("The authority of " + quoted(request_.directory) + " expired on " + timeText(end) + "; " +
                           startAnew());
  }

  static std::string startAnew() {
    return "move the directory away, so that a new one is made, and hand its files to the clients.";
  }

  void prepareCertificate(const RoleFiles& files) {
    auto key = read(files.key, Openness::ownerOnly);
    if (!key || internal::readPrivateKey(*key) == nullptr) {
      key = makePrivateKey();
      requireAuthorityKey(files);
      write(files.key, *key, Openness::ownerOnly);
    }
    const std::string old = read(files.certificate, Openness::anybody).value_or("");
    std::vector<std::string> hosts = wantedHosts(files.role, old);
    if (isGood(old, *key, hosts))
      return;
    requireAuthorityKey(files);
    // With the key that is there: the certificate alone changes, in one step.
    write(files.certificate, issueCertificate(authority_, *key, files.role, hosts, request_.now), Openness::anybody);
  }

  // The names that the old certificate has stay: whoever uses them is not to be shut out by a restart without them.
  std::vector<std::string> wantedHosts(Role role, const std::string& old) const {
    if (role == Role::client)
      return {};
    std::vector<std::string> hosts = hostsOfThisMachine();
    addMissing(hosts, request_.hosts);
    if (!internal::readCertificates(old).empty())
      addMissing(hosts, describeCertificate(old).hosts);
    return hosts;
  }

  bool isGood(const std::string& certificate, const std::string& key, const std::vector<std::string>& hosts) const {
    if (!hasKey(certificate, key) || !isIssuedBy(certificate, authority_.certificate))
      return false;
    const CertificateFacts facts = describeCertificate(certificate);
    const Time needed = std::min(request_.now + kRenewBefore, describeCertificate(authority_.certificate).end);
    return facts.end >= needed && facts.hosts.size() == hosts.size();
  }

  void requireAuthorityKey(const RoleFiles& files) const {
    if (hasKey(authority_.certificate, authority_.privateKey))
      return;
    throw FrameworkError("The file " + quoted(path(files.certificate)) + " has to be made anew, and " +
                         quoted(path(kAuthorityKey)) + " is missing or not the authority's; put it back, or " +
                         startAnew());
  }

  const DirectoryRequest& request_;
  Identity authority_;
};

void checkHosts(const std::vector<std::string>& hosts) {
  for (const std::string& host : hosts) {
    if (!isHost(host))
      throw FrameworkError("\"" + host + "\" is not a name or address that a certificate can be for.");
  }
}

std::string required(const fs::path& path, Openness openness) {
  auto content = internal::readFile(path, openness);
  if (!content)
    throw FrameworkError("There is no file " + quoted(path) +
                         "; a client's directory holds ca.pem, client.pem, client-key.pem and token of its service, a "
                         "service's is made by zksd.");
  return std::move(*content);
}

// What is wrong with the contents otherwise, checkCredentials() finds, which knows no files.
void requireContent(bool isThere, const fs::path& path, const std::string& content) {
  if (!isThere)
    throw FrameworkError(
        "The file " + quoted(path) + " holds no " + content +
        "; a client's is got anew from its service's directory, a service's is made anew by zksd once it "
        "is removed.");
}

Credentials readCredentials(const fs::path& directory, const RoleFiles& files) {
  internal::requirePrivateDirectory(directory);
  Credentials credentials;
  credentials.authority = required(directory / kAuthority, Openness::anybody);
  credentials.certificate = required(directory / files.certificate, Openness::anybody);
  credentials.privateKey = required(directory / files.key, Openness::ownerOnly);
  credentials.token = required(directory / kToken, Openness::ownerOnly);
  credentials.token.erase(credentials.token.find_last_not_of(" \t\r\n") + 1);
  requireContent(!internal::readCertificates(credentials.authority).empty(), directory / kAuthority, "certificate");
  requireContent(!internal::readCertificates(credentials.certificate).empty(), directory / files.certificate,
                 "certificate");
  requireContent(internal::readPrivateKey(credentials.privateKey) != nullptr, directory / files.key,
                 "private key without a password");
  requireContent(!credentials.token.empty(), directory / kToken, "token");
  return credentials;
}

}  // namespace

void prepareDirectory(const DirectoryRequest& request) {
  checkHosts(request.hosts);
  internal::makePrivateDirectory(request.directory, request.onStep);
  internal::requirePrivateDirectory(request.directory);
  const internal::DirectoryLock lock(request.directory);
  Preparation(request).run();
}

Credentials readServerCredentials(const fs::path& directory) {
  return readCredentials(directory, kServer);
}

Credentials readClientCredentials(const fs::path& directory) {
  return readCredentials(directory, kClient);
}

fs::path defaultDirectory() {
  // NOLINTBEGIN(concurrency-mt-unsafe): nothing here changes the environment
  if (const char* told = std::getenv("ZKS_TLS"); told != nullptr && *told != '\0')
    return told;
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/')
    return fs::path(state) / "zks" / "tls";
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/')
    return fs::path(home) / ".local" / "state" / "zks" / "tls";
  // NOLINTEND(concurrency-mt-unsafe)
  return {};
}

}  // namespace agent::spf::security
