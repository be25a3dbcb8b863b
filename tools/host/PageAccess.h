// Who may use the live page: with a token, everyone who shows it; without one, everyone on this
// machine, except for foreign web sites that the same browser has open.
//
// Any thread.
#pragma once

#include <string>
#include <string_view>

#include "tools/host/HttpServer.h"
#include "tools/host/PageSettings.h"

namespace host {

class PageAccess {
 public:
  // Settings with the actual port.
  explicit PageAccess(PageSettings settings);

  // Throws HttpRefusal unless the request may ask for anything at all. If there is a token, the
  // request must show it: as "Authorization: Bearer TOKEN", as "?token=TOKEN", or as the cookie
  // below. Otherwise its Host header must be an IP address or localhost, since a foreign site can
  // point any other name at this machine. An Origin header must be the address that the request was
  // sent to: other sites could not read the answer, but they could use up the places of readers.
  void check(const HttpHead& request) const;

  // After `check`: throws HttpRefusal unless a change comes from the page itself. It has an Origin,
  // and its body is JSON, which a form of another site can't send.
  void checkChange(const HttpHead& request) const;

  // The Set-Cookie header with which the page's own requests show the token.
  std::string setCookie() const;

 private:
  void checkClient(const HttpHead& request) const;
  bool showsToken(const HttpHead& request) const;
  // Takes the same time no matter how much of the token is right.
  bool isToken(std::string_view given) const;

  const PageSettings settings_;
  const std::string cookieName_;
};

}  // namespace host
