// Streams without memory: when a message arrives, and when a stream is to be opened again.
#include <memory>

#include "tests/proof/memory/MemoryProof.h"

namespace {

using standin::SlotSet;
using standin::SlotValue;

constexpr char messageLost[] = "log 1 ProcessMeters() std::bad_alloc";
constexpr char loopEnded[] = "log 1 C++ exception in asyncMainLoop(): std::bad_alloc";

constexpr char entries[] =
    "[MetersFloat]\nMeter=Key=level Type=fast CustomKey=level DefaultValue=-1\n"
    "Meter=Key=level Type=slow CustomKey=level DefaultValue=-1\n"
    "[MetersInt]\nMeter=Key=steps Type=fast CustomKey=steps DefaultValue=-1\n"
    "Meter=Key=steps Type=slow CustomKey=steps DefaultValue=-1\n"
    "[MetersUint]\nMeter=Key=ticks Type=fast CustomKey=ticks DefaultValue=1\n"
    "Meter=Key=ticks Type=slow CustomKey=ticks DefaultValue=1\n";

constexpr int requestsOfMessage = 4;

class StreamsWithoutMemory : public WithoutMemory<FlowTest> {
 protected:
  // Puts the client thread under the fault: it is the thread that writes the text of a message.
  void coverClientThread(AllocationFault& fault, const std::function<void()>& deliverText) {
    host.setHook(standin::Operation::Strncpy, [&fault] { fault.coverThisThread(); });
    deliverText();
    host.setHook(standin::Operation::Strncpy, {});
  }

  // A message during which the nth request fails; before it the slots have 7, and again after it.
  void loseMessage(SlotSet set, int nth, Lasting lasting) {
    host.clearRecords();
    AllocationFault fault(nth, lasting, AllocationFault::Covers::NoThreadYet);
    cover(fault, set);
    expectLost(set, 8, 0);
    expectValues(set, 7);
    EXPECT_EQ(fault.failureCount(), 1u);
    if (lasting == Lasting::ForGood) {
      expectLost(set, 9, 1);
      expectValues(set, 7);
      fault.end();
    }
    EXPECT_EQ(log(), Journal(lasting == Lasting::ForGood ? 2 : 1, messageLost));
    deliver(set, batchOf(10));
    expectValues(set, 10);
    deliver(set, batchOf(7));
  }

  // A message during which no request fails, because it makes one too few.
  void receiveMessage(SlotSet set, Lasting lasting) {
    AllocationFault fault(requestsOfMessage + 1, lasting, AllocationFault::Covers::NoThreadYet);
    cover(fault, set);
    deliver(set, batchOf(8));
    expectValues(set, 8);
    EXPECT_EQ(fault.requestCount(), static_cast<std::size_t>(requestsOfMessage));
  }

  // The message that puts the thread under the fault has made its requests before that.
  void cover(AllocationFault& fault, SlotSet set) {
    coverClientThread(fault, [&] { deliver(set, Batch()); });
    ASSERT_EQ(fault.requestCount(), 0u);
  }

  // A value of every type.
  static Batch batchOf(int value) {
    return Batch()
        .addFloat("level", static_cast<float>(value))
        .addInt("steps", value)
        .addUint("ticks", static_cast<std::uint32_t>(value));
  }
  void expectValues(SlotSet set, int value) const {
    EXPECT_EQ(read(set, "level"), SlotValue(static_cast<float>(value)));
    EXPECT_EQ(read(set, "steps"), SlotValue(value));
    EXPECT_EQ(read(set, "ticks"), SlotValue(static_cast<std::uint32_t>(value)));
  }

