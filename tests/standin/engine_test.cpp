// Engine changes: which callbacks are called, and that a removed callback is not.
#include "standin/Engine.h"

#include <atomic>
#include <future>
#include <latch>
#include <thread>

#include "standin/KeyValueList.h"
#include "tests/standin/with_host.h"

using standin::Choices;
using standin::Engine;
using standin::KeyValueList;

namespace {

// The lists that a callback was called with.
struct Received {
  std::vector<sonalith_keyValueList*> changes;

  static void note(sonalith_keyValueList* list, void* user) {
    static_cast<Received*>(user)->changes.push_back(list);
  }
};

class EngineChanges : public WithHost {
 protected:
  void* add(sonalith_engineChangesCallback callback, void* user) {
    return sonalith_engine_notify_changes_addCallback(&engine, callback, user);
  }
  void* add(Received& received) { return add(&Received::note, &received); }
  void remove(void* handle) { sonalith_engine_notify_changes_rmCallback(&engine, handle); }

  Engine engine;
  KeyValueList changes;
};

using Changes = std::vector<sonalith_keyValueList*>;

}  // namespace

TEST_F(EngineChanges, EveryCallbackGetsThemWithItsUserArgument) {
  Received first;
  Received second;
  EXPECT_NE(add(first), nullptr);
  EXPECT_NE(add(second), nullptr);
  engine.notify(&changes);
  engine.notify(nullptr);
  EXPECT_EQ(first.changes, (Changes{&changes, nullptr}));
  EXPECT_EQ(second.changes, (Changes{&changes, nullptr}));
}

TEST_F(EngineChanges, CallbacksRunOnTheThreadThatNotifies) {
  std::thread::id thread;
  add([](sonalith_keyValueList*,
         void* user) { *static_cast<std::thread::id*>(user) = std::this_thread::get_id(); },
      &thread);
  std::thread notifying([&] { engine.notify(&changes); });
  const auto expected = notifying.get_id();
  notifying.join();
  EXPECT_EQ(thread, expected);
}

TEST_F(EngineChanges, ARemovedCallbackIsNotCalled) {
  Received removed;
  Received kept;
  void* handle = add(removed);
  add(kept);
  remove(handle);
  engine.notify(&changes);
  EXPECT_EQ(removed.changes, Changes{});
  EXPECT_EQ(kept.changes, Changes{&changes});
  EXPECT_EQ(engine.callbackCount(), 1U);
}

TEST_F(EngineChanges, AnEngineCallsOnlyItsOwnCallbacks) {
  Engine another;
  Received received;
  add(received);
  another.notify(&changes);
  EXPECT_EQ(received.changes, Changes{});
}

TEST_F(EngineChanges, NotificationsFromTwoThreadsMayOverlap) {
  std::latch both(2);
  add([](sonalith_keyValueList*, void* user) { static_cast<std::latch*>(user)->arrive_and_wait(); },
      &both);
  std::thread another([&] { engine.notify(&changes); });
  engine.notify(&changes);
  another.join();
  EXPECT_TRUE(both.try_wait());
}

