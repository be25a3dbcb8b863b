// The live page of gatewayctl host over HTTP, as browsers and programs use it: with the built
// program, its module and the simulator.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "meters.pb.h"
#include "tests/support/RawConnection.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tools/common/HttpServer.h"
#include "tools/host/PageServer.h"
#include "tools/host/PageSettings.h"

namespace {

using Json = nlohmann::json;

struct Event {
  std::string name;
  Json data;
};

// One stream of server-sent events, read on a thread of its own.
class EventStream {
 public:
  EventStream(const std::string& origin, const httplib::Headers& headers = {})
      : client_(origin), reader_([this, headers] { read(headers); }) {
    client_.set_read_timeout(patience);
  }
  ~EventStream() {
    client_.stop();
    reader_.join();
  }

  // The next event, or nothing if the stream has ended.
  std::optional<Event> next() {
    std::unique_lock lock(mutex_);
    const bool came = changed_.wait_for(lock, patience, [&] { return !events_.empty() || ended_; });
    if (!came) throw std::runtime_error("no event came");
    if (events_.empty()) return std::nullopt;
    Event event = std::move(events_.front());
    events_.pop_front();
    return event;
  }

  // The next update that has this member; skips others.
  Json nextWith(const std::string& member) {
    for (;;) {
      Json update = next("update").data;
      if (update.contains(member)) return update;
    }
  }

  // The next event of this name; skips others.
  Event next(const std::string& name) {
    for (;;) {
      auto event = next();
      if (!event) throw std::runtime_error("the stream ended without " + name);
      if (event->name == name) return *event;
    }
  }

 private:
  void read(const httplib::Headers& headers) {
    client_.Get("/api/events", headers, [this](const char* data, std::size_t size) {
      text_.append(data, size);
      for (std::size_t end; (end = text_.find("\n\n")) != text_.npos; text_.erase(0, end + 2)) {
        add(text_.substr(0, end));
      }
      return true;
    });
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  void add(const std::string& block) {
    Event event;
    std::istringstream lines(block);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("event: ")) event.name = line.substr(7);
      if (line.starts_with("data: ")) event.data = Json::parse(line.substr(6));
    }
    const std::lock_guard lock(mutex_);
    events_.push_back(event);
    changed_.notify_all();
  }

  httplib::Client client_;
  std::string text_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
  bool ended_ = false;
  std::thread reader_;
};

std::string levels(const std::map<std::string, float>& values) {
  sonalith::grpc::Meter meter;
  for (const auto& [key, value] : values) {
    auto* each = meter.add_values();
    each->set_key(key);
    each->mutable_value()->set_sfloat(value);
  }
  return toHex(meter);
}

class Page : public ::testing::Test {
 protected:
  Page() { start({"--page", "127.0.0.1:0"}); }

  std::string config() const {
    return files.write("gateway.conf",
                       "[Meters]\nTarget=" + servers.metersTarget() +
                           "\n[MetersFloat]\nMeter=Key=out.level CustomKey=level "
                           "DefaultValue=-60.5\nMeter=Key=in.level CustomKey=input\n"
                           "[MetersString]\nMeter=Key='a \"b\" \\c' CustomKey=state\n"
                           "[Engine]\nTarget=" +
                           servers.engineTarget() +
                           "\n[EngineFloat]\nParam=Key=out.gain CustomKey=gain\n"
                           "[EngineInt]\nParam=Key=delay CustomKey=delay\n"
                           "[EngineString]\nParam=Key=preset CustomKey=preset\n");
  }

  void start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"host", config()});
    host.emplace(arguments);
    const std::string url = host->waitLine("page ").substr(5);
    origin = url.substr(0, url.size() - 1);
    servers.waitEvent("open fast ");
  }

  httplib::Client client() const { return httplib::Client(origin); }

  std::string target() const { return origin.substr(7); }
  int port() const { return std::stoi(origin.substr(origin.rfind(':') + 1)); }

  httplib::Headers own() const { return {{"Origin", origin}}; }

  void expectRefusal(const httplib::Result& result, int status, const std::string& error) {
    ASSERT_TRUE(result) << error;
    EXPECT_EQ(result->status, status) << result->body;
    EXPECT_EQ(Json::parse(result->body), Json({{"error", error}}));
  }

  SimProcess servers;
  TemporaryFolder files;
  std::optional<ToolProcess> host;
  std::string origin;
};

TEST_F(Page, LoadsNothingFromOtherSites) {
  auto http = client();
  const auto page = http.Get("/");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(page->get_header_value("Content-Type"), "text/html; charset=utf-8");
  const std::string policy = page->get_header_value("Content-Security-Policy");
  EXPECT_TRUE(policy.starts_with("default-src 'self';")) << policy;
  EXPECT_EQ(policy.find("unsafe"), policy.npos);
  EXPECT_EQ(page->get_header_value("X-Content-Type-Options"), "nosniff");
  EXPECT_EQ(page->get_header_value("Cache-Control"), "no-store");
  EXPECT_EQ(page->get_header_value("Referrer-Policy"), "no-referrer");
  for (const char* text : {"http:", "https:", "<style", "<script>", " style=", " onclick="}) {
    EXPECT_EQ(page->body.find(text), page->body.npos) << text;
  }
  const std::map<std::string, std::string> types = {
      {"/page.css", "text/css; charset=utf-8"},
      {"/uPlot.min.css", "text/css; charset=utf-8"},
      {"/uPlot.iife.min.js", "text/javascript; charset=utf-8"},
      {"/main.js", "text/javascript; charset=utf-8"},
      {"/icon.svg", "image/svg+xml"}};
  for (const auto& [path, type] : types) {
    EXPECT_NE(page->body.find('"' + path + '"'), page->body.npos) << path;
    const auto file = http.Get(path.c_str());
    ASSERT_TRUE(file) << path;
    EXPECT_EQ(file->status, 200) << path;
    EXPECT_EQ(file->get_header_value("Content-Type"), type);
    EXPECT_GT(file->body.size(), 100u) << path;
  }
}

