#include "tools/common/HttpInterface.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "tools/common/Json.h"
#include "tools/common/Suggestion.h"

namespace tools {

using http::field;
using http::status;
using http::verb;

HttpResponse responseOf(const char* type, std::string body) {
  HttpResponse response;
  response.set(field::content_type, type);
  response.set("Content-Security-Policy",
               "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'");
  response.set("X-Content-Type-Options", "nosniff");
  response.set("Referrer-Policy", "no-referrer");
  response.set(field::cache_control, "no-store");
  response.body() = std::move(body);
  return response;
}

HttpResponse responseOf(const nlohmann::json& json) {
  return responseOf("application/json", jsonText(json));
}

HttpInterface::HttpInterface(std::vector<HttpRoute> routes, const HttpAddress& address,
                             HttpRules rules)
    : routes_(std::move(routes)), address_(address), server_(*this, address.host, address.port) {
  address_.port = server_.port();
  access_.emplace(std::move(rules), address_.port);
}

std::vector<std::string> HttpInterface::routes() const {
  std::vector<std::string> names;
  for (const HttpRoute& route : routes_) {
    names.push_back(fmt::format("{} {}", std::string(to_string(route.method)), route.path));
  }
  return names;
}

std::size_t HttpInterface::admit(const HttpHead& head) {
  access_->check(head);
  const HttpRoute& route = routeOf(head);
  if (route.method != verb::get) access_->checkChange(head);
  return route.bodyLimit;
}

HttpAnswer HttpInterface::answer(const HttpRequest& request) try {
  return routeOf(request).answer(request);
} catch (const std::invalid_argument& error) {
  throw HttpRefusal(status::bad_request, error.what());
}

HttpResponse HttpInterface::refuse(const HttpRefusal& refusal) {
  HttpResponse response = responseOf({{"error", refusal.what()}});
  response.result(refusal.status);
  if (refusal.status == status::unauthorized) response.set(field::www_authenticate, "Bearer");
  if (!refusal.allow.empty()) response.set(field::allow, refusal.allow);
  return response;
}

const HttpRoute& HttpInterface::routeOf(const HttpHead& request) const {
  const std::string path = pathOf(request);
  const auto found = std::find_if(routes_.begin(), routes_.end(),
                                  [&](const HttpRoute& route) { return route.path == path; });
  if (found == routes_.end()) {
    std::vector<std::string> paths;
    for (const HttpRoute& route : routes_) paths.push_back(route.path);
    throw HttpRefusal(status::not_found,
                      fmt::format("there is no {}{}", path, didYouMean(path, paths)));
  }
  const verb method = request.method() == verb::head ? verb::get : request.method();
  if (method == found->method) return *found;
  const std::string allowed(to_string(found->method));
  throw HttpRefusal(
      status::method_not_allowed,
      fmt::format("{} takes {}, not {}", path, allowed, std::string(request.method_string())),
      found->method == verb::get ? "GET, HEAD" : allowed);
}

}  // namespace tools
