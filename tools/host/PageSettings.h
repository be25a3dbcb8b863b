// Where the live page is served, and the token that it asks for. The page shows what the module
// holds and changes parameters, so it must not be open to a network by accident.
//
// Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include "tools/common/HttpAddress.h"

namespace host {

struct PageSettings {
  tools::HttpAddress address{.port = 8080};
  bool anyPortIfTaken = true;  // rather than failing
  std::string token;           // what every request must show; empty: nothing
};

// Settings with an address that a user wrote, as tools::parseHttpAddress reads it. Somebody who
// asks for a port wants that one: `anyPortIfTaken` is false.
PageSettings parsePageAddress(std::string_view text);

// What is wrong with the settings, with the remedy; empty if nothing is. An address that others can
// reach needs a token; a token has 8 to 128 letters, digits and "-._~", which pass unchanged
// through URLs and cookies.
std::string pageProblem(const PageSettings& settings);

// Why the page can't listen there, with the remedy.
std::string listenProblem(const PageSettings& settings, const std::error_code& error);

}  // namespace host
