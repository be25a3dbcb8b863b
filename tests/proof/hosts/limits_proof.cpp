// Hosts that have reached their limit of descriptors or threads: at the start, at a notification,
// and when a stream comes back.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <thread>

#include "tests/proof/hosts/HostTest.h"
#include "tests/proof/hosts/Limits.h"

namespace proof {
namespace {

using MakeLimit = Limit (*)(std::size_t room);

// How a start with room for few descriptors or threads ends: the exit code of its process.
enum StartEnd { Flowed = 0, Refused = 2, NotPermitted = 3 };

// More than a start needs.
constexpr std::size_t ampleRoom = 12;

std::vector<std::size_t> roomsToTry(std::size_t few) {
  if (!isFull()) return {few, ampleRoom};
  std::vector<std::size_t> rooms;
  for (std::size_t room = 0; room <= ampleRoom; ++room) rooms.push_back(room);
  return rooms;
}

class HostAtItsLimit : public HostTest {
 protected:
  // Limits the room during the start only: once the limit is lifted, values flow. After a refusal,
  // they flow after another start.
  StartEnd startWithRoom(MakeLimit limited, std::size_t room) {
    const std::string path = files.write("gateway.conf", common() + entries);
    exitIfGrpcFails();
    int result = 0;
    {
      const Limit limit = limited(room);
      result = instance.start(path);
    }
    alarm(0);
    if (result != 0) {
      expectRefusal();
      EXPECT_EQ(instance.start(path), 0);
    }
    servers.waitEvent("open fast ");
    servers.waitEvent("open slow ");
    expectFlow();
    stopFlowing();
    return result == 0 ? Flowed : Refused;
  }

