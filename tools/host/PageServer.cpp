#include "tools/host/PageServer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <stop_token>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "page.h"
#include "tools/common/Suggestion.h"
#include "tools/host/Json.h"
#include "tools/host/Metrics.h"
#include "tools/host/PageFeed.h"

namespace host {
namespace {

using Json = nlohmann::json;
using httplib::Request;
using httplib::Response;
using std::chrono::milliseconds;

constexpr milliseconds requestLimit{2000};  // to have a request whole
constexpr milliseconds writeLimit{5000};    // without a byte being taken
constexpr milliseconds heartbeat{2000};
constexpr std::size_t bodyLimit = 65536;  // bytes
constexpr char jsonType[] = "application/json";

// A request that is not carried out.
struct Refusal : std::runtime_error {
  Refusal(int code, const std::string& reason) : std::runtime_error(reason), status(code) {}
  int status;
};

// ---- Connections ----------------------------------------------------------------------------

// A descriptor that becomes readable for good when it is rung.
class Bell {
 public:
  Bell() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Bell() { close(descriptor_); }
  Bell(const Bell&) = delete;
  Bell& operator=(const Bell&) = delete;

  void ring() { eventfd_write(descriptor_, 1); }
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

// A thread for each connection that may be open. Those beyond are turned away by the thread that
// takes them in: they would wait where nothing bounds them, and hold up those that come later.
class Door : public httplib::ThreadPool {
 public:
  Door() : ThreadPool(PageServer::maximalConnections) {}

  void enqueue(std::function<void()> serve) override {
    if (open_ == PageServer::maximalConnections) {
      isFull_ = true;
      serve();
      isFull_ = false;
      return;
    }
    ++open_;
    ThreadPool::enqueue([this, serve = std::move(serve)] {
      serve();
      --open_;
    });
  }

  // Whether this thread is to turn the connection away.
  static bool isFull() { return isFull_; }

