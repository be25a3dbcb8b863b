// Names of gRPC's statuses, and the text of those that have none.
#include <gtest/gtest.h>

#include "tools/common/StatusName.h"

namespace tools {
namespace {

TEST(StatusName, EveryNameIsThatOfItsCode) {
  for (const std::string& name : statusNames()) {
    const auto code = statusCalled(name);
    ASSERT_TRUE(code) << name;
    EXPECT_EQ(nameOf(*code), name);
    EXPECT_EQ(statusText(*code), name);
  }
}

TEST(StatusName, AnUnknownCodeIsItsNumber) {
  const auto unknown = static_cast<grpc::StatusCode>(99);
  EXPECT_FALSE(nameOf(unknown));
  EXPECT_EQ(statusText(unknown), "status 99");
}

}  // namespace
}  // namespace tools