// A module that the server does not know would leave the page without any of its scripts.
TEST_F(Page, ServesEveryModuleThatItsScriptsImport) {
  auto http = client();
  std::vector<std::string> names = {"main.js"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto script = http.Get("/" + names[i]);
    ASSERT_TRUE(script) << names[i];
    EXPECT_EQ(script->status, 200) << names[i];
    EXPECT_EQ(script->get_header_value("Content-Type"), "text/javascript; charset=utf-8");
    static const std::regex import(R"re(from "\./([^"]+)";)re");
    for (std::sregex_iterator at(script->body.begin(), script->body.end(), import), end; at != end;
         ++at) {
      const std::string name = (*at)[1];
      if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
  }
  EXPECT_GT(names.size(), 5u);
}

TEST_F(Page, ReportsWhatRuns) {
  const auto result = client().Get("/api/status");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->get_header_value("Content-Type"), "application/json");
  const Json status = Json::parse(result->body);
  EXPECT_EQ(status["name"], "gateway");
  EXPECT_EQ(status["config"], files.path("gateway.conf"));
  EXPECT_TRUE(status["module"].get<std::string>().ends_with("/grpc-gateway.so"));
  EXPECT_EQ(status["targets"]["meters"], servers.metersTarget());
  EXPECT_EQ(status["targets"]["engine"], servers.engineTarget());
  EXPECT_EQ(status["slots"], Json({{"fast", 3}, {"slow", 0}, {"engine", 3}}));
  EXPECT_EQ(status["notifications"], 0);
  EXPECT_GE(status["logLines"]["trace"], 1);
  EXPECT_EQ(status["logLines"]["error"], 0);
  EXPECT_LE(status["startTime"], status["time"]);
  EXPECT_NEAR(status["uptime"].get<double>(),
              status["time"].get<double>() - status["startTime"].get<double>(), 1e-3);
  EXPECT_FALSE(status["version"].get<std::string>().empty());
}

// The only thread that serves the page must not wait for a stop, which an unanswered call holds up.
TEST_F(Page, RefusesChangesDuringAReload) {
  host->signal(SIGKILL);
  start({"--page", "127.0.0.1:0", "--reload"});
  const std::string change = R"({"changes":[{"name":"delay","value":3}]})";
  EventStream events(origin);
  events.next("snapshot");
  client().Post("/api/set", own(), change, "application/json");
  while (events.nextWith("deliveries")["deliveries"].back()["state"] != "answered") {
  }
  servers.freeze();
  client().Post("/api/set", own(), change, "application/json");
  files.write("gateway.conf", "[Meters]\nTarget=" + servers.metersTarget() + "\n");
  host->waitError("Starting completion queue flush");
  expectRefusal(client().Post("/api/set", own(), change, "application/json"), 503,
                "the module is being restarted");
  servers.thaw();
  host->waitLine("reloaded");
}

// The stream stays open, so no tab has to connect again.
TEST_F(Page, SendsASnapshotOfTheNewSlotsAfterAReload) {
  host->signal(SIGKILL);
  start({"--page", "127.0.0.1:0", "--reload"});
  EventStream events(origin);
  const Json before = events.next("snapshot").data;
  client().Post("/api/set", own(), R"({"changes":[{"name":"delay","value":3}]})",
                "application/json");
  events.nextWith("notifications");
  files.write("gateway.conf", "[Meters]\nTarget=" + servers.metersTarget() +
                                  "\n[MetersInt]\nMeter=Key=n CustomKey=number\n");
  const Json after = events.next("snapshot").data;
  EXPECT_EQ(after["instance"], before["instance"]);
  ASSERT_EQ(after["slots"].size(), 1u);
  EXPECT_EQ(after["slots"][0]["name"], "number");
  EXPECT_EQ(after["status"]["targets"]["engine"], "");
  EXPECT_EQ(after["notifications"].size(), 1u);
  EXPECT_EQ(after["log"][0], before["log"][0]) << "a snapshot has all lines";

  sonalith::grpc::Meter meter;
  meter.add_values()->set_key("n");
  meter.mutable_values(0)->mutable_value()->set_sint(7);
  servers.waitEvent("open fast ");
  servers.command("send fast " + toHex(meter));
  EXPECT_EQ(events.nextWith("slots")["slots"], Json::parse("[[0, 7]]"));
  const auto metrics = client().Get("/metrics");
  ASSERT_TRUE(metrics);
  EXPECT_NE(metrics->body.find("name=\"number\",key=\"n\"} 7\n"), std::string::npos);
  EXPECT_EQ(metrics->body.find("out.level"), std::string::npos);
  const auto history = client().Get("/api/history");
  ASSERT_TRUE(history);
  const Json past = Json::parse(history->body)["slots"];
  ASSERT_EQ(past.size(), 1u) << history->body;
  EXPECT_EQ(past[0]["name"], "number");
  EXPECT_EQ(past[0]["last"], Json({7}));
}

TEST_F(Page, ListsSlotsWithKeysAndAges) {
  EventStream events(origin);
  events.next("snapshot");
  servers.command("send fast " + levels({{"out.level", -12.5f}}));
  events.nextWith("slots");
  const auto result = client().Get("/api/slots");
  ASSERT_TRUE(result);
  const Json listed = Json::parse(result->body);
  EXPECT_GT(listed["time"], 1.6e9);
  std::map<std::string, Json> slots;
  for (const Json& slot : listed["slots"]) slots[slot["name"]] = slot;
  ASSERT_EQ(slots.size(), 6u);
  EXPECT_EQ(slots["level"]["value"], -12.5);
  EXPECT_EQ(slots["level"]["moved"], true);
  EXPECT_EQ(slots["level"]["key"], "out.level");
  EXPECT_EQ(slots["level"]["type"], "float");
  EXPECT_EQ(slots["level"]["set"], "fast");
  EXPECT_EQ(slots["input"]["moved"], false);
  EXPECT_GE(slots["input"]["age"], slots["level"]["age"]);
  EXPECT_EQ(slots["state"]["key"], "a \"b\" \\c");
}

TEST_F(Page, KeepsTheHistoryOfNumbers) {
  EventStream events(origin);
  const Json listed = events.next("snapshot").data["slots"];
  const auto placeOf = [&](const std::string& name) {
    return std::find_if(listed.begin(), listed.end(),
                        [&](const Json& slot) { return slot["name"] == name; }) -
           listed.begin();
  };
  for (const float level : {-12.5F, NAN, -3.F}) {
    servers.command("send fast " + levels({{"out.level", level}}));
    events.nextWith("slots");
  }
  const auto places = fmt::format("{},{}", placeOf("level"), placeOf("input"));
  const auto result = client().Get("/api/history?slots=" + places + "&seconds=60");
  ASSERT_TRUE(result);
  ASSERT_EQ(result->status, 200) << result->body;
  const Json history = Json::parse(result->body);
  EXPECT_EQ(history["span"], 600);
  EXPECT_EQ(history["gaps"], Json::array());
  const Json& level = history["slots"][0];
  EXPECT_EQ(level["index"], placeOf("level"));
  EXPECT_EQ(level["set"], "fast");
  EXPECT_EQ(level["name"], "level");
  EXPECT_EQ(level["period"], 0.05);
  EXPECT_EQ(level["last"], Json({-12.5, "nan", -3}));
  EXPECT_EQ(level["low"], level["last"]);
  EXPECT_EQ(level["high"], level["last"]);
  ASSERT_EQ(level["times"].size(), 3u);
  EXPECT_TRUE(std::is_sorted(level["times"].begin(), level["times"].end()));
  EXPECT_LE(level["times"][2], history["time"]);
  EXPECT_EQ(history["slots"][1]["name"], "input");
  EXPECT_EQ(history["slots"][1]["times"], Json::array());

  std::set<std::string> numbers;
  const Json all = Json::parse(client().Get("/api/history")->body);
  for (const Json& each : all["slots"]) numbers.insert(each["name"]);
  EXPECT_EQ(numbers, (std::set<std::string>{"level", "input", "gain", "delay"}));

  const auto wrongSlots = [](const std::string& text) {
    return "slots takes 1 to 100 indices of slots, such as 0,3, not \"" + text + "\"";
  };
  const auto wrongSeconds = [](const std::string& text) {
    return "seconds takes a whole number from 1 to 600, not \"" + text + "\"";
  };
  std::string tooMany = "0";
  for (int i = 0; i < 100; ++i) tooMany += ",0";
  std::vector<std::pair<std::string, std::string>> wrong = {
      {"slots=6", "there is no slot 6"},
      {fmt::format("slots={}", placeOf("state")), "state has no history: it holds texts"},
  };
  for (const std::string& text :
       {std::string(), std::string("level"), std::string("0,"), std::string("-1"), tooMany}) {
    wrong.emplace_back("slots=" + text, wrongSlots(text));
  }
  for (const char* text : {"601", "0", "x", ""}) {
    wrong.emplace_back(fmt::format("slots=0&seconds={}", text), wrongSeconds(text));
  }
  for (const auto& [query, error] : wrong) {
    expectRefusal(client().Get("/api/history?" + query), 400, error);
  }
}

TEST_F(Page, StreamsASnapshotAndThenOnlyChanges) {
  EventStream events(origin);
  const auto first = events.next();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->name, "snapshot");
  const Json& picture = first->data;
  EXPECT_EQ(picture["instance"].get<std::string>().size(), 16u);
  EXPECT_EQ(picture["status"]["name"], "gateway");
  EXPECT_EQ(picture["slots"].size(), 6u);
  EXPECT_GE(picture["log"].size(), 1u);
  EXPECT_EQ(picture["notifications"], Json::array());
  const auto indexOf = [&](const std::string& name) {
    int index = 0;
    while (picture["slots"][static_cast<std::size_t>(index)]["name"] != name) ++index;
    return index;
  };

  servers.command("send fast " + levels({{"out.level", -12.5f}}));
  EXPECT_EQ(events.nextWith("slots")["slots"], Json({{indexOf("level"), -12.5}}));
  // Writing the same value again is no change.
  servers.command("send fast " + levels({{"out.level", -12.5f}, {"in.level", NAN}}));
  const Json update = events.nextWith("slots");
  EXPECT_EQ(update["slots"], Json({{indexOf("input"), "nan"}}));
  EXPECT_EQ(update["changes"], 2);
  EXPECT_FALSE(update.contains("log"));
  EXPECT_FALSE(update.contains("notifications"));
}

TEST_F(Page, SaysHowTheLinksAreAlthoughNothingChanges) {
  EventStream events(origin);
  const Json status = events.next("snapshot").data["status"];
  ASSERT_EQ(status["links"].size(), 3u);
  for (int beats = 0; beats < 3;) {
    const Json update = events.next("update").data;
    EXPECT_FALSE(update.contains("slots"));
    if (!update.contains("links")) continue;
    ++beats;
    EXPECT_EQ(update["links"][0]["link"], "fast");
    EXPECT_EQ(update["links"][0]["target"], servers.metersTarget());
    EXPECT_EQ(update["links"][0]["attempts"], 1);
    EXPECT_EQ(update["links"][0]["messages"], 0);
  }
}

TEST_F(Page, FollowsAParameterToItsAnswer) {
  EventStream events(origin);
  events.next("snapshot");
  const auto stateOf = [&](const std::string& wanted) {
    for (;;) {
      const Json update = events.next("update").data;
      for (const Json& delivery : update.value("deliveries", Json::array())) {
        EXPECT_EQ(delivery["number"], 1);
        if (delivery["state"] == wanted) return delivery;
      }
    }
  };
  servers.command("engine hold");
  host->writeLine("set gain 3");
  stateOf("waiting");
  servers.waitEvent("SetParams ");
  servers.command("engine fail PERMISSION_DENIED");
  servers.command("engine release");
  EXPECT_EQ(stateOf("failed")["reason"], "PERMISSION_DENIED: ended by the simulator");
}

TEST_F(Page, StreamsNotificationsFromTheTerminal) {
  EventStream events(origin);
  events.next("snapshot");
  host->writeLine("set gain 3");
  Json news;
  while (!news.contains("slots") || !news.contains("notifications")) {
    news.update(events.next("update").data);
  }
  ASSERT_EQ(news["notifications"].size(), 1u);
  EXPECT_EQ(news["notifications"][0]["number"], 1);
  EXPECT_EQ(news["notifications"][0]["changes"], Json({{{"name", "gain"}, {"value", "3"}}}));
  EXPECT_EQ(news["slots"][0][1], 3.0);
}

TEST_F(Page, EndsEachStreamWithTheTimeOfTheStop) {
  EventStream events(origin);
  const Json picture = events.next("snapshot").data;
  host->writeLine("quit");
  EXPECT_GE(events.next("stopped").data["time"], picture["time"]);
  EXPECT_FALSE(events.next());
}

TEST_F(Page, ServesSeveralStreamsUncompressed) {
  const httplib::Headers packing = {{"Accept-Encoding", "gzip, deflate, br"}};
  EventStream one(origin);
  EventStream two(origin, packing);
  EXPECT_EQ(one.next("snapshot").data["instance"], two.next("snapshot").data["instance"]);
  servers.command("send fast " + levels({{"in.level", -3}}));
  EXPECT_EQ(one.nextWith("slots")["slots"], two.nextWith("slots")["slots"]);
}

TEST_F(Page, OpensDespiteReadersThatTakeNothing) {
  std::deque<RawConnection> readers;
  for (int i = 0; i < 300; ++i) {
    readers.emplace_back(target());
    readers.back().write("GET /api/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  }
  EXPECT_EQ(client().Get("/")->status, 200);
  EXPECT_EQ(client().Get("/main.js")->status, 200);
  EventStream events(origin);
  events.next("snapshot");
  servers.command("send fast " + levels({{"in.level", -3}}));
  events.next("update");
}

// The most that a process has ever had in memory, in kB.
std::size_t peakMemory(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("VmHWM:")) return std::stoul(line.substr(6));
  }
  throw std::runtime_error("the system does not report the peak of memory");
}

// Sends `piece` again and again, 50 MB in all, or until the server closes the connection.
void flood(const std::string& target, const std::string& start, const std::string& piece) {
  RawConnection client(target);
  try {
    client.write(start);
    for (std::size_t sent = 0; sent < 50'000'000; sent += piece.size()) client.write(piece);
  } catch (const std::runtime_error&) {
  }
}

TEST_F(Page, KeepsItsMemoryWhateverItIsSent) {
  const std::string chunked = "POST /api/set HTTP/1.1\r\nHost: " + target() +
                              "\r\nOrigin: " + origin + "\r\nContent-Type: application/json\r\n" +
                              "Transfer-Encoding: chunked\r\n\r\n";
  const std::string much(100'000, 'x');
  std::string lines;
  while (lines.size() < much.size()) lines += "X: y\r\n";
  const std::vector<std::pair<std::string, std::string>> floods = {
      {"", much},                                                  // a method
      {"GET /", much},                                             // a path
      {"GET / HTTP/1.1\r\n", lines},                               // headers
      {"GET / HTTP/1.1\r\nX: ", much},                             // one header
      {chunked + "1;", much},                                      // an extension of a chunk
      {chunked + "0\r\n", lines},                                  // trailers
      {"GET / HTTP/1.1\r\nHost: " + target() + "\r\n\r\n", much},  // after the request
  };
  const std::size_t before = peakMemory(host->pid());
  for (const auto& [start, piece] : floods) {
    flood(target(), start, piece);
    EXPECT_LT(peakMemory(host->pid()), before + 20'000) << start;
  }
  EXPECT_EQ(client().Get("/api/status")->status, 200);
}

TEST_F(Page, ChangesParametersInOneNotification) {
  const std::string body =
      R"({"changes":[{"name":"gain","value":-6.5},{"name":"preset","value":"a \"b\""},)"
      R"({"name":"delay","value":"7"}]})";
  const auto result = client().Post("/api/set", own(), body, "application/json; charset=utf-8");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200) << result->body;
  EXPECT_EQ(Json::parse(result->body), Json({{"notification", 1}}));
  servers.waitEvent("SetParams 1 ");
  host->writeLine("slots");
  EXPECT_TRUE(host->waitLine("engine  float").starts_with("engine  float   gain    -6.5"));
  EXPECT_NE(host->waitLine("engine  int").find(" 7 "), std::string::npos);
  const Json status = Json::parse(client().Get("/api/status")->body);
  EXPECT_EQ(status["notifications"], 1);
}

