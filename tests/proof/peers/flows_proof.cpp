// The module's flows with other gRPC implementations: what holds with the simulator also holds with
// gRPC for Node and gRPC for Python.
#include <algorithm>
#include <future>
#include <map>
#include <set>

#include "tests/module/grpc-gateway/flows/StreamTest.h"
#include "tests/proof/Proof.h"
#include "tests/proof/peers/Peers.h"
#include "tools/common/StatusName.h"

namespace {

using peers::Peer;
using peers::Sample;
using standin::KeyValueList;
using standin::SlotSet;
using standin::SlotValue;

// Slots and parameters of each type, on both streams.
std::string everyType() {
  std::string entries;
  for (const char* section : {"String", "Int", "Uint", "Float"}) {
    const std::string name = std::string(1, static_cast<char>(std::tolower(*section)));
    entries += "[Meters" + std::string(section) + "]\nMeter=Key=" + name + " CustomKey=" + name +
               "\nMeter=Key=" + name + " Type=slow CustomKey=" + name + "\n[Engine" + section +
               "]\nParam=Key=" + name + " CustomKey=" + name + "\n";
  }
  return entries;
}

Batch batchOf(const Sample& sample) {
  return Batch()
      .addString("s", sample.text)
      .addInt("i", sample.integer)
      .addUint("u", sample.natural)
      .addFloat("f", sample.number);
}

std::vector<Sample> extremeAndRandomSamples(std::uint64_t randomOnes) {
  peers::Random random(proof::seed());
  std::vector<Sample> samples = peers::extremeSamples();
  for (std::uint64_t i = 0; i < randomOnes; ++i) samples.push_back(peers::randomSample(random));
  return samples;
}

class Peers : public FlowTest, public ::testing::WithParamInterface<Peer> {
 protected:
  Peers() : FlowTest(GetParam().program) {}

  void expectSample(SlotSet set, const Sample& sample) const {
    EXPECT_EQ(read(set, "s"), SlotValue(sample.text));
    EXPECT_EQ(read(set, "i"), SlotValue(sample.integer));
    EXPECT_EQ(read(set, "u"), SlotValue(sample.natural));
    const auto bits = [](const SlotValue& value) {
      return std::bit_cast<std::uint32_t>(std::get<float>(value));
    };
    EXPECT_EQ(bits(read(set, "f")), bits(sample.number));
  }

  // Notifies of the changes and expects this request to arrive.
  void expectArrival(KeyValueList& changes, const Request& request) {
    notify(changes);
    EXPECT_EQ(received(), request.hex());
    servers.waitEvent("closed SetParams ");
  }

  void expectFlowing(int value) {
    deliverFast(Batch().addInt("i", value));
    EXPECT_EQ(fast("i"), SlotValue(value));
    KeyValueList changes;
    changes.addInt("gateway.i", value);
    expectArrival(changes, Request().addInt("i", value));
  }

  static void report(const std::string& group, const std::string& things, std::uint64_t count,
                     const std::string& held) {
    proof::report({peers::heading, group, GetParam().library, {{things, count}}, held});
  }
};

INSTANTIATE_TEST_SUITE_P(Of, Peers, ::testing::ValuesIn(peers::all()),
                         [](const auto& instantiation) { return instantiation.param.name; });

TEST_P(Peers, MetersArriveUnchangedInTheSlotsOfTheirStream) {
  startFlowing(everyType());
  const auto samples = extremeAndRandomSamples(proof::scaled(100, 5000));
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const SlotSet set = i % 2 == 0 ? SlotSet::Fast : SlotSet::Slow;
    deliver(set, batchOf(samples[i]));
    expectSample(set, samples[i]);
    if (i == 0) continue;
    // The slots of the other stream keep their values.
    expectSample(set == SlotSet::Fast ? SlotSet::Slow : SlotSet::Fast, samples[i - 1]);
  }
  instance.stop();
  expectNothingLeft();
  report("meters of every type, fast and slow", "messages", samples.size(),
         "each value arrives unchanged in its own slot only");
}

TEST_P(Peers, ParametersArriveUnchanged) {
  startFlowing(everyType());
  const auto samples = extremeAndRandomSamples(proof::scaled(100, 5000));
  for (const Sample& sample : samples) {
    KeyValueList changes;
    changes.addString("gateway.s", sample.text.c_str())
        .addInt("gateway.i", sample.integer)
        .addUint("gateway.u", sample.natural)
        .addFloat("gateway.f", sample.number);
    expectArrival(changes, Request()
                               .addString("s", sample.text)
                               .addInt("i", sample.integer)
                               .addUint("u", sample.natural)
                               .addFloat("f", sample.number));
  }
  instance.stop();
  expectNothingLeft();
  report("parameters of every type", "calls", samples.size(),
         "each arrives with its key and type, and with its value unchanged");
}

