// A start that gets no memory for its own objects.
#include <cstring>

#include "tests/module/grpc-gateway/GatewayTest.h"
#include "tests/support/AllocationFault.h"

namespace {

class StartWithoutMemory : public GatewayTest {
 protected:
  // Starts, and has the module's nth allocation of its own fail.
  int startFailing(int nth) {
    standin::KeyValueList params;
    params.addString("gatewayConfigPath", files.path("gateway.conf").c_str());
    const AllocationFault fault(nth);
    return instance.start(&params);
  }
};

TEST_F(StartWithoutMemory, ForThePrivateStateLeavesTheRecordUntouched) {
  const sonalith_module before = instance.record();
  EXPECT_EQ(startFailing(1), -1);
  EXPECT_EQ(log().back(), "log 3 C++ exception in grpc gateway: std::bad_alloc");
  EXPECT_EQ(std::memcmp(&instance.record(), &before, sizeof(before)), 0);
  expectNothingLeft();
}

TEST_F(StartWithoutMemory, ForTheManagerLeavesThePrivateState) {
  EXPECT_EQ(startFailing(2), -1);
  EXPECT_EQ(log().back(), "log 3 C++ exception in grpc gateway: std::bad_alloc");
  EXPECT_NE(instance.record().privateData, nullptr);
  instance.stop();
  expectNothingLeft();
}

}  // namespace
