#include "tools/common/HttpAccess.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <utility>

#include "tools/common/HttpAddress.h"

namespace tools {
namespace {

using http::field;
using http::status;

std::string ownOrigin(const HttpHead& request) {
  return "http://" + std::string(request[field::host]);
}

// The value of one cookie in a Cookie header; empty if it is absent.
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

// The token of "Bearer TOKEN"; empty for another scheme.
std::string_view bearerIn(const std::string& header) {
  constexpr std::string_view scheme = "Bearer ";
  if (strncasecmp(header.c_str(), scheme.data(), scheme.size()) != 0) return {};
  return std::string_view(header).substr(scheme.size());
}

}  // namespace

// Cookies know hosts, not ports: the pages of two tools on one machine must not share theirs.
HttpAccess::HttpAccess(HttpRules rules, int port)
    : rules_(std::move(rules)), cookieName_(fmt::format("gateway_page_{}", port)) {}

void HttpAccess::check(const HttpHead& request) const {
  checkClient(request);
  const std::string origin(request[field::origin]);
  if (origin.empty() || origin == ownOrigin(request)) return;
  throw HttpRefusal(
      status::forbidden,
      fmt::format("other sites get no answer here: a request has the header \"Origin: {}\" or none",
                  ownOrigin(request)));
}

void HttpAccess::checkClient(const HttpHead& request) const {
  if (rules_.token.empty()) {
    const std::string host(request[field::host]);
    if (isDirectHost(host)) return;
    throw HttpRefusal(status::forbidden,
                      fmt::format("this was requested as \"{}\": without a token, there is an "
                                  "answer only under an IP address or as localhost",
                                  host));
  }
  if (showsToken(request)) return;
  throw HttpRefusal(status::unauthorized,
                    "show the token of the page: open it as /?token=TOKEN, or send the header "
                    "\"Authorization: Bearer TOKEN\"");
}

bool HttpAccess::showsToken(const HttpHead& request) const {
  const std::string header(request[field::authorization]);
  const std::string cookies(request[field::cookie]);
  return isToken(bearerIn(header)) || isToken(parameterOf(request, "token").value_or("")) ||
         isToken(cookieIn(cookies, cookieName_));
}

bool HttpAccess::isToken(std::string_view given) const {
  const std::string& token = rules_.token;
  unsigned difference = given.size() == token.size() ? 0 : 1;
  for (std::size_t i = 0; i < given.size(); ++i) {
    difference |= static_cast<unsigned char>(given[i] ^ token[i % token.size()]);
  }
  return difference == 0;
}

void HttpAccess::checkChange(const HttpHead& request) const {
  if (rules_.changesNeedOrigin && request[field::origin].empty()) {
    throw HttpRefusal(status::forbidden,
                      fmt::format("only the page itself makes changes: a request needs the header "
                                  "\"Origin: {}\"",
                                  ownOrigin(request)));
  }
  const std::string type(request[field::content_type]);
  if (type.starts_with("multipart/form-data")) {
    throw HttpRefusal(status::unsupported_media_type, "only application/json is accepted");
  }
  if (type.substr(0, type.find(';')) != "application/json") {
    throw HttpRefusal(status::unsupported_media_type,
                      "a request needs the header \"Content-Type: application/json\"");
  }
}

std::string HttpAccess::setCookie() const {
  return fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict", cookieName_, rules_.token);
}

}  // namespace tools
