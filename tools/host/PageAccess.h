// Who may see the live page, and from where: addresses, tokens and what browsers tell about a
// request. The page shows what the module holds and changes parameters, so it must not be open to a
// network by accident, nor to a foreign web site that the same browser has open.
//
// Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace host {

struct PageSettings {
  std::string address = "127.0.0.1";  // an IP address without brackets, or "localhost"
  int port = 8080;                    // 0 takes any free one
  bool anyPortIfTaken = true;         // rather than failing
  std::string token;                  // what every request must show; empty: nothing
};

// Reads "ADDRESS:PORT", such as "127.0.0.1:8080", "[::1]:0" or "localhost:8080". Throws
// std::invalid_argument, with what would be right. What is asked for so is not to be exchanged for
// another port: `anyPortIfTaken` is false.
PageSettings parsePageAddress(std::string_view text);

// "127.0.0.1:8080", "[::1]:8080"
std::string addressText(const PageSettings& settings);

// What is wrong with the settings, with the remedy; empty if nothing is. An address that others can
// reach demands a token; a token has 8 to 128 letters, digits and "-._~", which pass unchanged
// through addresses and cookies.
std::string pageProblem(const PageSettings& settings);

// Compares in a time that does not tell how much of the token was right.
bool isToken(std::string_view given, std::string_view token);

// Whether a Host header names an IP address or localhost, with or without a port. Any other name is
// one that a foreign site may have given to this machine.
bool isDirectHost(std::string_view host);

// The value of one cookie in a Cookie header; empty if it is not there.
std::string_view cookieIn(std::string_view header, std::string_view name);

}  // namespace host
