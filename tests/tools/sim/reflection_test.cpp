// What reflection answers, message by message. tests/proof/peers/reflection.test.js uses it as a
// client does.
#include "tools/sim/Reflection.h"

#include <gtest/gtest.h>

#include "descriptors.pb.h"
#include "grpc/reflection/v1/reflection.pb.h"

namespace {

using grpc::reflection::v1::ServerReflectionRequest;
using grpc::reflection::v1::ServerReflectionResponse;

ServerReflectionResponse answerTo(const ServerReflectionRequest& request) {
  ServerReflectionResponse response;
  const auto bytes = sim::Reflection({"a.Service"}).answer(request.SerializeAsString());
  if (!bytes || !response.ParseFromString(*bytes)) throw std::runtime_error("no answer");
  return response;
}

std::vector<std::string> filesWith(const std::string& symbol) {
  ServerReflectionRequest request;
  request.set_file_containing_symbol(symbol);
  const auto response = answerTo(request);
  std::vector<std::string> names;
  for (const auto& bytes : response.file_descriptor_response().file_descriptor_proto()) {
    sim::descriptors::File file;
    EXPECT_TRUE(file.ParseFromString(bytes));
    names.push_back(file.name());
  }
  return names;
}

using Names = std::vector<std::string>;

// A client may take the first answer as complete.
TEST(Reflection, SendsAFileWithAllThatItImports) {
  EXPECT_EQ(filesWith("sonalith.grpc.Meters"), (Names{"meters.proto", "common.proto"}));
  EXPECT_EQ(filesWith("sonalith.grpcengine.Engine.SetParams"),
            (Names{"engine.proto", "common.proto"}));
  EXPECT_EQ(filesWith("sonalith.common.Empty"), Names{"common.proto"});
}

TEST(Reflection, RepeatsTheRequestInItsAnswer) {
  ServerReflectionRequest request;
  request.set_host("example");
  request.set_list_services("*");
  const auto response = answerTo(request);
  EXPECT_EQ(response.valid_host(), "example");
  EXPECT_EQ(response.original_request().list_services(), "*");
  EXPECT_EQ(response.list_services_response().service(0).name(), "a.Service");
}

TEST(Reflection, HasNoExtensions) {
  ServerReflectionRequest request;
  request.set_all_extension_numbers_of_type("sonalith.grpc.Meter");
  const auto numbers = answerTo(request).all_extension_numbers_response();
  EXPECT_EQ(numbers.base_type_name(), "sonalith.grpc.Meter");
  EXPECT_EQ(numbers.extension_number_size(), 0);
  request.mutable_file_containing_extension()->set_containing_type("sonalith.grpc.Meter");
  EXPECT_EQ(answerTo(request).error_response().error_code(), grpc::StatusCode::NOT_FOUND);
}

TEST(Reflection, RefusesARequestForNothing) {
  EXPECT_EQ(answerTo({}).error_response().error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(sim::Reflection({}).answer("\xff"), std::nullopt);
}

}  // namespace