TEST_F(Page, RefusesInvalidChanges) {
  const std::string shape = R"(the body has to be {"changes":[{"name":"out_gain","value":-6.5}]})";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "the body is not JSON"},
      {"{", "the body is not JSON"},
      {"[]", shape},
      {"{}", shape},
      {R"({"changes":{}})", shape},
      {R"({"changes":[1]})", shape},
      {R"({"changes":[{"name":1,"value":1}]})", shape},
      {R"({"changes":[{"name":"gain"}]})", shape},
      {R"({"changes":[{"name":"gain","value":null}]})", shape},
      {R"({"changes":[{"name":"gain","value":true}]})", shape},
      {R"({"changes":[]})", "nothing to set"},
      {R"({"changes":[{"name":"gian","value":1}]})",
       "no engine slot \"gian\", did you mean \"gain\"?"},
      {R"({"changes":[{"name":"level","value":1}]})",
       "level is a fast slot: only engine slots can be set"},
      {R"({"changes":[{"name":"gain","value":"loud"}]})",
       "gain takes a number from -3.4e38 to 3.4e38, not \"loud\""},
      {R"({"changes":[{"name":"delay","value":1.5}]})",
       "delay takes an integer from -2147483648 to 2147483647, not \"1.5\""},
      {R"({"changes":[{"name":"gain","value":1},{"name":"delay","value":"x"}]})",
       "delay takes an integer from -2147483648 to 2147483647, not \"x\""},
  };
  for (const auto& [body, error] : cases) {
    expectRefusal(client().Post("/api/set", own(), body, "application/json"), 400, error);
  }
  EXPECT_EQ(Json::parse(client().Get("/api/status")->body)["notifications"], 0);
}

