// The five-second rule: whatever ends a stream, it comes back five seconds later, without a word.
// One test runs all causes side by side, for each of them takes those five seconds.
#include <future>
#include <map>

#include "tests/module/grpc-gateway/flows/StreamTest.h"

namespace {

class Retry : public StreamTest {
 protected:
  Journal logWithoutTags() const {
    Journal lines = log();
    for (std::string& line : lines) {
      const std::size_t tag = line.find("tag 0x");
      if (tag != line.npos) line.erase(tag + sizeof("tag 0x") - 1);
    }
    return lines;
  }
};

// A message whose key is not UTF-8: it can't be parsed, and the server still holds the call.
constexpr char unparsable[] = "0a070a01ff12021801";

TEST_F(Retry, ComesFiveSecondsAfterEveryEndAndWithoutAWord) {
  const auto inOrder = open("in-order");            // the server ends the call in good order
  const auto slow = open("slow");                   // the same, of the slow stream
  const auto failed = open("failed");               // with an error, before any message
  const auto held = open("held");                   // a message that can't be parsed, and silence
  const auto flooded = open("flooded");             // the same, and more messages behind it
  const auto killed = open("killed");               // the server dies and comes back
  const auto absent = openWithoutServer("absent");  // there is no server at first
  const auto waiting = open("waiting");             // stopped while both streams wait
  deliver(*inOrder, standin::SlotSet::Fast, Batch().addInt("i", 42), "first");
  host.clearRecords();

  const auto start = Clock::now();
  inOrder->server().command("end fast OK");
  slow->server().command("end slow OK");
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
  auto absentAgain = opening(*absent, "fast 1", start);
  // Attempts are counted by each server, so a new server's first is the stream's second.
  std::map<std::string, std::future<std::chrono::milliseconds>> again;
  again["in order"] = opening(*inOrder, "fast 2", start);
  again["slow"] = opening(*slow, "slow 2", start);
  again["failed"] = opening(*failed, "fast 2", start);
  again["held"] = opening(*held, "fast 2", start);
  again["flooded"] = opening(*flooded, "fast 2", start);
  again["killed"] = opening(*killed, "fast 1", start);
  again["waiting, then stopped"] = std::move(waitingStopped);
  for (auto& [cause, opened] : again) {
    const auto time = opened.get();
    EXPECT_GE(time, retryDelay) << cause;
    EXPECT_LE(time, latestRetry) << cause;
  }
  absentAgain.get();
  EXPECT_FALSE(waiting->server().hasEvent("open fast 2 "));
  EXPECT_FALSE(waiting->server().hasEvent("open slow 2 "));

  // A stream that came back carries values as before.
  for (Stream* stream : {inOrder.get(), slow.get(), failed.get(), held.get(), flooded.get(),
                         killed.get(), absent.get()}) {
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

  for (Stream* stream : {inOrder.get(), slow.get(), failed.get(), held.get(), flooded.get(),
                         killed.get(), absent.get()}) {
    stream->instance().stop();
  }

  expectNothingLeft();
}

}  // namespace
