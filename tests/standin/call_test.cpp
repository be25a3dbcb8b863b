// What all operations share: one host, planned faults, hooks, and a way to wait for calls.
#include <atomic>
#include <functional>
#include <future>
#include <ostream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "standin/Engine.h"
#include "standin/KeyValueList.h"
#include "tests/standin/with_host.h"

using standin::Fault;
using standin::Host;
using standin::Operation;

namespace {

class Calls : public WithHost {
 protected:
  // The text of the fault that a call throws, or "(none)".
  static std::string faultOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const Fault& fault) {
      return fault.what();
    }
    return "(none)";
  }

  static void logLine() { sonalith_log(1, "file", 1, 1, "text"); }
};

struct OneOperation {
  std::string name;
  Operation operation;
  std::function<void()> call;
};

// CTest names the test by this text.
void PrintTo(const OneOperation& operation, std::ostream* out) {
  *out << operation.name;
}

// A call of each operation that would violate the contract if the host carried it out.
std::vector<OneOperation> allOperations() {
  return {
      {"Log", Operation::Log, [] { sonalith_log(1, nullptr, 1, 1, "text"); }},
      {"Calloc", Operation::Calloc, [] { sonalith_calloc(1, UINT64_MAX); }},
      {"Free", Operation::Free, [] { sonalith_free(nullptr); }},
      {"Strncpy", Operation::Strncpy, [] { sonalith_strncpy(nullptr, nullptr, 1); }},
      {"CreateModuleOffset", Operation::CreateModuleOffset,
       [] { sonalith_createModuleOffset(nullptr); }},
      {"AddModuleOffset", Operation::AddModuleOffset,
       [] { sonalith_addModuleOffset(nullptr, nullptr); }},
      {"KeyValueListNew", Operation::KeyValueListNew, [] { sonalith_keyValueListNew(); }},
      {"KeyValueListDestroy", Operation::KeyValueListDestroy,
       [] { sonalith_keyValueListDestroy(nullptr); }},
      {"KeyValueListIsEmpty", Operation::KeyValueListIsEmpty,
       [] { sonalith_keyValueListIsEmpty(nullptr); }},
      {"KeyValueListGetS", Operation::KeyValueListGetS,
       [] { sonalith_keyValueListGetS(nullptr, nullptr, nullptr); }},
      {"KeyValueListForEach", Operation::KeyValueListForEach,
       [] { sonalith_keyValueListForEach(nullptr, nullptr, nullptr); }},
      {"KeyValueListAddSS", Operation::KeyValueListAdd,
       [] { sonalith_keyValueListAddSS(nullptr, nullptr, nullptr); }},
      {"KeyValueListAddSI32", Operation::KeyValueListAdd,
       [] { sonalith_keyValueListAddSI32(nullptr, nullptr, 1); }},
      {"KeyValueListAddSU32", Operation::KeyValueListAdd,
       [] { sonalith_keyValueListAddSU32(nullptr, nullptr, 1); }},
      {"KeyValueListAddSF", Operation::KeyValueListAdd,
       [] { sonalith_keyValueListAddSF(nullptr, nullptr, 1); }},
      {"AddCallback", Operation::AddCallback,
       [] { sonalith_engine_notify_changes_addCallback(nullptr, nullptr, nullptr); }},
      {"RmCallback", Operation::RmCallback,
       [] { sonalith_engine_notify_changes_rmCallback(nullptr, nullptr); }},
  };
}

class EachOperation : public Calls, public testing::WithParamInterface<OneOperation> {};

INSTANTIATE_TEST_SUITE_P(Named, EachOperation, testing::ValuesIn(allOperations()),
                         [](const auto& operation) { return operation.param.name; });

}  // namespace

TEST_P(EachOperation, ThrowsAPlannedFaultAndDoesNothingElse) {
  host.failCall(GetParam().operation);
  EXPECT_EQ(faultOf(GetParam().call), "planned fault");
  EXPECT_EQ(host.violations(), Texts{});
  EXPECT_EQ(host.journal(), Texts{});
  EXPECT_EQ(host.outstanding(), standin::Outstanding{});
}

TEST_P(EachOperation, WakesThreadsThatWaitForACall) {
  std::promise<void> asked;
  std::atomic<bool> called = false;
  std::thread calling([&] {
    asked.get_future().wait();
    called = true;
    host.failCall(GetParam().operation);
    faultOf(GetParam().call);
  });
  bool first = true;
  EXPECT_TRUE(host.waitUntil([&] {
    if (std::exchange(first, false)) asked.set_value();
    return called.load();
  }));
  calling.join();
}

TEST_F(Calls, OnlyThePlannedCallFails) {
  host.failCall(Operation::Log, 3, "the third");
  EXPECT_EQ(faultOf(logLine), "(none)");
  EXPECT_EQ(faultOf(logLine), "(none)");
  EXPECT_EQ(faultOf(logLine), "the third");
  EXPECT_EQ(faultOf(logLine), "(none)");
}