TEST_F(Page, AcceptsChangesFromItselfOnly) {
  const std::string body = R"({"changes":[{"name":"gain","value":1}]})";
  expectRefusal(
      client().Post("/api/set", body, "application/json"), 403,
      "only the page itself makes changes: a request needs the header \"Origin: " + origin + "\"");
  const std::string type = "a request needs the header \"Content-Type: application/json\"";
  expectRefusal(client().Post("/api/set", own(), body, "text/plain"), 415, type);
  expectRefusal(client().Post("/api/set", own(), body, "application/json-seq"), 415, type);
  expectRefusal(client().Post("/api/set", own(), body, "multipart/form-data; boundary=x"), 415,
                "only application/json is accepted");
  EXPECT_FALSE(servers.hasEvent("SetParams"));
}

TEST_F(Page, RefusesRequestsOfOtherSites) {
  for (const std::string& foreign : {std::string("http://evil.example"), std::string("null"),
                                     origin + "0", "https" + origin.substr(4)}) {
    const httplib::Headers headers = {{"Origin", foreign}};
    const std::string error =
        "other sites get no answer here: a request has the header \"Origin: " + origin +
        "\" or none";
    expectRefusal(client().Get("/api/events", headers), 403, error);
    expectRefusal(client().Get("/no", headers), 403, error);
    expectRefusal(client().Post("/api/set", headers, "{}", "application/json"), 403, error);
  }
  EXPECT_EQ(client().Get("/api/slots", own())->status, 200);
}

