// An HTTP interface: its routes, and the rules that hold for all of them. HttpAccess decides who
// may ask, before the body of a request is read. A refused request gets a fitting status and
// {"error": reason}.
//
// Threads: made and destroyed by one thread. Routes answer on the server's thread.
// Ownership: it owns its server.
#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/HttpAccess.h"
#include "tools/common/HttpAddress.h"
#include "tools/common/HttpServer.h"

namespace tools {

struct HttpRoute {
  http::verb method;
  std::string path;
  // May throw std::invalid_argument for a bad request, whose text then says what would be right.
  std::function<HttpAnswer(const HttpRequest&)> answer;
  std::size_t bodyLimit = 0;  // bytes
};

// A response that no page of another site may show, and that needs nothing from another site.
HttpResponse responseOf(const char* type, std::string body);
HttpResponse responseOf(const nlohmann::json& json);

class HttpInterface final : private HttpHandler {
 public:
  // Listens when this returns; clients that connect wait for `start`. Throws
  // boost::system::system_error if it can't listen there.
  HttpInterface(std::vector<HttpRoute> routes, const HttpAddress& address, HttpRules rules);

  // With the actual port.
  const HttpAddress& address() const { return address_; }
  const HttpAccess& access() const { return *access_; }

  // Each route as "GET /api/status", for a comparison with its description.
  std::vector<std::string> routes() const;

  // Begins to serve. Call it once.
  void start() { server_.start(); }

  // As HttpServer::wake does. Any thread.
  void wake() { server_.wake(); }

 private:
  std::size_t admit(const HttpHead& head) override;
  HttpAnswer answer(const HttpRequest& request) override;
  HttpResponse refuse(const HttpRefusal& refusal) override;
  const HttpRoute& routeOf(const HttpHead& request) const;

  const std::vector<HttpRoute> routes_;
  HttpAddress address_;
  std::optional<HttpAccess> access_;  // has the server's port, and is set before anything is served
  HttpServer server_;                 // its thread uses all of the above
};

}  // namespace tools
