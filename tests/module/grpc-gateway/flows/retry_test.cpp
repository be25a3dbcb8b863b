// The five-second rule: whatever ends a stream, it comes back five seconds later, without a word.
// One test runs all causes side by side, for each of them takes those five seconds.
#include <chrono>
#include <future>
#include <memory>

#include "tests/module/grpc-gateway/flows/FlowTest.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Five seconds less what clocks that are read at different ends may differ by.
constexpr milliseconds retryDelay{4990};

milliseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

// A module instance with a meter server of its own.
class Stream {
 public:
  Stream(const standin::LoadedModule& module, standin::Engine& engine, const TemporaryFolder& files,
         const std::string& name, std::unique_ptr<SimProcess> server, const std::string& target)
      : server_(std::move(server)), target_(target), instance_(module, engine, name) {
    const std::string path = files.write(
        name + ".conf", "[Meters]\nTarget=" + target +
                            "\n[MetersInt]\nMeter=Key=i Type=fast CustomKey=i DefaultValue=1\n"
                            "Meter=Key=i Type=slow CustomKey=i DefaultValue=1\n"
                            "[MetersString]\nMeter=Key=last.one Type=fast CustomKey=last_one\n"
                            "Meter=Key=last.one Type=slow CustomKey=last_one\n");
    if (instance_.start(path) != 0) throw std::runtime_error(name + " did not start");
    if (!server_) return;
    server_->waitEvent("open fast 1 ");
    server_->waitEvent("open slow 1 ");
  }

  SimProcess& server() { return *server_; }
  standin::ModuleInstance& instance() { return instance_; }
  const std::string& target() const { return target_; }

  // A server that dies and comes back at its place, or comes for the first time.
  void killServer() { server_->kill(); }
  void bringServer() { server_ = std::make_unique<SimProcess>(target_, ""); }

  void send(const std::string& set, const Batch& batch) {
    server_->command("send " + set + " " + batch.hex());
  }
  standin::SlotValue read(standin::SlotSet set, const std::string& name) {
    return instance_.slot(set, name).read();
  }

 private:
  std::unique_ptr<SimProcess> server_;
  std::string target_;
  standin::ModuleInstance instance_;
};

class Retry : public GatewayTest {
 protected:
  std::unique_ptr<Stream> open(const std::string& name) {
    auto server = std::make_unique<SimProcess>(SimProcess::anyPort, "");
    const std::string target = server->metersTarget();
    return std::make_unique<Stream>(module, engine, files, name, std::move(server), target);
  }
  std::unique_ptr<Stream> openWithoutServer(const std::string& name) {
    return std::make_unique<Stream>(module, engine, files, name, nullptr, unusedTarget());
  }

  Journal logWithoutTags() const {
    Journal lines = log();
    for (std::string& line : lines) {
      const std::size_t tag = line.find("tag 0x");
      if (tag != line.npos) line.erase(tag + sizeof("tag 0x") - 1);
    }
    return lines;
  }

  // A batch that the module has taken once its mark is in the slot.
  void deliver(Stream& stream, standin::SlotSet set, Batch batch, const std::string& mark) {
    stream.send(std::string(nameOf(set)), batch.addString("last.one", mark));
    ASSERT_TRUE(
        host.waitUntil([&] { return stream.read(set, "last_one") == standin::SlotValue(mark); }));
  }
};

// A message whose key is not UTF-8: it can't be parsed, and the server still holds the call.
constexpr char unparsable[] = "0a070a01ff12021801";

