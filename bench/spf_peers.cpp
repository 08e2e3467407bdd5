#include "bench/spf_peers.h"

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "bench/spf_peers_internal.h"
#include "platform/spf/security/CredentialsDirectory.h"

namespace bench {

namespace {

namespace security = agent::spf::security;

constexpr const char* kTls = "tls:";
constexpr const char* kDirectoryVariable = "SPF_BENCH_TLS";  // for the server processes

// Credentials for this run, in a directory that goes with it.
class RunCredentials {
 public:
  RunCredentials() {
    char path[] = "/tmp/spf-bench-tls-XXXXXX";
    if (::mkdtemp(path) == nullptr)
      throw std::runtime_error("mkdtemp");
    path_ = path;
    security::prepareDirectory({path_});
    ::setenv(kDirectoryVariable, path, 1);
  }
  ~RunCredentials() { std::filesystem::remove_all(path_); }
  RunCredentials(const RunCredentials&) = delete;
  RunCredentials& operator=(const RunCredentials&) = delete;

 private:
  std::filesystem::path path_;
};

const char* credentialsDirectory() {
  const char* directory = std::getenv(kDirectoryVariable);
  return directory != nullptr ? directory : throw std::runtime_error("there are no credentials");
}

}  // namespace

std::string familyOf(const std::string& address) {
  return address.starts_with(kTls) ? kTls : "";
}

std::string withoutFamily(const std::string& address) {
  return address.substr(familyOf(address).size());
}

std::optional<security::Credentials> serverCredentials(const std::string& address) {
  if (familyOf(address).empty())
    return std::nullopt;
  return security::readServerCredentials(credentialsDirectory());
}

std::optional<security::Credentials> clientCredentials(const std::string& address) {
  if (familyOf(address).empty())
    return std::nullopt;
  return security::readClientCredentials(credentialsDirectory());
}

void keepFreedMemory() {
  ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
  ::mallopt(M_MMAP_THRESHOLD, 32 << 20);
  ::mallopt(M_TOP_PAD, 64 << 20);
  ::mallopt(M_ARENA_MAX, 1);
}

void announceAddress(const std::string& address) {
  std::printf("%s\n", address.c_str());
  std::fflush(stdout);
}

void waitForEndOfInput() {
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

bool serveIfAsked(int argc, char** argv) {
  if (argc != 4 || std::string(argv[1]) != "--serve")
    return false;
  const std::string kind = argv[2];
  if (kind == "spf")
    serveSpf(argv[3]);
  else if (kind == "raw")
    serveRaw(argv[3]);
  else
    serveBare(argv[3]);
  return true;
}

ServerProcess::ServerProcess(const std::string& kind, const std::string& address) {
  int input[2];
  int output[2];
  // Not for the servers started later: one of them would keep this one's input open.
  if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe");
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(input[0], STDIN_FILENO);
    ::dup2(output[1], STDOUT_FILENO);
    ::execl("/proc/self/exe", "spf_bench", "--serve", kind.c_str(), address.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(input[0]);
  ::close(output[1]);
  stdin_ = input[1];
  char byte = 0;
  while (::read(output[0], &byte, 1) == 1 && byte != '\n')
    address_.push_back(byte);
  ::close(output[0]);
  if (address_.empty())
    throw std::runtime_error("the server \"" + kind + "\" did not start");
}

ServerProcess::~ServerProcess() {
  ::close(stdin_);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  if (address_.starts_with("unix:")) {
    const std::string path = address_.substr(5);
    ::unlink(path.c_str());
    ::rmdir(path.substr(0, path.rfind('/')).c_str());
  }
}

std::unique_ptr<Peer> connectPeer(const std::string& kind, const std::string& address) {
  if (kind == "spf")
    return connectSpf(address);
  if (kind == "raw")
    return connectRaw(address);
  return connectBare(address, kind == "bare256" ? std::size_t{256} << 10 : std::size_t{1} << 20, kind == "unary");
}

std::string freshAddress(const std::string& family) {
  if (family == "tls") {
    static const RunCredentials credentials;
    return std::string(kTls) + "127.0.0.1:0";
  }
  if (family == "tcp")
    return "127.0.0.1:0";
  char path[] = "/tmp/spf-bench-XXXXXX";
  if (::mkdtemp(path) == nullptr)
    throw std::runtime_error("mkdtemp");
  return std::string("unix:") + path + "/socket";
}

}  // namespace bench