  // Sends a message, and returns when the module has logged its loss.
  void expectLost(SlotSet set, int value, int lostBefore) {
    servers.command("send " + std::string(nameOf(set)) + " " + batchOf(value).hex());
    ASSERT_TRUE(host.waitUntil([&] { return count(messageLost) == lostBefore + 1; }));
  }
};

// The lists are copied before anything is written, so a message is lost whole.
TEST_F(StreamsWithoutMemory, LoseAWholeMessageAndReceiveTheNext) {
  startFlowing(entries);
  std::uint64_t failures = 0;
  for (const SlotSet set : {SlotSet::Fast, SlotSet::Slow}) {
    for (const Lasting lasting : {Lasting::Once, Lasting::ForGood}) {
      deliver(set, batchOf(7));
      for (int nth = 1; nth <= requestsOfMessage && !HasFatalFailure(); ++nth, ++failures) {
        SCOPED_TRACE(std::string(nameOf(set)) + ", request " + std::to_string(nth) + " " +
                     nameOf(lasting));
        loseMessage(set, nth, lasting);
      }
      receiveMessage(set, lasting);
    }
  }
  instance.stop();
  expectNothingLeft();
  expectNoOwnBlocks();
  proof::report({part,
                 "a message on each stream",
                 "",
                 {{eachAllocation, 2 * requestsOfMessage}},
                 "a lost message is logged with one line and changes no slot, and the next one "
                 "arrives",
                 {{"messages lost", failures}}});
}

// ---- The end of a stream, and its retry ---------------------------------------------------------

// The client thread's requests between the end of a stream and the start of its next call: the
// retry alarm, and the payload and the context of the next call.
constexpr int requestsOfRetry = 3;

// An instance with servers of its own, whose fast stream ends, and is opened again or not.
class EndingStream {
 public:
  EndingStream(const standin::LoadedModule& module, standin::Engine& engine,
               const TemporaryFolder& files, const std::string& name, int nth, Lasting lasting)
      : instance(module, engine, name),
        fault(nth, lasting, AllocationFault::Covers::NoThreadYet),
        number(nth) {
    const std::string path = files.write(
        name + ".conf", "[Meters]\nTarget=" + server.metersTarget() +
                            "\n[MetersString]\nMeter=Key=last.one Type=fast CustomKey=last_one\n"
                            "Meter=Key=last.one Type=slow CustomKey=last_one\n");
    if (instance.start(path) != 0) throw std::runtime_error(name + " did not start");
    server.waitEvent("open fast 1 ");
    server.waitEvent("open slow 1 ");
  }

  void send(const char* set, const std::string& text) {
    server.command(std::string("send ") + set + " " + Batch().addString("last.one", text).hex());
  }
  bool shows(SlotSet set, const std::string& text) const {
    return instance.slot(set, "last_one").read() == SlotValue(text);
  }

  SimProcess server;
  standin::ModuleInstance instance;
  AllocationFault fault;
  const int number;
};

// All at the same time, since each takes the five seconds of a retry.
TEST_F(StreamsWithoutMemory, EndTheLoopIfTheirRetryFails) {
  std::vector<std::unique_ptr<EndingStream>> streams;
  for (const Lasting lasting : {Lasting::Once, Lasting::ForGood}) {
    for (int nth = 1; nth <= requestsOfRetry + 1; ++nth) {
      const std::string name = "retry" + std::to_string(streams.size());
      streams.push_back(std::make_unique<EndingStream>(module, engine, files, name, nth, lasting));
      EndingStream& stream = *streams.back();
      coverClientThread(stream.fault, [&] {
        stream.send("fast", "before");
        ASSERT_TRUE(host.waitUntil([&] { return stream.shows(SlotSet::Fast, "before"); }));
      });
      ASSERT_EQ(stream.fault.requestCount(), 0u);
    }
  }
  host.clearRecords();
  for (const auto& stream : streams) stream->server.command("end fast UNAVAILABLE");

  const auto failing = 2 * requestsOfRetry;
  ASSERT_TRUE(host.waitUntil([&] { return count(loopEnded) == failing; }));
  for (const auto& stream : streams) {
    SCOPED_TRACE("request " + std::to_string(stream->number));
    if (stream->number > requestsOfRetry) {
      // No request of this stream failed.
      stream->server.waitEvent("open fast 2 ");
      EXPECT_EQ(stream->fault.requestCount(), static_cast<std::size_t>(requestsOfRetry));
      stream->fault.end();
      stream->send("fast", "after");
      EXPECT_TRUE(host.waitUntil([&] { return stream->shows(SlotSet::Fast, "after"); }));
      continue;
    }
    EXPECT_EQ(stream->fault.failureCount(), 1u);
    EXPECT_FALSE(stream->server.hasEvent("open fast 2 "));
    EXPECT_TRUE(stream->shows(SlotSet::Fast, "before"));
  }
  EXPECT_EQ(log(), Journal(static_cast<std::size_t>(failing), loopEnded));
  host.clearRecords();
  for (const auto& stream : streams) stream->instance.stop();
  EXPECT_EQ(count("log 1 Completion queue flush ended"), static_cast<int>(streams.size()));
  expectNothingLeft();
  expectNoOwnBlocks();
  proof::report({part,
                 "the retry of a stream that has ended",
                 "",
                 {{eachAllocation, requestsOfRetry}},
                 "the loop ends with one line, the stream is not opened again, slots keep their "
                 "values, and a stop leaves nothing"});
}

}  // namespace
