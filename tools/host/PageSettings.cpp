#include "tools/host/PageSettings.h"

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

std::string listenProblem(const PageSettings& settings, const std::error_code& error) {
  const std::string where = addressText(settings);
  if (error == std::errc::address_in_use) {
    PageSettings anyPort = settings;
    anyPort.port = 0;
    return fmt::format(
        "the live page can't listen on {}: the port is taken. Give another one with --page, or "
        "--page {} for any free port",
        where, addressText(anyPort));
  }
  if (error == std::errc::permission_denied) {
    return fmt::format(
        "the live page can't listen on {}: ports below 1024 are for root. Give a "
        "higher one with --page",
        where);
  }
  return fmt::format(
      "the live page can't listen on {}: {}. Give an address of this machine with --page, such as "
      "127.0.0.1:8080, or --no-page",
      where, error.message());
}

bool isDirectHost(std::string_view host) {
  const HostAndPort parts = split(host);
  return isAddress(parts) && (!parts.port || portOf(*parts.port));
}

}  // namespace host
