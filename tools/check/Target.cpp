#include "tools/check/Target.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <string>

#include "tools/check/Text.h"

namespace check {
namespace {

using Fault = std::optional<TargetFault>;

constexpr std::string_view digits = "0123456789";

bool isAddress(int family, std::string_view text) {
  std::array<unsigned char, sizeof(in6_addr)> address{};
  return inet_pton(family, std::string(text).c_str(), address.data()) == 1;
}

bool isIpv4(std::string_view text) {
  return isAddress(AF_INET, text);
}

// A "%" and a zone may follow the address.
bool isIpv6(std::string_view text) {
  return isAddress(AF_INET6, text.substr(0, text.find('%')));
}

struct HostPort {
  std::string_view host;
  std::optional<std::string_view> port;
};

// Splits as gRPC does: without brackets, only a single ":" separates. Nothing if it can't be split.
std::optional<HostPort> split(std::string_view text) {
  if (text.starts_with('[')) {
    const std::size_t close = text.find(']');
    if (close == text.npos || text.substr(0, close).find(':') == text.npos) return std::nullopt;
    const std::string_view host = text.substr(1, close - 1);
    const std::string_view after = text.substr(close + 1);
    if (after.empty()) return HostPort{host, {}};
    if (!after.starts_with(':')) return std::nullopt;
    return HostPort{host, after.substr(1)};
  }
  const std::size_t colon = text.find(':');
  if (colon == text.npos || text.find(':', colon + 1) != text.npos) return HostPort{text, {}};
  return HostPort{text.substr(0, colon), text.substr(colon + 1)};
}

bool isPort(std::string_view text) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of(digits) != text.npos) return false;
  const int port = std::stoi(std::string(text));
  return port > 0 && port <= 65535;
}

Fault portFault(std::string_view port) {
  if (isPort(port)) return std::nullopt;
  return TargetFault{fmt::format("{} is not a port, so gRPC tries a different one", inQuotes(port)),
                     "write a number from 1 to 65535"};
}

// Digits and dots only. Four or more groups are no host name; fewer look like a cut address.
bool looksLikeIpv4(std::string_view text) {
  return text.find_first_not_of("0123456789.") == text.npos && text.find('.') != text.npos;
}

Fault ipv4Fault(std::string_view host) {
  if (!looksLikeIpv4(host) || isIpv4(host)) return std::nullopt;
  if (std::count(host.begin(), host.end(), '.') >= 3) {
    return TargetFault{
        fmt::format("{} is neither an IPv4 address nor a possible host name", inQuotes(host)),
        "write four numbers from 0 to 255, without leading zeros"};
  }
  return TargetFault{fmt::format("{} looks like an IPv4 address without its end", inQuotes(host)),
                     "write all four numbers"};
}

bool isHostName(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_' || c >= 0x80;
  });
}

Fault missingPort(std::string_view host) {
  const bool isLiteral = isIpv4(host) || isIpv6(host);
  const std::string written = isIpv6(host) ? fmt::format("[{}]", host) : std::string(host);
  return TargetFault{isLiteral
                         ? "it has no port, so gRPC tries port 0, on which no server can listen"
                         : "it has no port, so gRPC uses 443",
                     fmt::format("write {}:PORT", written)};
}

Fault hostPortFault(std::string_view text) {
  const auto parts = split(text);
  if (!parts || parts->host.empty()) {
    return TargetFault{"gRPC can't split it into host and port",
                       "write HOST:PORT, such as localhost:50005 or [::1]:50005"};
  }
  const auto& [host, port] = *parts;
  if (text.starts_with('[') && !isIpv6(host)) {
    return TargetFault{fmt::format("{} is not an IPv6 address", inQuotes(host)),
                       "write an address such as [::1]:50005, or a name without brackets"};
  }
  if (host.find(':') != host.npos && !isIpv6(host)) {
    return TargetFault{fmt::format("it has more than one \":\", so gRPC looks for a host called {}",
                                   inQuotes(host)),
                       "write HOST:PORT"};
  }
  if (!isIpv6(host) && !isHostName(host)) {
    return TargetFault{fmt::format("{} can't be a host name", inQuotes(host)),
                       "write HOST:PORT, such as localhost:50005"};
  }
  if (Fault fault = ipv4Fault(host)) return fault;
  return port ? portFault(*port) : missingPort(host);
}

