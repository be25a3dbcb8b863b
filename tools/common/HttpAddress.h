// Where an HTTP interface listens. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace tools {

struct HttpAddress {
  std::string host = "127.0.0.1";  // an IP address without brackets, or "localhost"
  int port = 0;                    // 0 takes any free one
};

// Reads "ADDRESS:PORT", such as "127.0.0.1:8080", "[::1]:0" or "localhost:8080". Throws
// std::invalid_argument, which says what would be right.
HttpAddress parseHttpAddress(std::string_view text);

// "127.0.0.1:8080", "[::1]:8080"
std::string textOf(const HttpAddress& address);

// Whether only programs on this machine can reach the address.
bool isLoopback(const HttpAddress& address);

// Whether a Host header names an IP address or localhost, with or without a port.
bool isDirectHost(std::string_view host);

}  // namespace tools