TEST_F(Retry, ComesFiveSecondsAfterEveryEndAndWithoutAWord) {
  const auto inOrder = open("in-order");            // the server ends the call in good order
  const auto failed = open("failed");               // with an error, before any message
  const auto held = open("held");                   // a message that can't be parsed, and silence
  const auto flooded = open("flooded");             // the same, and more messages behind it
  const auto killed = open("killed");               // the server dies and comes back
  const auto absent = openWithoutServer("absent");  // there is no server at first
  const auto waiting = open("waiting");             // stopped while both streams wait
  deliver(*inOrder, standin::SlotSet::Fast, Batch().addInt("i", 42), "first");
  host.clearRecords();

  const auto start = Clock::now();
  const auto again = [&](Stream& stream, const std::string& attempt) {
    return std::async(std::launch::async, [&stream, attempt, start] {
      stream.server().waitEvent("open " + attempt + " ");
      return since(start);
    });
  };
  inOrder->server().command("end fast OK");
  failed->server().command("end fast UNAVAILABLE");
  held->server().command(std::string("send fast ") + unparsable);
  flooded->server().command(std::string("send fast ") + unparsable);
  flooded->server().command("send fast " + Batch().addInt("i", 3).hex() + " 0");
  killed->killServer();
  waiting->server().command("end fast OK");
  waiting->server().command("end slow INTERNAL");

  // The call is given up at once where only the module knows that it is over.
  EXPECT_EQ(held->server().waitEvent("closed fast "), "closed fast 1 cancelled");
  EXPECT_EQ(flooded->server().waitEvent("closed fast "), "closed fast 1 cancelled");

  // Slots keep their values, and the other stream goes on.
  EXPECT_EQ(inOrder->read(standin::SlotSet::Fast, "i"), standin::SlotValue(42));
  deliver(*inOrder, standin::SlotSet::Slow, Batch().addInt("i", 43), "meanwhile");
  EXPECT_EQ(inOrder->read(standin::SlotSet::Slow, "i"), standin::SlotValue(43));

  killed->bringServer();
  absent->bringServer();
  // Its alarms can't be cancelled: the flush sees an event of each when the five seconds are over.
  auto waitingStopped = std::async(std::launch::async, [&] {
    waiting->instance().stop();
    return since(start);
  });
  // Attempts are counted by each server: one that has just come meets its first.
  auto inOrderAgain = again(*inOrder, "fast 2");
  auto failedAgain = again(*failed, "fast 2");
  auto heldAgain = again(*held, "fast 2");
  auto floodedAgain = again(*flooded, "fast 2");
  auto killedAgain = again(*killed, "fast 1");
  auto absentAgain = again(*absent, "fast 1");
  EXPECT_GE(inOrderAgain.get(), retryDelay);
  EXPECT_GE(failedAgain.get(), retryDelay);
  EXPECT_GE(heldAgain.get(), retryDelay);
  EXPECT_GE(floodedAgain.get(), retryDelay);
  EXPECT_GE(killedAgain.get(), retryDelay);
  absentAgain.get();
  EXPECT_GE(waitingStopped.get(), retryDelay);
  EXPECT_FALSE(waiting->server().hasEvent("open fast 2 "));
  EXPECT_FALSE(waiting->server().hasEvent("open slow 2 "));

  // A stream that came back carries values as before.
  for (Stream* stream :
       {inOrder.get(), failed.get(), held.get(), flooded.get(), killed.get(), absent.get()}) {
    deliver(*stream, standin::SlotSet::Fast, Batch().addInt("i", 99), "after");
    EXPECT_EQ(stream->read(standin::SlotSet::Fast, "i"), standin::SlotValue(99));
  }

  // Nothing was said but by the one instance that was stopped.
  EXPECT_EQ(logWithoutTags(), (Journal{
                                  "log 1 stopCycle(waiting)",
                                  "log 3 grpc-gateway: destroying module manager..",
                                  "log 1 Destructing gRPC gateway client singleton",
                                  "log 1 Stop gRPC Gateway client",
                                  "log 1 Stop gRPC Gateway complete",
                                  "log 1 Shutting down completion queue",
                                  "log 1 Starting completion queue flush",
                                  "log 1 Flushing tag 0x",
                                  "log 1 Flushing tag 0x",
                                  "log 1 Completion queue flush ended",
                              }));

  for (Stream* stream :
       {inOrder.get(), failed.get(), held.get(), flooded.get(), killed.get(), absent.get()}) {
    stream->instance().stop();
  }

  expectNothingLeft();
}

}  // namespace