// The path of the URI in the text after "SCHEME:", without its first "/". Nothing if there is an
// authority, which is the part from "//" to the next "/".
std::optional<std::string_view> withoutAuthority(std::string_view text) {
  if (text.starts_with("///")) return text.substr(3);
  if (text.starts_with("//")) return std::nullopt;
  return text.substr(text.starts_with('/') ? 1 : 0);
}

Fault authorityFault(std::string_view scheme) {
  return TargetFault{
      fmt::format("{}: accepts no host between \"//\" and \"/\", so gRPC can't connect", scheme),
      fmt::format("leave out the \"//\": {}:...", scheme)};
}

Fault addressListFault(std::string_view scheme, std::string_view text) {
  const bool six = scheme == "ipv6";
  const auto path = withoutAuthority(text);
  if (!path) return authorityFault(scheme);
  for (std::string_view rest = *path;;) {
    const std::size_t comma = std::min(rest.find(','), rest.size());
    const auto parts = split(rest.substr(0, comma));
    // gRPC skips empty addresses, unless all of them are empty.
    const bool isEmpty = comma == 0 && path->find_first_not_of(',') != path->npos;
    const bool good =
        isEmpty || (parts && parts->port && (six ? isIpv6(parts->host) : isIpv4(parts->host)) &&
                    isPort(*parts->port));
    if (!good) {
      return TargetFault{fmt::format("{} is not an {} address with a port, so gRPC can't connect",
                                     inQuotes(rest.substr(0, comma)), six ? "IPv6" : "IPv4"),
                         six ? "write ipv6:[::1]:50005"
                             : "write ipv4:127.0.0.1:50005, or a name without \"ipv4:\""};
    }
    if (comma == rest.size()) return std::nullopt;
    rest.remove_prefix(comma + 1);
  }
}

Fault pathFault(std::string_view scheme, std::string_view text) {
  constexpr std::size_t longest = 107;
  if (text.empty()) {
    return TargetFault{"there is no name after the scheme, so gRPC can't connect",
                       fmt::format("write {}:NAME", scheme)};
  }
  if (text.starts_with("//") && !text.starts_with("///")) return authorityFault(scheme);
  const std::size_t size = text.size() - (text.starts_with("///") ? 2 : 0);
  if (size <= longest) return std::nullopt;
  return TargetFault{fmt::format("its path of {} bytes is too long, so gRPC can't connect", size),
                     fmt::format("shorten it to {} bytes", longest)};
}

Fault dnsFault(std::string_view text) {
  const std::size_t authority = text.starts_with("//") ? 2 : 0;
  const std::size_t slash = text.find('/', authority);
  const bool hasPath = authority == 0 || slash != text.npos;
  const bool isCut = authority > 0 || slash == 0;
  const std::string_view path = hasPath ? text.substr(isCut ? slash + 1 : 0) : "";
  if (!path.empty()) return hostPortFault(path);
  return TargetFault{"there is no host after the scheme, so gRPC can't connect",
                     "write dns:///HOST:PORT"};
}