TEST_F(Page, AnswersOnlyAsAnAddressOrLocalhost) {
  for (const std::string& name : {std::string("127.0.0.1"), std::string("localhost:80"),
                                  std::string("[::1]:9"), std::string("192.0.2.7:8080")}) {
    EXPECT_EQ(client().Get("/api/status", {{"Host", name}})->status, 200) << name;
  }
  for (const std::string& name :
       {std::string("evil.example"), std::string("127.0.0.1.evil.example"),
        std::string("localhost.evil.example:80"), std::string("[::1].evil"),
        std::string("127.0.0.1:x"), std::string("")}) {
    expectRefusal(client().Get("/api/status", {{"Host", name}}), 403,
                  "this was requested as \"" + name +
                      "\": without a token, there is an answer only under an IP address or as "
                      "localhost");
  }
}

TEST_F(Page, RefusesWrongPathsMethodsAndSizes) {
  expectRefusal(client().Get("/api/stat"), 404,
                "there is no /api/stat, did you mean \"/api/status\"?");
  expectRefusal(client().Get("/../etc/passwd"), 404, "there is no /../etc/passwd");
  expectRefusal(client().Get("/api/set"), 405, "/api/set takes POST, not GET");
  expectRefusal(client().Post("/api/slots", own(), "{}", "application/json"), 405,
                "/api/slots takes GET, not POST");
  expectRefusal(client().Put("/", own(), "{}", "application/json"), 405, "/ takes GET, not PUT");
  expectRefusal(client().Delete("/metrics"), 405, "/metrics takes GET, not DELETE");
  expectRefusal(client().Options("/"), 405, "/ takes GET, not OPTIONS");
  EXPECT_EQ(client().Get("/api/set")->get_header_value("Allow"), "POST");
  EXPECT_EQ(client().Options("/")->get_header_value("Allow"), "GET, HEAD");
  EXPECT_EQ(client().Head("/")->status, 200);

  const std::string most =
      R"({"changes":[{"name":"preset","value":")" + std::string(65536 - 42, 'x') + "\"}]}";
  EXPECT_EQ(most.size(), 65536u);
  EXPECT_EQ(client().Post("/api/set", own(), most, "application/json")->status, 200);
  expectRefusal(client().Post("/api/set", own(), most + " ", "application/json"), 413,
                "a body has at most 65536 bytes");
  // The same for a body that comes in chunks, without its size in the header.
  const auto chunks = [&](std::size_t, httplib::DataSink& sink) {
    sink.write(most.data(), most.size());
    sink.write(" ", 1);
    sink.done();
    return true;
  };
  expectRefusal(client().Post("/api/set", own(), chunks, "application/json"), 413,
                "a body has at most 65536 bytes");
}

// ---- Metrics --------------------------------------------------------------------------------

struct Sample {
  std::string name;
  std::map<std::string, std::string> labels;
  std::string value;
};

// Reads one line by the grammar of the text format 0.0.4, and throws if it breaks it.
class SampleReader {
 public:
  explicit SampleReader(const std::string& line) : line_(line) {}

  Sample read() {
    Sample sample;
    sample.name = name(":");
    if (take('{')) readLabels(sample);
    expect(' ');
    sample.value = line_.substr(at_);
    if (sample.value != "NaN" && sample.value != "+Inf" && sample.value != "-Inf") {
      std::size_t used = 0;
      std::stod(sample.value, &used);
      if (used != sample.value.size()) fail();
    }
    return sample;
  }

 private:
  void readLabels(Sample& sample) {
    do {
      const std::string label = name("");
      expect('=');
      expect('"');
      std::string& value = sample.labels[label];
      while (!take('"')) value += character();
    } while (take(','));
    expect('}');
  }

  char character() {
    const char c = line_.at(at_++);
    if (c != '\\') return c;
    const char escaped = line_.at(at_++);
    if (escaped == 'n') return '\n';
    if (escaped != '\\' && escaped != '"') fail();
    return escaped;
  }

  std::string name(const std::string& more) {
    const std::size_t begin = at_;
    while (std::isalnum(static_cast<unsigned char>(line_.at(at_))) != 0 || line_[at_] == '_' ||
           more.find(line_[at_]) != more.npos) {
      ++at_;
    }
    if (at_ == begin || std::isdigit(static_cast<unsigned char>(line_[begin])) != 0) fail();
    return line_.substr(begin, at_ - begin);
  }

  bool take(char c) { return line_.at(at_) == c && (++at_, true); }
  void expect(char c) {
    if (!take(c)) fail();
  }
  [[noreturn]] void fail() const {
    throw std::runtime_error("column " + std::to_string(at_) + " of " + line_);
  }

  const std::string& line_;
  std::size_t at_ = 0;
};

// Also expects every family once, its HELP and TYPE before its samples, and no sample twice.
std::vector<Sample> readMetrics(const std::string& text) {
  std::vector<Sample> samples;
  std::set<std::string> families;
  std::set<std::string> series;
  std::string family;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("# HELP ")) {
      family = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_TRUE(families.insert(family).second) << line;
    } else if (line.starts_with("# TYPE ")) {
      const bool isKnown =
          line == "# TYPE " + family + " gauge" || line == "# TYPE " + family + " counter";
      EXPECT_TRUE(isKnown) << line;
      EXPECT_EQ(line.ends_with("counter"), family.ends_with("_total")) << line;
    } else {
      samples.push_back(SampleReader(line).read());
      EXPECT_EQ(samples.back().name, family) << line;
      EXPECT_TRUE(series.insert(line.substr(0, line.rfind(' '))).second) << line;
    }
  }
  EXPECT_TRUE(text.ends_with('\n'));
  return samples;
}

std::string valueOf(const std::vector<Sample>& samples, const std::string& name,
                    const std::map<std::string, std::string>& labels) {
  for (const Sample& sample : samples) {
    if (sample.name == name && sample.labels == labels) return sample.value;
  }
  return "none";
}

