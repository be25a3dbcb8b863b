#include "tools/sim/Control.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/asio/post.hpp>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <cstdint>
#include <future>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <utility>

#include "tools/common/HttpInterface.h"
#include "tools/common/Json.h"
#include "tools/common/Numbers.h"
#include "tools/common/StatusName.h"
#include "tools/common/Suggestion.h"
#include "tools/sim/EventText.h"
#include "tools/sim/MeterJson.h"
#include "tools/sim/Report.h"

namespace sim {
namespace {

using nlohmann::json;
using tools::HttpAnswer;
using tools::HttpRefusal;
using tools::HttpRequest;
using tools::HttpResponse;
using tools::responseOf;
using tools::http::status;
using tools::http::verb;
using Error = std::invalid_argument;

constexpr std::size_t bodyLimit = std::size_t{16} << 20;
constexpr int depthLimit = 32;  // no request needs more than four
constexpr std::uint64_t mostTimes = 1000000;
constexpr double longestWait = 60;  // seconds
// A stream with more bytes than this still to be written takes no further messages.
constexpr std::size_t waitingLimit = std::size_t{64} << 20;

// ---- Reading requests -----------------------------------------------------------------------

// "NAME takes WANTED, not VALUE".
[[noreturn]] void refuse(std::string_view name, std::string_view wanted, std::string_view value) {
  throw Error(fmt::format("{} takes {}, not {}", name, wanted, value));
}

[[noreturn]] void refuseName(std::string_view what, const std::string& name,
                             const std::vector<std::string>& known) {
  throw Error(fmt::format("there is no {} \"{}\"{}", what, name, tools::didYouMean(name, known)));
}

// The body of a request: a JSON object with no other members than these.
json bodyOf(const HttpRequest& request, const std::vector<std::string>& members) {
  if (tools::isNestedDeeperThan(depthLimit, request.body()))
    throw Error("the body is nested too deeply");
  json body = json::parse(request.body(), nullptr, false);
  if (body.is_discarded()) throw Error("the body is not JSON");
  if (!body.is_object()) throw Error("the body has to be a JSON object, such as {}");
  for (const auto& item : body.items()) {
    if (std::find(members.begin(), members.end(), item.key()) != members.end()) continue;
    refuseName("member", item.key(), members);
  }
  return body;
}

// Nothing if there is no such member.
std::optional<std::string> textIn(const json& body, const char* member) {
  if (!body.contains(member)) return std::nullopt;
  if (!body[member].is_string()) refuse(member, "a text", tools::jsonText(body[member]));
  return body[member].get<std::string>();
}

Method streamCalled(const std::string& name) {
  for (const auto method : {Method::Fast, Method::Slow}) {
    if (nameOf(method) == name) return method;
  }
  refuse("stream", "\"fast\" or \"slow\"", fmt::format("\"{}\"", name));
}

Method streamIn(const json& body) {
  return streamCalled(textIn(body, "stream").value_or(""));
}

std::uint64_t timesIn(const json& body) {
  if (!body.contains("times")) return 1;
  const auto& value = body["times"];
  if (value.is_number_unsigned() && value >= 1 && value <= mostTimes) {
    return value.get<std::uint64_t>();
  }
  refuse("times", fmt::format("a whole number from 1 to {}", mostTimes), tools::jsonText(value));
}

// How long a fault lasts, if the body says so.
std::optional<double> secondsIn(const json& body) {
  if (!body.contains("for")) return std::nullopt;
  const auto& value = body["for"];
  if (!value.is_number()) refuse("for", "a number of seconds", tools::jsonText(value));
  return value.get<double>();
}

std::string messageIn(const json& body) {
  if (body.contains("values") == body.contains("bytes")) {
    throw Error("a message has either \"values\" or \"bytes\"");
  }
  if (body.contains("values")) return meterIn(body["values"]);
  const auto hex = *textIn(body, "bytes");
  const auto bytes = bytesOfHex(hex);
  if (!bytes) refuse("bytes", "pairs of the digits 0-9 and a-f", fmt::format("\"{}\"", hex));
  return *bytes;
}

grpc::Status statusIn(const json& body) {
  const auto name = textIn(body, "status").value_or("OK");
  const auto code = tools::statusCalled(name);
  if (!code) refuseName("status", name, tools::statusNames());
  const auto text = textIn(body, "text");
  if (*code == grpc::StatusCode::OK && text) throw Error("a stream that ends with OK has no text");
  return {*code, text.value_or(*code == grpc::StatusCode::OK ? "" : "ended by the simulator")};
}

// The reader of plans checks the duration.
Fault faultIn(const json& body) {
  const auto text = textIn(body, "fault").value_or("");
  if (text.find(':') != text.npos) {
    throw Error("a fault here happens at once: leave out the time before \":\"");
  }
  const auto seconds = secondsIn(body);
  return seconds ? parseFault(fmt::format("at 0 for {}: {}", *seconds, text))
                 : parseImmediateFault(text);
}

std::string checkedEvent(const std::string& name) {
  const auto known = Report::eventNames();
  if (!name.empty() && std::find(known.begin(), known.end(), name) == known.end()) {
    refuseName("event", name, known);
  }
  return name;
}

Journal::Query queryIn(const HttpRequest& request) {
  const auto parameter = [&](const char* name) {
    return tools::parameterOf(request, name).value_or("");
  };
  Journal::Query query{.after = 0,
                       .event = checkedEvent(parameter("event")),
                       .stream = parameter("stream"),
                       .key = parameter("key")};
  if (!query.stream.empty()) streamCalled(query.stream);
  if (const auto after = parameter("after"); !after.empty()) {
    const auto number = tools::numberIn<std::uint64_t>(after);
    if (!number) refuse("after", "the number of an event", fmt::format("\"{}\"", after));
    query.after = *number;
  }
  return query;
}

std::chrono::milliseconds waitIn(const HttpRequest& request) {
  const auto text = tools::parameterOf(request, "wait").value_or("0");
  const auto seconds = tools::numberIn<double>(text);
  if (!seconds || !(*seconds >= 0 && *seconds <= longestWait)) {
    refuse("wait", fmt::format("a number of seconds from 0 to {}", longestWait),
           fmt::format("\"{}\"", text));
  }
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(*seconds));
}

HttpResponse answerOf(const Journal::Found& found) {
  return responseOf("application/json",
                    tools::jsonText(nlohmann::ordered_json{
                        {"events", found.events}, {"last", found.last}, {"lost", found.lost}}));
}

}  // namespace

