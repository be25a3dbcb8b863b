// Where the live page is served, and the token that it asks for. The page shows what the module
// holds and changes parameters, so it must not be open to a network by accident.
//
// Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>
#include <system_error>

namespace host {

struct PageSettings {
  std::string address = "127.0.0.1";  // an IP address without brackets, or "localhost"
  int port = 8080;                    // 0 takes any free one
  bool anyPortIfTaken = true;         // rather than failing
  std::string token;                  // what every request must show; empty: nothing
};

// Reads "ADDRESS:PORT", such as "127.0.0.1:8080", "[::1]:0" or "localhost:8080". Throws
// std::invalid_argument, which says what would be right. Somebody who asks for a port wants that
// one: `anyPortIfTaken` is false.
PageSettings parsePageAddress(std::string_view text);

// "127.0.0.1:8080", "[::1]:8080"
std::string addressText(const PageSettings& settings);

// What is wrong with the settings, with the remedy; empty if nothing is. An address that others can
// reach needs a token; a token has 8 to 128 letters, digits and "-._~", which pass unchanged
// through URLs and cookies.
std::string pageProblem(const PageSettings& settings);

// Why the page can't listen there, with the remedy.
std::string listenProblem(const PageSettings& settings, const std::error_code& error);

// Whether a Host header names an IP address or localhost, with or without a port.
bool isDirectHost(std::string_view host);

}  // namespace host
