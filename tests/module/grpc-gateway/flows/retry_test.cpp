// The five-second rule: whatever ends a stream, the module opens it again five seconds later and
// logs nothing. One test covers all causes side by side, since each of them takes five seconds.
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

// A message whose key is not UTF-8. It can't be parsed, and the server keeps the call open.
constexpr char unparsable[] = "0a070a01ff12021801";

TEST_F(Retry, EveryStreamReturnsAfterFiveSecondsAndNothingIsLogged) {
  const auto inOrder = open("in-order");  // the server ends the call with OK
  const auto slow = open("slow");         // the same on the slow stream
  const auto failed = open("failed");     // with an error, before any message
  const auto lasting = open("lasting");   // with an error that looks as if it would last
  const auto held = open("held");         // a message that can't be parsed, and nothing more
  const auto flooded = open("flooded");   // the same, followed by more messages
  const auto killed = open("killed");     // the server dies and is started again
  const auto absent = openWithoutServer("absent");  // there is no server at first
  const auto waiting = open("waiting");             // the module stops while both streams wait
  deliver(*inOrder, standin::SlotSet::Fast, Batch().addInt("i", 42), "first");
  host.clearRecords();

  const auto start = Clock::now();
  inOrder->server().command("end fast OK");
  slow->server().command("end slow OK");
  failed->server().command("end fast UNAVAILABLE");
  lasting->server().command("end fast UNIMPLEMENTED");
  held->server().command(std::string("send fast ") + unparsable);
  flooded->server().command(std::string("send fast ") + unparsable);
  flooded->server().command("send fast " + Batch().addInt("i", 3).hex() + " 0");
  killed->killServer();
  waiting->server().command("end fast OK");
  waiting->server().command("end slow INTERNAL");

  // Where the server still considers the call open, the module cancels it at once.
  EXPECT_EQ(held->server().waitEvent("closed fast "), "closed fast 1 cancelled");
  EXPECT_EQ(flooded->server().waitEvent("closed fast "), "closed fast 1 cancelled");

  // Slots keep their values, and the other stream continues.
  EXPECT_EQ(inOrder->read(standin::SlotSet::Fast, "i"), standin::SlotValue(42));
  deliver(*inOrder, standin::SlotSet::Slow, Batch().addInt("i", 43), "meanwhile");
  EXPECT_EQ(inOrder->read(standin::SlotSet::Slow, "i"), standin::SlotValue(43));

  killed->startServer();
  absent->startServer();
  // Alarms can't be cancelled: the stop waits until the five seconds are over.
  auto waitingStopped = std::async(std::launch::async, [&] {
    waiting->instance().stop();
    return since(start);
  });
  auto absentAgain = opening(*absent, "fast 1", start);
  // Each server counts the attempts that it sees, so a new server sees its first.
  std::map<std::string, std::future<std::chrono::milliseconds>> again;
  again["in order"] = opening(*inOrder, "fast 2", start);
  again["slow"] = opening(*slow, "slow 2", start);
  again["failed"] = opening(*failed, "fast 2", start);
  again["lasting"] = opening(*lasting, "fast 2", start);
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

  // A stream that has returned carries values as before.
  for (Stream* stream : {inOrder.get(), slow.get(), failed.get(), lasting.get(), held.get(),
                         flooded.get(), killed.get(), absent.get()}) {
    deliver(*stream, standin::SlotSet::Fast, Batch().addInt("i", 99), "after");
    EXPECT_EQ(stream->read(standin::SlotSet::Fast, "i"), standin::SlotValue(99));
  }

  // The other stream has not been disturbed when one was opened again.
  deliver(*inOrder, standin::SlotSet::Slow, Batch().addInt("i", 98), "still");
  EXPECT_FALSE(inOrder->server().hasEvent("open slow 2 "));

  // Only the instance that was stopped has logged anything.
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

  for (Stream* stream : {inOrder.get(), slow.get(), failed.get(), lasting.get(), held.get(),
                         flooded.get(), killed.get(), absent.get()}) {
    stream->instance().stop();
  }

  expectNothingLeft();
}

}  // namespace
