// The vocabulary of proofs about hosts with habits of their own, such as a changed locale or a
// limit on descriptors. The test's own process is the host: it loads the built module and talks
// gRPC to servers in another process.
//
// Threads: one.
#pragma once

#include <cstdlib>
#include <functional>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/proof/Proof.h"

namespace proof {

constexpr auto hostsPart = "Hosts of every kind";

class HostTest : public FlowTest {
 protected:
  static constexpr auto entries =
      "[MetersInt]\nMeter=Key=level Type=fast CustomKey=level\n"
      "[EngineInt]\nParam=Key=delay CustomKey=delay\n";

  // Expects a new value to arrive on the fast stream and a message on the slow one, and a parameter
  // change to arrive at the engine service.
  void expectFlow() {
    const int value = ++values_;
    deliverFast(Batch().addInt("level", value));
    deliverSlow(Batch());
    EXPECT_EQ(fast("level"), standin::SlotValue(value));
    change(value);
    EXPECT_EQ(received(), requestOf(value));
    servers.forgetEvents();
  }

  void change(int value) {
    standin::KeyValueList changes;
    changes.addInt("gateway.delay", value);
    notify(changes);
  }
  static std::string requestOf(int value) { return Request().addInt("delay", value).hex(); }

  // Stops while both streams are open, and expects the stop to cancel them.
  void stopFlowing() {
    instance.stop();
    EXPECT_TRUE(servers.waitEvent("closed fast ").ends_with(" cancelled"));
    EXPECT_TRUE(servers.waitEvent("closed slow ").ends_with(" cancelled"));
    expectNothingLeft();
  }

  // Does `work` in a process of its own, for what can't be undone or must come before any use of
  // gRPC. That process makes a fixture of its own. Returns its wait status: it exits with the
  // result of `work`, or with `failed` if that has reported a failure.
  static constexpr int failed = 99;
  // Returned in a process whose own work comes later in the test.
  static constexpr int ofAnotherProcess = -1;
  static int statusOfAProcessThatDoes(const std::function<int()>& work) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    int status = ofAnotherProcess;
    const auto keep = [&](int code) {
      status = code;
      return true;
    };
    EXPECT_EXIT(
        {
          const int result = work();
          std::exit(HasFailure() ? failed : result);
        },
        keep, "");
    return status;
  }
  static void expectOwnProcess(const std::function<void()>& work) {
    const int status = statusOfAProcessThatDoes([&] {
      work();
      return 0;
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  }

 private:
  int values_ = 0;
};

}  // namespace proof