// Keys are compared byte by byte: two encodings of the same letter are two keys.
TEST_P(Peers, KeysOfAnyScriptAreFound) {
  const std::vector<std::string> keys = {"Pegel",
                                         "p\u00e9dale",
                                         "pe\u0301dale",
                                         "\u30EC\u30D9\u30EB",
                                         "\u0633\u0637\u062D",
                                         "\u043F\u0438\u043A \u2460",
                                         "\U0001F39A\uFE0F/\U0001F468\u200D\U0001F3A4",
                                         "\uFEFFmark",
                                         "\U0010FFFF\x01",
                                         std::string("\x7F")};
  std::string meters = "[MetersInt]\n";
  std::string params = "[EngineInt]\n";
  for (const std::string& key : keys) {
    meters += "Meter=Key=\"" + key + "\"\n";
    params += "Param=Key=\"" + key + "\"\n";
  }
  startFlowing(meters + params);
  Batch batch;
  Request request;
  KeyValueList changes;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    batch.addInt(keys[i], static_cast<int>(i));
    request.addInt(keys[i], static_cast<int>(i));
    changes.addInt(("gateway.gateway_int_" + std::to_string(i)).c_str(), static_cast<int>(i));
  }
  deliverFast(batch);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(fast("gateway_int_" + std::to_string(i)), SlotValue(static_cast<int>(i))) << keys[i];
  }
  expectArrival(changes, request);
  instance.stop();
  expectNothingLeft();
  report("keys of any script", "meters and parameters", keys.size(),
         "each is found by its own bytes");
}

TEST_P(Peers, AnErrorAsTheAnswerChangesNothing) {
  startFlowing(everyType());
  host.clearRecords();
  int answers = 0;
  for (const std::string& status : tools::statusNames()) {
    servers.command(status == "OK" ? "engine reply 0a030a0161" : "engine fail " + status);
    SCOPED_TRACE(status);
    expectFlowing(++answers);
  }
  EXPECT_EQ(log(), Journal{});
  instance.stop();
  expectNothingLeft();
  report("SetParams answered with every status", "answers", static_cast<std::uint64_t>(answers),
         "nothing is logged, the next change is sent, and meters continue");
}

TEST_P(Peers, SeeACleanEndOfStreamsAndCallsAtAStop) {
  const std::string message =
      batchOf(peers::extremeSamples().back()).addString("last.one", "x").hex();
  const auto stops = proof::scaled(5, 300);
  for (std::uint64_t round = 0; round < stops; ++round) {
    servers.command("engine reply -");
    startFlowing(everyType());
    servers.command("engine hold");
    for (const char* stream : {"fast ", "slow "}) {
      servers.command(std::string("send ") + stream + message + " 0");  // until the call ends
    }
    KeyValueList changes;
    changes.addInt("gateway.i", 1);
    notify(changes);
    servers.waitEvent("SetParams ");
    ASSERT_TRUE(host.waitUntil([&] { return slow("last_one") == SlotValue("x"); }));
    auto stopped = std::async(std::launch::async, [this] { instance.stop(); });
    EXPECT_TRUE(servers.waitEvent("closed fast ").ends_with(" cancelled"));
    EXPECT_TRUE(servers.waitEvent("closed slow ").ends_with(" cancelled"));
    servers.command("engine release");
    stopped.get();
    expectNothingLeft();
    host.clearRecords();
  }
  report("a stop during traffic on both streams and a call", "stops", stops,
         "the server sees both streams cancelled, the call ends by its answer, nothing leaks");
}

// ---- Compressed messages ------------------------------------------------------------------------

class Compressed : public FlowTest, public ::testing::WithParamInterface<const char*> {
 protected:
  Compressed() : FlowTest(compressing(GetParam())) {}

  static ServerProgram compressing(const std::string& kind) {
    ServerProgram program = peers::python().program;
    program.arguments = {"--compression", kind};
    return program;
  }
};

INSTANTIATE_TEST_SUITE_P(By, Compressed, ::testing::Values("Deflate", "Gzip"),
                         [](const auto& instantiation) { return instantiation.param; });

