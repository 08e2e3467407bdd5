#include "scheduler/daemon/serviceCredentials.h"

#include "platform/spf/security/CredentialsDirectory.h"
#include "scheduler/daemon/DaemonError.h"
#include "scheduler/daemon/absolutePath.h"

namespace parallel::scheduler {

namespace security = agent::spf::security;

namespace {

// HOST of HOST:PORT, without brackets; empty when it stands for all addresses of the machine.
std::string listenedHost(const std::string& listen) {
  std::string host = listen.substr(0, listen.rfind(':'));
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  return host == "0.0.0.0" || host == "::" || !security::isHost(host) ? "" : host;
}

}  // namespace

std::filesystem::path credentialsDirectory(const DaemonOptions& options) {
  std::filesystem::path directory = options.tlsDirectory.empty() ? security::defaultDirectory() : options.tlsDirectory;
  if (directory.empty())
    throw DaemonError("There is no home to keep credentials in; name a directory for them with --tls DIR");
  return absolutePath(directory);
}

security::Credentials serviceCredentials(const DaemonOptions& options) {
  security::DirectoryRequest request;
  request.directory = credentialsDirectory(options);
  request.hosts = options.tlsNames;
  if (std::string host = listenedHost(options.listen); !host.empty())
    request.hosts.push_back(std::move(host));
  security::prepareDirectory(request);
  return security::readServerCredentials(request.directory);
}

}  // namespace parallel::scheduler
