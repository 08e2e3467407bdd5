#include "toolbox/Address.h"

#include <sys/un.h>

#include <charconv>
#include <filesystem>
#include <system_error>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/spf/security/defaultSocket.h"

namespace parallel::toolbox {
namespace {

constexpr std::string_view kSocketPrefix = "unix:";
constexpr std::size_t kLongestSocketPath = sizeof(sockaddr_un::sun_path) - 1;

[[noreturn]] void refuse(std::string_view text, std::string_view reason) {
  std::string shown(text);
  for (std::size_t at = shown.find('\0'); at != std::string::npos; at = shown.find('\0', at))
    shown.replace(at, 1, "\\0");  // a message ends at a NUL
  throw Exception<BadAddress>(shown, reason);
}

std::string defaultSocketPath(std::string_view text) {
  const std::filesystem::path socket = agent::spf::security::defaultSocket();
  const std::filesystem::path directory = socket.parent_path();
  std::error_code none;
  const bool exists = std::filesystem::exists(std::filesystem::symlink_status(directory, none));
  const std::string problem = exists ? agent::spf::security::whyNotPrivate(directory) : "";
  if (!problem.empty())
    refuse(text, "the default socket's directory \"" + directory.string() + "\" " + problem);
  return socket.string();
}

std::string resolveSocketPath(std::string_view text) {
  const std::string given(text.substr(kSocketPrefix.size()));
  const std::string path = given.empty() ? defaultSocketPath(text) : given;
  if (path.find('\0') != std::string::npos)
    refuse(text, "a path cannot hold a NUL");
  std::error_code failure;
  const std::string absolute =
      std::filesystem::absolute(std::filesystem::path(path), failure).lexically_normal().string();
  if (failure)
    refuse(text, "the current directory, from which the path starts, cannot be found (" + failure.message() + ")");
  if (absolute.size() > kLongestSocketPath)
    refuse(text, "the path of a socket file has at most " + std::to_string(kLongestSocketPath) + " bytes");
  return std::string(kSocketPrefix) + absolute;
}

void checkPort(std::string_view text, std::string_view port) {
  if (port.empty())
    refuse(text, "the port is missing");
  unsigned value = 0;
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
  if (error != std::errc{} || end != port.data() + port.size() || value == 0 || value > 65535)
    refuse(text, "the port is a number from 1 to 65535");
}

bool isIpv6Number(std::string_view host) {
  return host.find(':') != std::string_view::npos &&
         host.find_first_not_of("0123456789abcdefABCDEF:.") == std::string_view::npos;
}

// "[::1]" or a name or number without colons.
void checkHost(std::string_view text, std::string_view host) {
  if (host.empty())
    refuse(text, "the host is missing");
  const bool bracketed = host.front() == '[' && host.back() == ']' && host.size() > 2;
  if (!bracketed && (isIpv6Number(host) || host.find_first_of("[]") != std::string_view::npos))
    refuse(text, "the host of an IPv6 address stands in brackets, as in [::1]:7777");
  if (host.find_first_of(" \t\n/\\@") != std::string_view::npos)
    refuse(text, "a host holds no blanks, no slashes and no user's name");
  if (!bracketed && host.find(':') != std::string_view::npos)
    refuse(text, "it holds more than one colon");
}

// What somebody types who takes it for something else that is much like it.
void checkForm(std::string_view text) {
  if (const std::size_t scheme = text.find("://"); scheme != std::string_view::npos)
    refuse(text, "an address has no scheme; leave out \"" + std::string(text.substr(0, scheme + 3)) + "\"");
  const bool hasPort = text.find(':') != std::string_view::npos && !text.ends_with(']');
  if (!hasPort)
    refuse(text, text.find('/') != std::string_view::npos ? "a socket file needs unix: before its path"
                                                          : "the port is missing");
}

}  // namespace

std::string resolveAddress(std::string_view text) {
  if (text.empty())
    refuse(text, "it is empty");
  if (text.starts_with(kSocketPrefix))
    return resolveSocketPath(text);
  checkForm(text);
  const std::size_t colon = text.rfind(':');
  checkHost(text, text.substr(0, colon));
  checkPort(text, text.substr(colon + 1));
  return std::string(text);
}

}  // namespace parallel::toolbox