// ---- Routes ---------------------------------------------------------------------------------

class Control::Routes {
 public:
  Routes(const tools::HttpAddress& address, const Controlled& controlled);
  ~Routes() { controlled_.journal.watch(nullptr); }
  Routes(const Routes&) = delete;
  Routes& operator=(const Routes&) = delete;

  const tools::HttpInterface& served() const { return *interface_; }

 private:
  using Calls = std::vector<std::shared_ptr<Call>>;

  std::vector<tools::HttpRoute> routes();
  HttpResponse state() const;
  HttpAnswer events(const HttpRequest& request) const;
  HttpResponse send(const HttpRequest& request) const;
  HttpResponse end(const HttpRequest& request) const;
  HttpResponse fault(const HttpRequest& request) const;
  HttpResponse reset(const HttpRequest& request) const;

  // The open streams of the kind. Refuses the request if there are none.
  Calls streams(Method method) const;
  // Carries the fault out, and returns when it has begun.
  void strike(const Fault& fault) const;

  const Controlled controlled_;
  std::optional<tools::HttpInterface> interface_;
};

Control::Routes::Routes(const tools::HttpAddress& address, const Controlled& controlled) try
    : controlled_(controlled) {
  interface_.emplace(routes(), address, tools::HttpRules{.token = {}, .changesNeedOrigin = false});
  // Watch before serving, so that no client waits for an event that has already come.
  controlled_.journal.watch([this] { interface_->wake(); });
  interface_->start();
} catch (const boost::system::system_error&) {
  throw std::runtime_error(cantListen(textOf(address), "--control"));
}

std::vector<tools::HttpRoute> Control::Routes::routes() {
  return {
      {verb::get, "/api/status", [this](auto&) { return state(); }},
      {verb::get, "/api/events", [this](auto& request) { return events(request); }},
      {verb::post, "/api/send", [this](auto& request) { return send(request); }, bodyLimit},
      {verb::post, "/api/end", [this](auto& request) { return end(request); }, bodyLimit},
      {verb::post, "/api/fault", [this](auto& request) { return fault(request); }, bodyLimit},
      {verb::post, "/api/reset", [this](auto& request) { return reset(request); }, bodyLimit},
  };
}

