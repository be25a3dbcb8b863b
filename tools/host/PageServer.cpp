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
#include "tools/common/HttpInterface.h"
#include "tools/common/Numbers.h"
#include "tools/host/Json.h"
#include "tools/host/Metrics.h"
#include "tools/host/PageFeed.h"
#include "tools/host/ValueHistory.h"

namespace host {
namespace {

using tools::HttpAnswer;
using tools::HttpRefusal;
using tools::HttpRequest;
using tools::HttpResponse;
using tools::parameterOf;
using tools::responseOf;
using tools::http::field;
using tools::http::status;
using tools::http::verb;

constexpr std::string_view indexFile = "index.html";

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

class PageServer::Routes {
 public:
  Routes(RunningModule& module, const LogBook& log, PageSettings settings);

  const tools::HttpInterface& served() const { return *interface_; }

 private:
  std::vector<tools::HttpRoute> routes();
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
  std::optional<tools::HttpInterface> interface_;
  RunningModule::LookWatch looks_;
};

PageServer::Routes::Routes(RunningModule& module, const LogBook& log, PageSettings settings)
    : module_(module),
      log_(log),
      settings_(std::move(settings)),
      past_(std::make_shared<Past>(module.board())) {
  listen();
  interface_->start();
  looks_ = module.watchLooks([this] {
    takeLook();
    interface_->wake();
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

std::vector<tools::HttpRoute> PageServer::Routes::routes() {
  std::vector<tools::HttpRoute> routes{
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
    routes.push_back({verb::get, fmt::format("/{}", file.name), [file](auto&) {
                        return responseOf(typeOf(file.name), std::string(file.text));
                      }});
  }
  return routes;
}

void PageServer::Routes::listen() try {
  interface_.emplace(routes(), settings_.address, tools::HttpRules{.token = settings_.token});
} catch (const boost::system::system_error& error) {
  const bool isTaken = error.code() == boost::system::errc::address_in_use;
  if (!isTaken || !settings_.anyPortIfTaken || settings_.address.port == 0) {
    throw std::runtime_error(listenProblem(settings_, error.code()));
  }
  settings_.address.port = 0;
  listen();
}

// ---- Answers --------------------------------------------------------------------------------

HttpResponse PageServer::Routes::index(const HttpRequest& request) const {
  HttpResponse response = responseOf(typeOf(indexFile), std::string(page::index_html));
  // The page's own requests show the token, too.
  if (parameterOf(request, "token"))
    response.set(field::set_cookie, interface_->access().setCookie());
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

HttpResponse PageServer::Routes::history(const HttpRequest& request) const {
  const auto slots = parameterOf(request, "slots");
  const auto seconds = parameterOf(request, "seconds");
  const auto run = past();
  return responseOf(historyOf(run->board->labels(), run->history,
                              slots ? indicesIn(*slots) : run->firstNumbers(),
                              seconds ? windowIn(*seconds) : ValueHistory::span));
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
  const tools::HttpAddress& actual = routes_->served().address();
  url_ = fmt::format("http://{}/", textOf(actual));
  hasMoved_ = settings.address.port != 0 && settings.address.port != actual.port;
}

PageServer::~PageServer() = default;

std::vector<std::string> PageServer::routes() const {
  return routes_->served().routes();
}

}  // namespace host
