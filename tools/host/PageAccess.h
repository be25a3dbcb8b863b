// Who may use the live page: somebody who shows the token, if there is one, and otherwise somebody
// on this machine, but no foreign web site that the same browser has open.
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

  // Throws HttpRefusal unless the request may ask for anything at all. With a token, it has to show
  // it: as "Authorization: Bearer TOKEN", as "?token=TOKEN", or as the cookie below. Without one,
  // its Host header must be an address or localhost: any other name may be one that a foreign site
  // has given to this machine.
  void check(const HttpRequest& request) const;

  // Throws HttpRefusal unless a change comes from the page itself: its Origin is the address that
  // it asks, and its body is JSON, which a form of another site can't send.
  void checkChange(const HttpRequest& request) const;

  // The Set-Cookie header that spares the page's own requests the token.
  std::string setCookie() const;

 private:
  bool showsToken(const HttpRequest& request) const;
  // Takes the same time however much of the token is right.
  bool isToken(std::string_view given) const;

  const PageSettings settings_;
  const std::string cookieName_;
};

}  // namespace host