TEST_F(Calls, APlanCountsFromTheMomentItIsMade) {
  logLine();
  logLine();
  host.failCall(Operation::Log, 2, "the second from now on");
  EXPECT_EQ(faultOf(logLine), "(none)");
  EXPECT_EQ(faultOf(logLine), "the second from now on");
}

TEST_F(Calls, SeveralPlansAllTakeEffect) {
  host.failCall(Operation::Log, 1, "first");
  host.failCall(Operation::Log, 2, "second");
  host.failCall(Operation::Calloc, 1, "another");
  EXPECT_EQ(faultOf(logLine), "first");
  EXPECT_EQ(faultOf(logLine), "second");
  EXPECT_EQ(faultOf(logLine), "(none)");
  EXPECT_EQ(faultOf([] { sonalith_calloc(1, 1); }), "another");
}

TEST_F(Calls, APlanForCallZeroIsRefused) {
  EXPECT_THROW(host.failCall(Operation::Log, 0), std::invalid_argument);
}

TEST_F(Calls, AFaultIsAStandardException) {
  host.failCall(Operation::Log, 1, "a text");
  EXPECT_THROW(logLine(), std::runtime_error);
}

TEST_F(Calls, AWaitEndsAtOnceIfItsConditionHolds) {
  EXPECT_TRUE(host.waitUntil([] { return true; }, std::chrono::seconds(0)));
}

TEST_F(Calls, AWaitFailsAtItsLimit) {
  int asked = 0;
  const auto never = [&] {
    ++asked;
    return false;
  };
  EXPECT_FALSE(host.waitUntil(never, std::chrono::seconds(0)));
  EXPECT_GE(asked, 1);
}

TEST_F(Calls, AWaitChecksAgainAfterEachCallOnAnotherThread) {
  std::thread calling([] {
    for (int i = 0; i < 100; ++i) logLine();
  });
  EXPECT_TRUE(host.waitUntil([&] { return host.log().size() == 100; }));
  calling.join();
}

TEST_F(Calls, TheHookRunsFirstAndOnTheCallingThread) {
  Texts journalThen;
  std::thread::id thread;
  host.setHook(Operation::Log, [&] {
    journalThen = host.journal();
    thread = std::this_thread::get_id();
  });
  sonalith_free(sonalith_calloc(1, 8));
  logLine();
  EXPECT_EQ(journalThen, (Texts{"calloc 1x8 #1", "free #1"}));
  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_EQ(host.journal(), (Texts{"calloc 1x8 #1", "free #1", "log 1 text"}));
}

TEST_F(Calls, ABlockingHookHoldsItsCallerOnly) {
  std::promise<void> held;
  std::promise<void> goOn;
  host.setHook(Operation::Log, [&] {
    held.set_value();
    goOn.get_future().wait();
  });
  std::thread logging(logLine);
  held.get_future().wait();
  sonalith_calloc(1, 8);
  EXPECT_EQ(host.journal(), Texts{"calloc 1x8 #1"});
  goOn.set_value();
  logging.join();
  EXPECT_EQ(host.journal(), (Texts{"calloc 1x8 #1", "log 1 text"}));
}

TEST_F(Calls, ARemovedHookIsNotCalled) {
  int calls = 0;
  host.setHook(Operation::Log, [&] { ++calls; });
  logLine();
  host.setHook(Operation::Log, {});
  logLine();
  EXPECT_EQ(calls, 1);
}

TEST_F(Calls, OperationsActOnTheHostOfTheProcess) {
  EXPECT_EQ(&Host::current(), &host);
}

TEST_F(Calls, ASecondHostIsRefused) {
  EXPECT_THROW(Host(), std::logic_error);
  EXPECT_EQ(&Host::current(), &host);
}

TEST_F(Calls, TheHostReturnsTheChoicesThatWereSet) {
  standin::KeyValueList changes;
  host.setChoices({.strncpyTerminates = false,
                   .iterationStopsAtOne = true,
                   .missedTextIsNull = true,
                   .registrationFails = true,
                   .changesDuringRegistration = &changes,
                   .keepRecords = false});
  const auto choices = host.choices();
  EXPECT_FALSE(choices.strncpyTerminates);
  EXPECT_TRUE(choices.iterationStopsAtOne);
  EXPECT_TRUE(choices.missedTextIsNull);
  EXPECT_TRUE(choices.registrationFails);
  EXPECT_EQ(choices.changesDuringRegistration, &changes);
  EXPECT_FALSE(choices.keepRecords);
}

TEST(WithoutAHost, CallsThrow) {
  EXPECT_THROW(Host::current(), std::logic_error);
  EXPECT_THROW(sonalith_calloc(1, 1), std::logic_error);
}

TEST(WithoutAHost, AnotherHostMayBeCreated) {
  { const Host first({.keepRecords = false}); }
  const Host second;
  EXPECT_EQ(&Host::current(), &second);
  EXPECT_TRUE(second.choices().keepRecords);
}