 private:
  inline static thread_local bool isFull_ = false;
  std::atomic<int> open_ = 0;
};

// Says no more than that there is no room; nobody is waited for.
bool turnAway(socket_t socket) {
  constexpr std::string_view answer =
      "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 2\r\nConnection: close\r\n"
      "Content-Type: application/json\r\nContent-Length: 37\r\n\r\n"
      "{\"error\":\"too many open connections\"}";
  send(socket, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  shutdown(socket, SHUT_WR);
  close(socket);
  return false;
}

// One connection. Unlike the library's own it ends at the bell, and bounds the time of a request as
// a whole, so that nobody can hold a thread by a byte now and then.
class Connection : public httplib::Stream {
 public:
  Connection(int socket, const Bell& bell)
      : socket_(socket), bell_(bell), readEnd_(Clock::now() + requestLimit) {
    constexpr int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    fcntl(socket_, F_SETFL, fcntl(socket_, F_GETFL) | O_NONBLOCK);
  }
  ~Connection() override { close(socket_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool is_readable() const override { return begin_ < end_ || waitFor(POLLIN, readEnd_); }
  // Asked before each part of an answer: false when the other side has gone.
  bool is_writable() const override {
    char byte = 0;
    const ssize_t got = recv(socket_, &byte, 1, MSG_PEEK);
    const bool isThere = got > 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
    return isThere && waitFor(POLLOUT, Clock::now() + writeLimit);
  }

  ssize_t read(char* to, size_t size) override {
    if (begin_ == end_ && !fill()) return end_ < 0 ? -1 : 0;
    const auto count = std::min(size, static_cast<std::size_t>(end_ - begin_));
    std::memcpy(to, buffer_.data() + begin_, count);
    begin_ += static_cast<ssize_t>(count);
    return static_cast<ssize_t>(count);
  }

  ssize_t write(const char* from, size_t size) override {
    for (;;) {
      const ssize_t sent = send(socket_, from, size, MSG_NOSIGNAL);
      if (sent >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) return sent;
      if (!waitFor(POLLOUT, Clock::now() + writeLimit)) return -1;
    }
  }

  // Lets the answer arrive: a connection that is closed while bytes of the request are still to be
  // read takes it back.
  void finish() {
    shutdown(socket_, SHUT_WR);
    for (int i = 0; i < 256 && begin_ == end_ && fill(); ++i) begin_ = end_;
  }

  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return socket_; }

 private:
  bool fill() {
    begin_ = 0;
    end_ = -1;
    if (waitFor(POLLIN, readEnd_)) end_ = recv(socket_, buffer_.data(), buffer_.size(), 0);
    return end_ > 0 || ((begin_ = end_), false);
  }

  bool waitFor(short events, Clock::time_point until) const {
    std::array<pollfd, 2> waited{{{socket_, events, 0}, {bell_.descriptor(), POLLIN, 0}}};
    for (;;) {
      const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
      const int ready = poll(waited.data(), waited.size(), std::max(0, static_cast<int>(left)));
      if (ready < 0 && errno == EINTR) continue;
      return ready > 0 && waited[1].revents == 0;
    }
  }

  const int socket_;
  const Bell& bell_;
  const Clock::time_point readEnd_;
  std::array<char, 4096> buffer_{};
  ssize_t begin_ = 0;
  ssize_t end_ = 0;
};

}  // namespace

// ---- Serving --------------------------------------------------------------------------------

class PageServer::Serving : private httplib::Server {
 public:
  Serving(RunningModule& module, const LogBook& log, PageSettings settings);
  ~Serving() override;

  const PageSettings& settings() const { return settings_; }

 private:
  using Action = std::function<void(const Request&, const std::string& body, Response&)>;
  struct Route {
    std::string method;
    std::string path;
    Action action;
  };

  void addRoutes();
  void addFile(const std::string& path, const char* type, std::string_view text);
  void setUp();
  void bind();
  bool bindTo(int port);
  bool process_and_close_socket(socket_t socket) override;

  void answer(const Request& request, const httplib::ContentReader* body, Response& response);
  void checkAccess(const Request& request) const;
  bool showsToken(const Request& request) const;
  void checkOrigin(const Request& request) const;
  const Route& routeOf(const Request& request) const;
  std::string cookieName() const;

  void showPage(const Request& request, Response& response);
  void set(const std::string& body, Response& response);
  void stream(Response& response);

  RunningModule& module_;
  const LogBook& log_;
  PageSettings settings_;
  std::vector<Route> routes_;
  std::atomic<int> streams_ = 0;
  Bell bell_;
  std::stop_source stopping_;
  std::thread listener_;
};

namespace {

void reply(Response& response, int status, const Json& json) {
  response.status = status;
  response.set_content(textOf(json), jsonType);
}

// All of a body. It is read as far as it may go before anything else is looked at: whoever is
// refused has to be able to read the reason.
std::string bodyOf(const Request& request, const httplib::ContentReader& reader) {
  if (request.is_multipart_form_data()) throw Refusal(415, "only application/json is taken");
  // Without a length there is none; the library would wait for the end of the connection.
  if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding")) return {};
  std::string body;
  bool isTooLong = false;
  const bool isWhole = reader([&](const char* data, std::size_t size) {
    isTooLong = body.size() + size > bodyLimit;
    if (!isTooLong) body.append(data, size);
    return !isTooLong;
  });
  if (isTooLong) throw Refusal(413, fmt::format("a body has at most {} bytes", bodyLimit));
  if (!isWhole) throw Refusal(400, "the body is not whole");
  return body;
}

Refusal wrongShape() {
  return {400, R"(the body has to be {"changes":[{"name":"out_gain","value":-6.5}]})"};
}

std::vector<Change> changesOf(const std::string& body) {
  const Json json = Json::parse(body, nullptr, false);
  if (json.is_discarded()) throw Refusal(400, "the body is not JSON");
  if (!json.is_object() || !json.contains("changes") || !json["changes"].is_array()) {
    throw wrongShape();
  }
  std::vector<Change> changes;
  for (const Json& item : json["changes"]) {
    const bool fits = item.is_object() && item.contains("name") && item.contains("value");
    if (!fits || !item["name"].is_string()) throw wrongShape();
    const Json& value = item["value"];
    if (!value.is_string() && !value.is_number()) throw wrongShape();
    changes.push_back({item["name"], value.is_string() ? value.get<std::string>() : value.dump()});
  }
  return changes;
}

std::string eventOf(std::string_view name, const Json& data) {
  return fmt::format("event: {}\ndata: {}\n\n", name, textOf(data));
}

// What the system said, and what to do about it.
std::string listenProblem(const PageSettings& settings, int error) {
  const std::string where = addressText(settings);
  PageSettings anyPort = settings;
  anyPort.port = 0;
  if (error == EADDRINUSE) {
    return fmt::format(
        "the live page can't listen on {}: the port is taken. Give another one with --page, or "
        "--page {} for any free port",
        where, addressText(anyPort));
  }
  if (error == EACCES) {
    return fmt::format(
        "the live page can't listen on {}: ports below 1024 are for root. Give a "
        "higher one with --page",
        where);
  }
  return fmt::format(
      "the live page can't listen on {}: {}. Give an address of this machine with --page, such as "
      "127.0.0.1:8080, or --no-page",
      where, std::generic_category().message(error));
}

}  // namespace

PageServer::Serving::Serving(RunningModule& module, const LogBook& log, PageSettings settings)
    : module_(module), log_(log), settings_(std::move(settings)) {
  addRoutes();
  setUp();
  bind();
  listener_ = std::thread([this] { listen_after_bind(); });
  // From here on `stop` is heard.
  while (!is_running()) std::this_thread::yield();
}

PageServer::Serving::~Serving() {
  stopping_.request_stop();
  bell_.ring();
  stop();
  listener_.join();
}

void PageServer::Serving::addRoutes() {
  using namespace std::placeholders;
  routes_ = {
      {"GET", "/", [this](auto& request, auto&, auto& response) { showPage(request, response); }},
      {"GET", "/api/status",
       [this](auto&, auto&, auto& response) { reply(response, 200, statusOf(module_, log_)); }},
      {"GET", "/api/slots",
       [this](auto&, auto&, auto& response) { reply(response, 200, slotsOf(module_)); }},
      {"GET", "/api/events", [this](auto&, auto&, auto& response) { stream(response); }},
      {"POST", "/api/set", [this](auto&, auto& body, auto& response) { set(body, response); }},
      {"GET", "/metrics",
       [this](auto&, auto&, auto& response) {
         response.set_content(metricsOf(module_, log_), metricsType);
       }},
  };
  addFile("/page.css", "text/css; charset=utf-8", page::page_css);
  addFile("/browser.js", "text/javascript; charset=utf-8", page::browser_js);
  addFile("/filter.js", "text/javascript; charset=utf-8", page::filter_js);
  addFile("/format.js", "text/javascript; charset=utf-8", page::format_js);
  addFile("/history.js", "text/javascript; charset=utf-8", page::history_js);
  addFile("/link.js", "text/javascript; charset=utf-8", page::link_js);
  addFile("/log.js", "text/javascript; charset=utf-8", page::log_js);
  addFile("/main.js", "text/javascript; charset=utf-8", page::main_js);
  addFile("/parameters.js", "text/javascript; charset=utf-8", page::parameters_js);
  addFile("/ranges.js", "text/javascript; charset=utf-8", page::ranges_js);
  addFile("/row.js", "text/javascript; charset=utf-8", page::row_js);
  addFile("/slot.js", "text/javascript; charset=utf-8", page::slot_js);
  addFile("/status.js", "text/javascript; charset=utf-8", page::status_js);
  addFile("/table.js", "text/javascript; charset=utf-8", page::table_js);
  addFile("/theme.js", "text/javascript; charset=utf-8", page::theme_js);
  addFile("/icon.svg", "image/svg+xml", page::icon_svg);
}

void PageServer::Serving::addFile(const std::string& path, const char* type,
                                  std::string_view text) {
  routes_.push_back({"GET", path, [=](auto&, auto&, Response& response) {
                       response.set_content(text.data(), text.size(), type);
                     }});
}

void PageServer::Serving::setUp() {
  new_task_queue = [] { return new Door; };
  // The library would share a port with whoever has it already.
  set_socket_options([](socket_t socket) {
    constexpr int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  });
  set_default_headers({{"Content-Security-Policy",
                        "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; "
                        "form-action 'none'"},
                       {"X-Content-Type-Options", "nosniff"},
                       {"Referrer-Policy", "no-referrer"},
                       {"Cache-Control", "no-store"}});
  const auto withoutBody = [this](const Request& request, Response& response) {
    answer(request, nullptr, response);
  };
  const auto withBody = [this](const Request& request, Response& response,
                               const httplib::ContentReader& body) {
    answer(request, &body, response);
  };
  constexpr char every[] = R"([\s\S]*)";
  Get(every, withoutBody).Options(every, withoutBody);
  Post(every, withBody).Put(every, withBody).Patch(every, withBody).Delete(every, withBody);
  // What the library refuses by itself.
  set_error_handler([](const Request&, Response& response) {
    if (response.body.empty()) reply(response, response.status, {{"error", "not a fit request"}});
  });
}

void PageServer::Serving::bind() {
  const bool isBound =
      bindTo(settings_.port) || (errno == EADDRINUSE && settings_.anyPortIfTaken && bindTo(0));
  // The library lets five wait to be taken in; those beyond would be heard after a second or more.
  if (isBound && ::listen(svr_sock_, SOMAXCONN) == 0) return;
  throw std::runtime_error(listenProblem(settings_, errno));
}

bool PageServer::Serving::bindTo(int port) {
  if (port != 0) return bind_to_port(settings_.address, port);
  const int given = bind_to_any_port(settings_.address);
  if (given > 0) settings_.port = given;
  return given > 0;
}

bool PageServer::Serving::process_and_close_socket(socket_t socket) {
  if (Door::isFull()) return turnAway(socket);
  Connection connection(socket, bell_);
  bool isClosed = false;
  constexpr bool close = true;
  const bool done = process_request(connection, close, isClosed, nullptr);
  if (done) connection.finish();
  return done;
}

// ---- Requests -------------------------------------------------------------------------------

void PageServer::Serving::answer(const Request& request, const httplib::ContentReader* body,
                                 Response& response) try {
  const std::string text = body != nullptr ? bodyOf(request, *body) : "";
  checkAccess(request);
  const Route& route = routeOf(request);
  if (route.method != "GET") checkOrigin(request);
  route.action(request, text, response);
} catch (const Refusal& refusal) {
  if (refusal.status == 401) response.set_header("WWW-Authenticate", "Bearer");
  reply(response, refusal.status, {{"error", refusal.what()}});
} catch (const std::exception& error) {
  reply(response, 500, {{"error", error.what()}});
}

void PageServer::Serving::checkAccess(const Request& request) const {
  const std::string host = request.get_header_value("Host");
  if (settings_.token.empty()) {
    if (isDirectHost(host)) return;
    throw Refusal(403, fmt::format("the page was asked for as \"{}\": without a token it answers "
                                   "only under an IP address or as localhost",
                                   host));
  }
  if (!showsToken(request)) {
    throw Refusal(401,
                  "show the token of the page: open it as /?token=TOKEN, or send the header "
                  "\"Authorization: Bearer TOKEN\"");
  }
}

bool PageServer::Serving::showsToken(const Request& request) const {
  constexpr std::string_view bearer = "Bearer ";
  const std::string header = request.get_header_value("Authorization");
  const bool isBearer = strncasecmp(header.c_str(), bearer.data(), bearer.size()) == 0;
  if (isBearer && isToken(std::string_view(header).substr(bearer.size()), settings_.token)) {
    return true;
  }
  return isToken(request.get_param_value("token"), settings_.token) ||
         isToken(cookieIn(request.get_header_value("Cookie"), cookieName()), settings_.token);
}

// Cookies know hosts, not ports: the pages of two tools on one machine must not share theirs.
std::string PageServer::Serving::cookieName() const {
  return fmt::format("gateway_page_{}", settings_.port);
}

void PageServer::Serving::checkOrigin(const Request& request) const {
  const std::string own = "http://" + request.get_header_value("Host");
  if (request.get_header_value("Origin") != own) {
    throw Refusal(403, fmt::format("changes are taken from the page itself: a request needs the "
                                   "header \"Origin: {}\"",
                                   own));
  }
  const std::string type = request.get_header_value("Content-Type");
  if (type.substr(0, type.find(';')) != jsonType) {
    throw Refusal(415, "a request needs the header \"Content-Type: application/json\"");
  }
}

const PageServer::Serving::Route& PageServer::Serving::routeOf(const Request& request) const {
  std::vector<std::string> paths;
  for (const Route& route : routes_) paths.push_back(route.path);
  const auto found = std::find(paths.begin(), paths.end(), request.path);
  if (found == paths.end()) {
    throw Refusal(
        404, fmt::format("there is no {}{}", request.path, tools::didYouMean(request.path, paths)));
  }
  const Route& route = routes_[static_cast<std::size_t>(found - paths.begin())];
  const bool fits =
      request.method == route.method || (request.method == "HEAD" && route.method == "GET");
  if (fits) return route;
  throw Refusal(405, fmt::format("{} takes {}, not {}", route.path, route.method, request.method));
}

void PageServer::Serving::showPage(const Request& request, Response& response) {
  if (request.has_param("token")) {
    response.set_header("Set-Cookie", fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict",
                                                  cookieName(), settings_.token));
  }
  response.set_content(page::index_html.data(), page::index_html.size(),
                       "text/html; charset=utf-8");
}

void PageServer::Serving::set(const std::string& body, Response& response) {
  try {
    const Notification notification = module_.set(changesOf(body));
    reply(response, 200, {{"notification", notification.number}});
  } catch (const std::invalid_argument& error) {
    throw Refusal(400, error.what());
  }
}

void PageServer::Serving::stream(Response& response) {
  const std::shared_ptr<void> place(nullptr, [this](void*) { --streams_; });
  if (++streams_ > maximalStreams) {
    throw Refusal(503, fmt::format("{} event streams are open already: close another page first",
                                   maximalStreams));
  }
  const auto feed = std::make_shared<PageFeed>(module_, log_);
  const auto isFirst = std::make_shared<bool>(true);
  response.set_header("X-Accel-Buffering", "no");
  response.set_chunked_content_provider(
      "text/event-stream", [this, feed, place, isFirst](std::size_t, httplib::DataSink& sink) {
        std::string text;
        if (std::exchange(*isFirst, false)) {
          text = "retry: 1000\n" + eventOf("snapshot", feed->snapshot());
        } else {
          const Json news = feed->next(heartbeat, stopping_.get_token());
          text = eventOf(news.is_null() ? "quiet" : "update", news);
        }
        return !stopping_.stop_requested() && sink.write(text.data(), text.size());
      });
}

// ---- The page -------------------------------------------------------------------------------

PageServer::PageServer(RunningModule& module, const LogBook& log, const PageSettings& settings)
    : serving_(std::make_unique<Serving>(module, log, settings)) {
  url_ = fmt::format("http://{}/", addressText(serving_->settings()));
  hasMoved_ = settings.port != 0 && settings.port != serving_->settings().port;
}

PageServer::~PageServer() = default;

}  // namespace host
