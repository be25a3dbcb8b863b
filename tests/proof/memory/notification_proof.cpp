// Notifications without memory: the module logs what it could not send, and sends the rest.
#include <atomic>

#include "engine.pb.h"
#include "tests/proof/memory/MemoryProof.h"

namespace {

using sonalith::grpcengine::RequestSetParams;
using standin::KeyValueList;

constexpr char raised[] = "log 1 C++ exception in grpc gateway: std::bad_alloc";
constexpr char notConverted[] = "log 3 exception while converting list: std::bad_alloc";

constexpr int items = 4;

// Each item matches the last entry of its list, so all requests made for an item come before it
// passes the filter. The keys are too long to be stored without memory.
constexpr char entries[] =
    "[EngineString]\nParam=Key=another.text.parameter\nParam=Key=text.of.some.length.0 "
    "CustomKey=text_of_some_length\n"
    "[EngineInt]\nParam=Key=another.int.parameter\nParam=Key=int.of.some.length.1 "
    "CustomKey=int_of_some_length\n"
    "[EngineUint]\nParam=Key=another.uint.parameter\nParam=Key=uint.of.some.length.2 "
    "CustomKey=uint_of_some_length\n"
    "[EngineFloat]\nParam=Key=another.float.parameter\nParam=Key=float.of.some.length.3 "
    "CustomKey=float_of_some_length\n";

constexpr char text[] = "a text that is too long for a string's own buffer";

// A request of a notification, and how many items had passed the filter before it.
struct Asked {
  Allocation request;
  int passed;
};

class NotificationWithoutMemory : public WithoutMemory<FlowTest> {
 protected:
  void startEngineSide() {
    const int result =
        start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n[Engine]\nTarget=" +
              servers.engineTarget() + "\n" + entries);
    ASSERT_EQ(result, 0);
    ownBlocksAtRest_ = ownBlocks.count();
  }

  // A change of every type.
  void notify() {
    KeyValueList changes;
    changes.addString("gateway.text_of_some_length", text)
        .addInt("gateway.int_of_some_length", -1)
        .addUint("gateway.uint_of_some_length", 2)
        .addFloat("gateway.float_of_some_length", 3);
    engine.notify(&changes);
  }

  // What the service receives: the items with these numbers.
  static RequestSetParams requestOf(const std::vector<int>& numbers) {
    RequestSetParams request;
    for (const int number : numbers) {
      auto& param = *request.add_params();
      constexpr const char* keys[] = {"text.of.some.length.0", "int.of.some.length.1",
                                      "uint.of.some.length.2", "float.of.some.length.3"};
      param.set_key(keys[number]);
      auto& value = *param.mutable_value();
      if (number == 0) value.set_sstring(text);
      if (number == 1) value.set_sint(-1);
      if (number == 2) value.set_suint(2);
      if (number == 3) value.set_sfloat(3);
    }
    return request;
  }

  // The numbers of all items except those from `begin` up to, but not including, `end`.
  static std::vector<int> numbersWithout(int begin, int end) {
    std::vector<int> numbers;
    for (int number = 0; number < items; ++number) {
      if (number < begin || number >= end) numbers.push_back(number);
    }
    return numbers;
  }

  // All requests of a notification that succeeds.
  std::vector<Asked> ask() {
    std::atomic<int> passed = 0;
    std::vector<int> passedByRequest;
    const AllocationFault counting(AllocationFault::never);
    host.setHook(standin::Operation::KeyValueListAdd, [&] {
      passedByRequest.resize(counting.requestCount(), passed);
      ++passed;
    });
    notify();
    host.setHook(standin::Operation::KeyValueListAdd, {});
    const std::vector<Allocation> requests = counting.allocations();
    passedByRequest.resize(requests.size(), passed);
    expectCall(requestOf(numbersWithout(0, 0)));
    std::vector<Asked> asked;
    for (std::size_t i = 0; i < requests.size(); ++i) {
      asked.push_back({requests[i], passedByRequest[i]});
    }
    return asked;
  }

  // Waits for the next call at the service. The numbers in the events show that none was missed.
  void expectCall(const RequestSetParams& request) {
    const std::string number = std::to_string(++calls_);
    const std::string beginning = "SetParams " + number + " " + toHex(request) + " ";
    const std::string event = servers.waitEvent("SetParams " + number + " ");
    EXPECT_TRUE(event.starts_with(beginning)) << event << "\nand not\n" << beginning;
  }