TEST_F(Page, ReportsMetrics) {
  EventStream events(origin);
  events.next("snapshot");
  servers.command("send fast " + levels({{"out.level", -INFINITY}, {"in.level", -13.828327f}}));
  // The links are read four times a second.
  for (Json links; links.is_null() || links[0]["state"] != "receiving";) {
    links = events.next("update").data.value("links", links);
  }
  client().Post("/api/set", own(), R"({"changes":[{"name":"gain","value":"nan"}]})",
                "application/json");
  events.nextWith("notifications");
  const auto result = client().Get("/metrics");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  const auto samples = readMetrics(result->body);
  const auto slot = [](const char* set, const char* type, const char* name, const char* key) {
    return std::map<std::string, std::string>{
        {"set", set}, {"type", type}, {"name", name}, {"key", key}};
  };
  const std::string value = "gateway_slot_value";
  EXPECT_EQ(valueOf(samples, value, slot("fast", "float", "level", "out.level")), "-Inf");
  EXPECT_EQ(valueOf(samples, value, slot("fast", "float", "input", "in.level")), "-13.828327");
  EXPECT_EQ(valueOf(samples, value, slot("engine", "float", "gain", "out.gain")), "NaN");
  EXPECT_EQ(valueOf(samples, value, slot("engine", "int", "delay", "delay")), "0");
  const auto text = slot("fast", "string", "state", "a \"b\" \\c");
  EXPECT_EQ(valueOf(samples, value, text), "none");
  EXPECT_GT(std::stod(valueOf(samples, "gateway_slot_age_seconds", text)), 0);
  EXPECT_EQ(valueOf(samples, "gateway_notifications_total", {}), "1");
  EXPECT_GE(std::stoi(valueOf(samples, "gateway_slot_changes_total", {})), 2);
  EXPECT_GT(std::stod(valueOf(samples, "gateway_uptime_seconds", {})), 0);
  EXPECT_GE(std::stoi(valueOf(samples, "gateway_log_lines_total", {{"level", "trace"}})), 1);
  EXPECT_EQ(valueOf(samples, "gateway_log_lines_total", {{"level", "error"}}), "0");
  EXPECT_EQ(valueOf(samples, "gateway_slot_moved", slot("fast", "float", "level", "out.level")),
            "1");
  EXPECT_EQ(valueOf(samples, "gateway_slot_moved", text), "0");
  const auto ofLink = [&](const std::string& name, std::map<std::string, std::string> labels) {
    return valueOf(samples, "gateway_link_" + name, labels);
  };
  EXPECT_EQ(ofLink("state", {{"link", "fast"}, {"state", "receiving"}}), "1");
  EXPECT_EQ(ofLink("state", {{"link", "fast"}, {"state", "no-server"}}), "0");
  EXPECT_EQ(ofLink("connected", {{"link", "fast"}, {"target", servers.metersTarget()}}), "1");
  EXPECT_EQ(ofLink("messages_total", {{"link", "fast"}}), "1");
  EXPECT_GE(std::stod(ofLink("last_message_age_seconds", {{"link", "fast"}})), 0);
  EXPECT_EQ(ofLink("last_message_age_seconds", {{"link", "slow"}}), "none");
  EXPECT_EQ(ofLink("calls_started_total", {{"link", "slow"}}), "1");
  EXPECT_EQ(ofLink("calls_total", {{"link", "slow"}, {"outcome", "failed"}}), "0");
  int infos = 0;
  for (const Sample& sample : samples) {
    if (sample.name != "gateway_info") continue;
    ++infos;
    EXPECT_EQ(sample.value, "1");
    EXPECT_EQ(sample.labels.at("module"), "gateway");
    EXPECT_EQ(sample.labels.at("config"), files.path("gateway.conf"));
  }
  EXPECT_EQ(infos, 1);
}

TEST_F(Page, IsReadyOnceEachStreamHasAMessage) {
  const auto before = client().Get("/ready");
  ASSERT_TRUE(before);
  EXPECT_EQ(before->status, 503);
  EXPECT_EQ(Json::parse(before->body)["ready"], false);
  servers.waitEvent("open slow ");  // the fixture has waited for the fast stream
  servers.command("send fast " + levels({{"out.level", -12.5f}}));
  servers.command("send slow -");
  EventStream events(origin);
  const auto isReceiving = [](const Json& links) {
    return links[0]["state"] == "receiving" && links[1]["state"] == "receiving";
  };
  Json update;
  while (!update.contains("links") || !isReceiving(update["links"])) {
    update = events.next("update").data;
  }
  const auto after = client().Get("/ready");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->status, 200);
  EXPECT_EQ(Json::parse(after->body)["ready"], true);
}

TEST_F(Page, ReplacesInvalidUtf8AndKeepsMetricsDistinct) {
  host.reset();
  const std::string odd = files.write("odd.conf", "[Meters]\nTarget=" + servers.metersTarget() +
                                                      "\n[MetersFloat]\nMeter=Key=a\xff"
                                                      "b CustomKey=odd\xc3\n"
                                                      "Meter=Key=a\xfe"
                                                      "b CustomKey=odd\xc4\n"
                                                      "Meter=Key=\xc3\xa4\xe2\x82\xac\xf0\x9f"
                                                      "\x8e\xb5\xed\xa0\x80 CustomKey=fit\n");
  host.emplace(std::vector<std::string>{"host", odd, "--page", "127.0.0.1:0"});
  const std::string url = host->waitLine("page ").substr(5);
  origin = url.substr(0, url.size() - 1);
  const auto samples = readMetrics(client().Get("/metrics")->body);
  EXPECT_EQ(samples.at(0).labels.at("key"), "a\\xffb");
  EXPECT_EQ(samples.at(0).labels.at("name"), "odd\\xc3");
  EXPECT_EQ(samples.at(1).labels.at("key"), "a\\xfeb");
  EXPECT_EQ(samples.at(1).labels.at("name"), "odd\\xc4");
  EXPECT_EQ(samples.at(2).labels.at("key"), "\u00e4\u20ac\U0001f3b5\\xed\\xa0\\x80");
  EventStream events(origin);
  EXPECT_EQ(events.next("snapshot").data["slots"][0]["key"],
            "a\uFFFD"
            "b");
}

// ---- Tokens ---------------------------------------------------------------------------------