TEST_P(Compressed, MetersArriveUnchanged) {
  std::string entries = "[MetersFloat]\n";
  Batch batch;
  constexpr int count = 500;
  for (int i = 0; i < count; ++i) {
    entries += "Meter=Key=level." + std::to_string(i) + "\n";
    batch.addFloat("level." + std::to_string(i), 0.5f * i);
  }
  startFlowing(entries);
  deliverFast(batch);
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(fast("gateway_float_" + std::to_string(i)), SlotValue(0.5f * i));
  }
  instance.stop();
  expectNothingLeft();
  proof::report({peers::heading,
                 "messages that the server compresses",
                 std::string(GetParam()) + ", by grpcio",
                 {{"values", count}},
                 "each value arrives in its slot"});
}

// ---- The five-second rule -----------------------------------------------------------------------

class PeersRetry : public StreamTest {
 protected:
  using Times = std::vector<std::chrono::milliseconds>;

  // The times from `start` until the server sees each of these attempts, such as "fast 2". A
  // server's events are for one thread at a time, so one thread waits for all of them.
  static std::future<Times> openings(Stream& stream, std::set<std::string> attempts,
                                     Clock::time_point start) {
    return std::async(std::launch::async, [&stream, attempts, start]() mutable {
      Times times;
      while (!attempts.empty()) {
        const std::string event = stream.server().waitEvent("open ");
        const auto seen = std::erase_if(attempts, [&](const std::string& attempt) {
          return event.starts_with("open " + attempt + " ");
        });
        if (seen > 0) times.push_back(since(start));
      }
      return times;
    });
  }
};

// Each status of gRPC ends a stream once, two at a time; meanwhile servers are killed and
// restarted.
TEST_F(PeersRetry, FollowsFiveSecondsAfterAnyEndOfTheStream) {
  struct Pair {
    Peer peer;
    std::unique_ptr<Stream> ended;
    std::unique_ptr<Stream> killed;
  };
  std::vector<Pair> pairs;
  for (const Peer& peer : peers::all()) {
    pairs.push_back({peer, open(peer.name + "-ended", peer.program),
                     open(peer.name + "-killed", peer.program)});
    deliver(*pairs.back().killed, SlotSet::Fast, Batch().addInt("i", 42), "first");
  }
  host.clearRecords();

  auto statuses = tools::statusNames();
  std::rotate(statuses.begin(), std::find(statuses.begin(), statuses.end(), "UNAVAILABLE"),
              statuses.end());
  statuses.push_back("OK");  // makes an even number, for two per round
  const std::size_t rounds = proof::scaled(1, statuses.size() / 2);
  std::map<std::string, std::pair<std::chrono::milliseconds, std::chrono::milliseconds>> times;
  for (std::size_t round = 0; round < rounds; ++round) {
    std::vector<std::pair<std::string, std::future<Times>>> returns;
    const std::string next = std::to_string(round + 2);
    for (Pair& pair : pairs) {
      const std::string name = pair.peer.name;
      const auto start = Clock::now();
      pair.ended->server().command("end fast " + statuses[2 * round]);
      pair.ended->server().command("end slow " + statuses[2 * round + 1]);
      pair.killed->killServer();
      EXPECT_EQ(pair.killed->read(SlotSet::Fast, "i"), SlotValue(round == 0 ? 42 : 99));
      pair.killed->startServer();
      returns.emplace_back(name, openings(*pair.ended, {"fast " + next, "slow " + next}, start));
      returns.emplace_back(name, openings(*pair.killed, {"fast 1"}, start));
    }
    for (auto& [name, opened] : returns) {
      for (const auto time : opened.get()) {
        EXPECT_GE(time, retryDelay) << name;
        auto& [least, most] = times.try_emplace(name, time, time).first->second;
        least = std::min(least, time);
        most = std::max(most, time);
      }
    }
    for (Pair& pair : pairs) {
      for (Stream* stream : {pair.ended.get(), pair.killed.get()}) {
        deliver(*stream, SlotSet::Fast, Batch().addInt("i", 99), "after " + next);
        EXPECT_EQ(stream->read(SlotSet::Fast, "i"), SlotValue(99));
      }
    }
  }
  EXPECT_EQ(log(), Journal{});

  for (Pair& pair : pairs) {
    pair.ended->instance().stop();
    pair.killed->instance().stop();
  }
  expectNothingLeft();
  for (const Pair& pair : pairs) {
    const auto& [least, most] = times.at(pair.peer.name);
    proof::report(
        {peers::heading,
         "streams that end with a status, and servers that are killed and restarted",
         pair.peer.library,
         {{"ends", 2 * rounds}, {"kills", rounds}},
         "the streams are opened again, nothing is logged, and values continue",
         {},
         {{"retry after", static_cast<double>(least.count()), static_cast<double>(most.count()),
           ".0f", "ms", static_cast<double>((2 * retryDelay).count())}}});
  }
}

}  // namespace