  // The client thread releases a call once it has the answer.
  void expectAtRest() {
    EXPECT_TRUE(ownBlocks.waitFor(ownBlocksAtRest_)) << ownBlocks.text();
    EXPECT_EQ(host.outstanding().keyValueLists, 0u);
    EXPECT_EQ(host.violations(), std::vector<std::string>{});
  }

  static Journal lines(int first, const char* firstText, int second = 0,
                       const char* secondText = "") {
    Journal lines(static_cast<std::size_t>(first), firstText);
    lines.insert(lines.end(), static_cast<std::size_t>(second), secondText);
    return lines;
  }

  // An item that fails in the filter is dropped; the others are passed on.
  void expectFiltered(Lasting lasting, int passed) {
    if (lasting == Lasting::Once) {
      EXPECT_EQ(log(), lines(1, raised));
      expectCall(requestOf(numbersWithout(passed, passed + 1)));
    } else {
      // If some had passed already, the request that would carry them fails as well.
      EXPECT_EQ(log(), lines(items - passed + (passed > 0 ? 1 : 0), raised));
    }
    ++filtered_;
  }

  // An item that fails in the conversion is sent with what had been converted of it.
  void expectConverted(Lasting lasting, int nthOfConversion) {
    // The text makes two requests: for its key and for its value.
    const int item = nthOfConversion == 0 ? 0 : nthOfConversion - 1;
    const bool hasKey = nthOfConversion == 1;
    if (lasting == Lasting::Once) {
      EXPECT_EQ(log(), lines(1, notConverted));
      RequestSetParams request = requestOf(numbersWithout(0, 0));
      auto& param = *request.mutable_params(item);
      param.clear_value();
      if (!hasKey) param.clear_key();
      expectCall(request);
    } else {
      EXPECT_EQ(log(), lines(items - item, notConverted, 1, raised));
    }
    ++converted_;
  }

  void expectNotSent() {
    EXPECT_EQ(log(), lines(1, raised));
    ++notSent_;
  }

  void notifyFailing(const std::vector<Asked>& asked, int nth, Lasting lasting) {
    const Asked& failed = asked[static_cast<std::size_t>(nth) - 1];
    SCOPED_TRACE("request " + std::to_string(nth) + " fails " + nameOf(lasting) + ", made by\n" +
                 failed.request.callers.text());
    host.clearRecords();
    {
      const AllocationFault fault(nth, lasting);
      notify();
      EXPECT_GE(fault.failureCount(), 1u);
    }
    if (failed.request.callers.include("filterEngineChange")) {
      expectFiltered(lasting, failed.passed);
    } else if (failed.request.callers.include("addParamToRequest")) {
      const auto end = asked.begin() + nth - 1;
      const auto converted = std::count_if(asked.begin(), end, [](const Asked& each) {
        return each.request.callers.include("addParamToRequest");
      });
      expectConverted(lasting, static_cast<int>(converted));
    } else {
      expectNotSent();
    }
    expectAtRest();
  }

  proof::Counts tally() const {
    return {{"failures in the filter", filtered_},
            {"failures in the conversion", converted_},
            {"failures around the call", notSent_}};
  }

  int calls() const { return calls_; }

 private:
  std::size_t ownBlocksAtRest_ = 0;
  int calls_ = 0;
  std::uint64_t filtered_ = 0;
  std::uint64_t converted_ = 0;
  std::uint64_t notSent_ = 0;
};

TEST_F(NotificationWithoutMemory, LogsWhatItCouldNotSendAndSendsTheRest) {
  startEngineSide();
  const std::vector<Asked> asked = ask();
  expectAtRest();
  const auto total = static_cast<int>(asked.size());
  for (const Lasting lasting : {Lasting::Once, Lasting::ForGood}) {
    for (int nth = 1; nth <= total && !HasFailure(); ++nth) notifyFailing(asked, nth, lasting);
  }
  // With memory again, a notification is sent whole.
  EXPECT_EQ(ask().size(), asked.size());
  expectAtRest();
  instance.stop();
  EXPECT_FALSE(servers.hasEvent("SetParams " + std::to_string(calls() + 1) + " "));
  expectNothingLeft();
  expectNoOwnBlocks();
  proof::report({part,
                 "a notification of " + std::to_string(items) + " changes",
                 "",
                 {{eachAllocation, asked.size()}},
                 "each failure is logged with one line, the rest is sent, nothing leaks",
                 tally()});
}

}  // namespace
