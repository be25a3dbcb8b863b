#include "tools/host/PageSettings.h"

#include <fmt/format.h>

#include <algorithm>

namespace host {
namespace {

bool passesUnchanged(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~").find(c) != std::string_view::npos;
}

}  // namespace

PageSettings parsePageAddress(std::string_view text) {
  return {.address = tools::parseHttpAddress(text), .anyPortIfTaken = false, .token = {}};
}

std::string pageProblem(const PageSettings& settings) {
  const std::string& token = settings.token;
  if (token.empty() && !isLoopback(settings.address)) {
    return fmt::format(
        "{} can be reached by others: give the page a --token that they must know, or an address "
        "of this machine alone, such as 127.0.0.1:{}",
        textOf(settings.address), settings.address.port);
  }
  const bool isFit = token.size() >= 8 && token.size() <= 128 &&
                     std::all_of(token.begin(), token.end(), passesUnchanged);
  if (token.empty() || isFit) return {};
  return "a token has 8 to 128 letters, digits and \"-._~\"; \"openssl rand -hex 16\" makes one";
}

std::string listenProblem(const PageSettings& settings, const std::error_code& error) {
  const std::string where = textOf(settings.address);
  if (error == std::errc::address_in_use) {
    tools::HttpAddress anyPort = settings.address;
    anyPort.port = 0;
    return fmt::format(
        "the live page can't listen on {}: the port is taken. Give another one with --page, or "
        "--page {} for any free port",
        where, textOf(anyPort));
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

}  // namespace host
