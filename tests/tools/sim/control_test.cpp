// The control interface of the simulator: its parts in this process, and the interface as a test in
// another language uses it. tests/docs/sim_control_test.py compares it with its documents.
#include <gtest/gtest.h>
#include <httplib.h>

#include <boost/asio/io_context.hpp>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "engine.pb.h"
#include "tests/tools/sim/SimTest.h"
#include "tools/sim/Control.h"
#include "tools/sim/Journal.h"
#include "tools/sim/MeterJson.h"

namespace {

using nlohmann::json;
using sim::Journal;

// ---- The journal ----------------------------------------------------------------------------

json numbersOf(const Journal::Found& found) {
  json numbers = json::array();
  for (const auto& event : found.events) numbers.push_back(event["number"].get<int>());
  return numbers;
}

TEST(Journal, NumbersEventsFromOne) {
  Journal journal;
  EXPECT_EQ(journal.last(), 0u);
  journal.add({{"event", "opened"}, {"stream", "fast"}});
  journal.add({{"event", "closed"}, {"stream", "fast"}});
  const auto found = journal.find({});
  EXPECT_EQ(numbersOf(found), json({1, 2}));
  EXPECT_EQ(found.events[1]["event"], "closed");
  EXPECT_EQ(found.last, 2u);
  EXPECT_EQ(found.lost, 0u);
}

TEST(Journal, FindsEventsByNumberNameStreamAndKey) {
  Journal journal;
  journal.add({{"event", "opened"}, {"stream", "fast"}});
  journal.add({{"event", "opened"}, {"stream", "slow"}});
  journal.add({{"event", "set_params"}, {"key", "a"}});
  journal.add({{"event", "set_params"}, {"key", "b"}});
  EXPECT_EQ(numbersOf(journal.find({.after = 2})), json({3, 4}));
  EXPECT_EQ(numbersOf(journal.find({.event = "opened"})), json({1, 2}));
  EXPECT_EQ(numbersOf(journal.find({.stream = "slow"})), json({2}));
  EXPECT_EQ(numbersOf(journal.find({.event = "set_params", .key = "b"})), json({4}));
  EXPECT_EQ(numbersOf(journal.find({.after = 99})), json::array());
}

TEST(Journal, CountsTheEventsThatHadToMakeRoom) {
  Journal journal;
  for (std::size_t i = 0; i < Journal::mostEvents + 3; ++i) journal.add({{"event", "opened"}});
  const auto all = journal.find({});
  EXPECT_EQ(all.events.size(), Journal::mostEvents);
  EXPECT_EQ(all.events.front()["number"], 4);
  EXPECT_EQ(all.lost, 3u);
  EXPECT_EQ(journal.find({.after = 2}).lost, 1u);
  EXPECT_EQ(journal.find({.after = 3}).lost, 0u);
}

TEST(Journal, BoundsTheMemoryOfLargeEvents) {
  Journal journal;
  const std::string text(Journal::mostBytes / 2, 'x');
  for (int i = 0; i < 3; ++i) journal.add({{"event", "opened"}, {"peer", text}});
  EXPECT_EQ(numbersOf(journal.find({})), json({3}));
  EXPECT_EQ(journal.find({}).lost, 2u);
}

TEST(Journal, GoesOnCountingAfterItIsCleared) {
  Journal journal;
  journal.add({{"event", "opened"}});
  EXPECT_EQ(journal.clear(), 1u);
  EXPECT_EQ(numbersOf(journal.find({})), json::array());
  journal.add({{"event", "closed"}});
  EXPECT_EQ(numbersOf(journal.find({})), json({2}));
  EXPECT_EQ(journal.find({}).lost, 0u);
}

// ---- Messages in JSON -----------------------------------------------------------------------

std::string textOf(const json& values) {
  sonalith::grpc::Meter meter;
  if (!meter.ParseFromString(sim::meterIn(values))) return "unreadable";
  return meter.values(0).key() + " " + toHex(meter.values(0).value().SerializeAsString());
}

TEST(MeterJson, WritesEveryType) {
  using Case = std::tuple<const char*, json, const char*>;
  for (const auto& [type, value, hex] : std::vector<Case>{
           {"string", "a", "0a030a0161"},
           {"int", -2147483648, "1880808080f8ffffffff01"},
           {"uint", 4294967295, "20ffffffff0f"},
           {"float", -6.5, "150000d0c0"},
           {"float", "-inf", "15000080ff"},
           {"double", "inf", "41000000000000f07f"},
           {"floats", json({1.5, "inf"}), "2a0a0a080000c03f0000807f"},
           {"ints", json({-1}), "32060a04ffffffff"},
           {"uints", json({1}), "3a060a0401000000"},
           {"nothing", nullptr, "-"},
       }) {
    const json values = {{{"key", "k"}, {"type", type}, {"value", value}}};
    EXPECT_EQ(textOf(values), std::string("k ") + hex) << type;
  }
  EXPECT_EQ(textOf({{{"key", "k"}, {"type", "nothing"}}}), "k -");
}

TEST(MeterJson, SaysWhatIsWrongWithAValue) {
  const auto errorOf = [](const json& values) -> std::string {
    try {
      sim::meterIn(values);
    } catch (const std::invalid_argument& error) {
      return std::string(error.what()).substr(std::string("in \"values\": ").size());
    }
    return "accepted";
  };
  const auto errorAt = [&](const char* type, const json& value) {
    return errorOf({{{"key", "k"}, {"type", type}, {"value", value}}});
  };
  EXPECT_EQ(errorAt("string", 1), "1 is not a text");
  EXPECT_EQ(errorAt("int", 2147483648),
            "2147483648 is not a whole number from -2147483648 to "
            "2147483647");
  EXPECT_EQ(errorAt("int", 1.5), "1.5 is not a whole number from -2147483648 to 2147483647");
  EXPECT_EQ(errorAt("int", json::parse("18446744073709551615")),
            "18446744073709551615 is not a whole number from -2147483648 to 2147483647");
  EXPECT_EQ(errorAt("uint", -1), "-1 is not a whole number from 0 to 4294967295");
  EXPECT_EQ(errorAt("float", "loud"), R"("loud" is not a number, "nan", "inf" or "-inf")");
  EXPECT_EQ(errorAt("float", 1e300), R"(1e+300 is not a number, "nan", "inf" or "-inf")");
  EXPECT_EQ(errorAt("ints", 1), "1 is not a list of numbers");
  EXPECT_EQ(errorAt("nothing", 1), "1 is not null");
  EXPECT_EQ(errorAt("long", 1),
            "\"long\" is not a type. Types are string, int, uint, float, "
            "double, floats, ints, uints, nothing");
  EXPECT_EQ(errorOf(1), "1 is not a list of values");
  EXPECT_EQ(errorOf({{{"type", "int"}}}),
            R"({"type":"int"} is not a value, such as )"
            R"({"key": "out.level", "type": "float", "value": -6.5})");
}

// ---- The interface --------------------------------------------------------------------------

// A simulator that sends nothing by itself, and a client of its control interface.
class ControlledSim : public testing::Test {
 protected:
  static std::vector<std::string> arguments() {
    return {"--rate-fast", "0", "--rate-slow", "0", "--control", "127.0.0.1:0"};
  }

