#include "tools/host/PageServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/system/system_error.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "page.h"
#include "tools/common/Json.h"
#include "tools/common/Numbers.h"
#include "tools/common/Suggestion.h"
#include "tools/host/HttpServer.h"
#include "tools/host/Json.h"
#include "tools/host/Metrics.h"
#include "tools/host/PageAccess.h"
#include "tools/host/PageFeed.h"
#include "tools/host/ValueHistory.h"

namespace host {
namespace {

using http::field;
using http::status;
using http::verb;

constexpr std::string_view indexFile = "index.html";

// No page of another site may show this one, and this one needs nothing from another site.
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
  return responseOf("application/json", tools::jsonText(json));
}

const char* typeOf(std::string_view file) {
  if (file.ends_with(".html")) return "text/html; charset=utf-8";
  if (file.ends_with(".css")) return "text/css; charset=utf-8";
  if (file.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (file.ends_with(".svg")) return "image/svg+xml";
  throw std::logic_error(fmt::format("the type of {} is not known", file));
}

constexpr std::size_t mostHistories = 100;

// Reads indices that are separated by commas.
std::vector<std::size_t> indicesIn(std::string_view text) {
  std::vector<std::size_t> indices;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const auto index = tools::numberIn<std::size_t>(text.substr(begin, end - begin));
    if (!index || indices.size() == mostHistories) {
      throw std::invalid_argument(fmt::format(
          "slots takes 1 to {} indices of slots, such as 0,3, not \"{}\"", mostHistories, text));
    }
    indices.push_back(*index);
    begin = end + 1;
  }
  return indices;
}

Clock::duration windowIn(std::string_view text) {
  constexpr std::chrono::seconds most = ValueHistory::span;
  const auto seconds = tools::numberIn<int>(text);
  if (!seconds || *seconds < 1 || *seconds > most.count()) {
    throw std::invalid_argument(
        fmt::format("seconds takes a whole number from 1 to {}, not \"{}\"", most.count(), text));
  }
  return std::chrono::seconds(*seconds);
}

}  // namespace

// ---- Routes ---------------------------------------------------------------------------------

class PageServer::Routes final : public HttpHandler {
 public:
  Routes(RunningModule& module, const LogBook& log, PageSettings settings);

  // With the actual port.
  const PageSettings& settings() const { return settings_; }

  std::vector<std::string> names() const;

 private:
  struct Route {
    verb method;
    std::string path;
    std::function<HttpAnswer(const HttpRequest&)> answer;
    std::size_t bodyLimit = 0;  // bytes
  };

  std::size_t admit(const HttpHead& head) override;
  HttpAnswer answer(const HttpRequest& request) override;
  HttpResponse refuse(const HttpRefusal& refusal) override;

  void addRoutes();
  const Route& routeOf(const HttpHead& request) const;
  void listen();

  // The past of one run of the module; a reload begins another.
  struct Past {
    explicit Past(std::shared_ptr<const SlotBoard> of)
        : board(std::move(of)), history(board->labels(), Clock::now()) {}

    const std::shared_ptr<const SlotBoard> board;
    ValueHistory history;

    std::vector<std::size_t> firstNumbers() const;
  };

  std::shared_ptr<Past> past() const;
  void takeLook();

  HttpResponse index(const HttpRequest& request) const;
  HttpResponse history(const HttpRequest& request) const;
  HttpAnswer events() const;
  HttpResponse set(const HttpRequest& request);
  HttpResponse ready() const;

  RunningModule& module_;
  const LogBook& log_;
  PageSettings settings_;
  mutable std::mutex mutex_;  // guards the pointer, not what it points to
  std::shared_ptr<Past> past_;
  std::vector<Route> routes_;
  std::optional<PageAccess> access_;
  std::optional<HttpServer> server_;
  RunningModule::LookWatch looks_;
};

PageServer::Routes::Routes(RunningModule& module, const LogBook& log, PageSettings settings)
    : module_(module),
      log_(log),
      settings_(std::move(settings)),
      past_(std::make_shared<Past>(module.board())) {
  addRoutes();
  listen();
  access_.emplace(settings_);
  server_->start();
  looks_ = module.watchLooks([this] {
    takeLook();
    server_->wakeStreams();
  });
}

std::shared_ptr<PageServer::Routes::Past> PageServer::Routes::past() const {
  const std::lock_guard lock(mutex_);
  return past_;
}

void PageServer::Routes::takeLook() {
  const auto board = module_.board();
  auto current = past();
  if (current->board != board) {
    current = std::make_shared<Past>(board);
    const std::lock_guard lock(mutex_);
    past_ = current;
  }
  current->history.take(board->changesSince(current->history.look()));
}

void PageServer::Routes::addRoutes() {
  routes_ = {
      {verb::get, "/", [this](auto& request) { return index(request); }},
      {verb::get, "/api/status", [this](auto&) { return responseOf(statusOf(module_, log_)); }},
      {verb::get, "/api/slots", [this](auto&) { return responseOf(slotsOf(module_)); }},
      {verb::get, "/api/history", [this](auto& request) { return history(request); }},
      {verb::get, "/api/events", [this](auto&) { return events(); }},
      {verb::post, "/api/set", [this](auto& request) { return set(request); }, 65536},
      {verb::get, "/metrics",
       [this](auto&) { return responseOf(metricsType, metricsOf(module_, log_)); }},
      {verb::get, "/ready", [this](auto&) { return ready(); }},
  };
  for (const page::EmbeddedFile& file : page::files) {
    if (file.name == indexFile) continue;
    routes_.push_back({verb::get, fmt::format("/{}", file.name), [file](auto&) {
                         return responseOf(typeOf(file.name), std::string(file.text));
                       }});
  }
}