TEST_F(Page, AcceptsItsTokenInThreeForms) {
  host.reset();
  start({"--page", "127.0.0.1:0", "--token", "0123-abc_DEF"});
  const std::string error =
      "show the token of the page: open it as /?token=TOKEN, or send the header \"Authorization: "
      "Bearer TOKEN\"";
  const std::string cookie = "gateway_page_" + std::to_string(port());
  for (const char* path :
       {"/", "/main.js", "/api/slots", "/api/history", "/api/events", "/metrics", "/no"}) {
    expectRefusal(client().Get(path), 401, error);
    expectRefusal(client().Get((path + std::string("?token=0123-abc_DEf")).c_str()), 401, error);
  }
  for (const httplib::Headers& wrong :
       std::vector<httplib::Headers>{{{"Authorization", "Bearer 0123-abc_DE"}},
                                     {{"Authorization",
                                       "Bearer 0123-abc_DEF "
                                       "x"}},
                                     {{"Authorization", "Basic 0123-abc_DEF"}},
                                     {{"Cookie", cookie + "="}},
                                     {{"Cookie", "x" + cookie + "=0123-abc_DEF"}}}) {
    expectRefusal(client().Get("/api/slots", wrong), 401, error);
  }
  for (const char* scheme : {"Bearer", "bearer", "BEARER"}) {
    const httplib::Headers header = {{"Authorization", scheme + std::string(" 0123-abc_DEF")}};
    EXPECT_EQ(client().Get("/api/slots", header)->status, 200) << scheme;
  }
  const auto page = client().Get("/?token=0123-abc_DEF");
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(page->get_header_value("Set-Cookie"),
            cookie + "=0123-abc_DEF; Path=/; HttpOnly; SameSite=Strict");
  const httplib::Headers shown = {{"Cookie", "a=b; " + cookie + "=0123-abc_DEF; c=d"}};
  EXPECT_EQ(client().Get("/main.js", shown)->status, 200);
  EventStream events(origin, shown);
  events.next("snapshot");
  // The token says who asks, not from which site: a change still needs its Origin.
  EXPECT_EQ(client().Post("/api/set", shown, "{}", "application/json")->status, 403);
}

TEST_F(Page, ReadsItsTokenFromAFile) {
  host.reset();
  start({"--page", "127.0.0.1:0", "--token-file", files.write("token", "0123-abc_DEF\n")});
  EXPECT_EQ(client().Get("/api/status")->status, 401);
  EXPECT_EQ(client().Get("/api/status?token=0123-abc_DEF")->status, 200);
  std::ifstream file("/proc/" + std::to_string(host->pid()) + "/cmdline");
  const std::string shown(std::istreambuf_iterator<char>(file), {});
  EXPECT_NE(shown.find("--token-file"), shown.npos);
  EXPECT_EQ(shown.find("0123-abc_DEF"), shown.npos);
}

TEST_F(Page, KeepsItsTokenToItself) {
  host.reset();
  start({"--page", "127.0.0.1:0", "--token", "0123-abc_DEF"});
  std::string seen;
  for (const char* path : {"/?token=0123-abc_DEF", "/no?token=0123-abc_DEF", "/api/status",
                           "/api/status?token=0123-abc_DEF", "/metrics?token=0123-abc_DEF"}) {
    const auto answer = client().Get(path);
    EXPECT_EQ(answer->get_header_value("Referrer-Policy"), "no-referrer");
    seen += answer->body;
  }
  host->writeLine("quit");
  EXPECT_EQ(host->waitExit(), 0);
  for (const std::string& line : host->lines()) seen += line;
  EXPECT_EQ((seen + host->errors()).find("0123-abc_DEF"), std::string::npos);
}

TEST_F(Page, NeedsATokenToBeReachedByOthers) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--page", "0.0.0.0:0"}, "0.0.0.0:0 can be reached by others: give the page a --token"},
      {{"--page", "[::]:0"}, "[::]:0 can be reached by others: give the page a --token"},
      {{"--page", "0.0.0.0:0", "--token", "short"}, "a token has 8 to 128 letters"},
      {{"--token", "has blanks in it"}, "a token has 8 to 128 letters"},
      {{"--token-file", files.write("short", "short\n")}, "a token has 8 to 128 letters"},
      {{"--token-file", files.write("empty", "\n")}, "/empty has no token"},
      {{"--token-file", files.path("none")}, "/none: No such file or directory"},
      {{"--token-file", files.write("good", "0123456789"), "--token", "0123456789"},
       "--token can't be combined with --token-file"},
      {{"--page", "8080"}, "\"8080\" is not ADDRESS:PORT"},
      {{"--page", "127.0.0.1:65536"}, "is not ADDRESS:PORT"},
      {{"--page", "example.com:80"}, "is not ADDRESS:PORT"},
      {{"--page", "127.0.0.1:0", "--no-page"}, "--page can't be combined with --no-page"},
  };
  for (const auto& [arguments, error] : cases) {
    std::vector<std::string> all = {"host", config()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    ToolProcess tool(all);
    EXPECT_EQ(tool.waitExit(), 2) << error;
    EXPECT_NE(tool.errors().find(error), std::string::npos) << tool.errors();
  }
  host.reset();
  start({"--page", "0.0.0.0:0", "--token", "0123456789"});
  EXPECT_EQ(client().Get("/api/slots?token=0123456789")->status, 200);
}

TEST_F(Page, ListensOnIpv6) {
  host.reset();
  start({"--page", "[::1]:0"});
  EXPECT_TRUE(origin.starts_with("http://[::1]:"));
  EXPECT_EQ(httplib::Client("::1", port()).Get("/api/status")->status, 200);
}

// ---- Beginning and end ----------------------------------------------------------------------

TEST_F(Page, FailsIfTheRequestedPortIsTaken) {
  ToolProcess second({"host", config(), "--page", target()});
  EXPECT_EQ(second.waitExit(), 1);
  EXPECT_NE(second.errors().find("gatewayctl host: the live page can't listen on " + target() +
                                 ": the port is taken. Give another one with --page, or --page "
                                 "127.0.0.1:0 for any free port\n"),
            std::string::npos)
      << second.errors();
  EXPECT_NE(second.errors().find("Completion queue flush ended"), std::string::npos);
}

TEST_F(Page, IsNotServedWithNoPage) {
  ToolProcess second({"host", config(), "--no-page"});
  second.writeLine("quit");
  EXPECT_EQ(second.waitExit(), 0);
  EXPECT_FALSE(second.hasLine("page "));
}

TEST_F(Page, ReportsItsAddressAsJson) {
  ToolProcess second({"host", config(), "--page", "127.0.0.1:0", "--json"});
  const Json event = Json::parse(second.waitLine("{\"event\":\"page\""));
  EXPECT_TRUE(event["url"].get<std::string>().starts_with("http://127.0.0.1:"));
}

// All that the other side sends until it closes.
std::string restOf(RawConnection& connection) {
  const std::string text = connection.readToTheEnd();
  EXPECT_EQ(connection.lastError(), 0) << "the connection was not closed";
  return text;
}