// What is wrong with the text as a whole, before it is split.
Fault textFault(std::string_view text) {
  if (text.starts_with('"') || text.starts_with('\'')) {
    const std::string_view bare = unquoted(text);
    return TargetFault{"the quotes become part of the target", "remove the quotes",
                       std::string(bare.size() < text.size() ? bare : "")};
  }
  if (text.find('#') != text.npos) {
    return TargetFault{"\"#\" does not begin a comment here, so it is part of the target",
                       "remove it, or begin the comment with \" ;\""};
  }
  if (text.find_first_of(" \t") != text.npos || hasUnseenCharacter(text)) {
    return TargetFault{"it contains white space or an invisible character",
                       "write HOST:PORT without it"};
  }
  if (!isUtf8(text)) return TargetFault{"it is not valid UTF-8", "save the file as UTF-8"};
  return std::nullopt;
}

std::string lowered(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

bool isScheme(std::string_view name) {
  constexpr std::array<std::string_view, 5> schemes = {"dns", "ipv4", "ipv6", "unix",
                                                       "unix-abstract"};
  return std::find(schemes.begin(), schemes.end(), name) != schemes.end();
}

// Whether gRPC knows the scheme, but asks another service for the address.
bool needsControlPlane(std::string_view name) {
  constexpr std::array<std::string_view, 3> schemes = {"xds", "google-c2p",
                                                       "google-c2p-experimental"};
  return std::find(schemes.begin(), schemes.end(), name) != schemes.end();
}

// The text with each %XX replaced by its byte. Unchanged if a "%" begins no such code.
std::string percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    int byte = 0;
    const std::string_view code = text.substr(i + 1, 2);
    const auto [end, error] = std::from_chars(code.data(), code.data() + code.size(), byte, 16);
    if (error != std::errc() || end != code.data() + 2) return std::string(text);
    decoded += static_cast<char>(byte);
    i += 2;
  }
  return decoded;
}

// The text before the first ":" is not a known scheme, so it can also be a host.
Fault unknownSchemeFault(std::string_view name, std::string_view text) {
  const std::string_view rest = text.substr(name.size() + 1);
  if (isScheme(lowered(name)) && !isPort(rest)) {
    return TargetFault{
        fmt::format("a scheme has to be in lower case, so gRPC does not know {}", inQuotes(name)),
        fmt::format("write {}:{}", lowered(name), rest), fmt::format("{}:{}", lowered(name), rest)};
  }
  if (!rest.starts_with("//")) return hostPortFault(text);
  const std::string_view address = rest.substr(std::min(rest.find_first_not_of('/'), rest.size()));
  const std::string_view host = address.substr(0, address.find('/'));
  const bool hasPort = host.find(':') != host.npos;
  return TargetFault{
      fmt::format("gRPC does not know the scheme {} and takes the whole target as a host name",
                  inQuotes(name)),
      fmt::format("write {} instead", hasPort ? std::string(host) : std::string(host) + ":PORT"),
      std::string(hasPort ? host : "")};
}

}  // namespace

std::optional<TargetFault> faultOf(std::string_view target) {
  if (Fault fault = textFault(target)) return fault;
  const std::size_t colon = target.find(':');
  if (colon == target.npos || target.starts_with('[')) return hostPortFault(target);
  const std::string_view scheme = target.substr(0, colon);
  if (needsControlPlane(scheme)) {
    return TargetFault{
        fmt::format("gRPC asks a control plane for the address behind {}:, and the module names "
                    "none",
                    scheme),
        "write HOST:PORT"};
  }
  if (!isScheme(scheme)) return unknownSchemeFault(scheme, target);
  if (target.find('?') != target.npos) {
    return TargetFault{"after a scheme, \"?\" begins a query, which is no part of the address",
                       "remove the \"?\" and what follows"};
  }
  const std::string rest = percentDecoded(target.substr(colon + 1));
  if (scheme == "dns") return dnsFault(rest);
  if (scheme.starts_with("ipv")) return addressListFault(scheme, rest);
  return pathFault(scheme, rest);
}

std::string complaintAboutTarget(std::string_view target) {
  const auto fault = faultOf(target);
  if (!fault) return {};
  return fmt::format("bad target {}: {}; {}", inQuotes(target), fault->text, fault->remedy);
}

}  // namespace check