HttpResponse Control::Routes::state() const {
  json streams = json::array();
  for (const auto method : {Method::Fast, Method::Slow}) {
    for (const auto& call : controlled_.simulator.openCalls(method)) {
      const auto& opening = call->opening();
      streams.push_back(
          {{"stream", nameOf(method)}, {"call", opening.number}, {"peer", opening.peer}});
    }
  }
  return responseOf({{"meters", controlled_.addresses.meters},
                     {"engine", controlled_.addresses.engine},
                     {"streams", streams},
                     {"last", controlled_.journal.last()}});
}

// Each look starts after the events that the previous look has seen.
HttpAnswer Control::Routes::events(const HttpRequest& request) const {
  struct Watch {
    Journal::Query query;
    Journal::Found found{};
  };
  auto& journal = controlled_.journal;
  const auto watch = std::make_shared<Watch>(Watch{queryIn(request)});
  const auto look = [&journal, watch]() -> std::optional<HttpResponse> {
    const auto lost = watch->found.lost;
    watch->found = journal.find(watch->query);
    watch->found.lost += lost;
    watch->query.after = std::max(watch->query.after, watch->found.last);
    if (watch->found.events.empty()) return std::nullopt;
    return answerOf(watch->found);
  };
  const auto giveUp = [watch] { return answerOf(watch->found); };
  return tools::HttpWait{.time = waitIn(request), .look = look, .giveUp = giveUp};
}

HttpResponse Control::Routes::send(const HttpRequest& request) const {
  const auto body = bodyOf(request, {"stream", "values", "bytes", "times"});
  const auto method = streamIn(body);
  const auto message = messageIn(body);
  const auto times = timesIn(body);
  const auto calls = streams(method);
  for (const auto& call : calls) {
    if (call->waitingBytes() <= waitingLimit) continue;
    throw HttpRefusal(status::conflict,
                      fmt::format("{} {} reads too slowly: more than {} bytes wait for it",
                                  nameOf(method), call->opening().number, waitingLimit));
  }
  for (const auto& call : calls) call->send(message, times);
  return responseOf({{"streams", calls.size()}});
}

HttpResponse Control::Routes::end(const HttpRequest& request) const {
  const auto body = bodyOf(request, {"stream", "status", "text"});
  const auto method = streamIn(body);
  const auto end = statusIn(body);
  const auto calls = streams(method);
  for (const auto& call : calls) call->end(end);
  return responseOf({{"streams", calls.size()}});
}

HttpResponse Control::Routes::fault(const HttpRequest& request) const {
  const auto fault = faultIn(bodyOf(request, {"fault", "for"}));
  strike(fault);
  json subjects = json::array();
  for (const auto subject : fault.subjects) subjects.push_back(nameOf(subject));
  return responseOf(
      {{"fault", rowOf(fault.kind).name}, {"subjects", subjects}, {"argument", fault.argument}});
}

HttpResponse Control::Routes::reset(const HttpRequest& request) const {
  bodyOf(request, {});
  for (const auto method : {Method::Fast, Method::Slow}) {
    for (const auto& call : controlled_.simulator.openCalls(method)) call->stop();
  }
  strike(parseImmediateFault(rowOf(FaultKind::Normal).name));
  controlled_.delivery.drop();
  return responseOf({{"last", controlled_.journal.clear()}});
}

Control::Routes::Calls Control::Routes::streams(Method method) const {
  auto calls = controlled_.simulator.openCalls(method);
  if (!calls.empty()) return calls;
  throw HttpRefusal(
      status::conflict,
      fmt::format("no {} stream is open: wait for its event \"opened\"", nameOf(method)));
}

void Control::Routes::strike(const Fault& fault) const {
  std::packaged_task<void()> task([&] { controlled_.saboteur.strike(fault); });
  auto done = task.get_future();
  boost::asio::post(controlled_.loop, std::move(task));
  done.get();
}

// ---- The interface --------------------------------------------------------------------------

tools::HttpAddress parseControlAddress(std::string_view text) {
  auto address = tools::parseHttpAddress(text);
  if (isLoopback(address)) return address;
  throw Error(
      fmt::format("{} can be reached by others: give an address of this machine alone, such "
                  "as 127.0.0.1:{}",
                  textOf(address), address.port));
}

Control::Control(const tools::HttpAddress& address, const Controlled& controlled)
    : routes_(std::make_unique<Routes>(address, controlled)) {}

Control::~Control() = default;

std::string Control::address() const {
  return textOf(routes_->served().address());
}

std::vector<std::string> Control::routes() const {
  return routes_->served().routes();
}

}  // namespace sim
