#include "tools/host/PageAccess.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <stdexcept>

namespace host {
namespace {

bool isIpv4(const std::string& address) {
  in_addr parsed{};
  return inet_pton(AF_INET, address.c_str(), &parsed) == 1;
}

bool isIpv6(const std::string& address) {
  in6_addr parsed{};
  return inet_pton(AF_INET6, address.c_str(), &parsed) == 1;
}

bool isLoopback(const std::string& address) {
  if (address == "localhost") return true;
  in6_addr six{};
  if (inet_pton(AF_INET6, address.c_str(), &six) == 1) return IN6_IS_ADDR_LOOPBACK(&six);
  return isIpv4(address) && address.starts_with("127.");
}

std::optional<int> portOf(std::string_view text) {
  int port = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || stop != end || port < 0 || port > 65535) return std::nullopt;
  return port;
}

// A host and its port as addresses write them; an IPv6 address stands in brackets.
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

bool passesUnchanged(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~").find(c) != std::string_view::npos;
}

}  // namespace

PageSettings parsePageAddress(std::string_view text) {
  const HostAndPort parts = split(text);
  const auto port = parts.port ? portOf(*parts.port) : std::nullopt;
  if (!isAddress(parts) || !port) {
    throw std::invalid_argument(
        fmt::format("\"{}\" is not ADDRESS:PORT with an IP address or localhost, such as "
                    "127.0.0.1:8080 or [::1]:0; port 0 takes any free port",
                    text));
  }
  return {.address = parts.host, .port = *port, .anyPortIfTaken = false, .token = {}};
}

std::string addressText(const PageSettings& settings) {
  const bool isSix = settings.address.find(':') != std::string::npos;
  return isSix ? fmt::format("[{}]:{}", settings.address, settings.port)
               : fmt::format("{}:{}", settings.address, settings.port);
}

std::string pageProblem(const PageSettings& settings) {
  const std::string& token = settings.token;
  if (token.empty() && !isLoopback(settings.address)) {
    return fmt::format(
        "{} can be reached by others: give the page a --token that they must know, or an address "
        "of this machine alone, such as 127.0.0.1:{}",
        addressText(settings), settings.port);
  }
  const bool isFit = token.size() >= 8 && token.size() <= 128 &&
                     std::all_of(token.begin(), token.end(), passesUnchanged);
  if (token.empty() || isFit) return {};
  return "a token has 8 to 128 letters, digits and \"-._~\"; \"openssl rand -hex 16\" makes one";
}

bool isToken(std::string_view given, std::string_view token) {
  unsigned difference = given.size() == token.size() ? 0 : 1;
  for (std::size_t i = 0; i < given.size() && !token.empty(); ++i) {
    difference |= static_cast<unsigned char>(given[i] ^ token[i % token.size()]);
  }
  return difference == 0;
}

bool isDirectHost(std::string_view host) {
  const HostAndPort parts = split(host);
  return isAddress(parts) && (!parts.port || portOf(*parts.port));
}

std::string_view cookieIn(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    std::string_view pair = header.substr(0, header.find(';'));
    header.remove_prefix(std::min(pair.size() + 1, header.size()));
    pair.remove_prefix(std::min(pair.find_first_not_of(' '), pair.size()));
    if (pair.starts_with(name) && pair.substr(name.size()).starts_with('=')) {
      return pair.substr(name.size() + 1);
    }
  }
  return {};
}

}  // namespace host
