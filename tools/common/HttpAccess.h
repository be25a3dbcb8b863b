// Who may use an HTTP interface: with a token, everyone who shows it; without one, everyone on this
// machine, except for foreign web sites that a browser has open here.
//
// Any thread.
#pragma once

#include <string>
#include <string_view>

#include "tools/common/HttpServer.h"

namespace tools {

struct HttpRules {
  std::string token;  // what every request must show; empty: nothing
  // Only the page that the interface itself serves may make changes. Otherwise programs may, too.
  bool changesNeedOrigin = true;
};

class HttpAccess {
 public:
  // `port` is the actual one.
  HttpAccess(HttpRules rules, int port);

  // Throws HttpRefusal unless the request may ask for anything at all. If there is a token, the
  // request must show it: as "Authorization: Bearer TOKEN", as "?token=TOKEN", or as the cookie
  // below. Otherwise its Host header must be an IP address or localhost, since a foreign site can
  // point any other name at this machine. An Origin header must be the address that the request was
  // sent to: other sites could not read the answer, but they could use up the places of readers.
  void check(const HttpHead& request) const;

  // After `check`: throws HttpRefusal unless the change is allowed. Its body is JSON, which a form
  // of another site can't send. If only the page itself makes changes, it has an Origin, too.
  void checkChange(const HttpHead& request) const;

  // The Set-Cookie header with which the page's own requests show the token.
  std::string setCookie() const;

 private:
  void checkClient(const HttpHead& request) const;
  bool showsToken(const HttpHead& request) const;
  // Takes the same time no matter how much of the token is right.
  bool isToken(std::string_view given) const;

  const HttpRules rules_;
  const std::string cookieName_;
};

}  // namespace tools
