#include "tools/common/HttpAddress.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>

#include <charconv>
#include <optional>
#include <stdexcept>

namespace tools {
namespace {

bool isIpv4(const std::string& address) {
  in_addr parsed{};
  return inet_pton(AF_INET, address.c_str(), &parsed) == 1;
}

bool isIpv6(const std::string& address) {
  in6_addr parsed{};
  return inet_pton(AF_INET6, address.c_str(), &parsed) == 1;
}

std::optional<int> portOf(std::string_view text) {
  int port = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || stop != end || port < 0 || port > 65535) return std::nullopt;
  return port;
}

// A host and its port, as in a URL: an IPv6 address stands in brackets.
struct HostAndPort {
  std::string host;
  std::optional<std::string_view> port;
  bool inBrackets = false;
};

HostAndPort split(std::string_view text) {
  if (text.starts_with('[')) {
    const std::size_t end = text.find(']');
    if (end == text.npos) return {};
    HostAndPort parts{std::string(text.substr(1, end - 1)), std::nullopt, true};
    const std::string_view rest = text.substr(end + 1);
    if (rest.empty()) return parts;
    if (!rest.starts_with(':')) return {};
    parts.port = rest.substr(1);
    return parts;
  }
  const std::size_t colon = text.find(':');
  if (colon == text.npos) return {std::string(text), std::nullopt};
  return {std::string(text.substr(0, colon)), text.substr(colon + 1)};
}

bool isAddress(const HostAndPort& parts) {
  if (parts.inBrackets) return isIpv6(parts.host);
  return parts.host == "localhost" || isIpv4(parts.host);
}

}  // namespace

HttpAddress parseHttpAddress(std::string_view text) {
  const HostAndPort parts = split(text);
  const auto port = parts.port ? portOf(*parts.port) : std::nullopt;
  if (!isAddress(parts) || !port) {
    throw std::invalid_argument(
        fmt::format("\"{}\" is not ADDRESS:PORT with an IP address or localhost, such as "
                    "127.0.0.1:8080 or [::1]:0; port 0 takes any free port",
                    text));
  }
  return {parts.host, *port};
}

std::string textOf(const HttpAddress& address) {
  const bool isSix = address.host.find(':') != std::string::npos;
  return isSix ? fmt::format("[{}]:{}", address.host, address.port)
               : fmt::format("{}:{}", address.host, address.port);
}

bool isLoopback(const HttpAddress& address) {
  if (address.host == "localhost") return true;
  in6_addr six{};
  if (inet_pton(AF_INET6, address.host.c_str(), &six) == 1) return IN6_IS_ADDR_LOOPBACK(&six);
  return isIpv4(address.host) && address.host.starts_with("127.");
}

bool isDirectHost(std::string_view host) {
  const HostAndPort parts = split(host);
  return isAddress(parts) && (!parts.port || portOf(*parts.port));
}

}  // namespace tools