std::vector<std::string> PageServer::Routes::names() const {
  std::vector<std::string> names;
  for (const Route& route : routes_) {
    names.push_back(fmt::format("{} {}", std::string(to_string(route.method)), route.path));
  }
  return names;
}

void PageServer::Routes::listen() try {
  server_.emplace(*this, settings_.address, settings_.port);
  settings_.port = server_->port();
} catch (const boost::system::system_error& error) {
  const bool isTaken = error.code() == boost::system::errc::address_in_use;
  if (!isTaken || !settings_.anyPortIfTaken || settings_.port == 0) {
    throw std::runtime_error(listenProblem(settings_, error.code()));
  }
  settings_.port = 0;
  listen();
}

std::size_t PageServer::Routes::admit(const HttpHead& head) {
  access_->check(head);
  const Route& route = routeOf(head);
  if (route.method != verb::get) access_->checkChange(head);
  return route.bodyLimit;
}

HttpAnswer PageServer::Routes::answer(const HttpRequest& request) {
  return routeOf(request).answer(request);
}

HttpResponse PageServer::Routes::refuse(const HttpRefusal& refusal) {
  HttpResponse response = responseOf({{"error", refusal.what()}});
  response.result(refusal.status);
  if (refusal.status == status::unauthorized) response.set(field::www_authenticate, "Bearer");
  if (!refusal.allow.empty()) response.set(field::allow, refusal.allow);
  return response;
}

const PageServer::Routes::Route& PageServer::Routes::routeOf(const HttpHead& request) const {
  const std::string path = pathOf(request);
  const auto found = std::find_if(routes_.begin(), routes_.end(),
                                  [&](const Route& route) { return route.path == path; });
  if (found == routes_.end()) {
    std::vector<std::string> paths;
    for (const Route& route : routes_) paths.push_back(route.path);
    throw HttpRefusal(status::not_found,
                      fmt::format("there is no {}{}", path, tools::didYouMean(path, paths)));
  }
  const verb method = request.method() == verb::head ? verb::get : request.method();
  if (method == found->method) return *found;
  const std::string allowed(to_string(found->method));
  throw HttpRefusal(
      status::method_not_allowed,
      fmt::format("{} takes {}, not {}", path, allowed, std::string(request.method_string())),
      found->method == verb::get ? "GET, HEAD" : allowed);
}

// ---- Answers --------------------------------------------------------------------------------

HttpResponse PageServer::Routes::index(const HttpRequest& request) const {
  HttpResponse response = responseOf(typeOf(indexFile), std::string(page::index_html));
  // The page's own requests show the token, too.
  if (parameterOf(request, "token")) response.set(field::set_cookie, access_->setCookie());
  return response;
}

std::vector<std::size_t> PageServer::Routes::Past::firstNumbers() const {
  std::vector<std::size_t> indices;
  const std::size_t count = board->labels().size();
  for (std::size_t i = 0; i < count && indices.size() < mostHistories; ++i) {
    if (history.isKept(i)) indices.push_back(i);
  }
  return indices;
}

HttpResponse PageServer::Routes::history(const HttpRequest& request) const try {
  const auto slots = parameterOf(request, "slots");
  const auto seconds = parameterOf(request, "seconds");
  const auto run = past();
  return responseOf(historyOf(run->board->labels(), run->history,
                              slots ? indicesIn(*slots) : run->firstNumbers(),
                              seconds ? windowIn(*seconds) : ValueHistory::span));
} catch (const std::invalid_argument& error) {
  throw HttpRefusal(status::bad_request, error.what());
}

HttpAnswer PageServer::Routes::events() const {
  HttpResponse response = responseOf("text/event-stream", "");
  // Asks proxies to pass each event on at once.
  response.set("X-Accel-Buffering", "no");
  return {std::move(response), std::make_unique<PageFeed>(module_, log_)};
}

HttpResponse PageServer::Routes::set(const HttpRequest& request) try {
  const Notification notification = module_.set(changesIn(request.body()));
  return responseOf({{"notification", notification.number}});
} catch (const NotRunning& error) {
  throw HttpRefusal(status::service_unavailable, error.what());
} catch (const std::invalid_argument& error) {
  throw HttpRefusal(status::bad_request, error.what());
}

HttpResponse PageServer::Routes::ready() const {
  const nlohmann::json readiness = readinessOf(module_);
  HttpResponse response = responseOf(readiness);
  if (!readiness["ready"]) response.result(status::service_unavailable);
  return response;
}

// ---- The page -------------------------------------------------------------------------------

PageServer::PageServer(RunningModule& module, const LogBook& log, const PageSettings& settings)
    : routes_(std::make_unique<Routes>(module, log, settings)) {
  const PageSettings& actual = routes_->settings();
  url_ = fmt::format("http://{}/", addressText(actual));
  hasMoved_ = settings.port != 0 && settings.port != actual.port;
}

PageServer::~PageServer() = default;

std::vector<std::string> PageServer::routes() const {
  return routes_->names();
}

}  // namespace host