  // A refused start leaves nothing. A start that failed with an exception leaves what it had built,
  // and a stop removes it.
  void expectRefusal() {
    const auto hasLogged = [lines = log()](const char* line) {
      return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    const bool isRefused = hasLogged("log 4 gRPC gateway module error starting");
    const bool hasThrown =
        hasLogged("log 3 C++ exception in grpc gateway: Resource temporarily unavailable");
    EXPECT_NE(isRefused, hasThrown);
    if (hasThrown) instance.stop();
    EXPECT_EQ(instance.record().privateData, nullptr);
    expectNothingLeft();
  }

  // Each in a process of its own, since gRPC starts its threads at the first start of a process.
  std::map<int, std::uint64_t> endsOfStarts(const std::vector<std::size_t>& rooms,
                                            const std::function<int(std::size_t)>& start) {
    std::map<int, std::uint64_t> ends;
    for (const std::size_t room : rooms) {
      const int status = statusOfAProcessThatDoes([&] { return start(room); });
      if (status == ofAnotherProcess) continue;
      EXPECT_TRUE(WIFEXITED(status)) << "room for " << room << ": wait status " << status;
      const int end = WEXITSTATUS(status);
      EXPECT_TRUE(end == Flowed || end == Refused || end == NotPermitted || end == GrpcAborted ||
                  end == GrpcWaits)
          << "room for " << room << ": exit code " << end;
      if (room == ampleRoom) {
        EXPECT_TRUE(end == Flowed || end == NotPermitted);
      }
      ++ends[end];
    }
    return ends;
  }

  static void reportStarts(const char* of, std::map<int, std::uint64_t> ends,
                           const std::vector<std::size_t>& rooms) {
    report({hostsPart,
            std::string("one at its limit of ") + of + ", at the start",
            "",
            {{std::string("starts with room for 0 to 12 ") + of, rooms.size()}},
            "unless gRPC itself fails, a start either goes on, and flows once there is room, or is "
            "refused and leaves nothing, and the next one flows",
            {{"went on", ends[Flowed]},
             {"refused", ends[Refused]},
             {"ended by gRPC, which aborts", ends[GrpcAborted]},
             {"held by gRPC, which waits for threads that it could not start", ends[GrpcWaits]}}});
  }

  // Without root, a user's other processes count, too.
  static void reportNotPermitted(const char* when) {
    report({hostsPart,
            std::string("one at its limit of threads, ") + when,
            "not tried",
            {{"hosts", 0}},
            "only root can limit its own threads"});
  }
};

TEST_F(HostAtItsLimit, OfDescriptorsStartsOrIsRefused) {
  const auto rooms = roomsToTry(0);
  auto ends = endsOfStarts(
      rooms, [&](std::size_t room) { return startWithRoom(Limit::onDescriptors, room); });
  EXPECT_GE(ends[Refused], 1u);
  reportStarts("descriptors", ends, rooms);
}

TEST_F(HostAtItsLimit, OfThreadsStartsOrIsRefused) {
  // With Debian's gRPC, three threads are gRPC's and the next is the module's.
  const auto rooms = roomsToTry(3);
  auto ends = endsOfStarts(rooms, [&](std::size_t room) -> int {
    return countOwnThreads() ? startWithRoom(Limit::onThreads, room) : NotPermitted;
  });
  if (ends.contains(NotPermitted)) return reportNotPermitted("at the start");
  EXPECT_GE(ends[Refused], 1u);
  reportStarts("threads", ends, rooms);
}

// The engine's connection is first made for a notification.
TEST_F(HostAtItsLimit, OfDescriptorsLosesAChangeAndSendsTheNext) {
  const std::uint64_t rounds = scaled(1, 20);
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    startFlowing(entries);
    host.clearRecords();
    const RefusedSocket refusal;
    {
      const Limit limit = Limit::onDescriptors(0);
      change(0);
      refusal.await();
      deliverFast(Batch().addInt("level", 7));
    }
    // gRPC tries to connect again after a second, and fails all calls until then.
    while (!servers.hasEvent("SetParams ")) {
      change(1);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(received(), requestOf(1));
    EXPECT_EQ(log(), Journal{});
    stopFlowing();
    servers.forgetEvents();
  }
  report({hostsPart,
          "one at its limit of descriptors, at a notification",
          "",
          {{"changes without a descriptor for their connection", rounds}},
          "the change is lost without a word, meters continue, later changes are sent"});
}

// The first attempt to connect again finds no descriptor. Only scripts/prove runs this, because two
// retries take ten seconds.
TEST_F(HostAtItsLimit, OfDescriptorsGetsItsStreamsBackOnceThereIsRoom) {
  if (!isFull()) return;
  auto first = std::make_unique<SimProcess>();
  ASSERT_EQ(start(flowConfiguration(first->metersTarget(), first->engineTarget()) + entries), 0);
  first->waitEvent("open fast ");
  first->waitEvent("open slow ");
  host.clearRecords();
  const RefusedSocket refusal;
  {
    const Limit limit = Limit::onDescriptors(0);
    first->kill();
    refusal.await();
  }
  SimProcess second(first->metersTarget(), first->engineTarget());
  second.waitEvent("open fast ");
  second.waitEvent("open slow ");
  second.command("send fast " + Batch().addString("last.one", "back").hex());
  EXPECT_TRUE(host.waitUntil([&] { return fast("last_one") == standin::SlotValue("back"); }));
  EXPECT_EQ(log(), Journal{});
  instance.stop();
  expectNothingLeft();
  report({hostsPart,
          "one at its limit of descriptors, when streams come back",
          "",
          {{"streams without a descriptor for their connection", 2}},
          "nothing is logged, and the streams are opened once there is room"});
}

TEST_F(HostAtItsLimit, OfThreadsFlowsRetriesAndStops) {
  const std::uint64_t retries = scaled(0, 5);
  const int status = statusOfAProcessThatDoes([&]() -> int {
    startFlowing(entries);
    expectFlow();
    if (!countOwnThreads()) return NotPermitted;
    const Limit limit = Limit::onThreads(0);
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
    expectFlow();
    for (std::uint64_t retry = 0; retry < retries; ++retry) {
      servers.command("end fast OK");
      servers.command("end slow OK");
      servers.waitEvent("open fast ");
      servers.waitEvent("open slow ");
      expectFlow();
    }
    stopFlowing();
    return Flowed;
  });
  ASSERT_TRUE(WIFEXITED(status)) << status;
  if (WEXITSTATUS(status) == NotPermitted) return reportNotPermitted("once it has started");
  EXPECT_EQ(WEXITSTATUS(status), Flowed);
  report({hostsPart,
          "one at its limit of threads, once it has started",
          "",
          {{"hosts", 1}, {"retries of both streams", retries}},
          "values arrive, changes are sent, streams come back, and a stop ends"});
}

}  // namespace
}  // namespace proof