TEST_F(EngineChanges, ACallbackIsOutstandingUntilItsRemoval) {
  Received received;
  void* first = add(received);
  void* second = add(received);
  EXPECT_EQ(host.outstanding().callbacks, 2U);
  remove(first);
  EXPECT_EQ(host.outstanding().callbacks, 1U);
  remove(second);
  EXPECT_EQ(host.outstanding().callbacks, 0U);
  EXPECT_EQ(host.journal(), (Texts{"addCallback", "addCallback", "rmCallback", "rmCallback"}));
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(EngineChanges, RemovingACallbackTwiceIsAViolation) {
  Received received;
  void* handle = add(received);
  remove(handle);
  EXPECT_NE(add(received), handle);
  remove(handle);
  EXPECT_EQ(host.violations(), Texts{"sonalith_engine_notify_changes_rmCallback: the callback is "
                                     "not registered"});
  EXPECT_EQ(host.outstanding().callbacks, 1U);
}

TEST_F(EngineChanges, NullArgumentsAreViolations) {
  Received received;
  EXPECT_EQ(sonalith_engine_notify_changes_addCallback(nullptr, &Received::note, &received),
            nullptr);
  EXPECT_EQ(add(nullptr, &received), nullptr);
  sonalith_engine_notify_changes_rmCallback(nullptr, &received);
  remove(nullptr);
  EXPECT_EQ(host.violations(), (Texts{"sonalith_engine_notify_changes_addCallback: null argument",
                                      "sonalith_engine_notify_changes_addCallback: null argument",
                                      "sonalith_engine_notify_changes_rmCallback: null argument",
                                      "sonalith_engine_notify_changes_rmCallback: null argument"}));
}

TEST_F(EngineChanges, ARegistrationFailsIfTheChoicesSaySo) {
  host.setChoices({.registrationFails = true, .changesDuringRegistration = &changes});
  Received received;
  EXPECT_EQ(add(received), nullptr);
  engine.notify(&changes);
  EXPECT_EQ(received.changes, Changes{});
  EXPECT_EQ(engine.callbackCount(), 0U);
  EXPECT_EQ(host.outstanding().callbacks, 0U);
  EXPECT_EQ(host.journal(), Texts{"addCallback"});
}

TEST_F(EngineChanges, ChangesComeDuringARegistrationIfTheChoicesSaySo) {
  host.setChoices({.changesDuringRegistration = &changes});
  struct Registering {
    Engine& engine;
    std::thread::id thread;
    std::size_t registered = 0;
    Changes received;
  } registering{engine, {}, 0, {}};
  const auto note = [](sonalith_keyValueList* list, void* user) {
    auto& seen = *static_cast<Registering*>(user);
    seen.thread = std::this_thread::get_id();
    seen.registered = seen.engine.callbackCount();
    seen.received.push_back(list);
  };
  EXPECT_NE(add(note, &registering), nullptr);
  EXPECT_EQ(registering.received, Changes{&changes});
  EXPECT_EQ(registering.registered, 1U);
  EXPECT_EQ(registering.thread, std::this_thread::get_id());
}

TEST_F(EngineChanges, ChangesDuringARegistrationReachNoOtherCallback) {
  Received earlier;
  Received late;
  add(earlier);
  host.setChoices({.changesDuringRegistration = &changes});
  add(late);
  EXPECT_EQ(earlier.changes, Changes{});
  EXPECT_EQ(late.changes, Changes{&changes});
}

TEST_F(EngineChanges, RemovalWaitsForACallInProgress) {
  struct Running {
    Engine& engine;
    std::promise<void> entered;
    std::atomic<bool> ended = false;
  } running{engine, {}, false};
  void* handle = add(
      [](sonalith_keyValueList*, void* user) {
        auto& call = *static_cast<Running*>(user);
        call.entered.set_value();
        // The removal has begun. This gives it every chance to return too early.
        while (call.engine.callbackCount() != 0) std::this_thread::yield();
        for (int i = 0; i < 10000; ++i) std::this_thread::yield();
        call.ended = true;
      },
      &running);
  std::thread notifying([&] { engine.notify(&changes); });
  running.entered.get_future().wait();
  remove(handle);
  EXPECT_TRUE(running.ended);
  notifying.join();
}

TEST_F(EngineChanges, RemovalAlsoTakesEffectInANotificationInProgress) {
  struct Blocking {
    std::promise<void> entered;
    std::promise<void> removed;
  } blocking;
  Received received;
  add(
      [](sonalith_keyValueList*, void* user) {
        auto& call = *static_cast<Blocking*>(user);
        call.entered.set_value();
        call.removed.get_future().wait();
      },
      &blocking);
  void* next = add(received);
  std::thread notifying([&] { engine.notify(&changes); });
  blocking.entered.get_future().wait();
  remove(next);
  blocking.removed.set_value();
  notifying.join();
  EXPECT_EQ(received.changes, Changes{});
}

TEST_F(EngineChanges, RemovalDoesNotWaitForACallThatThrew) {
  void* handle =
      add([](sonalith_keyValueList*, void*) { throw std::runtime_error("from the callback"); },
          nullptr);
  std::thread notifying([&] { EXPECT_THROW(engine.notify(&changes), std::runtime_error); });
  notifying.join();
  remove(handle);
  EXPECT_EQ(engine.callbackCount(), 0U);
}

TEST_F(EngineChanges, ACallbackMayRemoveItself) {
  struct Removing {
    Engine& engine;
    void* handle = nullptr;
    int calls = 0;
  } removing{engine};
  removing.handle = add(
      [](sonalith_keyValueList*, void* user) {
        auto& call = *static_cast<Removing*>(user);
        ++call.calls;
        sonalith_engine_notify_changes_rmCallback(&call.engine, call.handle);
      },
      &removing);
  engine.notify(&changes);
  engine.notify(&changes);
  EXPECT_EQ(removing.calls, 1);
}

namespace {

// What a callback uses until it has been removed.
struct Used {
  std::atomic<int> calls = 0;
  std::atomic<int> callsWhenOver = 0;
  std::atomic<bool> over = false;

  static void call(sonalith_keyValueList*, void* user) {
    auto& used = *static_cast<Used*>(user);
    ++used.calls;
    std::this_thread::yield();
    if (used.over) ++used.callsWhenOver;
  }
};

}  // namespace

TEST_F(EngineChanges, NoCallRunsAfterTheRemovalWhileThreadsNotify) {
  std::atomic<bool> stop = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!stop) engine.notify(&changes);
    });
  }
  std::vector<Used> rounds(300);
  for (auto& used : rounds) {
    void* handle = add(&Used::call, &used);
    while (used.calls == 0) std::this_thread::yield();
    remove(handle);
    used.over = true;
  }
  stop = true;
  for (auto& thread : threads) thread.join();
  int late = 0;
  for (const auto& used : rounds) late += used.callsWhenOver;
  EXPECT_EQ(late, 0);
}