  json answerTo(const httplib::Result& result, int status) {
    if (!result) throw std::runtime_error("no answer: " + to_string(result.error()));
    EXPECT_EQ(result->status, status) << result->body;
    return json::parse(result->body);
  }

  void SetUp() override { client.set_read_timeout(patience); }

  json get(const std::string& path) { return answerTo(client.Get(path), 200); }

  json post(const std::string& path, const json& body, int status = 200) {
    return answerTo(client.Post(path, body.dump(), "application/json"), status);
  }

  // The first such event after `after`.
  json await(const std::string& query, unsigned after = 0) {
    const auto found =
        get("/api/events?wait=60&after=" + std::to_string(after) + "&" + query)["events"];
    if (found.empty()) throw std::runtime_error("no event came for " + query);
    return found[0];
  }

  PlayingSim sim{arguments()};
  const std::string origin = "http://" + sim.process().waitLine("control ").substr(8);
  httplib::Client client{origin};
};

TEST_F(ControlledSim, ListsTheOpenStreams) {
  EXPECT_EQ(get("/api/status"), json({{"meters", sim.metersTarget()},
                                      {"engine", sim.engineTarget()},
                                      {"streams", json::array()},
                                      {"last", 0}}));
  const RawCall call(sim.metersTarget(), slowPath);
  await("event=opened&stream=slow");
  const auto streams = get("/api/status")["streams"];
  ASSERT_EQ(streams.size(), 1u);
  EXPECT_EQ(streams[0]["stream"], "slow");
  EXPECT_EQ(streams[0]["call"], 1);
}

TEST_F(ControlledSim, SendsAMessageToEachOpenStreamOfAKind) {
  RawCall one(sim.metersTarget(), fastPath);
  RawCall two(sim.metersTarget(), fastPath);
  const RawCall slow(sim.metersTarget(), slowPath);
  await("event=opened&stream=fast", await("event=opened&stream=fast")["number"]);
  const json level = {{"key", "out.level"}, {"type", "float"}, {"value", -12.5}};
  EXPECT_EQ(post("/api/send", {{"stream", "fast"}, {"values", {level}}}), json({{"streams", 2}}));
  for (RawCall* const call : {&one, &two}) {
    const auto meter = meterOf(call->read());
    ASSERT_EQ(meter.values_size(), 1);
    EXPECT_EQ(meter.values(0).key(), "out.level");
    EXPECT_EQ(meter.values(0).value().sfloat(), -12.5f);
  }
}

TEST_F(ControlledSim, SendsAnyBytesSeveralTimes) {
  RawCall call(sim.metersTarget(), fastPath);
  await("event=opened");
  post("/api/send", {{"stream", "fast"}, {"bytes", "ff00"}, {"times", 3}});
  post("/api/send", {{"stream", "fast"}, {"bytes", "-"}});
  post("/api/end", {{"stream", "fast"}});
  const std::string bytes("\xff\0", 2);
  EXPECT_EQ(call.readAll(), (std::vector<std::string>{bytes, bytes, bytes, ""}));
}

TEST_F(ControlledSim, EndsStreamsWithAStatusAfterWhatWasSent) {
  RawCall call(sim.metersTarget(), fastPath);
  await("event=opened");
  post("/api/send", {{"stream", "fast"}, {"values", json::array()}});
  post("/api/end", {{"stream", "fast"}, {"status", "UNAVAILABLE"}, {"text", "maintenance"}});
  EXPECT_EQ(replyTo(call), (Reply{grpc::StatusCode::UNAVAILABLE, {""}}));
  EXPECT_EQ(await("event=closed")["end"], "ended");
}

TEST_F(ControlledSim, RefusesWhatNoStreamWouldGet) {
  for (const auto& [path, body] : {std::pair("/api/send", json({{"values", json::array()}})),
                                   std::pair("/api/end", json::object())}) {
    auto request = body;
    request["stream"] = "slow";
    EXPECT_EQ(post(path, request, 409)["error"],
              "no slow stream is open: wait for its event \"opened\"");
  }
}

TEST_F(ControlledSim, RefusesFurtherMessagesForAStreamThatIsNotRead) {
  const RawCall deaf(sim.metersTarget(), fastPath);
  await("event=opened");
  const auto message =
      json({{"stream", "fast"}, {"bytes", std::string(16 * mebibyte - 100, '0')}}).dump();
  json answer;
  for (int i = 0; i < 12 && !answer.contains("error"); ++i) {
    const auto result = client.Post("/api/send", message, "application/json");
    ASSERT_TRUE(result);
    answer = json::parse(result->body);
  }
  EXPECT_EQ(answer["error"], "fast 1 reads too slowly: more than 67108864 bytes wait for it");
}

// Also if the client began to wait before the parameter came.
TEST_F(ControlledSim, WaitsForAParameter) {
  auto waiting = std::async(std::launch::async, [&] {
    httplib::Client other(origin);
    other.set_read_timeout(patience);
    return answerTo(other.Get("/api/events?event=set_params&key=out.gain&wait=60"), 200);
  });
  sonalith::grpcengine::RequestSetParams request;
  for (const char* key : {"out.mute", "out.gain"}) {
    auto& param = *request.add_params();
    param.set_key(key);
    param.mutable_value()->set_sfloat(-6.5);
  }
  EXPECT_EQ(setParams(sim.engineTarget(), request.SerializeAsString()).code, grpc::StatusCode::OK);
  auto answer = waiting.get();
  EXPECT_EQ(answer["last"], 2);
  ASSERT_EQ(answer["events"].size(), 1u);
  EXPECT_GT(answer["events"][0].at("time"), 1.7e9);
  answer["events"][0].erase("time");
  EXPECT_EQ(answer["events"][0], json({{"number", 2},
                                       {"event", "set_params"},
                                       {"call", 1},
                                       {"key", "out.gain"},
                                       {"type", "float"},
                                       {"value", -6.5}}));
}

TEST_F(ControlledSim, RefusesABodyThatIsNestedTooDeeply) {
  const std::string depths(500000, '[');
  const std::string ends(500000, ']');
  const auto result =
      client.Post("/api/send", R"({"stream": )" + depths + ends + "}", "application/json");
  EXPECT_EQ(answerTo(result, 400)["error"], "the body is nested too deeply");
}

TEST_F(ControlledSim, AnswersWithoutEventsWhenTheTimeIsUp) {
  EXPECT_EQ(get("/api/events?event=set_params&wait=0.01"),
            json({{"events", json::array()}, {"last", 0}, {"lost", 0}}));
}

TEST_F(ControlledSim, InjectsAndEndsFaults) {
  EXPECT_EQ(post("/api/fault", {{"fault", "fail UNAVAILABLE"}}),
            json({{"fault", "fail"}, {"subjects", {"engine"}}, {"argument", "UNAVAILABLE"}}));
  EXPECT_EQ(setParams(sim.engineTarget()).code, grpc::StatusCode::UNAVAILABLE);
  post("/api/fault", {{"fault", "normal"}});
  EXPECT_EQ(setParams(sim.engineTarget()).code, grpc::StatusCode::OK);
}

TEST_F(ControlledSim, EndsAFaultAfterItsTime) {
  post("/api/fault", {{"fault", "freeze engine"}, {"for", 0.1}});
  EXPECT_EQ(await("event=fault_over")["fault"], "freeze");
  EXPECT_EQ(setParams(sim.engineTarget()).code, grpc::StatusCode::OK);
}

TEST_F(ControlledSim, ResetsFaultsAndEventsButNotStreams) {
  RawCall call(sim.metersTarget(), fastPath);
  await("event=opened");
  post("/api/fault", {{"fault", "fail UNAVAILABLE"}});
  const unsigned last = post("/api/reset", json::object())["last"];
  EXPECT_EQ(get("/api/events")["events"], json::array());
  EXPECT_EQ(setParams(sim.engineTarget()).code, grpc::StatusCode::OK);
  post("/api/send", {{"stream", "fast"}, {"bytes", "-"}});
  EXPECT_EQ(call.read(), "");
  post("/api/fault", {{"fault", "empty fast"}});
  EXPECT_EQ(await("event=fault")["number"], last + 1);
}

// What a delay holds back would otherwise keep back everything after it.
TEST(ControlledSignals, AreDroppedByAResetWhileADelayHoldsThemBack) {
  PlayingSim sim({"--keys", "fast:int:a", "--rate-fast", "100", "--control", "127.0.0.1:0"});
  httplib::Client client("http://" + sim.process().waitLine("control ").substr(8));
  client.set_read_timeout(patience);
  RawCall call(sim.metersTarget(), fastPath);
  ASSERT_TRUE(call.read());
  ASSERT_TRUE(client.Post("/api/fault", R"({"fault": "delay meters 3600"})", "application/json"));
  // Time for a signal to be held back. If it is too short, the test finds less.
  ASSERT_TRUE(client.Get("/api/events?event=none&wait=0.1"));
  ASSERT_TRUE(client.Post("/api/reset", "{}", "application/json"));
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(call.read());
}

TEST(PlannedFaults, AreEventsToo) {
  PlayingSim sim({"--control", "127.0.0.1:0", "--fault", "at 0: fail DATA_LOSS"});
  httplib::Client client("http://" + sim.process().waitLine("control ").substr(8));
  client.set_read_timeout(patience);
  const auto result = client.Get("/api/events?event=fault&wait=60");
  ASSERT_TRUE(result);
  EXPECT_EQ(json::parse(result->body)["events"][0]["argument"], "DATA_LOSS");
}

TEST(ControlAddress, HasToBeOfThisMachineAlone) {
  EXPECT_EQ(sim::parseControlAddress("[::1]:0").host, "::1");
  EXPECT_THROW(sim::parseControlAddress("0.0.0.0:8081"), std::invalid_argument);
  ToolProcess refused({"sim", "--control", "192.0.2.1:8081"});
  refused.waitError(
      "192.0.2.1:8081 can be reached by others: give an address of this machine alone, "
      "such as 127.0.0.1:8081");
  EXPECT_EQ(refused.waitExit(), 2);
}

TEST(ControlAddress, HasToBeFree) {
  PlayingSim first({"--control", "127.0.0.1:0"});
  const auto taken = first.process().waitLine("control ").substr(8);
  ToolProcess second({"sim", "--meters", SimProcess::anyPort, "--engine", SimProcess::anyPort,
                      "--control", taken});
  second.waitError("can't listen on " + taken);
  EXPECT_EQ(second.waitExit(), 1);
}

TEST(ControlRoutes, AreAllDocumented) {
  boost::asio::io_context loop;
  Journal journal;
  const sim::Report report(false);
  sim::EngineAnswers answers(loop, 1);
  const sim::PlayerSettings settings;
  sim::Player player(settings, report, answers, loop);
  sim::Simulator simulator({.meters = SimProcess::anyPort, .engine = ""}, player);
  sim::Saboteur saboteur(loop, {}, {settings, player, answers, simulator, nullptr, nullptr},
                         report);
  const sim::Control control(
      {}, {loop, simulator, simulator.addresses(), saboteur, journal, player.delivery()});
  std::set<std::string> documented;
  std::ifstream file(SOURCE_FOLDER "/docs/sim-control.openapi.json");
  const json openApi = json::parse(file);
  for (const auto& [path, methods] : openApi["paths"].items()) {
    documented.insert((methods.contains("get") ? "GET " : "POST ") + path);
  }
  const auto served = control.routes();
  EXPECT_EQ(std::set<std::string>(served.begin(), served.end()), documented);
}

}  // namespace