TEST_F(Page, TurnsExcessConnectionsAwayAndRecovers) {
  std::deque<RawConnection> idle;
  for (std::size_t i = 0; i < tools::HttpLimits{}.connectionsPerAddress; ++i) {
    idle.emplace_back(target());
  }
  RawConnection excess(target());
  const std::string answer = restOf(excess);
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 503 ")) << answer;
  const std::size_t body = answer.find("\r\n\r\n") + 4;
  EXPECT_EQ(Json::parse(answer.substr(body)),
            Json({{"error", "too many open connections from your address"}}));
  EXPECT_NE(answer.find("Content-Length: " + std::to_string(answer.size() - body) + "\r\n"),
            answer.npos);
  idle.clear();
  const auto end = std::chrono::steady_clock::now() + patience;
  int status = 0;
  while (status != 200 && std::chrono::steady_clock::now() < end) {
    const auto result = client().Get("/api/status");
    status = result ? result->status : 0;
  }
  EXPECT_EQ(status, 200);
}

TEST_F(Page, TreatsAMissingLengthAsAnEmptyBody) {
  const std::string post = "POST /api/set HTTP/1.1\r\nHost: " + target() + "\r\n";
  const std::string own = "Origin: " + origin + "\r\n";
  const std::string json = "Content-Type: application/json\r\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "HTTP/1.1 403 "}, {own, "HTTP/1.1 415 "}, {own + json, "HTTP/1.1 400 "}};
  for (const auto& [headers, status] : cases) {
    RawConnection connection(target());
    connection.write(post + headers + "\r\n");
    const std::string answer = restOf(connection);
    EXPECT_TRUE(answer.starts_with(status)) << answer;
    EXPECT_EQ(answer.find("incomplete"), answer.npos) << answer;
  }
}

TEST_F(Page, StopsDespiteOpenConnections) {
  EventStream one(origin);
  EventStream two(origin);
  one.next("snapshot");
  two.next("snapshot");
  const RawConnection idle(target());
  RawConnection half(target());
  half.write("POST /api/set HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-");
  RawConnection deaf(target());
  deaf.write("GET /api/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  host->writeLine("quit");
  EXPECT_EQ(host->waitExit(), 0);
  while (const auto event = one.next()) EXPECT_NE(event->name, "snapshot");
  while (const auto event = two.next()) EXPECT_NE(event->name, "snapshot");
  EXPECT_FALSE(client().Get("/"));
}

TEST_F(Page, StopsWhenInterrupted) {
  EventStream events(origin);
  events.next("snapshot");
  host->signal(SIGTERM);
  EXPECT_EQ(host->waitExit(), 130);
}

// ---- Parts in this process ------------------------------------------------------------------

class ServedModule : public ::testing::Test {
 protected:
  static std::string originOf(const host::PageServer& page) {
    return page.url().substr(0, page.url().size() - 1);
  }

  static host::PageSettings anyPort() { return host::parsePageAddress("127.0.0.1:0"); }

  const SimProcess servers;
  const TemporaryFolder files;
  host::LogBook log;
  host::RunningModule module{
      {.config = files.write("one.conf", "[Meters]\nTarget=" + servers.metersTarget() +
                                             "\n[MetersFloat]\nMeter=Key=a\n"),
       .module = GATEWAY_MODULE,
       .name = "gateway"},
      [this](const auto& line) { log.add(line); }};
};

TEST_F(ServedModule, StreamsEachLogLineOnce) {
  const host::PageServer page(module, log, anyPort());
  EventStream events(originOf(page));
  const Json before = events.next("snapshot").data["log"];
  EXPECT_EQ(before.size(), log.linesFrom(0).lines.size());
  for (const char* text : {"first \xff", "second"}) {
    log.add({.time = {}, .level = 3, .file = "src/a.cpp", .line = 7, .one = 1, .text = text});
    module.sample();
    const Json lines = events.nextWith("log")["log"];
    ASSERT_EQ(lines.size(), 1u);
    const std::string shown = text[0] == 'f' ? "first \uFFFD" : "second";
    EXPECT_EQ(
        lines[0],
        Json({{"time", 0.0}, {"level", 3}, {"file", "src/a.cpp"}, {"line", 7}, {"text", shown}}));
  }
}

// Nobody asked for the default port, so that any other will do if it is taken.
TEST_F(ServedModule, MovesToAnotherPortOnlyIfAllowed) {
  const host::PageServer first(module, log, anyPort());
  EXPECT_FALSE(first.hasMoved());
  const auto taken = host::parsePageAddress(originOf(first).substr(7));
  EXPECT_THROW(host::PageServer(module, log, taken), std::runtime_error);
  host::PageSettings usual;
  usual.address.port = taken.address.port;
  const host::PageServer second(module, log, usual);
  EXPECT_TRUE(second.hasMoved());
  EXPECT_NE(second.url(), first.url());
  EXPECT_EQ(httplib::Client(originOf(second)).Get("/")->status, 200);
}

// A script, a style or an icon of the page is "/{file}" there.
std::string asDocumented(const std::string& route) {
  static const std::regex file("GET /[\\w.-]+\\.[a-z]+");
  return std::regex_match(route, file) ? "GET /{file}" : route;
}

TEST_F(ServedModule, HasEachOfItsRoutesDocumented) {
  const host::PageServer page(module, log, anyPort());
  std::set<std::string> served;
  for (const std::string& route : page.routes()) served.insert(asDocumented(route));
  std::ifstream file(SOURCE_FOLDER "/docs/openapi.json");
  const Json openApi = Json::parse(file);
  std::set<std::string> documented;
  for (const auto& [path, methods] : openApi["paths"].items()) {
    for (const auto& method : methods.items()) {
      documented.insert((method.key() == "get" ? "GET " : "POST ") + path);
    }
  }
  EXPECT_EQ(served, documented);
}

// A suspended browser takes nothing from its connection, so that a write to it never finishes.
TEST_F(ServedModule, StopsDespiteAReaderThatTakesNothing) {
  std::optional<host::PageServer> page(std::in_place, module, log, anyPort());
  RawConnection deaf(originOf(*page).substr(7));
  deaf.write("GET /api/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  EventStream heard(originOf(*page));
  heard.next("snapshot");
  const std::string text(1000000, 'x');
  for (int i = 0; i < 20; ++i) {
    log.add({.time = {}, .level = 1, .file = "", .line = 1, .one = 1, .text = text});
    module.sample();
    heard.next("update");
  }
  page.reset();
  while (heard.next()) {
  }
}

}  // namespace
